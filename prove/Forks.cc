// Forks of a process in which everything is under way: timers, tasks, descriptors that are watched
// both ways, a lock, a render. On both loops at once, each in a process of its own.
//
// The parent never sets its watches anew, so that what a child takes away in the kernel stays away:
// after each fork, once beside the child and once after its end, it has to be woken by every kind
// of event. The child moves its copies of the watches to descriptors of its own, sometimes before
// it has set up its base, runs what was pending in the parent to its end, then a timer, a
// descriptor task and a task of its own, and tells the parent its counts.

#include "prove/BothLoops.h"
#include "prove/Row.h"

#include "support/TempDir.h"

#include <Quarn/FileLockCpp.h>
#include <Quarn/base/Exception.h>
#include <Quarn/base/ThreadControl.h>
#include <Quarn/debug/DebugHandler.h>
#include <Quarn/fdtask/FileDescriptorTask.h>
#include <Quarn/platform/EventBase.h>
#include <Quarn/platform/EventLoop.h>
#include <Quarn/platform/Factories.h>
#include <Quarn/scheduler/Task.h>
#include <Quarn/scheduler/TaskSchedulerRoot.h>
#include <Quarn/stats/TaskSchedulerPrintContext.h>
#include <Quarn/stats/TaskSchedulerSnapshot.h>
#include <Quarn/timers/TimerTask.h>
#include <Quarn/timers/TimerWheel.h>

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace Quarn;

// Longer than any of this takes on a busy machine; what has not come by then never does.
constexpr unsigned patienceSeconds = 60;

// What is waited for, and how often each was asked for and has come.
enum What {
   task,
   timerTask,
   timerControl,
   wheelEvent,
   bytesOfTask,
   bytesOfControl,
   writable,
   reports,
   ownTask,
   ownTimer,
   ownBytes,
   restOfRender,
   kinds
};
constexpr char const* names[ kinds ] = { "runs of the task",
                                         "timer tasks",
                                         "timer controls",
                                         "wheel events",
                                         "bytes of the descriptor task",
                                         "bytes of the control",
                                         "writable notifications",
                                         "reports of children",
                                         "runs of the child's task",
                                         "the child's timers",
                                         "bytes of the child's descriptor task",
                                         "documents ended in the child" };

struct Counts {
   std::array<std::uint64_t, kinds> asked{};
   std::array<std::uint64_t, kinds> come{};

   bool allHaveCome() const { return asked == come; }
   std::string lacking() const {
      std::string text;
      for( unsigned n = 0; n < kinds; ++n ) {
         if( asked[ n ] != come[ n ] ) {
            text += fmt::format( "{}{}: {} of {}", text.empty() ? "" : ", ", names[ n ], come[ n ],
                                 asked[ n ] );
         }
      }
      return text;
   }
};

// What a child hands over, in one write that the pipe does not split.
struct Report {
   std::uint64_t fork;
   Counts counts;
   char fault[ 120 ];
};

// Thrown through the loop: when everything has come, and in a child that was forked in a handler.
struct Done {};
struct Forked {};

int checked( int result, char const* call ) {
   if( result < 0 ) {
      throw std::runtime_error( fmt::format( "{}: {}", call, std::strerror( errno ) ) );
   }
   return result;
}

// Both ends stay open; neither waits.
struct Pipe {
   Pipe() {
      int ends[ 2 ];
      checked( pipe2( ends, O_CLOEXEC | O_NONBLOCK ), "pipe" );
      reader = ends[ 0 ];
      writer = ends[ 1 ];
   }
   ~Pipe() {
      close( reader );
      close( writer );
   }
   Pipe( const Pipe& ) = delete;
   Pipe& operator=( const Pipe& ) = delete;

   void put( char byte ) const {
      checked( static_cast<int>( write( writer, &byte, 1 ) ), "write" );
   }

   int reader;
   int writer;
};

struct ChildPipes {
   Pipe task, control, writer, own;
};

