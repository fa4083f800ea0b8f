#include "standins/InChild.h"
#include "standins/oru/Loop.h"
#include "support/Fatal.h"

#include <Oru/ActivityLock.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <fstream>
#include <stdexcept>
#include <thread>

namespace {

using Oru::ActivityLock;
using Oru::Ptr;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr double never = Oru::Clock::NotifieeConst::never;
constexpr double microsecond = 1e-6;

class ActivityLoopTest : public LoopTest {
 protected:
   ~ActivityLoopTest() override { Oru::System::currentTimeOffsetFnIs( nullptr ); }
};

TEST_F( ActivityLoopTest, EndsWhenNothingIsLeftToWaitFor ) {
   EXPECT_THAT( run(), IsEmpty() );
   auto const a = alarmIn( 1, "a" );
   auto const b = alarmIn( 2, "b" );
   EXPECT_THAT( run(), ElementsAre( "a", "b" ) );
}

TEST_F( ActivityLoopTest, ExecutionTimeCountsForOneRun ) {
   EXPECT_EQ( manager->executionTime(), never );
   auto const a = alarmIn( 1, "a", [ & ] { EXPECT_EQ( manager->executionTime(), never ); } );
   auto const atTheEnd = alarmIn( 10, "end" );
   auto const beyond = alarmIn( 10 + microsecond, "beyond" );
   double const start = now();
   EXPECT_THAT( run( 10 ), ElementsAre( "a", "end" ) );
   EXPECT_NEAR( now(), start + 10, microsecond / 2 );
   EXPECT_THAT( run(), ElementsAre( "beyond" ) );
   run( 5 ); // with nothing to wait for but its end
   EXPECT_NEAR( now(), start + 15, microsecond );

   EXPECT_FATAL( manager->executionTimeIs( std::nan( "" ) ), "not a number" );
   manager->executionTimeIs( -3 );
   EXPECT_EQ( manager->executionTime(), 0 );
   manager->executionTimeIs( never );
}

TEST_F( ActivityLoopTest, OneTurnIsServedWithoutExecutionTime ) {
   Ptr<Alarm> again;
   auto const a = alarmIn( 0, "a", [ & ] { again->timeMinIs( now() ); } );
   auto const b = alarmIn( 0, "b" );
   again = alarm( "again" );
   double const start = now();
   EXPECT_THAT( run( 0 ), ElementsAre( "a", "b" ) );
   EXPECT_THAT( run( 0 ), ElementsAre( "again" ) );
   EXPECT_THAT( run( 0 ), IsEmpty() );
   EXPECT_EQ( now(), start );
}

TEST_F( ActivityLoopTest, StopEndsTheRunAndKeepsTheRest ) {
   manager->doStop(); // of no run
   auto const a = alarmIn( 1, "a", [ & ] { manager->doStop(); } );
   auto const b = alarmIn( 1, "b" );
   auto const c = alarmIn( 2, "c" );
   EXPECT_THAT( run(), ElementsAre( "a" ) );
   EXPECT_LT( b->timeMin(), never );
   EXPECT_THAT( run(), ElementsAre( "b", "c" ) );
}

TEST_F( ActivityLoopTest, ExceptionLeavesTheRunAndKeepsTheRest ) {
   auto const a = alarmIn( 1, "a", [] { throw std::runtime_error( "refused" ); } );
   auto const b = alarmIn( 1, "b" );
   manager->executionTimeIs( 100 );
   EXPECT_THROW( manager->doRun(), std::runtime_error );
   EXPECT_EQ( manager->executionTime(), never );
   EXPECT_FALSE( ActivityLock::lock().ownedByThisThread() );
   EXPECT_EQ( a->timeMin(), never );
   EXPECT_THAT( run(), ElementsAre( "b" ) );
}

TEST_F( ActivityLoopTest, NestedRunServesWhatTheOuterTurnHasLeft ) {
   Ptr<Alarm> own;
   own = alarmIn( 1, "own", [ & ] {
      own->timeMinIs( 0 ); // served by the nested run, before the others
      own = nullptr;
   } );
   Ptr<Alarm> nests;
   nests = alarmIn( 1, "nests", [ & ] {
      log.push_back( "(" );
      manager->doRun();
      log.push_back( ")" );
      nests->timeMinIs( never );
   } );
   auto const rest = alarmIn( 1, "rest" );
   auto const later = alarmIn( 2, "later" );
   Ptr<Alarm> afterwards;
   auto const last = alarmIn( 3, "last", [ & ] {
      manager->doStop();
      afterwards = alarmIn( 0, "afterwards" );
   } );
   EXPECT_THAT( run(),
                ElementsAre( "own", "nests", "(", "rest", "later", "last", ")", "afterwards" ) );
}

TEST_F( ActivityLoopTest, ExceptionOfANestedRunMayBeCaught ) {
   auto const nests = alarmIn( 1, "nests", [ & ] {
      manager->executionTimeIs( 10 );
      EXPECT_THROW( manager->doRun(), std::runtime_error );
      EXPECT_TRUE( ActivityLock::lock().ownedByThisThread() );
   } );
   auto const fails = alarmIn( 1, "fails", [] { throw std::runtime_error( "refused" ); } );
   auto const rest = alarmIn( 1, "rest" );
   EXPECT_THAT( run(), ElementsAre( "nests", "fails", "rest" ) );
}

TEST_F( ActivityLoopTest, VirtualTimeSkipsWaitsToTheMicrosecond ) {
   double const start = now();
   double const before = Oru::ActivityManager::virtualTimeOffset();
   constexpr double days = 24 * 60 * 60;
   for( double const seconds : { 1e-6, 0.1, 1.0 / 3, 3 * days, 365.25 * days } ) {
      auto const a = alarm( "a" );
      double const time = start + seconds;
      a->timeMinIs( time );
      EXPECT_THAT( run(), ElementsAre( "a" ) );
      EXPECT_GE( a->heardAt, time );
      EXPECT_LE( a->heardAt, time + microsecond / 2 );
   }
   EXPECT_NEAR( Oru::ActivityManager::virtualTimeOffset() - before, 365.25 * days, microsecond );

   Oru::ActivityManagerConfig::virtualTimeIs( false );
   EXPECT_GE( now(), start + 365.25 * days ); // stays
}

TEST_F( ActivityLoopTest, VirtualTimeMovesWhateverTheRounding ) {
   // The offset that the loop moves is far coarser than the times it is to reach.
   static double const base = now();
   Oru::System::currentTimeOffsetFnIs( [] { return -base; } );
   ASSERT_EQ( now(), 0 );
   for( double const seconds : { 1e-300, 1e-9, 1e-7, 0.3 } ) {
      auto const a = alarmIn( seconds, "a" );
      EXPECT_THAT( run(), ElementsAre( "a" ) );
   }
   EXPECT_LT( now(), 0.4 );
}

TEST_F( ActivityLoopTest, VirtualTimeWaitsForNothingThatIsReady ) {
   Pipe p;
   p.write();
   double const start = now();
   auto const later = alarmIn( 1, "later" );
   int reads = 0;
   auto const a = watched( p.in, "a", [ & ] {
      EXPECT_EQ( now(), start );
      if( ++reads == 3 ) {
         p.read();
      }
   } );
   EXPECT_THAT( run( 1 ), ElementsAre( "ar1", "ar2", "ar3", "later" ) );
}

TEST_F( ActivityLoopTest, WaitsOnTheRealClockWithoutVirtualTime ) {
   Oru::ActivityManagerConfig::virtualTimeIs( false );
   Oru::System::clockFnIs( nullptr );
   double const offset = Oru::ActivityManager::virtualTimeOffset();
   auto const a = alarmIn( 0.002, "a" );
   double const time = a->timeMin();
   EXPECT_THAT( run(), ElementsAre( "a" ) );
   EXPECT_GE( now(), time );
   EXPECT_EQ( Oru::ActivityManager::virtualTimeOffset(), offset );
}

// The thread gets the lock in a wait only, and ends the wait through the pipe.
TEST_F( ActivityLoopTest, OtherThreadsGetTheLockDuringTheWait ) {
   Pipe p;
   bool handling = false; // plain: the lock keeps the threads apart
   std::thread other;
   auto const nests = alarmIn( 0, "outer", [ & ] {
      handling = true;
      auto const starts = alarmIn( 0, "inner", [ & ] {
         EXPECT_TRUE( ActivityLock::lock().ownedByThisThread() );
         other = std::thread( [ & ] {
            ActivityLock::lock().acquire();
            EXPECT_FALSE( handling );
            ActivityLock::lock().release();
            p.write();
         } );
         handling = false;
      } );
      auto const stops = watched( p.in, "pipe", [ & ] { manager->doStop(); } );
      manager->doRun();
   } );
   EXPECT_THAT( run(), ElementsAre( "outer", "inner", "piper1" ) );
   other.join();
   EXPECT_FALSE( ActivityLock::lock().ownedByThisThread() );
}

TEST_F( ActivityLoopTest, LockOfTheCallingThreadIsKeptDuringTheWait ) {
   std::atomic<bool> got{ false };
   std::thread other;
   auto const starts = alarmIn( 0, "starts", [ & ] {
      other = std::thread( [ & ] {
         ActivityLock::lock().acquire();
         got = true;
         ActivityLock::lock().release();
      } );
   } );
   Ptr<Alarm> turns;
   int left = 1000;
   turns = alarmIn( 1, "turns", [ & ] {
      if( --left > 0 ) {
         turns->timeMinIs( now() + 1 );
      }
   } );
   ActivityLock::lock().acquire();
   run();
   EXPECT_TRUE( ActivityLock::lock().ownedByThisThread() );
   EXPECT_FALSE( got );
   ActivityLock::lock().release();
   other.join();
   EXPECT_TRUE( got );
}

TEST_F( ActivityLoopTest, RunOnASecondThreadIsFatal ) {
   auto const refused = [ & ] {
      EXPECT_FATAL( manager->executionTimeIs( 1 ), "activity loop runs on another thread already" );
      EXPECT_FATAL( manager->doRun(), "activity loop runs on another thread already" );
   };
   Pipe p;
   std::thread other;
   auto const starts = alarmIn( 0, "starts", [ & ] {
      std::thread( refused ).join(); // while this thread has the lock
      other = std::thread( [ & ] {
         ActivityLock::lock().acquire(); // in the wait
         refused();
         EXPECT_TRUE( ActivityLock::lock().ownedByThisThread() );
         ActivityLock::lock().release();
         p.write();
      } );
   } );
   auto const stops = watched( p.in, "pipe", [ & ] { manager->doStop(); } );
   EXPECT_THAT( run(), ElementsAre( "starts", "piper1" ) );
   other.join();
}

// Whether a thread of this process sleeps.
bool sleeps( pid_t thread ) {
   std::ifstream stat( "/proc/self/task/" + std::to_string( thread ) + "/stat" );
   std::string line;
   std::getline( stat, line );
   std::size_t const name = line.rfind( ')' );
   return name != std::string::npos && line.compare( name, 4, ") S " ) == 0;
}

TEST_F( ActivityLoopTest, ThreadThatWaitsForTheLockIsNotRunningTheLoop ) {
   ActivityLock::lock().acquire();
   std::atomic<pid_t> thread{ 0 };
   auto const a = alarmIn( 1, "a" );
   Ptr<Alarm> const b = alarm( "b" );
   std::thread other( [ & ] {
      thread = gettid();
      manager->doRun();
   } );
   while( thread == 0 || !sleeps( thread ) ) {
      std::this_thread::yield();
   }
   EXPECT_THAT( run(), ElementsAre( "a" ) );
   b->timeMinIs( now() + 1 );
   ActivityLock::lock().release();
   other.join();
   EXPECT_THAT( log, ElementsAre( "b" ) );
}

TEST_F( ActivityLoopTest, ChildOfANotificationIsWithinTheRun ) {
   pid_t child = -1;
   auto const forks = alarmIn( 1, "forks", [ & ] {
      child = fork();
      if( child == 0 ) {
         ::alarm( 30 ); // a lock that stays taken ends the child
         manager->executionTimeIs( 0 );
         manager->doRun();  // nested, serves what is left of the turn
         manager->doStop(); // the run that the parent began
      }
   } );
   auto const rest = alarmIn( 1, "rest" );
   auto const later = alarmIn( 2, "later" );
   Log const heard = run();
   if( child == 0 ) {
      bool const owned = ActivityLock::lock().ownedByThisThread();
      _exit( heard == Log{ "forks", "rest" } && !owned ? 0 : 1 );
   }
   EXPECT_THAT( heard, ElementsAre( "forks", "rest", "later" ) );
   EXPECT_EQ( resultOf( child ), 0 );
}

TEST_F( ActivityLoopTest, ChildOfAnotherThreadRunsTheLoopItself ) {
   Pipe p;
   int result = -1;
   std::thread other;
   Ptr<Alarm> inTheChild = alarm( "child" );
   auto const starts = alarmIn( 0, "starts", [ & ] {
      other = std::thread( [ & ] {
         // fork() waits for the lock, and gets it when the loop waits.
         result = inChild( [ & ] {
            log.clear();
            inTheChild->timeMinIs( now() + 1 );
            manager->executionTimeIs( 2 );
            manager->doRun();
            return log == Log{ "child" } && !ActivityLock::lock().ownedByThisThread() ? 0 : 1;
         } );
         p.write();
      } );
   } );
   auto const stops = watched( p.in, "pipe", [ & ] { manager->doStop(); } );
   EXPECT_THAT( run(), ElementsAre( "starts", "piper1" ) );
   other.join();
   EXPECT_EQ( result, 0 );
}

} // namespace
