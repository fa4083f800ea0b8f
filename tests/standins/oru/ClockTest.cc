#include "standins/oru/Loop.h"
#include "support/AllocationCount.h"
#include "support/Fatal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

namespace {

using Oru::Ptr;
using testing::ElementsAre;
using testing::IsEmpty;

class ClockTest : public LoopTest {};

TEST_F( ClockTest, DeadlinesComeByTimeThenByRegistration ) {
   auto const a = alarm( "a" );
   auto const b = alarm( "b" );
   auto const c = alarm( "c" );
   auto const early = alarm( "early" );
   double const time = now() + 5;
   for( auto const& each : { c, b, a } ) {
      each->timeMinIs( time );
   }
   early->timeMinIs( time - 1 );
   EXPECT_THAT( run(), ElementsAre( "early", "a", "b", "c" ) );

   for( auto const& each : { a, b, c } ) {
      each->timeMinIs( now() + 5 );
   }
   // While armed, and through the base class.
   Oru::PtrInterface::NotifieeConst& base = *a;
   base.isRegisteredNotifieeIs( false );
   base.isRegisteredNotifieeIs( true );
   EXPECT_THAT( run(), ElementsAre( "b", "c", "a" ) );
   EXPECT_THAT( run(), IsEmpty() );
}

TEST_F( ClockTest, DeadlineIsPendingUntilItIsHeard ) {
   double const time = now() + 1;
   Ptr<Alarm> b;
   double own = 0;
   double other = 0;
   Ptr<Alarm> a;
   a = alarmIn( 1, "a", [ & ] {
      own = a->timeMin();
      other = b->timeMin();
   } );
   b = alarmIn( 1, "b" );
   EXPECT_THAT( run(), ElementsAre( "a", "b" ) );
   EXPECT_EQ( own, Oru::Clock::NotifieeConst::never );
   EXPECT_EQ( other, time );
   EXPECT_EQ( b->timeMin(), Oru::Clock::NotifieeConst::never );
   EXPECT_GE( a->heardAt, time );
   EXPECT_EQ( a->heardAt, b->heardAt );
}

TEST_F( ClockTest, DeadlineSetInItsOwnNotificationWaitsForTheNextTurn ) {
   int times = 0;
   Ptr<Alarm> a;
   a = alarmIn( 1, "a", [ & ] {
      if( ++times < 3 ) {
         a->timeMinIs( now() - 100 );
      }
   } );
   auto const b = alarmIn( 1, "b" );
   EXPECT_THAT( run(), ElementsAre( "a", "b", "a", "a" ) );

   times = 0;
   a->timeMinIs( now() );
   EXPECT_THAT( run( 0 ), ElementsAre( "a" ) ); // one turn
   EXPECT_THAT( run(), ElementsAre( "a", "a" ) );
}

TEST_F( ClockTest, NotificationTakesAwayOrMovesOthersThatAreDue ) {
   Ptr<Alarm> disarmed;
   Ptr<Alarm> moved;
   Ptr<Alarm> intoThePast;
   Ptr<Alarm> registeredAgain;
   Ptr<Alarm> left;
   Ptr<Alarm> unchanged;
   auto const first = alarmIn( 1, "first", [ & ] {
      disarmed->timeMinIs( Oru::Clock::NotifieeConst::never );
      moved->timeMinIs( now() + 7 );
      intoThePast->timeMinIs( 0 );
      registeredAgain->isRegisteredNotifieeIs( false );
      registeredAgain->isRegisteredNotifieeIs( true );
      left->notifierIs( nullptr );
      unchanged->timeMinIs( unchanged->timeMin() );
   } );
   disarmed = alarmIn( 1, "disarmed" );
   moved = alarmIn( 1, "moved" );
   intoThePast = alarmIn( 1, "past" );
   registeredAgain = alarmIn( 1, "again" );
   left = alarmIn( 1, "left" );
   unchanged = alarmIn( 1, "unchanged" );
   auto const last = alarmIn( 1, "last" );
   EXPECT_THAT( run(), ElementsAre( "first", "unchanged", "last", "past", "again", "moved" ) );
}

TEST_F( ClockTest, NotificationDestroysItsOwnNotifieeAndOthers ) {
   Ptr<Alarm> own;
   Ptr<Alarm> due;
   Ptr<Alarm> later;
   own = alarmIn( 1, "own", [ & ] {
      Alarm const& running = *own;
      own = nullptr;
      EXPECT_EQ( running.references(), 1u ); // the loop's
      due = nullptr;
      later = nullptr;
   } );
   due = alarmIn( 1, "due" );
   later = alarmIn( 2, "later" );
   auto const last = alarmIn( 3, "last" );
   EXPECT_THAT( run(), ElementsAre( "own", "last" ) );
}

TEST_F( ClockTest, PassesUnheardWhenUnregisteredOrSwitchedOff ) {
   auto const unregistered = alarmIn( 1, "unregistered" );
   unregistered->isRegisteredNotifieeIs( false );
   auto const off = alarmIn( 1, "off" );
   off->hasNotificationActiveIs( false );
   double const start = now();
   EXPECT_THAT( run(), IsEmpty() );
   EXPECT_GE( now(), start + 1 ); // they were waited for
   EXPECT_EQ( unregistered->timeMin(), Oru::Clock::NotifieeConst::never );
   EXPECT_EQ( off->timeMin(), Oru::Clock::NotifieeConst::never );
}

TEST_F( ClockTest, IsArmedOnlyWhileThereIsAClock ) {
   Ptr<Alarm> const a = new Alarm( "a", log );
   double const time = now() + 1;
   a->timeMinIs( time );
   EXPECT_THAT( run(), IsEmpty() );
   EXPECT_EQ( a->timeMin(), time );

   Oru::PtrInterface::NotifieeConst& base = *a;
   base.notifierIs( manager->clock() );
   base.notifierIs( nullptr );
   EXPECT_THAT( run(), IsEmpty() );
   EXPECT_EQ( a->timeMin(), time );

   base.notifierIs( manager );
   EXPECT_THAT( run(), IsEmpty() ); // another kind of notifier
   base.notifierIs( manager->clock() );
   EXPECT_THAT( run(), ElementsAre( "a" ) );
}

TEST_F( ClockTest, NotifieeNeedNotBeHeldByAPtr ) {
   {
      Alarm onStack( "stack", log );
      onStack.notifierIs( manager->clock() );
      onStack.timeMinIs( now() + 1 );
      EXPECT_THAT( run(), ElementsAre( "stack" ) );
      onStack.timeMinIs( now() + 1 );
   }
   EXPECT_THAT( run(), IsEmpty() );
}

TEST_F( ClockTest, RefusesWhatIsNoTime ) {
   auto const a = alarmIn( 1, "a" );
   EXPECT_FATAL( a->timeMinIs( std::nan( "" ) ), "not a number" );
   EXPECT_THAT( run(), ElementsAre( "a" ) );
   a->timeMinIs( -Oru::Clock::NotifieeConst::never );
   EXPECT_THAT( run( 0 ), ElementsAre( "a" ) );
}

// The model sorts (time, registration) and takes what is due.
TEST_F( ClockTest, RandomDeadlinesAgreeWithAModel ) {
   unsigned const seed = std::random_device{}();
   SCOPED_TRACE( testing::Message() << "seed " << seed );
   std::mt19937 random( seed );
   struct Entry {
      Ptr<Alarm> alarm;
      std::string name;
      int registration;
   };
   int next = 0;
   std::vector<Entry> all;
   for( int step = 0; step < 3000; ++step ) {
      std::size_t const chosen = random() % ( all.size() + 1 );
      auto const choice = random() % 5;
      if( chosen == all.size() ) {
         std::string const name = std::to_string( next++ );
         all.push_back( { alarm( name ), name, next } );
      } else if( choice == 0 && all.size() > 20 ) {
         all.erase( all.begin() + static_cast<std::ptrdiff_t>( chosen ) );
      } else if( choice == 1 ) {
         all[ chosen ].alarm->isRegisteredNotifieeIs( false );
         all[ chosen ].alarm->isRegisteredNotifieeIs( true );
         all[ chosen ].registration = ++next;
      } else if( choice == 2 ) {
         std::vector<Entry> due;
         double const end = now() + 2;
         std::copy_if( all.begin(), all.end(), std::back_inserter( due ),
                       [ end ]( Entry const& e ) { return e.alarm->timeMin() <= end; } );
         std::sort( due.begin(), due.end(), []( Entry const& l, Entry const& r ) {
            return std::pair( l.alarm->timeMin(), l.registration ) <
                   std::pair( r.alarm->timeMin(), r.registration );
         } );
         Log expected;
         for( Entry const& e : due ) {
            expected.push_back( e.name );
         }
         ASSERT_EQ( run( 2 ), expected );
      } else {
         all[ chosen ].alarm->timeMinIs( std::floor( now() ) +
                                         static_cast<double>( random() % 8 ) );
      }
   }
}

TEST_F( ClockTest, DeadlinesAllocateNothing ) {
   struct Ticker : Oru::Clock::NotifieeConst {
      void onAttribute( Oru::AttributeId, void const* value ) override {
         ++ticks;
         timeMinIs( *static_cast<double const*>( value ) + 1 );
      }
      int ticks = 0;
   };
   std::vector<Ptr<Ticker>> tickers( 10 );
   for( Ptr<Ticker>& ticker : tickers ) {
      ticker = new Ticker;
      ticker->notifierIs( manager->clock() );
      ticker->timeMinIs( now() );
   }
   manager->executionTimeIs( 0 );
   manager->doRun();
   manager->executionTimeIs( 100.5 );
   EXPECT_EQ( testing_support::allocationsOf( [ this ] { manager->doRun(); } ), 0u );
   EXPECT_EQ( tickers.front()->ticks, 101 );
   EXPECT_EQ( tickers.back()->ticks, 101 );
}

} // namespace