class Reader final : public FileDescriptorTask {
 public:
   Reader( const std::shared_ptr<TaskScheduler>& scheduler, String name,
           std::function<void( int )> body )
         : FileDescriptorTask( scheduler, TaskPriority::normal, std::move( name ) ),
           body_( std::move( body ) ) {}

 private:
   void taskExecuteReadable() override { body_( taskWatchFd() ); }
   void taskExecuteWritable() override {}

   std::function<void( int )> body_;
};

template<typename Base>
class Runs final : public Base {
 public:
   Runs( const std::shared_ptr<TaskScheduler>& scheduler, TaskPriority priority, String name,
         std::function<void()> body )
         : Base( scheduler, priority, std::move( name ) ),
           body_( std::move( body ) ) {}

 private:
   void taskExecute() override { body_(); }

   std::function<void()> body_;
};

// A handler of whichever kind.
struct Handler : Platform::FdEventHandler, Platform::TimeoutHandler {
   void readFdEvent( int fd ) override { on( fd ); }
   void writeFdEvent( int fd ) override { on( fd ); }
   void timeout() override { on( -1 ); }
   std::function<void( int )> on;
};

struct WheelEvent final : TimerWheelEvent {
   void timeout() override { on(); }
   std::function<void()> on;
};

// ---------------------------------------------------------------------------------------------------

class ForkPlay {
 public:
   ForkPlay( std::uint64_t seed, bool framework );
   ~ForkPlay() { wheelEvent_.delTimeout( wheel_ ); }
   ForkPlay( const ForkPlay& ) = delete;
   ForkPlay& operator=( const ForkPlay& ) = delete;

   // Forks once. False when something is wrong.
   bool fork();

   const std::string& fault() const { return fault_; }
   std::uint64_t documents() const { return documents_; }
   std::uint64_t forksWithin() const { return forksWithin_; }

 private:
   enum class Place { outside, inTask, inControl, inTimer };

   bool _oneIn( std::uint64_t n ) { return random_() % n == 0; }
   bool _fails( std::string what ) {
      if( fault_.empty() ) {
         fault_ = std::move( what );
      }
      return false;
   }
   void _comes( What what );
   void _readBytes( int fd, What what );
   void _readReports( int fd );
   void _asks( double delay );
   void _drainWriter();
   void _forkAt( Place place );
   void _fork();
   bool _waits();
   bool _childEndsWell();
   void _startRender();
   bool _readRender();

   [[noreturn]] void _runChild();
   void _childOwnsDescriptors( const ChildPipes& pipes, std::mt19937_64& random );
   void _childWorks();
   std::string _childAsksForTheLock();

   std::mt19937_64 random_;
   const bool framework_;
   std::string fault_;
   Counts counts_;
   testing_support::TempDir folder_;
   const std::shared_ptr<Platform::DebugHandler> debug_ =
         Platform::getDebugHandler( "ProveForks", false );
   FileLock lock_{ *debug_, folder_.path(), "lock" };

   std::shared_ptr<TaskSchedulerRoot> root_ = schedulerRootQuarn();
   Pipe taskPipe_, controlPipe_, writerPipe_, reportPipe_;
   std::shared_ptr<Reader> reader_, reportReader_;
   Handler controlHandler_, writerHandler_, timerHandler_;
   std::shared_ptr<Platform::FdControl> control_, writerControl_;
   std::shared_ptr<Platform::TimerControl> timerControl_;
   std::shared_ptr<TimerWheel> wheel_ = getTimerWheel();
   WheelEvent wheelEvent_;
   std::shared_ptr<Runs<Task>> task_, finisher_;
   std::shared_ptr<Runs<TimerTask>> timerTask_;

   // The render under way: how much of it has been read, and the descriptor that it owns.
   std::vector<std::shared_ptr<Runs<Task>>> rows_;
   std::string document_, taken_;
   int renderReader_ = -1;
   int renderWriter_ = -1;
   std::uint64_t documents_ = 0;

