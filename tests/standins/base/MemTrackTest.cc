#include <Quarn/base/MemTrack.h>

#include <cstdint>
#include <gtest/gtest.h>
#include <limits>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

using Quarn::Allocator;
using Quarn::MemTrack;

namespace memTrackTest {

struct Task {
   int number = 0;
};
struct Node {};
struct Bucketed {};
struct alignas( 256 ) Wide {
   char bytes[ 256 ];
};
template<class T>
struct Box {};

} // namespace memTrackTest

namespace {

using namespace memTrackTest;

int visitsOf( MemTrack const& wanted ) {
   int visits = 0;
   MemTrack::forEach( [ & ]( MemTrack const& tracker ) { visits += &tracker == &wanted; } );
   return visits;
}

} // namespace

TEST( MemTrackTest, ATrackerIsListedOnceFromItsFirstAllocation ) {
   static constinit MemTrack tracker( "page", 4096 );
   EXPECT_EQ( visitsOf( tracker ), 0 );
   tracker.allocated( 3 );
   tracker.freed( 2 );
   tracker.allocated( 5 );
   EXPECT_EQ( visitsOf( tracker ), 1 );
   EXPECT_EQ( tracker.inUse(), 6U );
   EXPECT_EQ( tracker.total(), 8U );
   EXPECT_STREQ( tracker.unitName(), "page" );
   EXPECT_EQ( tracker.unitSize(), 4096U );
}

TEST( MemTrackTest, ThreadsMayStartAndReadTrackersTogether ) {
   static MemTrack trackers[] = { { "a", 1 }, { "b", 1 }, { "c", 1 } };
   {
      std::vector<std::jthread> threads;
      threads.reserve( 4 );
      for( int i = 0; i < 4; ++i ) {
         threads.emplace_back( [] {
            for( MemTrack& tracker : trackers ) {
               for( int round = 0; round < 1000; ++round ) {
                  tracker.allocated( 2 );
                  tracker.freed( 1 );
               }
               EXPECT_EQ( visitsOf( tracker ), 1 );
               EXPECT_LE( tracker.inUse(), tracker.total() );
            }
         } );
      }
   }
   for( MemTrack& tracker : trackers ) {
      EXPECT_EQ( visitsOf( tracker ), 1 );
      EXPECT_EQ( tracker.total(), 8000U );
      EXPECT_EQ( tracker.inUse(), 4000U );
   }
}

TEST( MemTrackTest, TypesHaveTrackersNamedAfterThem ) {
   EXPECT_STREQ( MemTrack::of<Task>().unitName(), "memTrackTest::Task" );
   EXPECT_STREQ( MemTrack::of<Box<Task>>().unitName(), "memTrackTest::Box<memTrackTest::Task>" );
   EXPECT_STREQ( MemTrack::of<int>().unitName(), "int" );
   EXPECT_EQ( MemTrack::of<Wide>().unitSize(), 256U );
   EXPECT_EQ( &MemTrack::of<Task>(), &MemTrack::of<Task>() );
   EXPECT_NE( &MemTrack::of<Task>(), &MemTrack::of<Node>() );
}

TEST( MemTrackTest, SharedObjectsCountAsOneUnitUntilTheLastWeakPointerGoes ) {
   MemTrack const& tracker = MemTrack::of<Task>();
   std::uint64_t const before = tracker.total();
   auto task = std::allocate_shared<Task>( Allocator<Task>() );
   EXPECT_EQ( tracker.inUse(), 1U );
   EXPECT_EQ( visitsOf( tracker ), 1 );
   std::weak_ptr<Task> weak = task;
   task.reset();
   EXPECT_EQ( tracker.inUse(), 1U );
   weak.reset();
   EXPECT_EQ( tracker.inUse(), 0U );
   EXPECT_EQ( tracker.total(), before + 1 );
}

TEST( MemTrackTest, ContainersCountTheirElements ) {
   MemTrack const& nodes = MemTrack::of<Node>();
   {
      std::map<int, int, std::less<>, Allocator<std::pair<int const, int>, Node>> map;
      for( int i = 0; i < 10; ++i ) {
         map[ i ] = i;
      }
      EXPECT_EQ( nodes.inUse(), 10U );
      map.erase( 3 );
      EXPECT_EQ( nodes.inUse(), 9U );
   }
   EXPECT_EQ( nodes.inUse(), 0U );
   EXPECT_EQ( nodes.total(), 10U );

   // The bucket array is not a unit.
   std::unordered_map<int, int, std::hash<int>, std::equal_to<>,
                      Allocator<std::pair<int const, int>, Bucketed>>
         table( 100 );
   table[ 1 ] = 1;
   EXPECT_EQ( MemTrack::of<Bucketed>().inUse(), 1U );

   std::vector<short, Allocator<short>> numbers;
   numbers.reserve( 32 );
   EXPECT_EQ( MemTrack::of<short>().inUse(), 32U );
}

TEST( MemTrackTest, AllocatorsThatShareAUnitAreInterchangeable ) {
   Allocator<Task> tasks;
   Allocator<double, Task> doubles( tasks );
   EXPECT_TRUE( tasks == doubles );
   EXPECT_FALSE( tasks != Allocator<Task>() );
   std::uint64_t const before = MemTrack::of<Task>().inUse();
   double* const storage = doubles.allocate( 4 );
   EXPECT_EQ( MemTrack::of<Task>().inUse(), before + 4 );
   Allocator<double, Task>( tasks ).deallocate( storage, 4 );
   EXPECT_EQ( MemTrack::of<Task>().inUse(), before );
}

TEST( MemTrackTest, StorageKeepsTheAlignmentOfWideTypes ) {
   for( std::size_t const n : { std::size_t{ 1 }, std::size_t{ 3 } } ) {
      Wide* const wide = Allocator<Wide>().allocate( n );
      EXPECT_EQ( reinterpret_cast<std::uintptr_t>( wide ) % 256, 0U );
      Allocator<Wide>().deallocate( wide, n );
   }
}

TEST( MemTrackTest, SizesThatOverflowAreRefusedAndNotCounted ) {
   std::size_t const most = std::numeric_limits<std::size_t>::max();
   std::uint64_t const before = MemTrack::of<long>().total();
   EXPECT_THROW( static_cast<void>( Allocator<long>().allocate( most / sizeof( long ) + 1 ) ),
                 std::bad_array_new_length );
   EXPECT_THROW( static_cast<void>( Allocator<long>().allocate( most ) ),
                 std::bad_array_new_length );
   EXPECT_THROW( static_cast<void>( Allocator<long>().allocate( most / sizeof( long ) ) ),
                 std::bad_alloc );
   EXPECT_EQ( MemTrack::of<long>().total(), before );
}
