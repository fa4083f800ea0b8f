#include "tools/show/ShowSocket.h"

#include "tools/show/ShowRequest.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>

namespace Show {

namespace {

// Clients beyond those that the agent serves wait here.
constexpr int backlog = 16;
// How many descriptors of a record are received in order to be closed; the kernel closes the rest.
constexpr std::size_t passedMax = 8;

struct Address {
   sockaddr_un address{};
   socklen_t size = 0;

   // The calls take every kind of address through this one type.
   sockaddr const* plain() const { return reinterpret_cast<sockaddr const*>( &address ); }
};

// The zero byte in front makes the name an abstract one. It is not ended by another: the size
// tells.
Address addressOf( std::string_view agent ) {
   const std::string name = socketName( agent );
   Address result;
   result.address.sun_family = AF_UNIX;
   const std::size_t size = std::min( name.size(), sizeof( result.address.sun_path ) - 1 );
   std::memcpy( result.address.sun_path + 1, name.data(), size );
   result.size = static_cast<socklen_t>( offsetof( sockaddr_un, sun_path ) + 1 + size );
   return result;
}

Descriptor makeSocket( int flags ) {
   return Descriptor( socket( AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | flags, 0 ) );
}

timeval timevalOf( std::chrono::milliseconds time ) {
   timeval value{};
   value.tv_sec = time.count() / 1000;
   value.tv_usec = time.count() % 1000 * 1000;
   return value;
}

void takeDescriptors( msghdr& message, Received& received ) {
   for( cmsghdr* part = CMSG_FIRSTHDR( &message ); part; part = CMSG_NXTHDR( &message, part ) ) {
      if( part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS ) {
         continue;
      }
      const std::size_t count = ( part->cmsg_len - CMSG_LEN( 0 ) ) / sizeof( int );
      for( std::size_t i = 0; i < count; ++i ) {
         int fd = -1;
         std::memcpy( &fd, CMSG_DATA( part ) + i * sizeof( int ), sizeof( int ) );
         Descriptor owned( fd );
         if( received.passed.valid() ) {
            received.surplus = true;
         } else {
            received.passed = std::move( owned );
         }
      }
   }
}

} // namespace

Descriptor listenAs( std::string_view agent ) {
   Descriptor listening = makeSocket( SOCK_NONBLOCK );
   const Address address = addressOf( agent );
   if( listening.valid() && ( bind( listening.get(), address.plain(), address.size ) != 0 ||
                              listen( listening.get(), backlog ) != 0 ) ) {
      listening.reset();
   }
   return listening;
}

Descriptor acceptClient( int listening ) {
   return Descriptor( accept4( listening, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK ) );
}

Descriptor connectTo( std::string_view agent, std::chrono::milliseconds limit ) {
   Descriptor client = makeSocket( 0 );
   const Address address = addressOf( agent );
   const timeval wait = timevalOf( limit );
   if( client.valid() &&
       ( setsockopt( client.get(), SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof( wait ) ) != 0 ||
         connect( client.get(), address.plain(), address.size ) != 0 ) ) {
      client.reset();
   }
   return client;
}

std::optional<uid_t> peerUser( int socket ) {
   ucred peer{};
   socklen_t size = sizeof( peer );
   if( getsockopt( socket, SOL_SOCKET, SO_PEERCRED, &peer, &size ) != 0 ) {
      return std::nullopt;
   }
   return peer.uid;
}

bool sendRecord( int socket, std::string_view record, int fd ) {
   std::string bytes( record );
   iovec part{ bytes.data(), bytes.size() };
   alignas( cmsghdr ) std::array<char, CMSG_SPACE( sizeof( int ) )> control{};
   msghdr message{};
   message.msg_iov = &part;
   message.msg_iovlen = 1;
   message.msg_control = control.data();
   message.msg_controllen = control.size();
   cmsghdr* const header = CMSG_FIRSTHDR( &message );
   header->cmsg_level = SOL_SOCKET;
   header->cmsg_type = SCM_RIGHTS;
   header->cmsg_len = CMSG_LEN( sizeof( int ) );
   std::memcpy( CMSG_DATA( header ), &fd, sizeof( int ) );
   return sendmsg( socket, &message, MSG_NOSIGNAL ) == static_cast<ssize_t>( bytes.size() );
}

Received receiveRecord( int socket ) {
   std::array<char, requestSizeMax> bytes;
   iovec part{ bytes.data(), bytes.size() };
   alignas( cmsghdr ) std::array<char, CMSG_SPACE( passedMax * sizeof( int ) )> control;
   msghdr message{};
   message.msg_iov = &part;
   message.msg_iovlen = 1;
   message.msg_control = control.data();
   message.msg_controllen = control.size();
   Received received;
   const ssize_t size = recvmsg( socket, &message, MSG_CMSG_CLOEXEC | MSG_DONTWAIT );
   if( size < 0 ) {
      if( errno != EAGAIN && errno != EINTR ) {
         received.state = Received::State::ended;
      }
      return received;
   }
   takeDescriptors( message, received );
   received.surplus = received.surplus || ( message.msg_flags & MSG_CTRUNC ) != 0;
   received.tooLong = ( message.msg_flags & MSG_TRUNC ) != 0;
   received.record.assign( bytes.data(), static_cast<std::size_t>( size ) );
   received.state =
         size == 0 && !received.passed.valid() ? Received::State::ended : Received::State::record;
   return received;
}

} // namespace Show
