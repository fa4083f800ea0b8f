#include <timeout.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <map>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <vector>

extern "C" int expireOneFromC( void );

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr timeout_t lastTick = UINT64_MAX;

bool memoryIsShort = false;

} // namespace

// Replaces the form that the wheel allocates with, so that a test can make it fail.
void* operator new( std::size_t size, std::align_val_t alignment, const std::nothrow_t& ) noexcept {
   return memoryIsShort ? nullptr : ::operator new( size, alignment );
}

namespace {

struct CloseWheel {
   void operator()( timeouts* wheel ) const { timeouts_close( wheel ); }
};
using Wheel = std::unique_ptr<timeouts, CloseWheel>;

Wheel openWheel() {
   int error = 0;
   return Wheel( timeouts_open( 1, &error ) );
}

// Empty when the wheel is sound, else what the checker says.
std::string findings( timeouts* wheel ) {
   char* text = nullptr;
   std::size_t length = 0;
   std::FILE* out = open_memstream( &text, &length );
   bool good = timeouts_check( wheel, out );
   std::fclose( out );
   std::string result( text, length );
   std::free( text );
   EXPECT_EQ( good, result.empty() );
   return result;
}

class TimeoutWheelTest : public ::testing::Test {
 protected:
   void TearDown() override { EXPECT_EQ( findings( wheel_.get() ), "" ); }

   // Links a new record; its place in the order of additions is its name.
   timeout* add( timeout_t time, int flags = TIMEOUT_ABS ) {
      timeout* record = timeout_init( &records_.emplace_back(), flags );
      timeouts_add( wheel_.get(), record, time );
      return record;
   }

   std::size_t nameOf( const timeout* record ) const {
      std::size_t name = 0;
      while( &records_[ name ] != record ) {
         ++name;
      }
      return name;
   }

   // Sets the time and returns the names of what expires, in order.
   std::vector<std::size_t> expiredAt( timeout_t now ) {
      timeouts_update( wheel_.get(), now );
      EXPECT_EQ( findings( wheel_.get() ), "" );
      std::vector<std::size_t> names;
      while( timeout* record = timeouts_get( wheel_.get() ) ) {
         EXPECT_EQ( record->pending, nullptr );
         names.push_back( nameOf( record ) );
      }
      return names;
   }