   Place place_ = Place::outside;
   bool forkPending_ = false;
   bool inChild_ = false;
   // Whose bytes arrive.
   char mark_ = 'p';
   std::uint64_t forks_ = 0;
   std::uint64_t forksWithin_ = 0;
   pid_t child_ = -1;
   // Of the document, what the child's copy of the render is going to write.
   std::size_t renderedBefore_ = 0;
};

ForkPlay::ForkPlay( std::uint64_t seed, bool framework )
      : random_( seed ),
        framework_( framework ) {
   finisher_ = std::make_shared<Runs<Task>>( root_, TaskPriority::scavenge, "finisher", [ this ] {
      if( counts_.allHaveCome() || !fault_.empty() ) {
         throw Done();
      }
   } );
   task_ = std::make_shared<Runs<Task>>( root_, TaskPriority::normal, "task", [ this ] {
      _comes( task );
      _forkAt( Place::inTask );
   } );
   timerTask_ = std::make_shared<Runs<TimerTask>>( root_, TaskPriority::normal, "timer task",
                                                   [ this ] { _comes( timerTask ); } );
   timerHandler_.on = [ this ]( int ) { _comes( timerControl ); };
   timerControl_ = Platform::getTimerControl( &timerHandler_ );
   wheelEvent_.on = [ this ] {
      _comes( wheelEvent );
      _forkAt( Place::inTimer );
   };
   reader_ = std::make_shared<Reader>( root_, "reader",
                                       [ this ]( int fd ) { _readBytes( fd, bytesOfTask ); } );
   reader_->taskWatchFdIs( taskPipe_.reader );
   controlHandler_.on = [ this ]( int fd ) {
      _readBytes( fd, bytesOfControl );
      _forkAt( Place::inControl );
   };
   control_ = Platform::getFdControl( &controlHandler_ );
   control_->setFd( controlPipe_.reader );
   reportReader_ =
         std::make_shared<Reader>( root_, "reports", [ this ]( int fd ) { _readReports( fd ); } );
   reportReader_->taskWatchFdIs( reportPipe_.reader );

   fcntl( writerPipe_.writer, F_SETPIPE_SZ, 4096 );
   writerHandler_.on = [ this ]( int fd ) {
      const std::array<char, 4096> bytes{};
      while( write( fd, bytes.data(), bytes.size() ) > 0 ) {
      }
      _comes( writable );
      if( !inChild_ ) {
         writerControl_->setWrites( true );
      }
   };
   writerControl_ = Platform::getFdControl( &writerHandler_ );
   writerControl_->setReads( false );
   writerHandler_.on( writerPipe_.writer );
   counts_ = {};
   writerControl_->setFd( writerPipe_.writer );

   for( unsigned n = 0; n < 60; ++n ) {
      rows_.push_back( std::make_shared<Runs<Task>>( root_, TaskPriority::low,
                                                     "row of the document", [] {} ) );
   }
   if( !lock_.lock( false ) ) {
      throw std::runtime_error( "the lock cannot be taken" );
   }
   _startRender();
}

// -------------------------------------------------------------------------------------------
// counts

void ForkPlay::_comes( What what ) {
   ++counts_.come[ what ];
   if( counts_.allHaveCome() ) {
      finisher_->scheduleTask();
   }
}

void ForkPlay::_readBytes( int fd, What what ) {
   char byte;
   while( read( fd, &byte, 1 ) == 1 ) {
      if( byte != mark_ ) {
         _fails( fmt::format( "{} gets a byte of the other process",
                              inChild_ ? "child" : "parent" ) );
      }
      _comes( what );
   }
}

void ForkPlay::_readReports( int fd ) {
   Report report;
   while( read( fd, &report, sizeof( report ) ) == sizeof( report ) ) {
      if( report.fork != forks_ || report.fault[ 0 ] != '\0' || !report.counts.allHaveCome() ||
          report.counts.come[ ownTask ] != 1 || report.counts.come[ ownTimer ] != 1 ||
          report.counts.come[ ownBytes ] != 1 ) {
         _fails( fmt::format( "the child of fork {}: {}{}", report.fork, report.fault,
                              report.counts.lacking() ) );
         finisher_->scheduleTask();
      }
      _comes( reports );
   }
}

