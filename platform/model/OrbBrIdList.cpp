#include "platform/model/OrbBrIdList.h"

#include "platform/model/internal/ChildTable.h"
#include "platform/mox/CollectionAttr.h"

#include <algorithm>
#include <vector>

namespace OrbEvpn {

namespace {

Mox::AttributeId brIdListId() {
   static const Mox::AttributeId id = Model::internal::attrIdOf< OrbBrIdList >( "brIdList" );
   return id;
}

// Shared-table paths are absolute; an entity tree rooted at a named
// directory gives relative full names.
std::string lumenPath( const std::string& p ) {
   return !p.empty() && p.front() == '/' ? p : "/" + p;
}

class BrIdGenericIterator : public Mox::GenericIterator {
 public:
   explicit BrIdGenericIterator( OrbBrIdList& l ) : list_( &l ), it_( l.brIdListIterConst() ) {}
   bool iterNonnull() const override { return static_cast< bool >( it_ ); }
   void iterInc() override {
      if ( it_ ) {
         ++it_;
      }
   }
   void iterKey( Mox::GenericValue& r ) const override {
      if ( it_ ) {
         r.set( it_.key() );
      }
   }
   void iterObj( Mox::GenericValue& r ) const override {
      if ( it_ ) {
         r.set( it_.value() );
      }
   }
   void iterDel() override {
      if ( !it_ ) {
         return;
      }
      const Bridging::BridgeId k = it_.key();
      ++it_;
      list_->brIdListDel( k );
   }

