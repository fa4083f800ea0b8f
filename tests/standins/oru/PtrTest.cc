#include <Oru/Ptr.h>

#include <gtest/gtest.h>

#include <thread>
#include <utility>
#include <vector>

namespace {

using Oru::Ptr;

struct Node : Oru::PtrInterface {
   explicit Node( int* deaths = nullptr ) : deaths_( deaths ) {}
   ~Node() override {
      if( deaths_ ) {
         ++*deaths_;
      }
   }
   Ptr<Node> next;

 private:
   int* deaths_;
};

struct Leaf : Node {
   using Node::Node;
};

TEST( PtrTest, CountFollowsCopiesMovesAndConversions ) {
   int deaths = 0;
   Ptr<Leaf> leaf = new Leaf( &deaths );
   EXPECT_EQ( leaf->references(), 1u );

   Ptr<Node> node = leaf;
   Ptr<Node const> constNode = node;
   EXPECT_EQ( leaf->references(), 3u );
   EXPECT_TRUE( node == leaf );
   EXPECT_TRUE( constNode == node.get() );

   Ptr<Node> taken = static_cast<Ptr<Node>&&>( node );
   EXPECT_EQ( node, nullptr );
   EXPECT_EQ( leaf->references(), 3u );

   Ptr<Node const> takenConst = static_cast<Ptr<Node>&&>( taken );
   EXPECT_FALSE( taken );
   EXPECT_EQ( leaf->references(), 3u );

   takenConst = nullptr;
   constNode = nullptr;
   EXPECT_EQ( leaf->references(), 1u );
   EXPECT_EQ( deaths, 0 );
   leaf = nullptr;
   EXPECT_EQ( deaths, 1 );
}

TEST( PtrTest, AssignmentOntoItselfKeepsTheObject ) {
   int deaths = 0;
   Ptr<Node> node = new Node( &deaths );
   Ptr<Node>& same = node;
   node = same;
   node = std::move( same );
   ASSERT_TRUE( node );
   EXPECT_EQ( node->references(), 1u );
   EXPECT_EQ( deaths, 0 );
}

// The next node is reached only through the object that the assignment destroys.
TEST( PtrTest, AssignmentFromInsideTheOldObjectIsSafe ) {
   int deaths = 0;
   Ptr<Node> list = new Node( &deaths );
   list->next = new Node( &deaths );
   list = list->next;
   EXPECT_EQ( deaths, 1 );
   EXPECT_EQ( list->references(), 1u );
}

Ptr<Node> current;

struct Successor : Node {
   ~Successor() override { sawNewObject = current && current.get() != this; }
   static inline bool sawNewObject = false;
};

TEST( PtrTest, DestructorOfTheOldObjectFindsTheNewOneInPlace ) {
   current = new Successor;
   current = new Node;
   EXPECT_TRUE( Successor::sawNewObject );
   current = nullptr;
}

struct Resurrector : Node {
   using Node::Node;
   ~Resurrector() override { Ptr<Node> const self = this; }
};

TEST( PtrTest, PtrMadeByTheDestructorDoesNotDeleteAgain ) {
   int deaths = 0;
   Ptr<Node> node = new Resurrector( &deaths );
   node = nullptr;
   EXPECT_EQ( deaths, 1 );
}

struct Pooled : Node {
   using Node::Node;
   void zeroReferencesIs( bool zero ) override {
      if( ++zeros == 3 ) {
         Node::zeroReferencesIs( zero );
      }
   }
   int zeros = 0;
};

TEST( PtrTest, OverrideMayKeepAnObjectAndDeleteItLater ) {
   int deaths = 0;
   auto* const pooled = new Pooled( &deaths );
   for( int use = 1; use <= 2; ++use ) {
      Ptr<Node>( pooled ).swap( current );
      current = nullptr;
      EXPECT_EQ( pooled->zeros, use );
   }
   EXPECT_EQ( deaths, 0 );
   current = pooled;
   current = nullptr;
   EXPECT_EQ( deaths, 1 );
}

TEST( PtrTest, FlagsLeaveTheCountAlone ) {
   Ptr<Node> const node = new Node;
   EXPECT_FALSE( node->hasNotificationActive() );
   node->hasNotificationActiveIs( true );
   EXPECT_TRUE( node->hasNotificationActive() );
   EXPECT_EQ( node->references(), 1u );
   Ptr<Node> other = node;
   other = nullptr;
   EXPECT_TRUE( node->hasNotificationActive() );
   node->hasNotificationActiveIs( false );
   EXPECT_EQ( node->references(), 1u );
}

TEST( PtrTest, ThreadsShareAnObject ) {
   int deaths = 0;
   Ptr<Node> shared = new Node( &deaths );
   std::vector<std::thread> threads;
   threads.reserve( 4 );
   for( int i = 0; i < 4; ++i ) {
      threads.emplace_back( [ mine = shared ]() mutable {
         for( int round = 0; round < 20000; ++round ) {
            Ptr<Node const> const copy = mine;
         }
         mine = nullptr;
      } );
   }
   shared = nullptr;
   for( std::thread& thread : threads ) {
      thread.join();
   }
   EXPECT_EQ( deaths, 1 );
}

TEST( PtrTest, CountsAlikeWithThreadSafetyOff ) {
   EXPECT_TRUE( Oru::VFPtrInterface::threadSafePointers() );
   Oru::VFPtrInterface::threadSafePointersIs( false );
   int deaths = 0;
   Ptr<Node> node = new Node( &deaths );
   {
      Ptr<Node> copy;
      copy = node;
      EXPECT_EQ( node->references(), 2u );
   }
   // Counts made in one mode are taken back in the other.
   Oru::VFPtrInterface::threadSafePointersIs( true );
   node = nullptr;
   EXPECT_EQ( deaths, 1 );
}

} // namespace
