// VxlanController::MacVtepTables<Derived>: the three per-MAC collections
// that a VNI's forwarding status and a VNI's EVPN-learnt status share.
//
//    macVtepTable           MAC -> MacVtepV2 (absent MAC: the default entry)
//    macVtepMultiPathTable  MAC -> MacVtepMultiPathV2, created on demand
//    macVtepFloodListTable  MAC -> MacVtepFloodListV2, created on demand
//
// Both statuses are entities that derive from this base (CRTP), so the
// collections, their setters and their generic-interface binding are
// written once; each derived type places describeMacVtepTables() where the
// three attributes belong in its own id order. Attribute ids are those of
// the derived type.
//
// Notification: every change notifies the collection's id with a pointer
// to the MAC. macVtepTableIs notifies on every call, changed or not; the
// create-or-get setters notify only when they create; deleting an absent
// MAC notifies nothing. The status owns the child entities it files and is
// their parent while they are filed.
//
// Threading: the notification thread only.
#pragma once

#include "platform/model/MacVtepFloodListV2.h"
#include "platform/model/MacVtepMultiPathV2.h"
#include "platform/model/MacVtepV2.h"
#include "platform/model/internal/ChildTable.h"
#include "platform/mox/CollectionAttr.h"

namespace VxlanController {

template< class Derived >
class MacVtepTables : public Mox::Entity {
 public:
   using MacVtepColl = Mox::Collection< Wire::EthAddr, MacVtepV2 >;
   using MultiPathColl = Mox::Collection< Wire::EthAddr, Mox::Ptr< MacVtepMultiPathV2 > >;
   using FloodListColl = Mox::Collection< Wire::EthAddr, Mox::Ptr< MacVtepFloodListV2 > >;

   // ---- macVtepTable
   // The entry of `mac`; the default entry when absent.
   MacVtepV2 macVtepTable( const Wire::EthAddr& mac ) const { return macVtepTable_.get( mac ); }
   size_t macVtepTableSize() const { return macVtepTable_.size(); }
   const MacVtepColl& macVtepTableColl() const { return macVtepTable_; }
   // Files `entry` under its own MAC, replacing what was there.
   void macVtepTableIs( const MacVtepV2& entry ) { macVtepTable_.set( entry.macAddr(), entry ); }
   void macVtepTableDel( const Wire::EthAddr& mac ) { macVtepTable_.del( mac ); }

   // ---- macVtepMultiPathTable
   // Null when absent.
   Mox::Ptr< MacVtepMultiPathV2 > macVtepMultiPathTable( const Wire::EthAddr& mac ) const {
      return macVtepMultiPathTable_.get( mac );
   }
   size_t macVtepMultiPathTableSize() const { return macVtepMultiPathTable_.size(); }
   const MultiPathColl& macVtepMultiPathTableColl() const { return macVtepMultiPathTable_; }
   Mox::Ptr< MacVtepMultiPathV2 > macVtepMultiPathTableIs( const Wire::EthAddr& mac ) {
      return Model::internal::childIs( *this, macVtepMultiPathTable_, mac, [ & ] {
         return MacVtepMultiPathV2::MacVtepMultiPathV2Is( mac );
      } );
   }
   void macVtepMultiPathTableDel( const Wire::EthAddr& mac ) {
      Model::internal::childDel( macVtepMultiPathTable_, mac );
   }

   // ---- macVtepFloodListTable
   // Null when absent.
   Mox::Ptr< MacVtepFloodListV2 > macVtepFloodListTable( const Wire::EthAddr& mac ) const {
      return macVtepFloodListTable_.get( mac );
   }
   size_t macVtepFloodListTableSize() const { return macVtepFloodListTable_.size(); }
   const FloodListColl& macVtepFloodListTableColl() const { return macVtepFloodListTable_; }
   Mox::Ptr< MacVtepFloodListV2 > macVtepFloodListTableIs( const Wire::EthAddr& mac ) {
      return Model::internal::childIs( *this, macVtepFloodListTable_, mac, [ & ] {
         return MacVtepFloodListV2::MacVtepFloodListV2Is( mac );
      } );
   }
   void macVtepFloodListTableDel( const Wire::EthAddr& mac ) {
      Model::internal::childDel( macVtepFloodListTable_, mac );
   }

 protected:
   explicit MacVtepTables( const Mox::String& name )
         : Mox::Entity( name ),
           macVtepTable_( this, Model::internal::attrIdOf< Derived >( "macVtepTable" ) ),
           macVtepMultiPathTable_( this,
                                   Model::internal::attrIdOf< Derived >( "macVtepMultiPathTable" ) ),
           macVtepFloodListTable_( this,
                                   Model::internal::attrIdOf< Derived >( "macVtepFloodListTable" ) ) {}
   ~MacVtepTables() override {
      Model::internal::childrenOrphan( macVtepMultiPathTable_ );
      Model::internal::childrenOrphan( macVtepFloodListTable_ );
   }

   // Declares the three collections, in this order, at the builder's next ids.
   static void describeMacVtepTables( Mox::TypeBuilder< Derived >& b ) {
      using D = Derived;
      Mox::bindCollection(
         b, "macVtepTable", []( const D& d ) -> const MacVtepColl& { return d.macVtepTable_; },
         []( D& d, const Wire::EthAddr& mac, const MacVtepV2& entry ) {
            if ( entry.macAddr() != mac ) {
               MOX_THROW( Mox::Exception, "macVtepTable: key {} differs from the entry's macAddr {}",
                          mac, entry.macAddr() );
            }
            d.macVtepTableIs( entry );
         },
         []( D& d, const Wire::EthAddr& mac ) { d.macVtepTableDel( mac ); } );
      Mox::bindCollection(
         b, "macVtepMultiPathTable",
         []( const D& d ) -> const MultiPathColl& { return d.macVtepMultiPathTable_; },
         []( D& d, const Wire::EthAddr& mac, const Mox::Ptr< MacVtepMultiPathV2 >& child ) {
            Model::internal::childAdopt( d, d.macVtepMultiPathTable_, mac, child,
                                         "macVtepMultiPathTable" );
         },
         []( D& d, const Wire::EthAddr& mac ) { d.macVtepMultiPathTableDel( mac ); } );
      Mox::bindCollection(
         b, "macVtepFloodListTable",
         []( const D& d ) -> const FloodListColl& { return d.macVtepFloodListTable_; },
         []( D& d, const Wire::EthAddr& mac, const Mox::Ptr< MacVtepFloodListV2 >& child ) {
            Model::internal::childAdopt( d, d.macVtepFloodListTable_, mac, child,
                                         "macVtepFloodListTable" );
         },
         []( D& d, const Wire::EthAddr& mac ) { d.macVtepFloodListTableDel( mac ); } );
   }

 private:
   MacVtepColl macVtepTable_;
   MultiPathColl macVtepMultiPathTable_;
   FloodListColl macVtepFloodListTable_;
};

}  // namespace VxlanController
