// The choice of the next task, without a loop.

#include "support/Fatal.h"
#include "support/Tasks.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>

namespace {

using namespace Quarn;
using testing_support::FunctionTask;
using testing_support::makeTask;

class PickTest : public testing::Test {
 protected:
   void add( TaskPriority priority, unsigned count ) {
      for( unsigned n = 0; n < count; ++n ) {
         tasks.push_back( makeTask( root, priority, "test" ) );
         tasks.back()->scheduleTask();
      }
   }
   // Picks once, as a run would, and has the picked task reschedule itself.
   char pick() {
      TaskImpl* task =
            root->pickOneTask( taskTimeNow(), TaskPriority::critical, TaskPriority::scavenge );
      if( !task ) {
         return '.';
      }
      task->scheduleTask();
      return task->taskPriority().oneChar();
   }
   std::string picks( unsigned count ) {
      std::string all;
      for( unsigned n = 0; n < count; ++n ) {
         all += pick();
      }
      return all;
   }

   std::shared_ptr<TaskSchedulerRoot> root = schedulerRootQuarnNonShared( "root" );
   std::vector<std::shared_ptr<FunctionTask>> tasks;
};

TEST_F( PickTest, UrgentFirstThenInOrder ) {
   for( std::uint8_t p = 6; p-- > 0; ) {
      add( TaskPriority( p ), 2 );
   }
   std::string order;
   while( TaskImpl* task = root->pickOneTask( taskTimeNow(), TaskPriority::critical,
                                              TaskPriority::scavenge ) ) {
      order += task->taskPriority().oneChar();
   }
   // High and normal give way once their runs outweigh their backlog.
   EXPECT_EQ( order, "CCAAHHNNLLSS" );
   EXPECT_EQ( root->pickOneTask( taskTimeNow(), TaskPriority::low, TaskPriority::high ), nullptr )
         << "an empty range";
}

TEST_F( PickTest, LowGetsItsTurnUnderTenHighTasks ) {
   add( TaskPriority::high, 10 );
   add( TaskPriority::low, 1 );
   const std::string order = picks( 642 * 2 );
   EXPECT_EQ( order.find( 'L' ), 641u );
   EXPECT_EQ( order.find( 'L', 642 ), 642u + 641u ) << "the count starts again from 0";
}

TEST_F( PickTest, SharesOverALongTime ) {
   add( TaskPriority::high, 1 );
   add( TaskPriority::normal, 1 );
   add( TaskPriority::low, 1 );
   const std::string order = picks( 20000 );
   EXPECT_EQ( std::count( order.begin(), order.end(), 'H' ), 17778 );
   EXPECT_EQ( std::count( order.begin(), order.end(), 'N' ), 2000 );
   EXPECT_EQ( std::count( order.begin(), order.end(), 'L' ), 222 );
}

TEST_F( PickTest, ScavengeNeverCountsAsALowerPriority ) {
   add( TaskPriority::high, 1 );
   add( TaskPriority::scavenge, 5 );
   const std::string order = picks( 20000 );
   EXPECT_EQ( order.find_first_not_of( 'H' ), std::string::npos );
}

struct Item {
   explicit Item( int n ) : number( n ) {}
   int number;
   IntrusiveLinkedListHook link;
};
using Items = IntrusiveBookmarkLinkedList<Item, &Item::link>;

std::vector<int> numbersOf( Items& items ) {
   std::vector<int> numbers;
   for( Item* item = items.front(); item; item = items.next( item ) ) {
      numbers.push_back( item->number );
   }
   return numbers;
}

TEST( BookmarkListTest, WalkPausesAtABookmark ) {
   using testing::ElementsAre;
   std::deque<Item> pool;
   for( int n = 0; n < 5; ++n ) {
      pool.emplace_back( n );
   }
   Items items;
   IntrusiveListBookmark bookmark;
   EXPECT_TRUE( items.empty() );
   items.insertFront( bookmark );
   EXPECT_TRUE( items.empty() ) << "a bookmark is no element";
   items.pushBack( pool[ 1 ] );
   items.pushBack( pool[ 2 ] );
   items.pushFront( pool[ 0 ] );
   EXPECT_THAT( numbersOf( items ), ElementsAre( 0, 1, 2 ) );
   items.insertAfter( pool[ 1 ], bookmark );
   pool[ 1 ].link.unlink(); // where the walk stood
   pool[ 1 ].link.unlink();
   EXPECT_EQ( items.next( bookmark )->number, 2 );
   items.insertBefore( pool[ 2 ], bookmark );
   EXPECT_EQ( items.next( bookmark )->number, 2 );
   EXPECT_FATAL( items.pushBack( pool[ 2 ] ), "hook is already linked" );

   Items other;
   EXPECT_FATAL( other.pushFront( pool[ 0 ] ), "hook is already linked" );
   other.pushBack( pool[ 3 ] );
   other.pushBack( pool[ 4 ] );
   items.spliceFront( other );
   EXPECT_TRUE( other.empty() );
   EXPECT_THAT( numbersOf( items ), ElementsAre( 3, 4, 0, 2 ) );
   other.pushBack( pool[ 1 ] );
   items.spliceBack( other );
   EXPECT_THAT( numbersOf( items ), ElementsAre( 3, 4, 0, 2, 1 ) );
   pool.pop_front(); // an element leaves its list when it dies
   EXPECT_THAT( numbersOf( items ), ElementsAre( 3, 4, 2, 1 ) );
   EXPECT_TRUE( items.checkForTest() );
   {
      Items dying;
      Item item( 9 );
      dying.pushBack( item );
      EXPECT_TRUE( item.link.linked() );
   }
}

} // namespace
