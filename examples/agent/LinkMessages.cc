#include "examples/agent/LinkMessages.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <optional>

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

namespace HostAgent {

namespace {

using Bytes = std::span<const std::byte>;

// The record at the front, copied: nothing says that the bytes are aligned for it.
template<typename Record>
std::optional<Record> front( Bytes bytes ) {
   if( bytes.size() < sizeof( Record ) ) {
      return std::nullopt;
   }
   Record record;
   std::memcpy( &record, bytes.data(), sizeof( record ) );
   return record;
}

// What follows a record of that length. The last record may lack its padding.
Bytes behind( Bytes bytes, std::size_t length ) {
   static_assert( NLMSG_ALIGNTO == 4 && RTA_ALIGNTO == 4 );
   return bytes.subspan( std::min( ( length + 3 ) / 4 * 4, bytes.size() ) );
}

// The text up to its NUL; no value for one that no interface can have.
std::optional<std::string> linkName( Bytes bytes ) {
   const auto end = std::ranges::find( bytes, std::byte{ 0 } );
   std::string name( static_cast<std::size_t>( end - bytes.begin() ), '\0' );
   std::ranges::transform( bytes.begin(), end, name.begin(),
                           []( std::byte byte ) { return static_cast<char>( byte ); } );
   return !name.empty() && name.size() < IFNAMSIZ ? std::optional( name ) : std::nullopt;
}

// Finds the name among the attributes; false for what is not the format.
bool takeAttributes( Bytes attributes, LinkMessage* message ) {
   while( !attributes.empty() ) {
      const auto header = front<rtattr>( attributes );
      if( !header || header->rta_len < sizeof( rtattr ) || header->rta_len > attributes.size() ) {
         return false;
      }
      if( ( header->rta_type & NLA_TYPE_MASK ) == IFLA_IFNAME ) {
         const auto name =
               linkName( attributes.first( header->rta_len ).subspan( sizeof( *header ) ) );
         if( !name ) {
            return false;
         }
         message->name = *name;
      }
      attributes = behind( attributes, header->rta_len );
   }
   return true;
}

enum class Verdict { message, notForUs, malformed };

Verdict takeLink( Bytes payload, LinkMessage* message ) {
   const auto link = front<ifinfomsg>( payload );
   if( !link ) {
      return Verdict::malformed;
   }
   if( link->ifi_family != AF_UNSPEC ) {
      // A bridge speaks of its ports in the same words: a port that "goes" has left the bridge.
      return Verdict::notForUs;
   }
   constexpr unsigned upFlags = IFF_UP | IFF_RUNNING;
   message->index = link->ifi_index;
   message->up = ( link->ifi_flags & upFlags ) == upFlags;
   return takeAttributes( behind( payload, sizeof( *link ) ), message ) ? Verdict::message
                                                                        : Verdict::malformed;
}

Verdict takeError( Bytes payload, LinkMessage* message ) {
   const auto error = front<int>( payload );
   if( !error || *error > 0 || *error < -std::numeric_limits<int>::max() ) {
      return Verdict::malformed;
   }
   message->error = -*error;
   // 0 is a receipt.
   return *error != 0 ? Verdict::message : Verdict::notForUs;
}

Verdict takeMessage( const nlmsghdr& header, Bytes payload, LinkMessage* message ) {
   message->listed = ( header.nlmsg_flags & NLM_F_MULTI ) != 0;
   message->listInterrupted = ( header.nlmsg_flags & NLM_F_DUMP_INTR ) != 0;
   switch( header.nlmsg_type ) {
   case RTM_NEWLINK:
      message->kind = LinkMessage::Kind::link;
      return takeLink( payload, message );
   case RTM_DELLINK:
      message->kind = LinkMessage::Kind::linkGone;
      return takeLink( payload, message );
   case NLMSG_DONE:
      message->kind = LinkMessage::Kind::listEnd;
      return Verdict::message;
   case NLMSG_ERROR:
      message->kind = LinkMessage::Kind::refused;
      return takeError( payload, message );
   default:
      return Verdict::notForUs;
   }
}

} // namespace

LinkMessages parseLinkMessages( std::span<const std::byte> bytes ) {
   LinkMessages result;
   while( !bytes.empty() ) {
      const auto header = front<nlmsghdr>( bytes );
      if( !header || header->nlmsg_len < sizeof( nlmsghdr ) || header->nlmsg_len > bytes.size() ) {
         ++result.malformed;
         break;
      }
      LinkMessage message;
      const Bytes payload = bytes.first( header->nlmsg_len ).subspan( sizeof( *header ) );
      switch( takeMessage( *header, payload, &message ) ) {
      case Verdict::message:
         result.messages.push_back( std::move( message ) );
         break;
      case Verdict::malformed:
         ++result.malformed;
         break;
      case Verdict::notForUs:
         break;
      }
      bytes = behind( bytes, header->nlmsg_len );
   }
   return result;
}

} // namespace HostAgent
