#include "examples/agent/LinkTable.h"

#include <utility>

namespace HostAgent {

LinkTable::LinkTable( std::function<void( const std::string& name, bool up )> changed )
      : changed_( std::move( changed ) ) {}

void LinkTable::listBegin() {
   for( auto& [ index, link ] : links_ ) {
      link.met = false;
   }
}

void LinkTable::listEnd() {
   for( auto link = links_.begin(); link != links_.end(); ) {
      const auto next = std::next( link );
      if( !link->second.met ) {
         _linkDel( link );
      }
      link = next;
   }
   complete_ = true;
}

void LinkTable::messageIs( const LinkMessage& message ) {
   if( message.kind == LinkMessage::Kind::link ) {
      _linkIs( message );
   } else if( message.kind == LinkMessage::Kind::linkGone ) {
      const auto link = links_.find( message.index );
      if( link != links_.end() ) {
         _linkDel( link );
      }
   }
}

void LinkTable::_linkIs( const LinkMessage& message ) {
   const auto [ found, isNew ] = links_.try_emplace( message.index );
   Link& link = found->second;
   link.met = true;
   if( !message.name.empty() ) {
      link.name = message.name;
   } else if( isNew ) {
      link.name = "#" + std::to_string( message.index );
   }
   if( isNew && !complete_ ) {
      link.up = message.up;
   } else {
      _upIs( link, message.up );
   }
}

void LinkTable::_linkDel( std::map<int, Link>::iterator link ) {
   _upIs( link->second, false );
   links_.erase( link );
}

void LinkTable::_upIs( Link& link, bool up ) {
   if( up == link.up ) {
      return;
   }
   link.up = up;
   ++( up ? link.ups : link.downs );
   ++( up ? ups_ : downs_ );
   changed_( link.name, up );
}

} // namespace HostAgent
