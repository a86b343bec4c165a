#include "tools/agent/ovsdb/VtepMapping.h"

#include <fmt/format.h>

#include <algorithm>

namespace Agent::Ovsdb {

namespace {
constexpr std::string_view switchTable = "Logical_Switch", locatorTable = "Physical_Locator",
                           locatorSetTable = "Physical_Locator_Set", ucastTable = "Ucast_Macs_Remote",
                           mcastTable = "Mcast_Macs_Remote";
}  // namespace

VtepMapping::VtepMapping( EmitFn emit, ReportFn report, MirrorSeqFn mirrorSeq )
      : emit_( std::move( emit ) ), report_( std::move( report ) ), mirrorSeq_( std::move( mirrorSeq ) ) {}

void VtepMapping::seedExported( uint32_t vni, const Mac& mac, uint32_t vtep, uint32_t seqNo ) {
   exported_[ { vni, mac } ] = Applied{ vtep, seqNo };
   seedSeqNo( mac, seqNo );
}

void VtepMapping::seedSeqNo( const Mac& mac, uint32_t seqNo ) {
   uint32_t& n = issued_[ mac ];
   n = std::max( n, seqNo );
}

uint32_t VtepMapping::issued( const Mac& mac ) const {
   auto it = issued_.find( mac );
   return it == issued_.end() ? 0 : it->second;
}

// ---- the replica

void VtepMapping::apply( const Json& tableUpdates, bool snapshot ) {
   if ( !tableUpdates.is_object() ) {
      throw std::invalid_argument( fmt::format( "table updates are not an object: {}", tableUpdates.dump() ) );
   }
   if ( snapshot ) {
      switches_.clear();
      locators_.clear();
      locatorSets_.clear();
      ucast_.clear();
      mcast_.clear();
      ucastByKey_.clear();
      mcastBySwitch_.clear();
      rows_ = 0;
      switchesChanged_ = everything_ = true;
   }
   for ( const auto& [ table, rows ] : tableUpdates.items() ) {
      if ( !rows.is_object() ) {
         continue;
      }
      for ( const auto& [ uuid, update ] : rows.items() ) {
         rowUpdate( table, uuid, update );
      }
   }
   settle();
}

void VtepMapping::rowUpdate( std::string_view table, const Uuid& uuid, const Json& update ) {
   const Json* row = nullptr;
   bool modified = false;
   if ( update.is_object() ) {
      auto n = update.find( "new" );
      row = n == update.end() ? nullptr : &*n;
      modified = row && update.contains( "old" );
   }
   if ( table == switchTable ) {
      switchRow( uuid, row );
   } else if ( table == locatorTable ) {
      locatorRow( uuid, row, modified );
   } else if ( table == locatorSetTable ) {
      locatorSetRow( uuid, row, modified );
   } else if ( table == ucastTable ) {
      ucastRow( uuid, row );
   } else if ( table == mcastTable ) {
      mcastRow( uuid, row );
   }
}

template< class Row >
bool VtepMapping::usable( std::string_view table, const Uuid& uuid, const RowOr< Row >& parsed ) {
   if ( const auto* reason = std::get_if< std::string >( &parsed ) ) {
      auto [ it, fresh ] = reported_.try_emplace( uuid, *reason );
      if ( fresh || it->second != *reason ) {
         it->second = *reason;
         report_( table, uuid, *reason );
      }
      return false;
   }
   reported_.erase( uuid );
   return true;
}

void VtepMapping::switchRow( const Uuid& uuid, const Json* row ) {
   switchesChanged_ = true;
   rows_ -= switches_.erase( uuid );
   if ( !row ) {
      reported_.erase( uuid );
      return;
   }
   // A usable row may still lose its key to another switch: assignVnis()
   // says which, and clears what was reported once the row is in use.
   auto parsed = parseSwitch( *row );
   if ( std::holds_alternative< SwitchRow >( parsed ) ) {
      switches_[ uuid ] = std::get< SwitchRow >( parsed );
      ++rows_;
   } else {
      usable( switchTable, uuid, parsed );
   }
}

void VtepMapping::locatorRow( const Uuid& uuid, const Json* row, bool modified ) {
   // A locator that goes was referenced by nothing any more (the database
   // keeps references whole), so only a changed one touches mapped state.
   everything_ = everything_ || modified;
   rows_ -= locators_.erase( uuid );
   if ( !row ) {
      reported_.erase( uuid );
      return;
   }
   auto parsed = parseLocator( *row );
   if ( usable( locatorTable, uuid, parsed ) ) {
      locators_[ uuid ] = std::get< LocatorRow >( parsed ).ip;
      ++rows_;
   }
}

void VtepMapping::locatorSetRow( const Uuid& uuid, const Json* row, bool modified ) {
   everything_ = everything_ || modified;   // sets are replaced, not edited; but be safe
   rows_ -= locatorSets_.erase( uuid );
   if ( !row ) {
      reported_.erase( uuid );
      return;
   }
   auto parsed = parseLocatorSet( *row );
   if ( usable( locatorSetTable, uuid, parsed ) ) {
      locatorSets_[ uuid ] = std::move( std::get< LocatorSetRow >( parsed ).locators );
      ++rows_;
   }
}

void VtepMapping::ucastRow( const Uuid& uuid, const Json* row ) {
   if ( auto it = ucast_.find( uuid ); it != ucast_.end() ) {
      const MacKey key{ it->second.logicalSwitch, it->second.mac };
      dirtyMacs_.insert( key );
      auto k = ucastByKey_.find( key );
      k->second.erase( uuid );
      if ( k->second.empty() ) {
         ucastByKey_.erase( k );
      }
      ucast_.erase( it );
      --rows_;
   }
   if ( !row ) {
      reported_.erase( uuid );
      return;
   }
   auto parsed = parseUcast( *row );
   if ( usable( ucastTable, uuid, parsed ) ) {
      const UcastRow& u = std::get< UcastRow >( parsed );
      const MacKey key{ u.logicalSwitch, u.mac };
      dirtyMacs_.insert( key );
      ucastByKey_[ key ].insert( uuid );
      ucast_[ uuid ] = u;
      ++rows_;
   }
}

void VtepMapping::mcastRow( const Uuid& uuid, const Json* row ) {
   if ( auto it = mcast_.find( uuid ); it != mcast_.end() ) {
      dirtyFlood_.insert( it->second.logicalSwitch );
      auto s = mcastBySwitch_.find( it->second.logicalSwitch );
      s->second.erase( uuid );
      if ( s->second.empty() ) {
         mcastBySwitch_.erase( s );
      }
      mcast_.erase( it );
      --rows_;
   }
   if ( !row ) {
      reported_.erase( uuid );
      return;
   }
   auto parsed = parseMcast( *row );
   if ( usable( mcastTable, uuid, parsed ) && std::get< McastRow >( parsed ).unknownDst ) {
      const McastRow& m = std::get< McastRow >( parsed );
      dirtyFlood_.insert( m.logicalSwitch );
      mcastBySwitch_[ m.logicalSwitch ].insert( uuid );
      mcast_[ uuid ] = m;
      ++rows_;
   }
}

// ---- from the replica to events

void VtepMapping::assignVnis() {
   std::map< Uuid, uint32_t > vniOf;
   std::map< uint32_t, Uuid > ownerOf;
   for ( const auto& [ uuid, sw ] : switches_ ) {   // in uuid order: the lowest claims a key
      auto [ it, fresh ] = ownerOf.try_emplace( sw.vni, uuid );
      if ( !fresh ) {
         usable( switchTable, uuid,
                 RowOr< SwitchRow >( fmt::format( "tunnel_key {} already used by {}", sw.vni, it->second ) ) );
         continue;
      }
      reported_.erase( uuid );
      vniOf[ uuid ] = sw.vni;
   }
   for ( const auto& [ uuid, vni ] : vniOf ) {
      auto old = vniOf_.find( uuid );
      if ( old == vniOf_.end() || old->second != vni ) {
         dirtySwitches_.insert( uuid );
      }
   }
   vniOf_ = std::move( vniOf );
   ownerOf_ = std::move( ownerOf );
}

void VtepMapping::settle() {
   if ( switchesChanged_ ) {
      assignVnis();
   }
   if ( everything_ ) {
      for ( const auto& [ uuid, vni ] : vniOf_ ) {
         dirtySwitches_.insert( uuid );
      }
   }
   // New VNIs first, so that what follows lands in a VNI the model has.
   for ( const auto& [ vni, owner ] : ownerOf_ ) {
      if ( appliedVnis_.insert( vni ).second ) {
         emit( feedEvent( Event::Op::vni, vni ) );
      }
   }
   for ( const Uuid& sw : dirtySwitches_ ) {
      switchPass( sw, vniOf_.at( sw ) );
   }
   for ( const auto& key : dirtyMacs_ ) {
      auto v = vniOf_.find( key.first );
      if ( v != vniOf_.end() && !dirtySwitches_.count( key.first ) ) {
         macPass( key.first, v->second, key.second );
      }
   }
   for ( const Uuid& sw : dirtyFlood_ ) {
      auto v = vniOf_.find( sw );
      if ( v != vniOf_.end() && !dirtySwitches_.count( sw ) ) {
         floodPass( sw, v->second );
      }
   }
   // VNIs no switch claims go last, with everything they held.
   for ( auto it = appliedVnis_.begin(); it != appliedVnis_.end(); ) {
      const uint32_t vni = *it;
      if ( ownerOf_.count( vni ) ) {
         ++it;
         continue;
      }
      emit( feedEvent( Event::Op::vniDel, vni ) );
      appliedMacs_.erase( appliedMacs_.lower_bound( { vni, Mac{} } ),
                          appliedMacs_.lower_bound( { vni + 1, Mac{} } ) );
      appliedFlood_.erase( vni );
      it = appliedVnis_.erase( it );
   }
   switchesChanged_ = everything_ = false;
   dirtyMacs_.clear();
   dirtyFlood_.clear();
   dirtySwitches_.clear();
}

void VtepMapping::switchPass( const Uuid& sw, uint32_t vni ) {
   std::set< Mac > macs;
   for ( auto it = appliedMacs_.lower_bound( { vni, Mac{} } ); it != appliedMacs_.end() && it->first.first == vni;
         ++it ) {
      macs.insert( it->first.second );
   }
   for ( auto it = ucastByKey_.lower_bound( { sw, Mac{} } ); it != ucastByKey_.end() && it->first.first == sw;
         ++it ) {
      macs.insert( it->first.second );
   }
   for ( const Mac& m : macs ) {
      macPass( sw, vni, m );
   }
   floodPass( sw, vni );
}

std::optional< uint32_t > VtepMapping::wantedVtep( const Uuid& sw, const Mac& mac ) const {
   auto k = ucastByKey_.find( { sw, mac } );
   if ( k == ucastByKey_.end() ) {
      return std::nullopt;
   }
   for ( const Uuid& row : k->second ) {   // two rows for one MAC: the lowest uuid with a usable locator
      auto l = locators_.find( ucast_.at( row ).locator );
      if ( l != locators_.end() ) {
         return l->second;
      }
   }
   return std::nullopt;
}

void VtepMapping::macPass( const Uuid& sw, uint32_t vni, const Mac& mac ) {
   macIs( vni, mac, wantedVtep( sw, mac ) );
}

void VtepMapping::macIs( uint32_t vni, const Mac& mac, std::optional< uint32_t > vtep ) {
   const std::pair< uint32_t, Mac > key{ vni, mac };
   auto it = appliedMacs_.find( key );
   if ( !vtep ) {
      if ( it != appliedMacs_.end() ) {
         appliedMacs_.erase( it );
         emit( feedEvent( Event::Op::macDel, vni, mac ) );
      }
      return;
   }
   if ( it != appliedMacs_.end() && it->second.vtep == *vtep ) {
      return;
   }
   uint32_t seqNo;
   auto seed = exported_.find( key );
   if ( it == appliedMacs_.end() && seed != exported_.end() && seed->second.vtep == *vtep ) {
      seqNo = seed->second.seqNo;   // where it was when the agent started: not a move
   } else {
      seqNo = std::max( issued( mac ), mirrorSeq_ ? mirrorSeq_( mac ) : 0u ) + 1;
   }
   if ( seed != exported_.end() ) {
      exported_.erase( seed );
   }
   seedSeqNo( mac, seqNo );
   appliedMacs_[ key ] = Applied{ *vtep, seqNo };
   emit( feedEvent( Event::Op::mac, vni, mac, *vtep, seqNo ) );
}

void VtepMapping::floodPass( const Uuid& sw, uint32_t vni ) {
   std::set< uint32_t > wanted;
   if ( auto rows = mcastBySwitch_.find( sw ); rows != mcastBySwitch_.end() ) {
      for ( const Uuid& row : rows->second ) {
         auto set = locatorSets_.find( mcast_.at( row ).locatorSet );
         if ( set == locatorSets_.end() ) {
            continue;
         }
         for ( const Uuid& l : set->second ) {
            if ( auto ip = locators_.find( l ); ip != locators_.end() ) {
               wanted.insert( ip->second );
            }
         }
      }
   }
   std::set< uint32_t >& applied = appliedFlood_[ vni ];
   for ( uint32_t ip : wanted ) {
      if ( !applied.count( ip ) ) {
         emit( feedEvent( Event::Op::flood, vni, Mac{}, ip ) );
      }
   }
   for ( uint32_t ip : applied ) {
      if ( !wanted.count( ip ) ) {
         emit( feedEvent( Event::Op::floodDel, vni, Mac{}, ip ) );
      }
   }
   applied = std::move( wanted );
   if ( applied.empty() ) {
      appliedFlood_.erase( vni );
   }
}

}  // namespace Agent::Ovsdb