// One of each kind that needs no other process.
void ForkPlay::_asks( double delay ) {
   ++counts_.asked[ task ];
   task_->scheduleTask();
   ++counts_.asked[ timerTask ];
   timerTask_->scheduleTaskDelay( delay );
   ++counts_.asked[ timerControl ];
   timerControl_->setTimeout( delay );
   ++counts_.asked[ wheelEvent ];
   wheelEvent_.setTimeout( wheel_, delay );
}

void ForkPlay::_drainWriter() {
   ++counts_.asked[ writable ];
   std::array<char, 8192> bytes;
   while( read( writerPipe_.reader, bytes.data(), bytes.size() ) > 0 ) {
   }
}

// Runs the loop until everything has come that was asked for.
bool ForkPlay::_waits() {
   if( !counts_.allHaveCome() ) {
      try {
         Platform::doEventLoop( patienceSeconds );
      } catch( const Done& ) {
      }
   }
   if( !counts_.allHaveCome() ) {
      _fails( fmt::format( "fork {}: {}", forks_, counts_.lacking() ) );
   }
   return fault_.empty();
}

// --------------------------------------------------------------------------------------------
// forks

void ForkPlay::_forkAt( Place place ) {
   if( !forkPending_ || place != place_ || inChild_ ) {
      return;
   }
   ++forksWithin_;
   _fork();
   if( inChild_ ) {
      throw Forked();
   }
}

void ForkPlay::_fork() {
   forkPending_ = false;
   int waiting = 0;
   checked( ioctl( renderReader_, FIONREAD, &waiting ), "FIONREAD" );
   renderedBefore_ = taken_.size() + static_cast<std::size_t>( waiting );
   ++counts_.asked[ reports ];
   ++forks_;
   child_ = checked( ::fork(), "fork" );
   inChild_ = child_ == 0;
}

bool ForkPlay::_childEndsWell() {
   int status = 0;
   if( child_ < 0 || waitpid( child_, &status, 0 ) != child_ || status != 0 ) {
      return _fails( fmt::format( "the child of fork {} ends with status {:#x}", forks_, status ) );
   }
   child_ = -1;
   return true;
}

bool ForkPlay::fork() {
   if( !_readRender() ) {
      return false;
   }
   // Some of it is asked for before the fork, so that it is pending in both processes.
   const bool bytesBefore = _oneIn( 2 );
   _asks( _oneIn( 2 ) ? 0.0 : 0.0003 );
   place_ = static_cast<Place>( random_() % 4 );
   forkPending_ = true;
   const auto putBytes = [ & ] {
      ++counts_.asked[ bytesOfTask ];
      ++counts_.asked[ bytesOfControl ];
      taskPipe_.put( mark_ );
      controlPipe_.put( mark_ );
      _drainWriter();
   };
   if( bytesBefore || place_ == Place::inControl ) {
      putBytes();
   }
   if( place_ == Place::outside ) {
      _fork();
   } else {
      try {
         _waits();
      } catch( const Forked& ) {
      }
   }
   if( inChild_ ) {
      _runChild();
   }
   // Beside the child, when it was forked out of the loop.
   if( fault_.empty() && !bytesBefore && place_ != Place::inControl ) {
      putBytes();
   }
   if( !_waits() || !_childEndsWell() ) {
      return false;
   }
   // After its end, when its copies of everything are gone as well.
   _asks( 0.0 );
   putBytes();
   if( !_waits() ) {
      return false;
   }
   if( _oneIn( 8 ) ) {
      FileLock other( *debug_, folder_.path(), "lock" );
      if( other.lock( false ) ) {
         return _fails( fmt::format( "the lock is lost after fork {}", forks_ ) );
      }
   }
   return true;
}

// -------------------------------------------------------------------------------------------
// render

