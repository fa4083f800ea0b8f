#include "standins/InChild.h"

#include <Quarn/base/BacktraceTracker.h>
#include <Quarn/base/ThreadControl.h>
#include <Quarn/base/Time.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using Quarn::BacktraceTracker;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

std::string printed() {
   std::ostringstream out;
   BacktraceTracker::printAll( out );
   return out.str();
}

// The labels, in the order in which they are printed.
std::vector<std::string> labels() {
   std::vector<std::string> found;
   std::istringstream in( printed() );
   for( std::string line; std::getline( in, line ); ) {
      if( line.starts_with( "backtrace \"" ) ) {
         found.push_back( line.substr( 11, line.find( '"', 11 ) - 11 ) );
      }
   }
   return found;
}

void record( std::initializer_list<char const*> names ) {
   for( char const* name : names ) {
      BacktraceTracker::backtraceIs( name );
   }
}

class BacktraceTrackerTest : public testing::Test {
 protected:
   ~BacktraceTrackerTest() override {
      BacktraceTracker::enabledIs( false );
      BacktraceTracker::capacityIs( 64 );
      BacktraceTracker::clear();
      Quarn::Impl::timeIndirectFnIs( nullptr );
   }
};

// A call made in the last place of a function would leave no frame of it.
std::atomic<int> returned{ 0 };

std::atomic<int> lineOfRecord{ 0 };

__attribute__( ( noinline ) ) void innerFunction( char const* label ) {
   lineOfRecord = __LINE__ + 1;
   BacktraceTracker::backtraceIs( label );
   ++returned;
}

__attribute__( ( noinline ) ) void outerFunction( char const* label ) {
   innerFunction( label );
   ++returned;
}

__attribute__( ( noinline ) ) void recordDeeply( int depth ) {
   if( depth == 0 ) {
      BacktraceTracker::backtraceIs( "deep" );
   } else {
      recordDeeply( depth - 1 );
   }
   ++returned;
}

// The address that such a call would return to is no longer within its caller.
[[noreturn]] __attribute__( ( noinline ) ) void functionThatNeverReturns() {
   BacktraceTracker::backtraceIs( "before a throw" );
   throw returned.load();
}

__attribute__( ( noinline ) ) void callerThatEndsWithIt() { functionThatNeverReturns(); }

TEST_F( BacktraceTrackerTest, RecordsOnlyWhileItIsOn ) {
   EXPECT_FALSE( BacktraceTracker::enabled() );
   EXPECT_EQ( BacktraceTracker::capacity(), 64u );
   record( { "before" } );
   EXPECT_EQ( printed(), "" );
   BacktraceTracker::enabledIs( true );
   record( { "first", "second" } );
   BacktraceTracker::enabledIs( false );
   record( { "after" } );
   EXPECT_THAT( labels(), ElementsAre( "first", "second" ) );
   BacktraceTracker::clear();
   EXPECT_EQ( printed(), "" );
   EXPECT_FALSE( BacktraceTracker::enabled() );
}

TEST_F( BacktraceTrackerTest, OldestGoesWhenThereAreTooMany ) {
   BacktraceTracker::enabledIs( true );
   BacktraceTracker::capacityIs( 3 );
   record( { "a", "b", "c", "d", "e" } );
   EXPECT_THAT( labels(), ElementsAre( "c", "d", "e" ) );
   BacktraceTracker::capacityIs( 2 );
   EXPECT_THAT( labels(), ElementsAre( "d", "e" ) );
   BacktraceTracker::capacityIs( 4000000000u );
   EXPECT_EQ( BacktraceTracker::capacity(), 4000000000u );
   record( { "f" } );
   EXPECT_THAT( labels(), ElementsAre( "d", "e", "f" ) );
   BacktraceTracker::capacityIs( 0 );
   record( { "g" } );
   EXPECT_THAT( labels(), IsEmpty() );
   BacktraceTracker::capacityIs( 1 );
   record( { "h", "i" } );
   EXPECT_THAT( labels(), ElementsAre( "i" ) );
}

TEST_F( BacktraceTrackerTest, FramesBeginWhereItWasCalled ) {
   BacktraceTracker::enabledIs( true );
   outerFunction( "here" );
   std::string const text = printed();
   std::istringstream in( text );
   std::string head;
   std::string first;
   std::string second;
   std::getline( in, head );
   std::getline( in, first );
   std::getline( in, second );
   EXPECT_THAT( first, testing::StartsWith( " #0 " ) );
   EXPECT_THAT( first, HasSubstr( "innerFunction" ) );
   EXPECT_THAT( second, testing::StartsWith( " #1 " ) );
   EXPECT_THAT( second, HasSubstr( "outerFunction" ) );
   EXPECT_THAT( text, HasSubstr( " main" ) );
   EXPECT_THAT( text, Not( HasSubstr( "BacktraceTracker::" ) ) );
   EXPECT_THAT( text, Not( HasSubstr( "boost::stacktrace" ) ) );
#ifndef NDEBUG
   // Builds with assertions have debugging information.
   EXPECT_THAT( first,
                EndsWith( fmt::format( "BacktraceTrackerTest.cc:{}", lineOfRecord.load() ) ) );
#endif
}

