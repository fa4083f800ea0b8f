#include <Quarn/TaskSchedulerCpp.h>

#include "support/AllocationCount.h"
#include "support/Fatal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include <sys/resource.h>

namespace {

using namespace Quarn;
using testing::ElementsAre;

using Type = TaskSchedulerEventType;

TaskTimeStamp at( long ns ) { return TaskTimeStamp( std::chrono::nanoseconds( ns ) ); }

std::vector<long> stampsOf( const TaskSchedulerHistory& history ) {
   std::vector<long> stamps;
   for( unsigned age = 0; age < history.size(); ++age ) {
      stamps.push_back( history.event( age ).timestamp().time_since_epoch().count() );
   }
   return stamps;
}

std::string render( const TaskSchedulerHistory& history ) {
   std::ostringstream out;
   history.renderText( out );
   return out.str();
}

TEST( HistoryTest, ClearedRingKeepsItsCapacity ) {
   TaskSchedulerHistory history( 2 );
   for( long n = 1; n <= 3; ++n ) {
      history.insert( at( n ), Type::schedule, "N x" );
   }
   history.clear();
   EXPECT_EQ( history.size(), 0u );
   EXPECT_EQ( history.capacity(), 2u );
   history.insert( at( 7 ), Type::schedule, "N x" );
   EXPECT_THAT( stampsOf( history ), ElementsAre( 7 ) );
}

TEST( HistoryTest, RingAgreesWithADequeAcrossResizes ) {
   TaskSchedulerHistory history( 7 );
   std::vector<long> model;
   unsigned capacity = 7;
   long n = 0;
   for( unsigned resize : { 7u, 3u, 11u, 1u, 0u, 6u, 100u, 5u } ) {
      EXPECT_EQ( history.capacityIs( resize ), capacity );
      capacity = resize;
      model.resize( std::min<std::size_t>( model.size(), capacity ) );
      ASSERT_EQ( stampsOf( history ), model );
      for( unsigned i = 0; i < 2 * resize + 3; ++i ) {
         history.insert( at( ++n ), Type::idle, "N x" );
         model.insert( model.begin(), n );
         model.resize( std::min<std::size_t>( model.size(), capacity ) );
         ASSERT_EQ( stampsOf( history ), model );
      }
   }
}

TEST( HistoryTest, RendersNewestFirstWithDistances ) {
   TaskSchedulerHistory history( 100 );
   history.insert( at( 1'000'000 ), Type::schedule, "N myTask" );
   history.insert( at( 3'999 ), Type::runEnd, "H other" ); // stamps need not be in order
   history.insert( at( 2'001'999 ), Type::schedulerHasNoRunnableTasks, "main" );
   const std::string header =
         "Last 3 scheduler events, absolute timestamp and relative to last event";
   EXPECT_EQ( render( history ),
              header + "\n" + std::string( header.size(), '-' ) +
                    "\n"
                    "               2001999 ns since boot          0 us "
                    "schedulerHasNoRunnableTasks main\n"
                    "                  3999 ns since boot       1998 us run end      H other\n"
                    "               1000000 ns since boot       1001 us schedule     N myTask\n" );
   history.clear();
   const std::string none = render( history );
   EXPECT_EQ( none.substr( 0, 7 ), "Last 0 " );
   EXPECT_EQ( none.size(), 70u + 1 + 70 + 1 );
}

TEST( HistoryTest, EventKinds ) {
   EXPECT_TRUE( eventNeedTask( Type::fdWritable ) );
   EXPECT_FALSE( eventNeedTask( Type::schedulerBusy ) );
   EXPECT_STREQ( eventTypeDisplay( Type( 16 ) ), "fdWritable" );
   EXPECT_STREQ( eventTypeDisplay( Type( 29 ) ), "schedulerRunCriticalEnd" );
   EXPECT_EQ( fmt::format( "{} {}", Type::destroy, Type( 30 ) ), "delete 30" );
   EXPECT_FATAL( eventNeedTask( Type( 30 ) ), "unexpected eventType=30" );
   EXPECT_FATAL( eventTypeDisplay( Type( 30 ) ), "unexpected eventType 30" );
}

TEST( HistoryTest, IdentifierThatWouldAllocateIsRefused ) {
   const String longName( "a name that does not fit in place" );
   const TaskSchedulerHistory::Event bad( Type::schedule, at( 1 ), longName );
   EXPECT_FATAL(
         bad.eventIdentifier(),
         "EventType: schedule identifier a name that does not fit in place is neither short "
         "string optimized nor deduped" );
   const TaskSchedulerHistory::Event good( Type::schedule, at( 1 ), longName.deduped() );
   EXPECT_EQ( good.eventIdentifier(), longName );
}

TEST( HistoryTest, CapacityBeyondMemoryLeavesTheRingAlone ) {
   TaskSchedulerHistory history( 2 );
   history.insert( at( 1 ), Type::schedule, "N x" );
#ifdef OWN_ALLOCATOR
   GTEST_SKIP() << "a sanitizer ends the process instead of throwing";
#endif
   // The machine may have the memory; this process has not.
   const rlimit limit{ rlim_t{ 8 } << 30, RLIM_INFINITY };
   ASSERT_EQ( setrlimit( RLIMIT_AS, &limit ), 0 );
   EXPECT_THROW( history.capacityIs( 0xFFFFFFFF ), std::bad_alloc );
   EXPECT_EQ( history.capacity(), 2u );
   EXPECT_THAT( stampsOf( history ), ElementsAre( 1 ) );
}

} // namespace