void ForkPlay::_startRender() {
   int ends[ 2 ];
   checked( pipe2( ends, O_CLOEXEC ), "pipe" );
   checked( fcntl( ends[ 1 ], F_SETPIPE_SZ, 4096 ), "F_SETPIPE_SZ" );
   checked( fcntl( ends[ 0 ], F_SETFL, O_NONBLOCK ), "F_SETFL" );
   renderReader_ = ends[ 0 ];
   renderWriter_ = ends[ 1 ];
   const auto shot = root_->snapshot( "document", true, false, true, {}, 0 );
   std::ostringstream out;
   const auto context = TaskScheduler::PrintContextIs( out );
   shot->renderJson( *context );
   context->closeJson();
   document_ = out.str();
   taken_.clear();
   root_->snapshotRenderJsonAsync( renderWriter_, { shot }, [ this ] { renderWriter_ = -1; } );
}

// Reads some of it, so that it stays under way over many forks.
bool ForkPlay::_readRender() {
   std::string bytes( random_() % 1'500, '\0' );
   const ssize_t got = read( renderReader_, bytes.data(), bytes.size() );
   if( got > 0 ) {
      taken_.append( bytes, 0, static_cast<std::size_t>( got ) );
   }
   if( got != 0 || bytes.empty() ) {
      return true;
   }
   close( renderReader_ );
   ++documents_;
   if( taken_ != document_ ) {
      return _fails( fmt::format( "document {} of the parent differs", documents_ ) );
   }
   _startRender();
   return true;
}

// ---------------------------------------------------------------------------------------- the
// child

void ForkPlay::_runChild() {
   alarm( patienceSeconds );
   Report report{};
   report.fork = forks_;
   std::string fault;
   try {
      _childWorks();
      fault = fault_;
      report.counts = counts_;
   } catch( const std::exception& e ) {
      fault = e.what();
   }
   fault.copy( report.fault, sizeof( report.fault ) - 1 );
   const bool sent = write( reportPipe_.writer, &report, sizeof( report ) ) == sizeof( report );
   _exit( sent && fault.empty() ? 0 : 1 );
}

std::string ForkPlay::_childAsksForTheLock() {
   FileLock other( *debug_, folder_.path(), "lock" );
   if( other.lock( false ) || errno != EAGAIN ) {
      return "the lock of the parent is free";
   }
   try {
      lock_.release();
   } catch( const AssertException& ) {
      return {};
   }
   return "the lock of the parent can be released";
}

void ForkPlay::_childOwnsDescriptors( const ChildPipes& pipes, std::mt19937_64& random ) {
   const bool dropsReports = random() % 4 == 0;
   std::array<std::function<void()>, 4> moves = {
         [ & ] { reader_->taskWatchFdIs( pipes.task.reader ); },
         [ & ] { control_->setFd( pipes.control.reader ); },
         [ & ] {
            if( dropsReports ) {
               reportReader_.reset();
            } else {
               reportReader_->taskWatchFdDel();
            }
         },
         [ & ] {
            writerControl_->setWrites( false );
            writerControl_->setFd( pipes.writer.writer );
            writerControl_->setWrites( true );
         } };
   std::shuffle( moves.begin(), moves.end(), random );
   // Touching descriptors before the base is set up must not reach the parent's.
   const auto early = random() % 2 == 0 ? random() % ( moves.size() + 1 ) : 0;
   for( std::size_t n = 0; n < moves.size(); ++n ) {
      if( n == early && !framework_ ) {
         leForkReinit();
      }
      moves[ n ]();
   }
   if( early == moves.size() && !framework_ ) {
      leForkReinit();
   }
}

void ForkPlay::_childWorks() {
   // What is due of the parent's timers and tasks comes here too; its descriptors are its own.
   mark_ = 'c';
   for( const What what : { bytesOfTask, bytesOfControl, writable, reports } ) {
      counts_.asked[ what ] = counts_.come[ what ] = 0;
   }
   std::mt19937_64 random( forks_ );
   const ChildPipes pipes;
   std::string rest;
   std::shared_ptr<Reader> restReader;
   restReader = std::make_shared<Reader>( root_, "rest of the render", [ & ]( int fd ) {
      std::array<char, 4096> bytes;
      ssize_t got;
      while( ( got = read( fd, bytes.data(), bytes.size() ) ) > 0 ) {
         rest.append( bytes.data(), static_cast<std::size_t>( got ) );
      }
      if( got == 0 ) {
         if( rest != document_.substr( renderedBefore_ ) ) {
            _fails( "the rest of the document differs in the child" );
         }
         restReader->taskWatchFdDel();
         _comes( restOfRender );
      }
   } );
   if( renderWriter_ >= 0 ) {
      // The render goes on into a pipe of the child's, under the number that it has.
      int ends[ 2 ];
      checked( pipe2( ends, O_CLOEXEC | O_NONBLOCK ), "pipe" );
      checked( dup3( ends[ 1 ], renderWriter_, O_CLOEXEC ), "dup3" );
      close( ends[ 1 ] );
      if( random() % 4 == 0 ) {
         ++counts_.asked[ restOfRender ];
         restReader->taskWatchFdIs( ends[ 0 ] );
      }
   }
   _childOwnsDescriptors( pipes, random );
   counts_.asked[ bytesOfTask ] = counts_.asked[ bytesOfControl ] = counts_.asked[ writable ] = 1;
   pipes.task.put( mark_ );
   pipes.control.put( mark_ );

   const auto own = std::make_shared<Runs<Task>>( root_, TaskPriority::normal, "own task",
                                                  [ this ] { _comes( ownTask ); } );
   const auto timer = std::make_shared<Runs<TimerTask>>( root_, TaskPriority::normal, "own timer",
                                                         [ this ] { _comes( ownTimer ); } );
   const auto bytes = std::make_shared<Reader>(
         root_, "own reader", [ this ]( int fd ) { _readBytes( fd, ownBytes ); } );
   counts_.asked[ ownTask ] = counts_.asked[ ownTimer ] = counts_.asked[ ownBytes ] = 1;
   own->scheduleTask();
   timer->scheduleTaskDelay( 0.0002 );
   bytes->taskWatchFdIs( pipes.own.reader );
   pipes.own.put( mark_ );
   if( _waits() && random() % 8 == 0 ) {
      fault_ = _childAsksForTheLock();
   }
}

// --------------------------------------------------------------------------------------------
// plays

struct Result {
   bool good = false;
   std::uint64_t within = 0;
   std::uint64_t documents = 0;
};

Result plays( std::uint64_t count, std::uint64_t seed, bool framework ) {
   Result result;
   std::string fault;
   std::uint64_t forks = 0;
   try {
      ForkPlay play( seed, !hasThreadLocalSingletons() );
      while( forks < count && play.fork() ) {
         ++forks;
      }
      fault = play.fault();
      result.within = play.forksWithin();
      result.documents = play.documents();
   } catch( const std::exception& e ) {
      fault = e.what();
   }
   result.good = fault.empty();
   if( !result.good ) {
      std::fprintf( stderr, "after %llu forks on %s: %s\n",
                    static_cast<unsigned long long>( forks ), prove::loopText( framework ),
                    fault.c_str() );
   }
   return result;
}

prove::Outcome run( const prove::Order& order ) {
   const auto [ first, second ] = prove::onBothLoops<Result>( [ & ]( bool framework ) {
      return plays( framework ? order.count / 2 : order.count - order.count / 2,
                    order.seed + ( framework ? 1 : 0 ), framework );
   } );
   if( !first.good || !second.good ) {
      return { false, "a wake-up is missed, or a child does not work" };
   }
   if( order.count >= 1'000 &&
       ( first.within * second.within == 0 || first.documents * second.documents == 0 ) ) {
      return { false, "no fork within a handler, or no render that ends" };
   }
   return { true, fmt::format( "{} forks on two loops, {} of them within handlers, and {} renders "
                               "under way: no wake-up missed, every child worked",
                               order.count, first.within + second.within,
                               first.documents + second.documents ) };
}

} // namespace

int main( int argc, char** argv ) {
   return prove::runRow( argc, argv,
                         { 10, "forks",
                           "10,000 forks, the parent never misses a wake-up, the child works",
                           10'000 },
                         run );
}
