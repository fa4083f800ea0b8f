#include "tools/show/ShowSocket.h"

#include "tools/show/ShowRequest.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>

namespace Show {

namespace {

using Clock = std::chrono::steady_clock;

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

timeval timevalOf( std::chrono::milliseconds time ) {
   timeval value{};
   value.tv_sec = time.count() / 1000;
   value.tv_usec = time.count() % 1000 * 1000;
   return value;
}

// Says how long the next call may wait. False, with errno as that call would set it, when there is
// no time left.
bool waitUntil( int socket, Clock::time_point end ) {
   const auto left = std::chrono::ceil<std::chrono::milliseconds>( end - Clock::now() );
   if( left.count() <= 0 ) {
      errno = EAGAIN;
      return false;
   }
   const timeval wait = timevalOf( left );
   return setsockopt( socket, SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof( wait ) ) == 0;
}

Descriptor passedIn( msghdr& message ) {
   cmsghdr const* const part = CMSG_FIRSTHDR( &message );
   int fd = -1;
   if( part && part->cmsg_level == SOL_SOCKET && part->cmsg_type == SCM_RIGHTS &&
       part->cmsg_len >= CMSG_LEN( sizeof( int ) ) ) {
      std::memcpy( &fd, CMSG_DATA( part ), sizeof( int ) );
   }
   return Descriptor( fd );
}

} // namespace

Descriptor acceptClient( int listening ) {
   return Descriptor( accept4( listening, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK ) );
}

Descriptor connectTo( std::string_view agent, std::chrono::milliseconds limit ) {
   const Clock::time_point end = Clock::now() + limit;
   Descriptor client( socket( AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0 ) );
   const Address address = addressOf( agent );
   while( client.valid() && ( !waitUntil( client.get(), end ) ||
                              connect( client.get(), address.plain(), address.size ) != 0 ) ) {
      if( errno != EINTR ) {
         client.reset();
      }
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

bool sendRecord( int socket, std::string_view record, int fd, std::chrono::milliseconds limit ) {
   const Clock::time_point end = Clock::now() + limit;
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
   ssize_t sent = -1;
   do {
      sent = waitUntil( socket, end ) ? sendmsg( socket, &message, MSG_NOSIGNAL ) : -1;
   } while( sent < 0 && errno == EINTR );
   return sent == static_cast<ssize_t>( bytes.size() );
}

Received peekRecord( int socket ) {
   std::array<char, requestSizeMax> bytes;
   iovec part{ bytes.data(), bytes.size() };
   alignas( cmsghdr ) std::array<char, CMSG_SPACE( sizeof( int ) )> control;
   msghdr message{};
   message.msg_iov = &part;
   message.msg_iovlen = 1;
   message.msg_control = control.data();
   // There would be room for two with the padding.
   message.msg_controllen = CMSG_LEN( sizeof( int ) );
   Received received;
   const ssize_t size = recvmsg( socket, &message, MSG_PEEK | MSG_CMSG_CLOEXEC | MSG_DONTWAIT );
   if( size < 0 ) {
      if( errno != EAGAIN && errno != EINTR ) {
         received.state = Received::State::ended;
      }
      return received;
   }
   received.passed = passedIn( message );
   received.surplus = ( message.msg_flags & MSG_CTRUNC ) != 0;
   received.tooLong = ( message.msg_flags & MSG_TRUNC ) != 0;
   received.record.assign( bytes.data(), static_cast<std::size_t>( size ) );
   received.state =
         size == 0 && !received.passed.valid() ? Received::State::ended : Received::State::record;
   return received;
}

} // namespace Show
