#include "support/Fatal.h"

#include <Oru/ActivityManager.h>
#include <Oru/Allocator.h>
#include <Oru/Entity.h>
#include <Oru/Trace.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

using Oru::Entity;
using Oru::Ptr;

struct Plain : Oru::PtrInterface {};

struct Private : Oru::PtrInterface {
   static inline std::atomic<int> made{ 0 };

 private:
   friend struct Oru::Entity;
   Private() { ++made; }
};

struct NeedsPlain : Oru::PtrInterface {
   NeedsPlain() : plain( Entity::singletonIs<Plain>() ) {}
   Ptr<Plain> const plain;
};

struct AsksForItself : Oru::PtrInterface {
   AsksForItself() { Entity::singletonIs<AsksForItself>(); }
};

struct FailsOnce : Oru::PtrInterface {
   FailsOnce() {
      if( !std::exchange( failed, true ) ) {
         throw std::runtime_error( "not yet" );
      }
   }
   static inline bool failed = false;
};

TEST( EntityTest, ExistsOnlyOnceMade ) {
   EXPECT_EQ( Entity::singletonExists<Plain>(), nullptr );
   Ptr<NeedsPlain> const needs = Entity::singletonIs<NeedsPlain>();
   EXPECT_EQ( Entity::singletonExists<Plain>(), needs->plain );
   EXPECT_EQ( Entity::singletonIs<Plain>(), needs->plain );
   EXPECT_EQ( Entity::singletonIs<NeedsPlain>(), needs );
}

TEST( EntityTest, ThreadsAgreeOnOneObject ) {
   std::vector<Ptr<Private>> seen( 4 );
   std::vector<std::thread> threads;
   threads.reserve( seen.size() );
   for( Ptr<Private>& mine : seen ) {
      threads.emplace_back( [ &mine ] { mine = Entity::singletonIs<Private>(); } );
   }
   for( std::thread& thread : threads ) {
      thread.join();
   }
   EXPECT_THAT( seen, testing::Each( seen.front() ) );
   EXPECT_EQ( Private::made, 1 );
}

TEST( EntityTest, AskingForItselfWhileMadeIsFatal ) {
   EXPECT_FATAL( Entity::singletonIs<AsksForItself>(), "singleton asks for itself" );
   EXPECT_EQ( Entity::singletonExists<AsksForItself>(), nullptr );
}

TEST( EntityTest, FailedConstructorIsTriedAgain ) {
   EXPECT_THROW( Entity::singletonIs<FailsOnce>(), std::runtime_error );
   EXPECT_EQ( Entity::singletonExists<FailsOnce>(), nullptr );
   EXPECT_TRUE( Entity::singletonIs<FailsOnce>() );
}

TEST( EntityTest, ManagersOfTheFrameworkAreSingletons ) {
   auto const traces = Oru::TraceFacilityMan::globalTraceFacilityMan();
   EXPECT_EQ( Entity::singletonExists<Oru::TraceFacilityMan>(), traces );
   auto const activities = Oru::ActivityManager::instance();
   EXPECT_EQ( Entity::singletonExists<Oru::ActivityManager>(), activities );
   EXPECT_EQ( Oru::ActivityManager::instance(), activities );
}

TEST( ActivityManagerTest, VirtualTimeMayBeSetBeforeThereIsAManager ) {
   Oru::ActivityManagerConfig::virtualTimeIs( true );
   EXPECT_TRUE( Oru::ActivityManager::instance()->virtualTime() );
   Oru::ActivityManagerConfig::virtualTimeIs( false );
   EXPECT_FALSE( Oru::ActivityManager::instance()->virtualTime() );
}

TEST( AllocatorTest, CountsTheNodesOfAMapAsItsEntries ) {
   struct Peer {
      int port;
   };
   using Entry = std::pair<int const, Peer>;
   using Peers = std::map<int, Peer, std::less<>, Oru::Allocator<Entry>>;
   auto const& track = Quarn::MemTrack::of<Entry>();
   {
      Peers peers;
      peers[ 1 ] = { 10 };
      peers[ 2 ] = { 20 };
      EXPECT_EQ( track.inUse(), 2u );
      Peers const copy( peers, peers.get_allocator() );
      EXPECT_EQ( track.inUse(), 4u );
   }
   EXPECT_EQ( track.inUse(), 0u );
   EXPECT_THAT( track.unitName(), testing::HasSubstr( "Peer" ) );
}

} // namespace
