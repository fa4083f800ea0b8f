#include "standins/oru/Loop.h"

#include <Oru/Allocator.h>
#include <Oru/Entity.h>
#include <Oru/SystemStatus.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using Oru::Ptr;
using testing::ElementsAre;

struct Changes : Oru::PtrInterface::NotifieeConst {
   void onAttribute( Oru::AttributeId id, void const* value ) override {
      bool const on = *static_cast<bool const*>( value );
      // The new value is there already when it is told.
      Oru::SystemStatus const& status = *Oru::Entity::singletonIs<Oru::System>()->status();
      EXPECT_EQ( on, id == Oru::SystemStatus::initializedAttribute ? status.initialized()
                                                                   : status.threadSafePointers() );
      heard.emplace_back( id, on );
   }
   std::vector<std::pair<Oru::AttributeId, bool>> heard;
};

TEST( SystemStatusTest, NotifiesChangesAndNothingElse ) {
   Ptr<Oru::SystemStatus> const status = Oru::Entity::singletonIs<Oru::System>()->status();
   EXPECT_FALSE( status->initialized() );
   EXPECT_TRUE( status->threadSafePointers() );
   Ptr<Changes> const changes = new Changes;
   changes->notifierIs( status );
   status->initializedIs( false );
   status->threadSafePointersIs( true );
   EXPECT_TRUE( changes->heard.empty() );

   status->threadSafePointersIs( false );
   status->initializedIs( true );
   status->initializedIs( true );
   status->initializedIs( false );
   status->threadSafePointersIs( true );
   using Oru::SystemStatus;
   EXPECT_THAT( changes->heard,
                ElementsAre( std::pair( SystemStatus::threadSafePointersAttribute, false ),
                             std::pair( SystemStatus::initializedAttribute, true ),
                             std::pair( SystemStatus::initializedAttribute, false ),
                             std::pair( SystemStatus::threadSafePointersAttribute, true ) ) );
}

TEST( SystemStatusTest, StatusAndWayOfCountingAreSetApart ) {
   Ptr<Oru::SystemStatus> const status = Oru::Entity::singletonIs<Oru::System>()->status();
   status->threadSafePointersIs( false );
   EXPECT_TRUE( Oru::VFPtrInterface::threadSafePointers() );
   status->threadSafePointersIs( true );
   Oru::VFPtrInterface::threadSafePointersIs( false );
   EXPECT_TRUE( status->threadSafePointers() );
   Oru::VFPtrInterface::threadSafePointersIs( true );
}

class SystemRunTest : public LoopTest {};

TEST_F( SystemRunTest, RunsAndStopsTheActivityLoop ) {
   auto const stopper = alarmIn( 1, "stop", [] { Oru::System::doStop(); } );
   auto const later = alarmIn( 2, "later" );
   Oru::System::doRun();
   EXPECT_THAT( log, ElementsAre( "stop" ) );
   Oru::System::doRun();
   EXPECT_THAT( log, ElementsAre( "stop", "later" ) );
}

struct Peer : Oru::PtrInterface, Oru::Allocated<Peer> {};
struct NearPeer : Peer {
   explicit NearPeer( bool fail ) {
      if( fail ) {
         throw 1;
      }
   }
   double distances[ 10 ] = {};
};

TEST( AllocatedTest, ObjectsMadeWithNewAreCountedUnderTheirBase ) {
   auto const& track = Quarn::MemTrack::of<Peer>();
   {
      Ptr<Peer> const peer = new Peer;
      Ptr<Peer> const near = new NearPeer( false );
      Peer const onStack;
      EXPECT_THROW( new NearPeer( true ), int );
      EXPECT_EQ( track.inUse(), 2u );
   }
   EXPECT_EQ( track.inUse(), 0u );
   EXPECT_EQ( track.total(), 3u );
}

} // namespace