 private:
   Mox::Ptr< OrbBrIdList > list_;
   OrbBrIdList::IteratorConst it_;
};

}  // namespace

void OrbBrIdList::moxDescribe( Mox::TypeBuilder< OrbBrIdList >& b ) {
   using C = OrbBrIdList;
   using K = Bridging::BridgeId;
   b.custom(
      "brIdList", Mox::AttrKind::collection,
      []( Mox::GenericValue& r, C& c, int op, const void* arg, const void* arg2 ) -> int {
         switch ( op ) {
          case Mox::genericOpGet:
            if ( !arg ) {
               return Mox::genericNotAllowed;
            }
            r.set( c.brIdList( *static_cast< const K* >( arg ) ) );
            return Mox::genericDone;
          case Mox::genericOpSet:
            if ( !arg || !arg2 ) {
               return Mox::genericNotAllowed;
            }
            c.brIdListIs( *static_cast< const K* >( arg ), *static_cast< const bool* >( arg2 ) );
            return Mox::genericDone;
          case Mox::genericOpDel:
            if ( !arg ) {
               return Mox::genericNotAllowed;
            }
            c.brIdListDel( *static_cast< const K* >( arg ) );
            return Mox::genericDone;
          case Mox::genericOpCount:
            r.set( c.brIdListSize() );
            return Mox::genericDone;
          case Mox::genericOpCountAlt:
            r.set( size_t( 0 ) );
            return Mox::genericDone;
          case Mox::genericOpExists:
            if ( !arg ) {
               return Mox::genericNotAllowed;
            }
            r.set( c.brIdListContains( *static_cast< const K* >( arg ) ) );
            return Mox::genericDone;
          default:
            return Mox::genericNotAllowed;
         }
      },
      []( C& c ) -> std::unique_ptr< Mox::GenericIterator > {
         return std::make_unique< BrIdGenericIterator >( c );
      } );
   b.creator( &C::OrbBrIdListIs );
}

OrbBrIdList::OrbBrIdList( const Mox::String& name, BrIdListRole role ) : Mox::Entity( name ) {
   if ( role == BrIdListRole::writer ) {
      writer_ = std::make_unique< Lumen::Writer< BrIdListRecord > >( BrIdListRecord() );
   }
}

OrbBrIdList::~OrbBrIdList() = default;

Mox::Ptr< OrbBrIdList > OrbBrIdList::OrbBrIdListIs( const Mox::String& name ) {
   Mox::Ptr< OrbBrIdList > p( new OrbBrIdList( name ) );
   p->hasNotificationActiveIs( true );
   return p;
}

Mox::Ptr< OrbBrIdList > OrbBrIdList::OrbBrIdListReaderIs( const Mox::String& name,
                                                          const std::string& path ) {
   Mox::Ptr< OrbBrIdList > p( new OrbBrIdList( name, BrIdListRole::reader ) );
   p->reader_ =
      std::make_unique< Lumen::Reader< BrIdListRecord > >( lumenPath( path ), BrIdListRecord() );
   OrbBrIdList* self = p.ptr();
   p->reader_->onKeyIs( [ self ]( const Bridging::BridgeId& k ) { self->notifyId( k ); } );
   p->path_ = path;
   p->hasNotificationActiveIs( true );
   return p;
}

bool OrbBrIdList::brIdList( Bridging::BridgeId brId ) const {
   return ( reader_ ? reader_->lookup( brId ) : writer_->lookup( brId ) ).value;
}

bool OrbBrIdList::brIdListContains( Bridging::BridgeId brId ) const {
   return reader_ ? reader_->contains( brId ) : writer_->contains( brId );
}

size_t OrbBrIdList::brIdListSize() const {
   return reader_ ? reader_->count() : writer_->count();
}

void OrbBrIdList::brIdListIs( Bridging::BridgeId brId, bool value ) {
   refuseIfReader( "write" );
   writer_->write( BrIdListRecord( brId, value ) );
   notifyId( brId );
}

void OrbBrIdList::brIdListDel( Bridging::BridgeId brId ) {
   refuseIfReader( "remove" );
   if ( writer_->remove( brId ) ) {
      notifyId( brId );
   }
}

void OrbBrIdList::brIdListDelAll() {
   refuseIfReader( "remove" );
   // In bridge-id order, whatever the slot order: readers of the
   // notifications see the same sequence on every run.
   std::vector< Bridging::BridgeId > ids;
   for ( auto it = brIdListIterConst(); it; ++it ) {
      ids.push_back( it.key() );
   }
   std::sort( ids.begin(), ids.end() );
   for ( Bridging::BridgeId id : ids ) {
      brIdListDel( id );
   }
}

Lumen::MountStatus OrbBrIdList::mountStatus() const {
   if ( reader_ ) {
      return reader_->mountStatus();
   }
   return writer_->attached() ? Lumen::MountStatus::mounted : Lumen::MountStatus::unmounted;
}

void OrbBrIdList::handleParent( const Mox::Ptr< Mox::Entity >& parent ) {
   if ( !parent ) {
      Mox::Entity::handleParent( parent );
      if ( writer_ && writer_->attached() ) {
         writer_->detach();
      }
      return;
   }
   const std::string full = fmt::format( "{}/{}", parent->fullName(), name() );
   if ( initialized_ ) {
      MOX_THROW( Mox::Exception, "Entity {} already initialized", full );
   }
   Mox::Entity::handleParent( parent );
   initialized_ = true;
   if ( writer_ ) {
      writer_->attach( lumenPath( full ) );
      path_ = full;
   }
}

const Mox::Type* OrbBrIdList::fwkType() const { return &Mox::TypeImpl< OrbBrIdList >::instance(); }

std::optional< std::pair< BrIdListRecord, Lumen::Hint > >
OrbBrIdList::next( Lumen::Hint from ) const {
   return reader_ ? reader_->next( from ) : writer_->next( from );
}

void OrbBrIdList::refuseIfReader( const char* what ) const {
   if ( reader_ ) {
      MOX_THROW( Mox::Exception, "{} {} is mounted read-only: {} refused", moxTypeName, path_,
                 what );
   }
}

void OrbBrIdList::notifyId( const Bridging::BridgeId& brId ) const { notify( brIdListId(), &brId ); }

}  // namespace OrbEvpn
