#include "standins/InChild.h"

#include <Quarn/base/String.h>
#include <Quarn/base/ThreadControl.h>

#include <atomic>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

using Quarn::String;
using Quarn::ThreadControl;
using Quarn::Impl::stringPoolSizeForTest;

namespace {

// Deduped before main() and dropped after it.
String const early = String( "a name of a static object" ).deduped();

String nameOf( int i ) { return String( "a name that is shared, number " ) + std::to_string( i ); }

// Dedups, copies and drops the same few names over and over.
void useNames( int names, int rounds ) {
   for( int round = 0; round < rounds; ++round ) {
      String const name = nameOf( round % names );
      String const pooled = name.deduped();
      std::vector<String> copies( 3, pooled );
      copies[ 1 ] = name;
      copies[ 2 ] = nameOf( ( round + 1 ) % names ).deduped();
      if( copies[ 0 ] != name || pooled.data() != name.deduped().data() ||
          std::hash<String>()( copies[ 1 ] ) != pooled.hash() ) {
         ADD_FAILURE() << name;
      }
   }
}

} // namespace

TEST( StringPoolTest, EqualNamesShareStorage ) {
   String const a( "a name that is shared" );
   String const b( "a name that is shared" );
   ASSERT_NE( a.data(), b.data() );
   EXPECT_FALSE( a.isDeduped() );

   String const pooled = a.deduped();
   EXPECT_TRUE( pooled.isDeduped() );
   EXPECT_EQ( b.deduped().data(), pooled.data() );
   EXPECT_EQ( pooled.deduped().data(), pooled.data() );
   EXPECT_FALSE( b.isDeduped() );
   EXPECT_EQ( pooled, b );
   EXPECT_NE( String( "a name that is not shared" ).deduped(), pooled );
}

TEST( StringPoolTest, TextsInPlaceStayOutOfThePool ) {
   std::size_t const before = stringPoolSizeForTest();
   String const name = String( "123456789012345" ).deduped();
   EXPECT_TRUE( name.isInPlace() );
   EXPECT_TRUE( name.isDeduped() );
   EXPECT_EQ( stringPoolSizeForTest(), before );
}

TEST( StringPoolTest, ANameLeavesThePoolWithItsLastUser ) {
   std::size_t const before = stringPoolSizeForTest();
   {
      String first = nameOf( 1 ).deduped();
      String second = first;
      EXPECT_EQ( stringPoolSizeForTest(), before + 1 );
      first = String();
      EXPECT_EQ( stringPoolSizeForTest(), before + 1 );
      first = nameOf( 2 ).deduped();
      EXPECT_EQ( stringPoolSizeForTest(), before + 2 );
      second = first;
      EXPECT_EQ( stringPoolSizeForTest(), before + 1 );
   }
   EXPECT_EQ( stringPoolSizeForTest(), before );
}

TEST( StringPoolTest, ReadyBeforeMain ) {
   EXPECT_TRUE( early.isDeduped() );
   EXPECT_EQ( String( "a name of a static object" ).deduped().data(), early.data() );
}

TEST( StringPoolTest, NamesSurviveSwitchesOfTheThreadMode ) {
   std::size_t const before = stringPoolSizeForTest();
   {
      String const kept = nameOf( 1 ).deduped();
      ThreadControl::threadSafePointerIs( false );
      {
         String copy;
         copy = kept;
         useNames( 3, 50 );
         ThreadControl::threadSafePointerIs( true );
         EXPECT_EQ( stringPoolSizeForTest(), before + 1 );
      }
      useNames( 3, 50 );
      EXPECT_EQ( nameOf( 1 ).deduped().data(), kept.data() );
   }
   EXPECT_EQ( stringPoolSizeForTest(), before );
}

TEST( StringPoolTest, ThreadsMayDedupCopyAndDropTheSameNames ) {
   std::size_t const before = stringPoolSizeForTest();
   {
      std::vector<std::jthread> threads;
      threads.reserve( 4 );
      for( int i = 0; i < 4; ++i ) {
         threads.emplace_back( [] { useNames( 3, 5000 ); } );
      }
   }
   EXPECT_EQ( stringPoolSizeForTest(), before );
}

TEST( StringPoolTest, ConcurrentLookUpRevivesANameWhoseLastUserIsLeaving ) {
   // One name that all threads take and drop at once, so that drops often meet a look-up.
   constexpr std::string_view text = "the one name that everybody uses";
   std::size_t const before = stringPoolSizeForTest();
   {
      std::vector<std::jthread> threads;
      threads.reserve( 4 );
      for( int i = 0; i < 4; ++i ) {
         threads.emplace_back( [ text ] {
            for( int round = 0; round < 30000; ++round ) {
               String const name = String( text ).deduped();
               if( name != text || !name.isDeduped() ) {
                  ADD_FAILURE() << name;
               }
            }
         } );
      }
   }
   EXPECT_EQ( stringPoolSizeForTest(), before );
}

TEST( StringPoolTest, ThreadsMayPoolAndDropCopiesOfOneString ) {
   std::size_t const before = stringPoolSizeForTest();
   for( int round = 0; round < 200; ++round ) {
      String name = nameOf( round );
      std::vector<std::jthread> threads;
      threads.reserve( 3 );
      for( int i = 0; i < 3; ++i ) {
         threads.emplace_back( [ copy = name, i ]() mutable {
            if( i != 0 ) {
               copy = copy.deduped();
            }
            copy = String();
         } );
      }
      name = String();
   }
   EXPECT_EQ( stringPoolSizeForTest(), before );
}

TEST( StringPoolTest, AChildForkedWhileThreadsDedupCanDedup ) {
   std::atomic<bool> stop{ false };
   std::vector<std::jthread> threads;
   threads.reserve( 2 );
   for( int i = 0; i < 2; ++i ) {
      threads.emplace_back( [ & ] {
         while( !stop ) {
            useNames( 64, 64 );
         }
      } );
   }
   // Names of all shards that are in the pool, and copies outside it: their look-up in the child
   // takes each lock and, having found the name, allocates nothing.
   std::vector<String> pooled;
   std::vector<String> copies;
   for( int i = 0; i < 64; ++i ) {
      pooled.push_back( nameOf( i ).deduped() );
      copies.push_back( nameOf( i ) );
   }
   int failures = 0;
   for( int round = 0; round < 50 && failures == 0; ++round ) {
      failures = inChild( [ & ] {
         bool same = true;
         for( std::size_t i = 0; i < copies.size(); ++i ) {
            same = same && copies[ i ].deduped().data() == pooled[ i ].data();
         }
         return same ? 0 : 1;
      } );
   }
   stop = true;
   EXPECT_EQ( failures, 0 );
}
