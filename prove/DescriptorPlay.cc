#include "prove/DescriptorPlay.h"

#include <Quarn/platform/EventLoop.h>
#include <Quarn/platform/Factories.h>

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace prove {

using namespace Quarn;

namespace {

// Fewer than the event library asks the kernel for at a time, so that one turn calls all of them.
constexpr unsigned mostOwners = 20;
constexpr std::size_t stepsKept = 60;

// Thrown by handlers on purpose.
struct Deliberate {};

int checked( int result, char const* call ) {
   if( result < 0 ) {
      throw std::runtime_error( fmt::format( "{}: {}", call, std::strerror( errno ) ) );
   }
   return result;
}

void nonBlocking( int fd ) {
   checked( fcntl( fd, F_SETFL, checked( fcntl( fd, F_GETFL ), "F_GETFL" ) | O_NONBLOCK ),
            "F_SETFL" );
}

short pollOf( int fd ) {
   pollfd entry{ fd, POLLIN | POLLOUT, 0 };
   checked( poll( &entry, 1, 0 ), "poll" );
   return entry.revents;
}

} // namespace

// ------------------------------------------------------------------------------------ who is
// called

class DescriptorPlay::Handler final : public Listener, public Platform::FdEventHandler {
 public:
   using Listener::Listener;

 private:
   void readFdEvent( int fd ) override { play._called( *this, fd, read ); }
   void writeFdEvent( int fd ) override { play._called( *this, fd, write ); }
   bool handleFdException( int ) override {
      try {
         throw;
      } catch( const Deliberate& ) {
         return play._oneIn( 2 );
      }
   }
};

class DescriptorPlay::WatchTask final : public Listener, public FileDescriptorTask {
 public:
   WatchTask( DescriptorPlay& play_, unsigned owner_, TaskPriority priority )
         : Listener( play_, owner_ ),
           FileDescriptorTask( play_.root_, priority, "watch" ) {}

 private:
   void taskExecuteReadable() override { play._called( *this, taskWatchFd(), read ); }
   void taskExecuteWritable() override { play._called( *this, taskWatchFd(), write ); }
};

// ---------------------------------------------------------------------------------------------
// life

DescriptorPlay::DescriptorPlay( std::mt19937_64& random, bool framework )
      : random_( random ),
        framework_( framework ),
        root_( schedulerRootQuarnNonShared( "play" ) ),
        owners_( 2 + random() % ( mostOwners - 1 ) ) {
   for( unsigned n = 0; n < owners_.size(); ++n ) {
      _open( *connections_.emplace_back( std::make_unique<Connection>() ) );
   }
   for( unsigned n = 0; n < owners_.size(); ++n ) {
      _make( n );
      _setFd( n, *connections_[ n ] );
   }
}

DescriptorPlay::~DescriptorPlay() {
   for( Owner& owner : owners_ ) {
      owner.control.reset();
      owner.task.reset();
   }
   for( const auto& connection : connections_ ) {
      close( connection->fd );
      if( connection->peer >= 0 ) {
         close( connection->peer );
      }
   }
}

bool DescriptorPlay::_fails( std::string what ) {
   if( fault_.empty() ) {
      fault_ = std::move( what );
   }
   return false;
}

void DescriptorPlay::_note( char const* what, unsigned owner, int fd ) {
   steps_.push_back( { what, owner, fd, calledNow_ >= 0 } );
   if( steps_.size() > stepsKept ) {
      steps_.pop_front();
   }
}

std::string DescriptorPlay::lastSteps() const {
   std::string text;
   for( const Step& step : steps_ ) {
      text += fmt::format( "{}owner {} fd {}: {}\n", step.inHandler ? "   " : "", step.owner,
                           step.fd, step.what );
   }
   return text;
}

// --------------------------------------------------------------------------------------
// connections

// The lowest numbers that are free, so mostly those that were closed last.
void DescriptorPlay::_open( Connection& connection ) {
   connection.shape = static_cast<Shape>( _draw( 4 ) % 3 );
   connection.serial = ++serials_;
   int ends[ 2 ];
   if( connection.shape == Shape::socket ) {
      checked( socketpair( AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends ), "socketpair" );
      // As small as it goes, so that it is soon full.
      for( const int end : ends ) {
         const int bytes = 1;
         checked( setsockopt( end, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof( bytes ) ), "SO_SNDBUF" );
      }
   } else {
      checked( pipe2( ends, O_CLOEXEC ), "pipe" );
      checked( fcntl( ends[ 0 ], F_SETPIPE_SZ, 4096 ), "F_SETPIPE_SZ" );
   }
   const unsigned own = connection.shape == Shape::pipeWriter ? 1 : 0;
   connection.fd = ends[ own ];
   connection.peer = ends[ 1 - own ];
   nonBlocking( connection.peer );
   // The library makes this so when it is watched; steps may come before that.
   nonBlocking( connection.fd );
}

bool DescriptorPlay::_ready( int fd, Direction direction ) {
   const short wanted = direction == read ? POLLIN : POLLOUT;
   return ( pollOf( fd ) & ( wanted | POLLHUP | POLLERR ) ) != 0;
}

// Calls that were due for it may find it unready.
void DescriptorPlay::_spent( Connection& connection, Direction direction ) {
   ++connection.spent[ direction ];
   for( Owner& owner : owners_ ) {
      if( owner.connection == &connection ) {
         owner.watches[ direction ].mayBeStale = true;
      }
   }
}

void DescriptorPlay::_drain( Connection& connection ) {
   if( connection.shape == Shape::pipeWriter ) {
      return;
   }
   std::array<std::uint32_t, 256> words;
   ssize_t got;
   while( ( got = ::read( connection.fd, words.data(), sizeof( words ) ) ) > 0 ) {
      for( std::size_t n = 0; n < static_cast<std::size_t>( got ) / sizeof( words[ 0 ] ); ++n ) {
         if( words[ n ] != connection.serial ) {
            _fails( fmt::format( "fd {} holds bytes of connection {} instead of {}", connection.fd,
                                 words[ n ], connection.serial ) );
         }
      }
   }
   _spent( connection, read );
}

void DescriptorPlay::_fill( Connection& connection ) {
   if( connection.shape == Shape::pipeReader ) {
      return;
   }
   const std::array<char, 2048> bytes{};
   while( ::write( connection.fd, bytes.data(), bytes.size() ) > 0 ) {
   }
   _spent( connection, write );
}

void DescriptorPlay::_drainPeer( Connection& connection ) {
   std::array<char, 8192> bytes;
   while( connection.peer >= 0 && connection.shape != Shape::pipeReader &&
          ::read( connection.peer, bytes.data(), bytes.size() ) > 0 ) {
   }
}

void DescriptorPlay::_peerWrites( Connection& connection ) {
   std::array<std::uint32_t, 8> words;
   words.fill( connection.serial );
   if( connection.peer >= 0 && connection.shape != Shape::pipeWriter ) {
      const ssize_t ignored = ::write( connection.peer, words.data(),
                                       ( 1 + _draw( words.size() ) ) * sizeof( words[ 0 ] ) );
      static_cast<void>( ignored );
   }
}

void DescriptorPlay::_hangUp( Connection& connection ) {
   if( connection.peer < 0 ) {
      return;
   }
   ++counts_.hangUps;
   if( connection.shape == Shape::socket && _oneIn( 2 ) ) {
      shutdown( connection.peer, SHUT_WR );
      return;
   }
   close( std::exchange( connection.peer, -1 ) );
}

// -------------------------------------------------------------------------------------------
// watches

void DescriptorPlay::_make( unsigned number ) {
   Owner& owner = owners_[ number ];
   constexpr TaskPriority::Value priorities[] = { TaskPriority::high, TaskPriority::normal,
                                                  TaskPriority::low };
   const TaskPriority priority = priorities[ _draw( 3 ) ];
   const std::uint64_t version = owner.version;
   owner = Owner();
   owner.version = version + 1;
   owner.kind = static_cast<Kind>( _draw( 4 ) % 3 );
   owner.watches[ read ].flag = true;
   if( owner.kind == Kind::task ) {
      owner.task = std::make_shared<WatchTask>( *this, number, priority );
      return;
   }
   owner.handler = std::make_shared<Handler>( *this, number );
   owner.control = owner.kind == Kind::control
                         ? Platform::getFdControl( owner.handler.get() )
                         : Platform::getFdControl( owner.handler.get(), root_, priority, "watch" );
}

void DescriptorPlay::_drop( unsigned number ) {
   Owner& owner = owners_[ number ];
   _note( "drops its watch", number, owner.connection ? owner.connection->fd : -1 );
   if( calledNow_ == static_cast<int>( number ) ) {
      ++counts_.droppedInOwnHandler;
      if( owner.kind != Kind::control ) {
         // The run holds the task, which would keep the watch until it returns.
         _forget( number );
      }
   }
   if( owner.task ) {
      owner.task->gone = true;
   }
   if( owner.handler ) {
      owner.handler->gone = true;
      goneHandlers_.push_back( owner.handler );
   }
   owner.control.reset();
   owner.task.reset();
   owner.connection = nullptr;
}

void DescriptorPlay::_setFd( unsigned number, Connection& connection ) {
   Owner& owner = owners_[ number ];
   if( owner.kind != Kind::control && owner.connection == &connection ) {
      return;
   }
   _note( "watches", number, connection.fd );
   ++owner.version;
   owner.connection = &connection;
   for( Watch& watch : owner.watches ) {
      watch.armed = watch.flag;
      watch.mayBeStale = false;
      watch.mayCome = false;
   }
   if( owner.task ) {
      owner.task->taskWatchFdIs( connection.fd );
   } else {
      owner.control->setFd( connection.fd );
   }
}

void DescriptorPlay::_forget( unsigned number ) {
   Owner& owner = owners_[ number ];
   _note( "forgets", number, owner.connection ? owner.connection->fd : -1 );
   ++owner.version;
   owner.connection = nullptr;
   for( Watch& watch : owner.watches ) {
      watch.armed = false;
      watch.mayCome = false;
   }
   if( owner.task ) {
      owner.task->taskWatchFdDel();
   } else {
      owner.control->delFd();
   }
}

void DescriptorPlay::_clear( unsigned number ) {
   Owner& owner = owners_[ number ];
   if( owner.kind != Kind::control || framework_ ) {
      _forget( number );
      return;
   }
   _note( "clears its events", number, owner.connection ? owner.connection->fd : -1 );
   ++owner.version;
   for( Watch& watch : owner.watches ) {
      watch.armed = false;
      watch.mayBeStale = false;
   }
   owner.control->clearEvents();
}

void DescriptorPlay::_setReads( unsigned number, bool on ) {
   Owner& owner = owners_[ number ];
   Watch& watch = owner.watches[ read ];
   _note( on ? "reads on" : "reads off", number, owner.connection ? owner.connection->fd : -1 );
   ++owner.version;
   watch.flag = on;
   watch.armed = on && owner.connection;
   watch.mayCome = watch.mayCome && on;
   if( owner.task ) {
      owner.task->taskWatchReadableIs( on );
   } else {
      owner.control->setReads( on );
   }
}

void DescriptorPlay::_setWrites( unsigned number, bool on ) {
   Owner& owner = owners_[ number ];
   Watch& watch = owner.watches[ write ];
   _note( on ? "writes on" : "writes off", number, owner.connection ? owner.connection->fd : -1 );
   ++owner.version;
   watch.mayCome = watch.mayCome && ( on || !watch.flag );
   watch.flag = on;
   watch.armed = on && owner.connection;
   if( owner.task ) {
      owner.task->taskWatchWritableIs( on );
   } else {
      owner.control->setWrites( on );
   }
}

void DescriptorPlay::_suspend( unsigned number, bool suspended ) {
   Owner& owner = owners_[ number ];
   if( !owner.task || owner.suspended == suspended ) {
      return;
   }
   _note( suspended ? "is suspended" : "is unsuspended", number, owner.task->taskWatchFd() );
   ++owner.version;
   owner.suspended = suspended;
   for( Watch& watch : owner.watches ) {
      // Runs both of its sub-tasks once, ready or not.
      watch.mayCome = !suspended;
   }
   owner.task->taskSuspendedIs( suspended );
}

// ---------------------------------------------------------------------------------- the main
// attack

bool DescriptorPlay::_anyDueUnder( int fd ) const {
   return std::ranges::any_of( dueInTurn_, [ & ]( const Due& due ) {
      const Owner& owner = owners_[ due.owner ];
      return _isOwed( due ) && owner.connection && owner.connection->fd == fd;
   } );
}

// Closes the descriptor and gives its number to another connection, and that to some owner.
void DescriptorPlay::_reopen( Connection& connection ) {
   const int number = connection.fd;
   std::vector<unsigned> watching;
   for( unsigned n = 0; n < owners_.size(); ++n ) {
      if( owners_[ n ].connection == &connection ) {
         watching.push_back( n );
      }
   }
   if( calledNow_ >= 0 ) {
      ++counts_.reused;
      counts_.reusedWhileDue += _anyDueUnder( number ) ? 1 : 0;
   }
   // A control may also be told after the close, by the number that it has.
   const bool setAgain =
         watching.size() == 1 && owners_[ watching[ 0 ] ].kind == Kind::control && _oneIn( 4 );
   const bool closedFirst = setAgain || _oneIn( 4 );
   const auto forgetAll = [ & ] {
      for( const unsigned n : watching ) {
         if( _oneIn( 3 ) ) {
            _drop( n );
            _make( n );
         } else {
            _forget( n );
         }
      }
   };
   if( !closedFirst ) {
      forgetAll();
   }
   _note( closedFirst ? "closed under its watches" : "closed", 0, number );
   close( number );
   if( connection.peer >= 0 ) {
      close( connection.peer );
   }
   if( closedFirst && !setAgain ) {
      forgetAll();
   }
   _open( connection );
   if( connection.peer == number ) {
      connection.peer = checked( fcntl( number, F_DUPFD_CLOEXEC, 0 ), "F_DUPFD" );
   }
   if( connection.fd != number ) {
      checked( dup3( connection.fd, number, O_CLOEXEC ), "dup3" );
      close( connection.fd );
      connection.fd = number;
   }
   // Some have something to say at once, and to the others any call is one too many.
   if( _oneIn( 3 ) ) {
      _peerWrites( connection );
   }
   _setFd( setAgain || ( !watching.empty() && _oneIn( 2 ) )
                 ? watching[ 0 ]
                 : static_cast<unsigned>( _draw( owners_.size() ) ),
           connection );
}

// --------------------------------------------------------------------------------------------
// steps

void DescriptorPlay::_step() {
   if( !fault_.empty() ) {
      return;
   }
   ++counts_.operations;
   const auto number = static_cast<unsigned>( _draw( owners_.size() ) );
   Connection& connection = *connections_[ _draw( connections_.size() ) ];
   switch( _draw( 24 ) ) {
   case 0:
   case 1:
   case 2:
   case 3:
      return _reopen( connection );
   case 4:
   case 5:
   case 6:
   case 7:
      _note( "peer writes", 0, connection.fd );
      return _peerWrites( connection );
   case 8:
      _note( "drained", 0, connection.fd );
      return _drain( connection );
   case 9:
      _note( "peer hangs up", 0, connection.fd );
      return _hangUp( connection );
   case 10:
   case 11:
      _note( "filled", 0, connection.fd );
      return _fill( connection );
   case 12:
   case 13:
      _note( "peer reads", 0, connection.fd );
      return _drainPeer( connection );
   case 14:
      return _setReads( number, _oneIn( 2 ) );
   case 15:
      return _setReads( number, true );
   case 16:
   case 17:
   case 18:
      return _setWrites( number, !_oneIn( 4 ) );
   case 19:
      return _forget( number );
   case 20:
      return _clear( number );
   case 21:
      return _setFd( number, connection );
   case 22: {
      Connection* const before = owners_[ number ].connection;
      _drop( number );
      _make( number );
      if( before && _oneIn( 2 ) ) {
         _setFd( number, *before );
      }
      return;
   }
   default:
      return _suspend( number, _oneIn( 2 ) );
   }
}

// ------------------------------------------------------------------------------------
// notifications

void DescriptorPlay::_called( Listener& listener, int fd, Direction direction ) {
   if( !fault_.empty() ) {
      return;
   }
   ++counts_.notifications;
   const unsigned number = listener.owner;
   char const* const way = direction == read ? "readable" : "writable";
   _note( way, number, fd );
   if( listener.gone ) {
      _fails( fmt::format( "fd {}, {}: called after the watch of owner {} was destroyed", fd, way,
                           number ) );
      return;
   }
   Owner& owner = owners_[ number ];
   Watch& watch = owner.watches[ direction ];
   const bool anyway = std::exchange( watch.mayCome, false );
   const bool isTask = owner.kind != Kind::control;
   if( !owner.connection || !watch.armed ) {
      if( !anyway ) {
         _fails( fmt::format( "fd {}, {}: owner {} watches {}", fd, way, number,
                              owner.connection ? "the other direction" : "nothing" ) );
      } else if( direction == write ) {
         watch.flag = false;
      }
      return;
   }
   if( owner.connection->fd != fd || owner.suspended ) {
      _fails( fmt::format( "fd {}, {}: owner {} watches fd {}{}", fd, way, number,
                           owner.connection->fd, owner.suspended ? ", suspended" : "" ) );
      return;
   }
   if( !_ready( fd, direction ) ) {
      if( !watch.mayBeStale && !anyway ) {
         _fails( fmt::format( "fd {} is not {}, but owner {} is called", fd, way, number ) );
         return;
      }
      ++counts_.excused;
   }
   ++watch.called;
   if( direction == write ) {
      watch.armed = false;
      watch.flag = watch.flag && !isTask && !framework_;
   } else if( owner.watches[ write ].armed && _ready( fd, write ) ) {
      ++counts_.bothWays;
   }
   if( settling_ ) {
      if( direction == read ) {
         _setReads( number, false );
      }
      return;
   }
   calledNow_ = static_cast<int>( number );
   if( direction == read && !_oneIn( 3 ) ) {
      _drain( *owner.connection );
   }
   for( std::uint64_t left = _draw( 5 ); left != 0; --left ) {
      _step();
   }
   calledNow_ = -1;
   if( _oneIn( 500 ) ) {
      ++counts_.thrown;
      throw Deliberate();
   }
}

// ---------------------------------------------------------------------------------------------
// turns

std::vector<DescriptorPlay::Due> DescriptorPlay::_due() const {
   std::vector<Due> all;
   for( unsigned n = 0; n < owners_.size(); ++n ) {
      const Owner& owner = owners_[ n ];
      if( !owner.connection || owner.suspended ) {
         continue;
      }
      for( const Direction direction : { read, write } ) {
         const Watch& watch = owner.watches[ direction ];
         if( watch.armed && _ready( owner.connection->fd, direction ) ) {
            all.push_back( { n, direction, owner.version, owner.connection->spent[ direction ],
                             watch.called } );
         }
      }
   }
   return all;
}

// Whether it has not come, with nothing that excuses it.
bool DescriptorPlay::_isOwed( const Due& due ) const {
   const Owner& owner = owners_[ due.owner ];
   return owner.version == due.version && owner.connection->spent[ due.direction ] == due.spent &&
          owner.watches[ due.direction ].called == due.called;
}

bool DescriptorPlay::_numbersAgree() {
   for( unsigned n = 0; n < owners_.size(); ++n ) {
      const Owner& owner = owners_[ n ];
      const int fd = owner.task ? owner.task->taskWatchFd() : owner.control->getFd();
      const int expected = owner.connection ? owner.connection->fd : -1;
      if( fd != expected ) {
         return _fails( fmt::format( "owner {} has fd {} instead of {}", n, fd, expected ) );
      }
   }
   return true;
}

// A turn of the loop. False when a handler has cut it short.
bool DescriptorPlay::_runs() {
   calledNow_ = -1;
   try {
      Platform::doEventLoop( 0.0 );
   } catch( const Deliberate& ) {
      return false;
   } catch( const std::exception& e ) {
      _fails( fmt::format( "the loop throws: {}", e.what() ) );
      return false;
   }
   return true;
}

bool DescriptorPlay::turn() {
   for( std::uint64_t left = _draw( 7 ); left != 0; --left ) {
      _step();
   }
   dueInTurn_ = _due();
   _note( "--- turn", 0, -1 );
   const bool whole = _runs();
   if( !fault_.empty() ) {
      return false;
   }
   goneHandlers_.clear();
   if( !whole ) {
      return true;
   }
   for( const Due& due : dueInTurn_ ) {
      if( owners_[ due.owner ].kind == Kind::control && _isOwed( due ) ) {
         return _fails( fmt::format( "owner {} was not called: fd {} is {}", due.owner,
                                     owners_[ due.owner ].connection->fd,
                                     due.direction == read ? "readable" : "writable" ) );
      }
   }
   // What was found ready in this turn has been told, but for what waits for the run of a task.
   for( Owner& owner : owners_ ) {
      for( const Direction direction : { read, write } ) {
         const bool waits =
               owner.task && ( direction == read ? owner.task->taskScheduledReadable()
                                                 : owner.task->taskScheduledWritable() );
         if( owner.kind == Kind::control || ( owner.task && !waits && !owner.suspended ) ) {
            owner.watches[ direction ].mayBeStale = false;
         }
      }
   }
   return _numbersAgree();
}

bool DescriptorPlay::settle() {
   for( unsigned n = 0; n < owners_.size(); ++n ) {
      _suspend( n, false );
   }
   _note( "--- settles", 0, -1 );
   settling_ = true;
   // A call ends the read watch, so what is due grows less with each; a few turns for every run.
   const std::size_t most = 20 + 8 * owners_.size();
   std::vector<Due> left;
   for( std::size_t n = 0; n < most; ++n ) {
      left = _due();
      if( left.empty() || !_runs() ) {
         break;
      }
   }
   settling_ = false;
   if( !fault_.empty() ) {
      return false;
   }
   if( !left.empty() ) {
      const Owner& owner = owners_[ left[ 0 ].owner ];
      return _fails( fmt::format( "owner {} is never called: fd {} is {}", left[ 0 ].owner,
                                  owner.connection->fd,
                                  left[ 0 ].direction == read ? "readable" : "writable" ) );
   }
   for( unsigned n = 0; n < owners_.size(); ++n ) {
      if( !_oneIn( 8 ) ) {
         _setReads( n, true );
      }
   }
   return true;
}

} // namespace prove