TEST_F( BacktraceTrackerTest, NamesCallersOfWhatNeverReturns ) {
   BacktraceTracker::enabledIs( true );
   EXPECT_THROW( callerThatEndsWithIt(), int );
   EXPECT_THAT( printed(), HasSubstr( "callerThatEndsWithIt" ) );
}

TEST_F( BacktraceTrackerTest, TellsTimeAndThread ) {
   BacktraceTracker::enabledIs( true );
   Quarn::Impl::timeIndirectFnIs( [] { return 1700000000.25; } );
   pid_t thread = 0;
   std::jthread( [ & ] {
      thread = Quarn::gettid();
      outerFunction( "from a thread" );
   } ).join();
   // Printed later, by another thread, what was true then.
   Quarn::Impl::timeIndirectFnIs( [] { return 1800000000.0; } );
   std::string const text = printed();
   EXPECT_EQ(
         text.substr( 0, text.find( '\n' ) ),
         fmt::format( "backtrace \"from a thread\" at 1700000000.250000 in thread {}", thread ) );
   EXPECT_THAT( text, HasSubstr( "outerFunction" ) );
}

TEST_F( BacktraceTrackerTest, DeepBacktraceIsCutAtItsOuterEnd ) {
   BacktraceTracker::enabledIs( true );
   recordDeeply( 1000 );
   std::string const text = printed();
   EXPECT_THAT( text, HasSubstr( "\n #127 " ) );
   EXPECT_THAT( text, Not( HasSubstr( "\n #128 " ) ) );
   EXPECT_THAT( text, EndsWith( "\n and perhaps more\n" ) );
}

TEST_F( BacktraceTrackerTest, AStreamMayRecordWhileItIsPrintedTo ) {
   struct Recording : std::stringbuf {
      std::streamsize xsputn( char const* text, std::streamsize size ) override {
         BacktraceTracker::backtraceIs( "from the stream" );
         return std::stringbuf::xsputn( text, size );
      }
   } buffer;
   BacktraceTracker::enabledIs( true );
   record( { "first", "second" } );
   std::ostream out( &buffer );
   BacktraceTracker::printAll( out );
   EXPECT_THAT( buffer.str(), HasSubstr( "\"second\"" ) );
   EXPECT_THAT( buffer.str(), Not( HasSubstr( "from the stream" ) ) );
   EXPECT_THAT( labels(), testing::Contains( "from the stream" ) );
}

TEST_F( BacktraceTrackerTest, ThreadsMayRecordPrintAndChangeIt ) {
   BacktraceTracker::enabledIs( true );
   std::vector<std::jthread> threads;
   threads.reserve( 2 );
   for( int i = 0; i < 2; ++i ) {
      threads.emplace_back( [] {
         for( int round = 0; round < 500; ++round ) {
            outerFunction( "of a thread" );
         }
      } );
   }
   threads.emplace_back( [] {
      for( std::uint32_t round = 0; round < 500; ++round ) {
         BacktraceTracker::capacityIs( round % 5 );
         BacktraceTracker::enabledIs( round % 7 != 0 );
         if( round % 11 == 0 ) {
            BacktraceTracker::clear();
         }
      }
      BacktraceTracker::enabledIs( true );
      BacktraceTracker::capacityIs( 3 );
   } );
   for( int i = 0; i < 2; ++i ) {
      threads.emplace_back( [] {
         for( int round = 0; round < 5; ++round ) {
            printed();
         }
      } );
   }
   threads.clear();
   record( { "x", "y", "z" } );
   EXPECT_THAT( labels(), ElementsAre( "x", "y", "z" ) );
}

TEST_F( BacktraceTrackerTest, AChildForkedWhileAnotherThreadUsesItCanUseIt ) {
   BacktraceTracker::enabledIs( true );
   std::atomic<bool> stop{ false };
   BacktraceTracker::capacityIs( 1 );
   std::jthread const thread( [ & ] {
      for( unsigned n = 0; !stop; ++n ) {
         // The label before it goes, and with it the last that holds its place in the pool, which
         // is locked for a fork as well.
         BacktraceTracker::backtraceIs(
               Quarn::String( "a label too long for its place " + std::to_string( n ) ).deduped() );
         BacktraceTracker::capacityIs( n % 2 );
         BacktraceTracker::capacityIs( 1 ); // little else than taking the lock
      }
   } );
   int failures = 0;
   for( int round = 0; round < 50 && failures == 0; ++round ) {
      failures += inChild( [] { return BacktraceTracker::capacity() <= 1 ? 0 : 1; } ) != 0;
   }
   stop = true;
   EXPECT_EQ( failures, 0 );
}

} // namespace
