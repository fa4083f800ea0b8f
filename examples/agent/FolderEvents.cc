#include "examples/agent/FolderEvents.h"

#include <cstring>
#include <optional>

#include <sys/inotify.h>

namespace HostAgent {

namespace {

std::optional<FolderEvent::Kind> kindOf( std::uint32_t mask ) {
   using Kind = FolderEvent::Kind;
   // An event has one of these bits, beside flags that say more about it.
   if( mask & ( IN_CREATE | IN_MOVED_TO ) ) {
      return Kind::created;
   }
   if( mask & ( IN_DELETE | IN_MOVED_FROM ) ) {
      return Kind::removed;
   }
   if( mask & IN_CLOSE_WRITE ) {
      return Kind::written;
   }
   if( mask & IN_Q_OVERFLOW ) {
      return Kind::overrun;
   }
   if( mask & IN_IGNORED ) {
      return Kind::ended;
   }
   return std::nullopt;
}

} // namespace

FolderEvents parseFolderEvents( std::span<const std::byte> bytes ) {
   FolderEvents result;
   while( !bytes.empty() ) {
      inotify_event header;
      if( bytes.size() < sizeof( header ) ) {
         result.malformed = true;
         break;
      }
      // Copied: nothing says that the bytes are aligned.
      std::memcpy( &header, bytes.data(), sizeof( header ) );
      bytes = bytes.subspan( sizeof( header ) );
      if( header.len > bytes.size() ) {
         result.malformed = true;
         break;
      }
      if( const auto kind = kindOf( header.mask ) ) {
         // Padded with NULs, which a name that fills its place may lack.
         auto const* const name = reinterpret_cast<char const*>( bytes.data() );
         result.events.push_back( { *kind, { name, strnlen( name, header.len ) } } );
      }
      bytes = bytes.subspan( header.len );
   }
   return result;
}

} // namespace HostAgent
