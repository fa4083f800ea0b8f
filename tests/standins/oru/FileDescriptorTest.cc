#include "standins/oru/Loop.h"
#include "support/AllocationCount.h"
#include "support/Fatal.h"
#include "support/TraceCapture.h"

#include <Quarn/base/Exception.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <tuple>

namespace {

using Oru::FileDescriptor;
using Oru::Ptr;
using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::TraceCapture;

class FileDescriptorTest : public LoopTest {
 protected:
   static bool isNonBlocking( int fd ) { return ( fcntl( fd, F_GETFL ) & O_NONBLOCK ) != 0; }
   // One turn.
   Log turn() { return run( 0 ); }
};

TEST_F( FileDescriptorTest, IsHeardInEachTurnWhileReady ) {
   Pipe p;
   auto const a = watched( p.in, "a" );
   EXPECT_THAT( turn(), IsEmpty() );
   p.write();
   EXPECT_THAT( turn(), ElementsAre( "ar1" ) );
   EXPECT_THAT( turn(), ElementsAre( "ar2" ) );
   p.read();
   EXPECT_THAT( turn(), IsEmpty() );
   p.write();
   a.watch->hasNotificationActiveIs( false ); // counted all the same
   EXPECT_THAT( turn(), IsEmpty() );
   EXPECT_EQ( a.object->readableCount(), 3u );
   EXPECT_EQ( a.object->writableCount(), 0u );
}

TEST_F( FileDescriptorTest, FlagsChooseAndReadableComesFirst ) {
   int ends[ 2 ];
   ASSERT_EQ( socketpair( AF_UNIX, SOCK_STREAM, 0, ends ), 0 );
   ASSERT_EQ( write( ends[ 1 ], "x", 1 ), 1 );
   auto const a = watched( ends[ 0 ], "a" );
   EXPECT_THAT( turn(), ElementsAre( "ar1" ) );
   a.object->notifyOnWritableIs( true );
   EXPECT_THAT( turn(), ElementsAre( "ar2", "aw1" ) );
   a.object->notifyOnReadableIs( false );
   EXPECT_THAT( turn(), ElementsAre( "aw2" ) );
   a.object->notifyOnWritableIs( false );
   EXPECT_THAT( run(), IsEmpty() ); // nothing to wait for
   a.object->notifyOnReadableIs( true );
   a.object->descriptorIs( -1 );
   EXPECT_THAT( run(), IsEmpty() );
   close( ends[ 0 ] );
   close( ends[ 1 ] );
}

TEST_F( FileDescriptorTest, OrderIsThatInWhichTheWatchesBegan ) {
   int const null = open( "/dev/null", O_RDWR | O_CLOEXEC );
   auto const b = watched( -1, "b" );
   auto const a = watched( null, "a" );
   b.object->descriptorIs( null );
   auto const c = watched( null, "c" );
   EXPECT_THAT( turn(), ElementsAre( "ar1", "br1", "cr1" ) );
   // Other flags keep the place while one is on; the same number again begins anew.
   c.object->notifyOnWritableIs( true );
   c.object->notifyOnReadableIs( false );
   a.object->descriptorIs( null );
   EXPECT_THAT( turn(), ElementsAre( "br2", "cw1", "ar2" ) );
   close( null );
}

TEST_F( FileDescriptorTest, RegularFilesAreAlwaysReady ) {
   std::FILE* const file = std::tmpfile();
   auto const a = watched( fileno( file ), "a" );
   a.object->notifyOnWritableIs( true );
   EXPECT_THAT( turn(), ElementsAre( "ar1", "aw1" ) );
   std::fclose( file );
}

TEST_F( FileDescriptorTest, HangUpAndErrorAreWhateverIsLookedFor ) {
   Pipe gone;
   gone.closeOut();
   auto const reader = watched( gone.in, "reader" );
   EXPECT_THAT( turn(), ElementsAre( "readerr1" ) );
   reader.object->notifyOnReadableIs( false );
   reader.object->notifyOnWritableIs( true );
   EXPECT_THAT( turn(), ElementsAre( "readerw1" ) );
   reader.object->descriptorIs( -1 );

   Pipe deaf;
   deaf.closeIn();
   auto const writer = watched( deaf.out, "writer" );
   EXPECT_THAT( turn(), ElementsAre( "writerr1" ) );
   writer.object->notifyOnWritableIs( true );
   EXPECT_THAT( turn(), ElementsAre( "writerr2", "writerw1" ) );
}

TEST_F( FileDescriptorTest, NumberThatIsNotOpenIsTracedOnceAndLeftAlone ) {
   Pipe open;
   open.write();
   Pipe closed;
   int const number = closed.in;
   auto const a = watched( number, "Link" );
   auto const b = watched( open.in, "b" );
   {
      TraceCapture const trace;
      closed.closeIn();                            // not before: the capture opens some
      EXPECT_THAT( turn(), ElementsAre( "br1" ) ); // the others go on
      EXPECT_THAT( turn(), ElementsAre( "br2" ) );
      a.object->notifyOnWritableIs( true );
      EXPECT_THAT( turn(), ElementsAre( "br3", "Linkw1" ) ) << "the write will fail, and say why";
      EXPECT_THAT( turn(), ElementsAre( "br4" ) );
      EXPECT_EQ( trace.count( "Activity/0 descriptor " + std::to_string( number ) +
                              " of 'Link' is not open" ),
                 1u );
      EXPECT_EQ( trace.count( "is not open" ), 1u );
   }
   EXPECT_EQ( a.object->descriptor(), number );
   ASSERT_EQ( dup2( open.in, number ), number );
   a.object->notifyOnWritableIs( false );
   EXPECT_THAT( turn(), ElementsAre( "br5" ) ) << "somebody else's number by now";
   a.object->descriptorIs( number );
   EXPECT_THAT( turn(), ElementsAre( "br6", "Linkr1" ) );
   close( number );
}

TEST_F( FileDescriptorTest, NotificationChangesItsOwnAndOthers ) {
   Pipe p;
   p.write();
   int const null = open( "/dev/null", O_RDWR | O_CLOEXEC );
   Watched own;
   Watched flagOff;
   Watched anotherDescriptor;
   Watched sameAgain;
   Watched offAndOn;
   Watched halfOff;
   Watched created;
   bool act = true;
   own = watched( null, "own", [ & ] {
      if( !std::exchange( act, false ) ) {
         return;
      }
      own.object->descriptorIs( p.in ); // its writability was that of the old one
      flagOff.object->notifyOnReadableIs( false );
      anotherDescriptor.object->descriptorIs( p.in );
      sameAgain.object->descriptorIs( null );
      offAndOn.object->notifyOnReadableIs( false );
      offAndOn.object->notifyOnReadableIs( true );
      created = watched( null, "created" );
   } );
   own.object->notifyOnWritableIs( true );
   flagOff = watched( null, "off" );
   flagOff.object->notifyOnWritableIs( true );
   anotherDescriptor = watched( null, "another" );
   sameAgain = watched( null, "same" );
   offAndOn = watched( null, "offon" );
   halfOff = watched( null, "half", [ & ] { halfOff.object->notifyOnWritableIs( false ); } );
   halfOff.object->notifyOnWritableIs( true );
   auto const last = watched( null, "last" );
   EXPECT_THAT( turn(), ElementsAre( "ownr1", "offw1", "halfr1", "lastr1" ) );
   EXPECT_THAT( turn(), ElementsAre( "offw2", "halfr2", "lastr2", "ownr2", "anotherr1", "samer1",
                                     "offonr1", "createdr1" ) );
   close( null );
}

TEST_F( FileDescriptorTest, NotificationDestroysItsOwnAndOthers ) {
   int const null = open( "/dev/null", O_RDWR | O_CLOEXEC );
   Watched before;
   Watched own;
   Watched after;
   std::vector<Watched> many;
   before = watched( null, "before" );
   own = watched( null, "own", [ & ] {
      before = {};
      own = {};
      after = {};
      for( int i = 0; i < 100; ++i ) {
         many.push_back( watched( null, "new" ) );
      }
      many.resize( 1 );
   } );
   own.object->notifyOnWritableIs( true );
   after = watched( null, "after" );
   auto const last = watched( null, "last" );
   EXPECT_THAT( turn(), ElementsAre( "beforer1", "ownr1", "lastr1" ) );
   EXPECT_THAT( turn(), ElementsAre( "lastr2", "newr1" ) );
   close( null );
}

TEST_F( FileDescriptorTest, WithoutNotifieesItIsCountedAndNeedNotBeHeld ) {
   int const null = open( "/dev/null", O_RDONLY | O_CLOEXEC );
   {
      FileDescriptor onStack( "stack" );
      onStack.descriptorIs( null );
      turn();
      turn();
      EXPECT_EQ( onStack.readableCount(), 2u );
   }
   EXPECT_THAT( run(), IsEmpty() );
   close( null );
}

TEST_F( FileDescriptorTest, StopAndExceptionDropTheRestOfTheTurn ) {
   int const null = open( "/dev/null", O_RDONLY | O_CLOEXEC );
   bool fail = false;
   auto const a = watched( null, "a", [ & ] {
      if( fail ) {
         throw std::runtime_error( "refused" );
      }
      manager->doStop();
   } );
   auto const b = watched( null, "b" );
   auto const due = alarmIn( 0, "due" );
   EXPECT_THAT( run(), ElementsAre( "ar1" ) );
   EXPECT_THAT( run(), ElementsAre( "ar2" ) );
   fail = true;
   EXPECT_THROW( run(), std::runtime_error );
   a.object->descriptorIs( -1 );
   EXPECT_THAT( turn(), ElementsAre( "br1", "due" ) );
   close( null );
}

TEST_F( FileDescriptorTest, NestedRunLeavesTheOuterTurnNothing ) {
   Pipe p;
   p.write();
   int nested = 0;
   // Reads what made the second one ready.
   auto const a = watched( p.in, "a", [ & ] {
      if( nested++ == 0 ) {
         log.push_back( "(" );
         manager->executionTimeIs( 0 );
         manager->doRun();
         log.push_back( ")" );
         p.read();
      }
   } );
   auto const b = watched( p.in, "b" );
   EXPECT_THAT( turn(), ElementsAre( "ar1", "(", "ar2", "br1", ")" ) );
}

TEST_F( FileDescriptorTest, NonBlockingModeIsSetOnPresentAndLaterDescriptors ) {
   Pipe first;
   Pipe second;
   Ptr<FileDescriptor> const object = new FileDescriptor( "Link" );
   object->descriptorIs( first.in );
   EXPECT_FALSE( isNonBlocking( first.in ) );
   object->nonBlockingIs( true );
   EXPECT_TRUE( isNonBlocking( first.in ) );
   object->descriptorIs( -1 );
   object->descriptorIs( second.in );
   EXPECT_TRUE( isNonBlocking( second.in ) );
   object->nonBlockingIs( false );
   EXPECT_TRUE( isNonBlocking( second.in ) );
   object->descriptorIs( second.out );
   EXPECT_FALSE( isNonBlocking( second.out ) );
}

TEST_F( FileDescriptorTest, FailureToSetTheModeChangesNothing ) {
   Pipe p;
   p.write();
   auto const a = watched( p.in, "Link" );
   Pipe closed;
   int const number = closed.in;
   closed.closeIn();
   a.object->nonBlockingIs( true );
   EXPECT_FATAL( a.object->descriptorIs( number ),
                 "descriptor " + std::to_string( number ) +
                       " of 'Link' cannot be made non-blocking: Bad file descriptor" );
   EXPECT_EQ( a.object->descriptor(), p.in );
   EXPECT_THAT( turn(), ElementsAre( "Linkr1" ) );

   a.object->nonBlockingIs( false );
   a.object->descriptorIs( number );
   EXPECT_FATAL( a.object->nonBlockingIs( true ), "Bad file descriptor" );
   EXPECT_FALSE( a.object->nonBlocking() );
}

TEST_F( FileDescriptorTest, RefusalToWaitLeavesTheRun ) {
   rlimit limit;
   ASSERT_EQ( getrlimit( RLIMIT_NOFILE, &limit ), 0 );
   int const null = open( "/dev/null", O_RDONLY | O_CLOEXEC );
   std::vector<Watched> many;
   many.reserve( 20 );
   for( int i = 0; i < 20; ++i ) {
      many.push_back( watched( null, "a" ) );
   }
   auto const due = alarmIn( 0, "due" );
   rlimit const lower{ 10, limit.rlim_max };
   ASSERT_EQ( setrlimit( RLIMIT_NOFILE, &lower ), 0 );
   // Valgrind keeps the limit to itself, and the run would have no end.
   std::array<pollfd, 20> beyond{};
   const bool refuses = poll( beyond.data(), beyond.size(), 0 ) < 0;
   if( refuses ) {
      EXPECT_THROW( manager->doRun(), Quarn::RuntimeException );
   }
   EXPECT_EQ( setrlimit( RLIMIT_NOFILE, &limit ), 0 );
   if( !refuses ) {
      close( null );
      GTEST_SKIP() << "poll() takes more descriptors than the limit";
   }
   many.resize( 1 );
   EXPECT_THAT( turn(), ElementsAre( "ar1", "due" ) );
   close( null );
}

int signalledPipe = -1;

TEST_F( FileDescriptorTest, SignalInterruptsAWaitAndDoesNotEndIt ) {
   Oru::ActivityManagerConfig::virtualTimeIs( false );
   Pipe p;
   signalledPipe = p.out;
   auto const a = watched( p.in, "a", [ & ] { manager->doStop(); } );
   struct sigaction action = {};
   struct sigaction old;
   action.sa_handler = []( int ) { std::ignore = write( signalledPipe, "x", 1 ); };
   sigaction( SIGALRM, &action, &old );
   itimerval const inAMillisecond{ {}, { 0, 1000 } };
   setitimer( ITIMER_REAL, &inAMillisecond, nullptr );
   EXPECT_THAT( run(), ElementsAre( "ar1" ) );
   sigaction( SIGALRM, &old, nullptr );
}

TEST_F( FileDescriptorTest, TurnsAllocateNothing ) {
   struct Counter : Oru::PtrInterface::NotifieeConst {
      void onAttribute( Oru::AttributeId, void const* ) override {
         ++heard;
         object->notifyOnWritableIs( !object->notifyOnWritable() ); // other questions each time
      }
      FileDescriptor* object = nullptr;
      int heard = 0;
   };
   int const null = open( "/dev/null", O_RDWR | O_CLOEXEC );
   Ptr<FileDescriptor> const object = new FileDescriptor( "a" );
   Ptr<Counter> const counter = new Counter;
   counter->object = object.get();
   counter->notifierIs( object );
   object->descriptorIs( null );
   manager->executionTimeIs( 0 );
   manager->doRun();
   EXPECT_EQ( testing_support::allocationsOf( [ this ] {
                 for( int i = 0; i < 100; ++i ) {
                    manager->executionTimeIs( 0 );
                    manager->doRun();
                 }
              } ),
              0u );
   EXPECT_GE( counter->heard, 101 );
   close( null );
}

TEST_F( FileDescriptorTest, ObjectsAreCounted ) {
   auto const& track = Quarn::MemTrack::of<FileDescriptor>();
   auto const before = track.inUse();
   Ptr<FileDescriptor> object = new FileDescriptor( "a" );
   EXPECT_EQ( track.inUse(), before + 1 );
   object = nullptr;
   EXPECT_EQ( track.inUse(), before );
}

} // namespace