   // Before the wheel, which touches records still linked when it is closed.
   std::deque<timeout> records_;
   Wheel wheel_ = openWheel();
};

TEST_F( TimeoutWheelTest, ZeroPresentAndPastExpireAtOnceInOrderOfAddition ) {
   timeouts_update( wheel_.get(), 1000 );
   add( 1000 );
   add( 0 );
   add( 999 );
   add( 0, 0 );
   EXPECT_TRUE( timeouts_expired( wheel_.get() ) );
   EXPECT_FALSE( timeouts_pending( wheel_.get() ) );
   EXPECT_EQ( timeouts_timeout( wheel_.get() ), 0u );
   EXPECT_THAT( expiredAt( 1000 ), ElementsAre( 0, 1, 2, 3 ) );
   EXPECT_EQ( timeouts_timeout( wheel_.get() ), lastTick );
}

TEST_F( TimeoutWheelTest, EqualExpiriesKeepInsertionOrder ) {
   // Every level is on the way from tick 0, and the last two are added on lower levels.
   timeout_t expiry = 0x7123'4567'89ab'cdef;
   add( expiry );
   add( expiry );
   for( timeout_t before : { timeout_t( 1 ) << 62, timeout_t( 1 ) << 40, timeout_t( 300 ) } ) {
      EXPECT_THAT( expiredAt( expiry - before ), IsEmpty() );
      add( expiry );
   }
   timeouts_update( wheel_.get(), 5 );
   add( expiry );
   EXPECT_THAT( expiredAt( expiry - 1 ), IsEmpty() );
   add( expiry );
   EXPECT_THAT( expiredAt( expiry ), ElementsAre( 0, 1, 2, 3, 4, 5, 6 ) );
}

TEST_F( TimeoutWheelTest, TicksOfOneBlockExpireInOrderOfTime ) {
   for( timeout_t expiry : { 190u, 129u, 160u, 130u, 191u, 160u } ) {
      add( expiry );
   }
   EXPECT_THAT( expiredAt( 128 ), IsEmpty() );
   EXPECT_THAT( expiredAt( 191 ), ElementsAre( 1, 3, 2, 5, 0, 4 ) );
}

TEST_F( TimeoutWheelTest, SlotsPassedInOneJumpExpireInOrderOfTime ) {
   // One record on each level, the highest first, and one that the jump stops short of.
   for( unsigned level = 11; level-- > 0; ) {
      add( timeout_t( 1 ) << ( 6 * level ) );
   }
   timeout_t now = timeout_t( 2 ) << 60;
   add( now + 2 );
   EXPECT_THAT( expiredAt( now + 1 ), ElementsAre( 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0 ) );
   EXPECT_EQ( timeouts_timeout( wheel_.get() ), 1u );
}

TEST_F( TimeoutWheelTest, LastTickIsAnExpiryLikeAnyOther ) {
   add( lastTick );
   EXPECT_EQ( timeouts_timeout( wheel_.get() ), lastTick );
   EXPECT_TRUE( timeouts_pending( wheel_.get() ) );
   EXPECT_THAT( expiredAt( lastTick - 1 ), IsEmpty() );
   EXPECT_EQ( timeouts_timeout( wheel_.get() ), 1u );
   EXPECT_THAT( expiredAt( lastTick ), ElementsAre( 0 ) );
}

TEST_F( TimeoutWheelTest, RelativeTimesStopAtTheLastTick ) {
   timeouts_update( wheel_.get(), 1000 );
   EXPECT_EQ( add( 24, 0 )->expires, 1024u );
   EXPECT_EQ( add( lastTick - 1001, 0 )->expires, lastTick - 1 );
   EXPECT_EQ( add( lastTick - 1000, 0 )->expires, lastTick );
   EXPECT_EQ( add( lastTick - 999, 0 )->expires, lastTick );
   timeouts_step( wheel_.get(), 24 );
   EXPECT_THAT( expiredAt( 1024 ), ElementsAre( 0 ) );
   timeouts_step( wheel_.get(), lastTick );
   EXPECT_THAT( expiredAt( lastTick ), ElementsAre( 1, 2, 3 ) );
}

TEST_F( TimeoutWheelTest, ClockSetBackMakesWaitingRecordsWaitLonger ) {
   timeout_t start = 10'000'000;
   timeouts_update( wheel_.get(), start );
   add( start + 5 );
   add( start + 70 );
   add( start + 400'000 );
   add( start + 5 );
   add( start );
   timeouts_update( wheel_.get(), start - 500'000 );
   // What had expired stays so; the rest waits for its tick.
   EXPECT_TRUE( timeouts_expired( wheel_.get() ) );
   EXPECT_THAT( expiredAt( start - 500'000 ), ElementsAre( 4 ) );
   add( start + 5 );
   EXPECT_THAT( expiredAt( start + 4 ), IsEmpty() );
   EXPECT_THAT( expiredAt( start + 5 ), ElementsAre( 0, 3, 5 ) );
   EXPECT_THAT( expiredAt( start + 69 ), IsEmpty() );
   EXPECT_THAT( expiredAt( start + 70 ), ElementsAre( 1 ) );
   EXPECT_THAT( expiredAt( start + 399'999 ), IsEmpty() );
   EXPECT_THAT( expiredAt( start + 400'000 ), ElementsAre( 2 ) );
}

TEST_F( TimeoutWheelTest, AddingALinkedRecordMovesIt ) {
   timeout* moved = add( 10 );
   add( 10 );
   timeouts_add( wheel_.get(), moved, 10 );
   EXPECT_THAT( expiredAt( 10 ), ElementsAre( 1, 0 ) );

   // From far to near, and from the expired list back to waiting.
   timeouts_add( wheel_.get(), moved, timeout_t( 1 ) << 50 );
   timeouts_add( wheel_.get(), moved, 10 );
   EXPECT_FALSE( timeouts_pending( wheel_.get() ) );
   timeouts_add( wheel_.get(), moved, 20 );
   EXPECT_FALSE( timeouts_expired( wheel_.get() ) );
   EXPECT_THAT( expiredAt( 20 ), ElementsAre( 0 ) );
}

TEST_F( TimeoutWheelTest, DeletedRecordsDoNotExpire ) {
   timeout* first = add( 10 );
   timeout* middle = add( 10 );
   add( 10 );
   timeout* alone = add( 100'000 );
   timeouts_del( wheel_.get(), middle );
   timeouts_del( wheel_.get(), alone );
   timeouts_del( wheel_.get(), alone );
   EXPECT_EQ( alone->pending, nullptr );
   timeouts_update( wheel_.get(), 10 );
   timeouts_del( wheel_.get(), first );
   EXPECT_THAT( expiredAt( 200'000 ), ElementsAre( 2 ) );

   timeout never;
   timeouts_del( wheel_.get(), timeout_init( &never, 0 ) );
   EXPECT_FALSE( timeouts_pending( wheel_.get() ) );
   EXPECT_FALSE( timeouts_expired( wheel_.get() ) );
}

TEST_F( TimeoutWheelTest, BitsOfTheCallerInFlagsAreLeftAlone ) {
   int flags = TIMEOUT_ABS | 4 | 8 | 16;
   timeout* record = add( 5000, flags );
   timeouts_update( wheel_.get(), 4990 );
   record->flags ^= 8;
   timeouts_update( wheel_.get(), 100 );
   timeouts_add( wheel_.get(), record, 6000 );
   EXPECT_THAT( expiredAt( 6000 ), ElementsAre( 0 ) );
   EXPECT_EQ( record->flags, flags ^ 8 );
   timeouts_add( wheel_.get(), record, 7000 );
   timeouts_del( wheel_.get(), record );
   EXPECT_EQ( record->flags, flags ^ 8 );
   // The bit beside the library's does not make a time absolute.
   EXPECT_EQ( add( 10, 4 | 8 | 16 )->expires, 6010u );
}

TEST_F( TimeoutWheelTest, NextWakeUpOfAFewRecordsIsExact ) {
   timeout_t now = 12'345;
   timeouts_update( wheel_.get(), now );
   timeout_t distance = timeout_t( 1 ) << 45;
   add( now + distance + 7 );
   EXPECT_EQ( timeouts_timeout( wheel_.get() ), distance + 7 );
   add( now + distance + 3 );
   add( now + distance + 9 );
   EXPECT_EQ( timeouts_timeout( wheel_.get() ), distance + 3 );
   // Of many it may be early, yet gets there in a wake-up for each level at most.
   for( timeout_t i = 10; i < 100; ++i ) {
      add( now + distance + i );
   }
   int wakeUps = 0;
   while( !timeouts_expired( wheel_.get() ) ) {
      now += timeouts_timeout( wheel_.get() );
      ASSERT_LE( now, 12'345 + distance + 3 );
      ASSERT_LE( ++wakeUps, 11 );
      timeouts_update( wheel_.get(), now );
   }
   EXPECT_EQ( now, 12'345 + distance + 3 );
}

TEST( TimeoutWheelLifeTest, CloseUnlinksWaitingAndExpiredRecords ) {
   std::vector<timeout> records( 5 );
   {
      Wheel wheel = openWheel();
      auto record = records.begin();
      for( timeout_t expiry :
           { timeout_t( 0 ), timeout_t( 50 ), timeout_t( 70 ), timeout_t( 1 ) << 40, lastTick } ) {
         timeouts_add( wheel.get(), timeout_init( &*record++, TIMEOUT_ABS | 16 ), expiry );
      }
      timeouts_update( wheel.get(), 60 );
      EXPECT_NE( records.front().pending, nullptr );
      EXPECT_NE( records.back().pending, nullptr );
   }
   for( timeout& record : records ) {
      EXPECT_EQ( record.pending, nullptr );
      EXPECT_EQ( record.flags, TIMEOUT_ABS | 16 );
   }
   // They serve again in another wheel.
   Wheel other = openWheel();
   timeouts_add( other.get(), &records.back(), 1 );
   timeouts_step( other.get(), 1 );
   EXPECT_EQ( timeouts_get( other.get() ), &records.back() );
   timeouts_close( nullptr );
}

TEST( TimeoutWheelLifeTest, ErrorIsWrittenOnFailureOnly ) {
   int error = 77;
   Wheel wheel( timeouts_open( 1000, &error ) );
   ASSERT_NE( wheel, nullptr );
   EXPECT_EQ( error, 77 );
   EXPECT_EQ( timeouts_hz( wheel.get() ), 1000u );

   memoryIsShort = true;
   EXPECT_EQ( timeouts_open( 1000, &error ), nullptr );
   memoryIsShort = false;
   EXPECT_EQ( error, ENOMEM );
}

TEST( TimeoutWheelLifeTest, HeaderServesCPrograms ) { EXPECT_EQ( expireOneFromC(), 1 ); }

TEST( TimeoutWheelCheckTest, DamagedRecordsAreReported ) {
   timeout records[ 3 ];
   Wheel wheel = openWheel();
   timeouts_update( wheel.get(), 100 );
   for( timeout& record : records ) {
      timeouts_add( wheel.get(), timeout_init( &record, TIMEOUT_ABS ), 110 );
   }
   // Each damage is undone before the next.
   auto damaged = [ & ]( auto& field, auto value ) {
      auto saved = field;
      field = value;
      std::string text = findings( wheel.get() );
      EXPECT_FALSE( timeouts_check( wheel.get(), nullptr ) );
      field = saved;
      EXPECT_EQ( findings( wheel.get() ), "" );
      return text;
   };
   EXPECT_THAT( damaged( records[ 1 ].expires, 100u ),
                HasSubstr( "of tick 100 waits at tick 100" ) );
   EXPECT_THAT( damaged( records[ 1 ].expires, 111u ), HasSubstr( "wrong slot" ) );
   EXPECT_THAT( damaged( records[ 1 ].pending, nullptr ),
                HasSubstr( "not marked as on its list" ) );
   EXPECT_THAT( damaged( records[ 1 ].tqe.tqe_prev, nullptr ), HasSubstr( "not linked back" ) );
   // A ring and a list cut short.
   EXPECT_THAT( damaged( records[ 2 ].tqe.tqe_next, &records[ 1 ] ),
                HasSubstr( "not linked back" ) );
   EXPECT_THAT( damaged( records[ 0 ].tqe.tqe_next, nullptr ), HasSubstr( "end of a list" ) );
}

// The wheel beside a sorted map, which keeps equal keys in order of insertion.
class ModelRun {
 public:
   explicit ModelRun( std::uint64_t seed ) : random_( seed ) {
      for( timeout& record : records_ ) {
         timeout_init( &record, 0 );
      }
   }

   void steps( int count ) {
      for( int i = 0; i < count && !::testing::Test::HasFailure(); ++i ) {
         SCOPED_TRACE( ::testing::Message() << "step " << i << " at tick " << now_ );
         step();
         compare();
      }
      while( timeouts_expired( wheel_.get() ) && !::testing::Test::HasFailure() ) {
         get();
      }
   }

 private:
   // By tick, and within a tick in order of addition.
   using Map = std::multimap<timeout_t, timeout*>;

   std::uint64_t below( std::uint64_t limit ) { return random_() % limit; }

   // Tiny, medium and huge alike, and often an exact power of two or one beside it.
   timeout_t distance() {
      timeout_t power = timeout_t( 1 ) << below( below( 2 ) ? 64 : 14 );
      switch( below( 4 ) ) {
      case 0:
         return power - below( 2 );
      case 1:
         return below( 70 );
      default:
         return below( power );
      }
   }

   timeout_t plus( timeout_t distance ) const {
      return distance > lastTick - now_ ? lastTick : now_ + distance;
   }
   timeout_t minus( timeout_t distance ) const { return distance > now_ ? 0 : now_ - distance; }

   void step() {
      timeout* record = &records_[ below( records_.size() ) ];
      switch( below( 16 ) ) {
      case 0:
         forget( record );
         timeouts_del( wheel_.get(), record );
         EXPECT_EQ( record->pending, nullptr );
         return;
      case 1:
      case 2:
         return update( plus( distance() ) );
      case 3:
         return update( minus( distance() ) );
      case 4: {
         timeout_t by = distance();
         timeouts_step( wheel_.get(), by );
         return timeIs( plus( by ) );
      }
      case 5: {
         // As a loop does that sleeps until the wheel says; an empty wheel is not slept on.
         timeout_t wait = timeouts_timeout( wheel_.get() );
         return update( waiting_.empty() ? now_ : now_ + wait );
      }
      case 6:
         // Onto an expiry, or one tick short of it.
         return waiting_.empty() ? update( 0 ) : update( waiting_.begin()->first - below( 2 ) );
      case 7:
      case 8:
      case 9:
         return get();
      default:
         return add( record );
      }
   }

   void add( timeout* record ) {
      forget( record );
      bool absolute = below( 2 );
      record->flags = int( below( 8 ) << 2 ) | ( absolute ? TIMEOUT_ABS : 0 );
      int flags = record->flags;
      timeout_t time = distance();
      timeout_t expiry = plus( time );
      if( absolute ) {
         // Some on a tick that is taken, some in the past, some at the very end.
         switch( below( 5 ) ) {
         case 0:
            expiry = minus( time );
            break;
         case 1:
            expiry = lastTick - below( 2 );
            break;
         case 2:
         case 3:
            expiry = waiting_.empty() ? expiry : std::prev( waiting_.end() )->first;
            break;
         default:
            break;
         }
      }
      timeouts_add( wheel_.get(), record, absolute ? expiry : time );
      EXPECT_EQ( record->expires, expiry );
      EXPECT_EQ( record->flags, flags );
      ( expiry > now_ ? waiting_ : expired_ ).emplace( expiry, record );
   }

   void get() {
      timeout* record = timeouts_get( wheel_.get() );
      ASSERT_EQ( record != nullptr, !expired_.empty() );
      if( record ) {
         EXPECT_EQ( record->pending, nullptr );
         // The first of its tick, and one that the model has as expired.
         auto first = expired_.find( record->expires );
         ASSERT_NE( first, expired_.end() );
         ASSERT_EQ( first->second, record );
         expired_.erase( first );
      }
   }

   void update( timeout_t now ) {
      timeouts_update( wheel_.get(), now );
      timeIs( now );
   }

   void timeIs( timeout_t now ) {
      now_ = now;
      while( !waiting_.empty() && waiting_.begin()->first <= now_ ) {
         expired_.insert( waiting_.extract( waiting_.begin() ) );
      }
   }

   void forget( timeout* record ) {
      for( Map* map : { &waiting_, &expired_ } ) {
         std::erase_if( *map, [ & ]( const auto& entry ) { return entry.second == record; } );
      }
   }

   void compare() {
      ASSERT_EQ( findings( wheel_.get() ), "" );
      EXPECT_EQ( timeouts_expired( wheel_.get() ), !expired_.empty() );
      EXPECT_EQ( timeouts_pending( wheel_.get() ), !waiting_.empty() );
      timeout_t wait = timeouts_timeout( wheel_.get() );
      if( !expired_.empty() ) {
         EXPECT_EQ( wait, 0u );
      } else if( waiting_.empty() ) {
         EXPECT_EQ( wait, lastTick );
      } else {
         EXPECT_GE( wait, 1u );
         EXPECT_LE( wait, waiting_.begin()->first - now_ );
      }
   }

   std::mt19937_64 random_;
   std::vector<timeout> records_ = std::vector<timeout>( 60 );
   Wheel wheel_ = openWheel();
   timeout_t now_ = 0;
   Map waiting_;
   Map expired_;
};

TEST( TimeoutWheelModelTest, AgreesWithASortedMapUnderRandomSteps ) {
   for( std::uint64_t seed = 1; seed <= 40 && !HasFailure(); ++seed ) {
      SCOPED_TRACE( ::testing::Message() << "seed " << seed );
      ModelRun( seed ).steps( 1000 );
   }
}

} // namespace
