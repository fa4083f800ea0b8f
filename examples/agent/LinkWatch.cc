#include "examples/agent/LinkWatch.h"

#include <Quarn/base/Exception.h>

#include <algorithm>
#include <cerrno>
#include <span>
#include <utility>

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

namespace HostAgent {

namespace {

// The calls take every kind of address through this one type.
sockaddr* plain( sockaddr_nl* address ) { return reinterpret_cast<sockaddr*>( address ); }

} // namespace

LinkWatch::LinkWatch( std::shared_ptr<Quarn::TaskScheduler> scheduler, EventLog* log )
      : FileDescriptorTask( std::move( scheduler ), Quarn::TaskPriority::normal, "LinkWatch" ),
        debug_( Quarn::Platform::getDebugHandler( "HostAgent", false ) ),
        socket_( socket( AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE ) ),
        log_( log ),
        links_( [ log ]( const std::string& name, bool up ) {
           log->add( up ? "link up" : "link down", name );
        } ) {
   if( !_open() ) {
      _refusedBy( errno );
      return;
   }
   taskWatchFdIs( socket_.get() );
   _listAsk();
}

// The socket is closed before the base class would forget it.
LinkWatch::~LinkWatch() { stop(); }

bool LinkWatch::_open() {
   sockaddr_nl address{};
   address.nl_family = AF_NETLINK;
   address.nl_groups = RTMGRP_LINK;
   return socket_.valid() && bind( socket_.get(), plain( &address ), sizeof( address ) ) == 0;
}

void LinkWatch::taskExecuteReadable() {
   unsigned long read = 0;
   while( _readOne() == Step::taken ) {
      ++read;
      // Whatever is left makes the socket readable again at once.
      if( taskShouldYield() ) {
         break;
      }
   }
   taskWorkCountInc( read );
}

// Writes are never watched.
void LinkWatch::taskExecuteWritable() {}

LinkWatch::Step LinkWatch::_readOne() {
   sockaddr_nl sender{};
   socklen_t senderSize = sizeof( sender );
   // With MSG_TRUNC the size is that of the whole datagram, also when it was cut off.
   const ssize_t size = recvfrom( socket_.get(), buffer_.data(), buffer_.size(), MSG_TRUNC,
                                  plain( &sender ), &senderSize );
   if( size < 0 ) {
      switch( errno ) {
      case EINTR:
         return Step::taken;
      case EAGAIN:
         return Step::empty;
      case ENOBUFS:
         ++overruns_;
         log_->add( "news lost", "" );
         QUARN_FMTRACE( *debug_, 2, "LinkWatch", "news were lost; asks for the list of links" );
         _listAsk();
         return Step::taken;
      default:
         _refusedBy( errno );
         stop();
         return Step::failed;
      }
   }
   if( sender.nl_pid != 0 ) {
      // Not from the kernel.
      return Step::taken;
   }
   const auto whole = static_cast<std::size_t>( size );
   const auto parsed =
         parseLinkMessages( std::span( buffer_ ).first( std::min( whole, buffer_.size() ) ) );
   malformed_ += parsed.malformed;
   for( const LinkMessage& message : parsed.messages ) {
      _take( message );
   }
   return Step::taken;
}

void LinkWatch::_take( const LinkMessage& message ) {
   if( message.listInterrupted ) {
      listAgain_ = true;
   }
   switch( message.kind ) {
   case LinkMessage::Kind::link:
   case LinkMessage::Kind::linkGone:
      links_.messageIs( message );
      break;
   case LinkMessage::Kind::listEnd:
      _listEnd();
      break;
   case LinkMessage::Kind::refused:
      QUARN_FMTRACE( *debug_, 1, "LinkWatch", "no list of links: {}",
                     Quarn::strerror( message.error ) );
      listing_ = false;
      break;
   }
}

void LinkWatch::_listAsk() {
   if( listing_ ) {
      // The kernel makes one list at a time for a socket.
      listAgain_ = true;
      return;
   }
   struct {
      nlmsghdr header;
      ifinfomsg link;
   } request{};
   request.header.nlmsg_len = sizeof( request );
   request.header.nlmsg_type = RTM_GETLINK;
   request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
   links_.listBegin();
   listAgain_ = false;
   listing_ = send( socket_.get(), &request, sizeof( request ), 0 ) == sizeof( request );
   if( !listing_ ) {
      QUARN_FMTRACE( *debug_, 1, "LinkWatch", "cannot ask for the list of links: {}",
                     Quarn::strerror( errno ) );
   }
}

void LinkWatch::_listEnd() {
   listing_ = false;
   if( listAgain_ ) {
      _listAsk();
   } else {
      links_.listEnd();
   }
}

void LinkWatch::_refusedBy( int error ) {
   refusal_ = Quarn::strerror( error );
   QUARN_FMTRACE( *debug_, 1, "LinkWatch", "does not watch links: {}", refusal_ );
}

} // namespace HostAgent
