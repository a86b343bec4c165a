// OrbEvpn::OrbBrIdList: the bridge ids for which this system exports state.
//
// One collection, brIdList (id 258), keyed by Bridging::BridgeId. Presence
// is the meaning; the value stored is always true by convention of its only
// writer (the export root), which also checks presence before it writes,
// because brIdListIs notifies on every call. Read by the EVPN agent in
// another process, so the collection lives in a Lumen shared-memory table
// and outlives the process that writes it; the next writer takes the
// content over and reconciles it at start-up.
//
// Two roles, fixed when made (as for the exchange tables):
//  - Writer (OrbBrIdListIs, the directory hook): entries live in process
//    memory until the list gets a parent; handleParent then attaches it at
//    "<parent full name>/<name>", keeping what an earlier writer left there
//    and merging in what was written meanwhile. A list attaches once;
//    losing its parent detaches it (the content stays).
//  - Reader (OrbBrIdListReaderIs): mounted on the list another process
//    writes. Look-ups, count and iteration answer from what the last
//    dispatch() delivered (the mount's state before the first); writes are
//    refused. The host program polls fd() and calls dispatch(), which
//    notifies brIdList once per changed id.
//
// Notification: brIdListIs notifies on every call; brIdListDel of an absent
// id notifies nothing; brIdListDelAll removes one id at a time in bridge-id
// order, one notification each. Iteration is in the table's slot order and
// tolerates removal of the current id.
//
// Threading: the notification thread only.
#pragma once

#include "platform/lumen/Table.h"
#include "platform/mox/Entity.h"
#include "platform/values/BridgeId.h"

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace OrbEvpn {

// One record of the shared list. A cross-process layout: do not reorder.
struct BrIdListRecord {
   static constexpr const char* lumenTypeName = "OrbEvpn::OrbBrIdList.brIdList";
   Bridging::BridgeId brId;
   bool value = false;

   BrIdListRecord() = default;
   explicit BrIdListRecord( Bridging::BridgeId b, bool v = false ) : brId( b ), value( v ) {}
   const Bridging::BridgeId& key() const { return brId; }
};

enum class BrIdListRole : uint8_t { writer, reader };

class OrbBrIdList : public Mox::Entity {
   MOX_ALLOC_TRACKED( OrbBrIdList )

 public:
   using MoxBase = Mox::Entity;
   static constexpr const char* moxTypeName = "OrbEvpn::OrbBrIdList";
   static void moxDescribe( Mox::TypeBuilder< OrbBrIdList >& b );

   explicit OrbBrIdList( const Mox::String& name, BrIdListRole role = BrIdListRole::writer );
   ~OrbBrIdList() override;
   // Writer role, activated.
   static Mox::Ptr< OrbBrIdList > OrbBrIdListIs( const Mox::String& name );
   // Reader role on the list at `path`, activated. A list that does not
   // exist yet is waited for.
   static Mox::Ptr< OrbBrIdList > OrbBrIdListReaderIs( const Mox::String& name,
                                                       const std::string& path );

   BrIdListRole role() const { return reader_ ? BrIdListRole::reader : BrIdListRole::writer; }
   // The shared list's path ("" until attached or mounted).
   const std::string& path() const { return path_; }

   // The value stored for `brId`; false when absent.
   bool brIdList( Bridging::BridgeId brId ) const;
   bool brIdListContains( Bridging::BridgeId brId ) const;
   size_t brIdListSize() const;
   void brIdListIs( Bridging::BridgeId brId, bool value );
   void brIdListDel( Bridging::BridgeId brId );
   void brIdListDelAll();

   // A cursor over the listed ids; removing the current id is harmless.
   class IteratorConst {
    public:
      explicit operator bool() const { return cur_.has_value(); }
      bool done() const { return !cur_; }
      Bridging::BridgeId key() const { return cur_->first.brId; }
      bool value() const { return cur_->first.value; }
      IteratorConst& operator++() {
         cur_ = list_->next( cur_->second );
         return *this;
      }

    private:
      friend class OrbBrIdList;
      explicit IteratorConst( const OrbBrIdList* l ) : list_( l ), cur_( l->next( {} ) ) {}
      const OrbBrIdList* list_;
      std::optional< std::pair< BrIdListRecord, Lumen::Hint > > cur_;
   };
   IteratorConst brIdListIterConst() const { return IteratorConst( this ); }

   // A read-only view in the shape of a framework collection, as callers of
   // the list knew it when it lived in process memory.
   class View {
    public:
      size_t size() const { return list_->brIdListSize(); }
      bool empty() const { return size() == 0; }
      bool contains( Bridging::BridgeId b ) const { return list_->brIdListContains( b ); }
      bool get( Bridging::BridgeId b ) const { return list_->brIdList( b ); }
      IteratorConst iterator() const { return list_->brIdListIterConst(); }
      // A copy of the content, in bridge-id order.
      std::map< Bridging::BridgeId, bool > map() const {
         std::map< Bridging::BridgeId, bool > m;
         for ( auto it = iterator(); it; ++it ) {
            m.emplace( it.key(), it.value() );
         }
         return m;
      }

    private:
      friend class OrbBrIdList;
      explicit View( const OrbBrIdList* l ) : list_( l ) {}
      const OrbBrIdList* list_;
   };
   View brIdListColl() const { return View( this ); }

   // ---- reader role: the host program's event loop
   int fd() const { return reader_ ? reader_->fd() : -1; }
   void dispatch() {
      if ( reader_ ) {
         reader_->dispatch();
      }
   }
   Lumen::MountStatus mountStatus() const;

   void handleParent( const Mox::Ptr< Mox::Entity >& parent ) override;
   const Mox::Type* fwkType() const override;

 private:
   std::optional< std::pair< BrIdListRecord, Lumen::Hint > > next( Lumen::Hint from ) const;
   void refuseIfReader( const char* what ) const;
   void notifyId( const Bridging::BridgeId& brId ) const;

   std::unique_ptr< Lumen::Writer< BrIdListRecord > > writer_;   // writer role
   std::unique_ptr< Lumen::Reader< BrIdListRecord > > reader_;   // reader role
   std::string path_;
   bool initialized_ = false;
};

}  // namespace OrbEvpn
