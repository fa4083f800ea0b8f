#include <timeout.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <new>

// The wheel is eleven levels of slots, one level for each group of six bits of a tick. A waiting
// record is on the level of the highest group in which its expiry differs from the present time,
// in the slot numbered by that group of its expiry. The place is a function of these two values
// alone, which has consequences that the code below leans on:
//
//  - records of one tick share a list, whatever the time at which they were added; tail insertion
//    and moves in list order keep them in order;
//  - a record on a low level expires before any record on a higher one, and within a level the
//    slots expire in ascending order;
//  - the slots in use are above the present time's own group, since a waiting record is later.

// A tail queue; `last_` is where the next record is to be linked.
struct timeout_list {
   timeout_list() = default;
   timeout_list( const timeout_list& ) = delete;
   timeout_list& operator=( const timeout_list& ) = delete;

   bool empty() const { return first_ == nullptr; }
   void clear() {
      first_ = nullptr;
      last_ = &first_;
   }

   timeout* first_ = nullptr;
   timeout** last_ = &first_;
};

namespace {

constexpr unsigned groupBits = 6;
constexpr unsigned groupMask = ( 1u << groupBits ) - 1;
constexpr unsigned levels = 11;
// The top level has what is left of 64 bits: four, hence 16 slots.
constexpr unsigned slots = ( levels - 1 ) * 64 + 16;
// A slot of up to so many records is looked through for its first expiry.
constexpr int exactlyTimed = 4;
constexpr timeout_t lastTick = ~timeout_t( 0 );

} // namespace

// The fields of every operation fill the first two cache lines; the lists follow.
struct alignas( 64 ) timeouts {
   explicit timeouts( timeout_t hz ) : hz_( hz ) {}

   timeout_t now_ = 0;
   timeout_t hz_;
   // Bit `level` is set when that level has a bit in `used_`, which has a bit for each slot in use.
   std::uint64_t usedLevels_ = 0;
   std::array<std::uint64_t, levels> used_{};
   timeout_list expired_;
   // Slot `s` of level `l` is at `64 * l + s`.
   std::array<timeout_list, slots> wheel_;
};

static_assert( sizeof( void* ) != 8 || sizeof( timeout ) == 40, "callers embed five fields" );
static_assert( sizeof( void* ) != 8 || offsetof( timeouts, wheel_ ) == 128 );

namespace {

std::uint64_t bit( unsigned number ) { return std::uint64_t( 1 ) << number; }

// The bits under `number`.
std::uint64_t bitsBelow( unsigned number ) { return bit( number ) - 1; }

unsigned lowestBit( std::uint64_t bits ) { return unsigned( std::countr_zero( bits ) ); }

// The level of the highest group in which two ticks differ; the lowest of equal ones.
unsigned levelOf( timeout_t a, timeout_t b ) {
   return ( unsigned( std::bit_width( ( a ^ b ) | 1 ) ) - 1 ) / groupBits;
}

unsigned slotOf( timeout_t tick, unsigned level ) {
   return unsigned( tick >> ( groupBits * level ) ) & groupMask;
}

void append( timeout_list& list, timeout* record ) {
   record->pending = &list;
   record->tqe.tqe_next = nullptr;
   record->tqe.tqe_prev = list.last_;
   *list.last_ = record;
   list.last_ = &record->tqe.tqe_next;
}

void unlink( timeout* record ) {
   timeout* next = record->tqe.tqe_next;
   timeout** prev = record->tqe.tqe_prev;
   *prev = next;
   if( next ) {
      next->tqe.tqe_prev = prev;
   } else {
      record->pending->last_ = prev;
   }
   record->pending = nullptr;
}

// The record that has its forward link at `link`.
timeout* recordOf( timeout** link ) {
   auto* start = reinterpret_cast<std::byte*>( link ) - offsetof( timeout, tqe.tqe_next );
   return reinterpret_cast<timeout*>( start );
}

// Moves all of `from`, which is not empty, behind `to`. Links between records stay as they are;
// only the field that tells the list is rewritten. The walk goes from both ends to the middle, so
// that two cache misses are under way at a time.
void appendAll( timeout_list& to, timeout_list& from ) {
   timeout* front = from.first_;
   timeout* back = recordOf( from.last_ );
   for( ;; ) {
      front->pending = &to;
      back->pending = &to;
      if( front == back || front->tqe.tqe_next == back ) {
         break;
      }
      front = front->tqe.tqe_next;
      back = recordOf( back->tqe.tqe_prev );
   }
   *to.last_ = from.first_;
   from.first_->tqe.tqe_prev = to.last_;
   to.last_ = from.last_;
   from.clear();
}

void markUsed( timeouts& wheel, unsigned level, unsigned slot ) {
   wheel.used_[ level ] |= bit( slot );
   wheel.usedLevels_ |= bit( level );
}

void markUnused( timeouts& wheel, unsigned level, std::uint64_t slotBits ) {
   wheel.used_[ level ] &= ~slotBits;
   if( wheel.used_[ level ] == 0 ) {
      wheel.usedLevels_ &= ~bit( level );
   }
}

// `distance` ticks after `now`, at most the last tick.
timeout_t later( timeout_t now, timeout_t distance ) {
   return distance > lastTick - now ? lastTick : now + distance;
}

// Links a record by its expiry.
void place( timeouts& wheel, timeout* record ) {
   if( !( record->expires > wheel.now_ ) ) {
      append( wheel.expired_, record );
      return;
   }
   unsigned level = levelOf( record->expires, wheel.now_ );
   unsigned slot = slotOf( record->expires, level );
   append( wheel.wheel_[ 64 * level + slot ], record );
   markUsed( wheel, level, slot );
}

void remove( timeouts& wheel, timeout* record ) {
   timeout_list* list = record->pending;
   unlink( record );
   if( list->empty() && list != &wheel.expired_ ) {
      std::ptrdiff_t index = list - wheel.wheel_.data();
      if( index < 0 || index >= std::ptrdiff_t( slots ) ) [[unlikely]] {
         // Going on would write past this wheel.
         std::fputs( "timeout: the record is linked into another wheel\n", stderr );
         std::abort();
      }
      markUnused( wheel, unsigned( index ) / 64, bit( unsigned( index ) % 64 ) );
   }
}

// Moves the lists of these slots behind `to`, in ascending order.
void drainSlots( timeouts& wheel, unsigned level, std::uint64_t slotBits, timeout_list& to ) {
   for( std::uint64_t rest = slotBits; rest; rest &= rest - 1 ) {
      appendAll( to, wheel.wheel_[ 64 * level + lowestBit( rest ) ] );
   }
   markUnused( wheel, level, slotBits );
}

void drainLevelsBelow( timeouts& wheel, unsigned level, timeout_list& to ) {
   for( std::uint64_t rest = wheel.usedLevels_ & bitsBelow( level ); rest; rest &= rest - 1 ) {
      unsigned lower = lowestBit( rest );
      drainSlots( wheel, lower, wheel.used_[ lower ], to );
   }
}

// Time passes to a later tick. Below the highest group that changes, every record has the old value
// of that group, so all have expired; on its level those in slots passed over have, the slot
// entered is spread over lower levels or expires, and later slots keep their place; so do the
// levels above.
void advance( timeouts& wheel, timeout_t now ) {
   unsigned level = levelOf( wheel.now_, now );
   unsigned entered = slotOf( now, level );
   drainLevelsBelow( wheel, level, wheel.expired_ );
   drainSlots( wheel, level, wheel.used_[ level ] & bitsBelow( entered ), wheel.expired_ );
   wheel.now_ = now;

   if( wheel.used_[ level ] & bit( entered ) ) {
      timeout_list& list = wheel.wheel_[ 64 * level + entered ];
      timeout* record = list.first_;
      list.clear();
      markUnused( wheel, level, bit( entered ) );
      while( record ) {
         timeout* next = record->tqe.tqe_next;
         place( wheel, record );
         record = next;
      }
   }
}

// Time is set to an earlier tick. Records below the highest group that changes share the old value
// of that group, so all belong in the one slot of that number, which was empty because it was the
// present; the rest of that level, and the levels above, keep their place.
void retreat( timeouts& wheel, timeout_t now ) {
   unsigned level = levelOf( wheel.now_, now );
   unsigned left = slotOf( wheel.now_, level );
   timeout_list& list = wheel.wheel_[ 64 * level + left ];
   drainLevelsBelow( wheel, level, list );
   if( !list.empty() ) {
      markUsed( wheel, level, left );
   }
   wheel.now_ = now;
}

// A finding of the checker. Returns false, which is what the check has come to.
__attribute__( ( format( printf, 2, 3 ) ) ) bool wrong( FILE* out, const char* format, ... ) {
   if( out ) {
      std::va_list arguments;
      va_start( arguments, format );
      std::vfprintf( out, format, arguments );
      va_end( arguments );
   }
   return false;
}

// Checks the links of a list and, in a slot of the wheel, the place of its records.
bool checkList( const timeouts& wheel, const timeout_list& list, FILE* out ) {
   bool good = true;
   timeout* const* link = &list.first_;
   for( const timeout* record; ( record = *link ) != nullptr; link = &record->tqe.tqe_next ) {
      const void* name = record;
      // A list that runs into itself does so at a record that is linked back to another place, so
      // the walk ends here.
      if( record->tqe.tqe_prev != link ) {
         return wrong( out, "record %p is not linked back\n", name );
      }
      if( record->pending != &list ) {
         good = wrong( out, "record %p is not marked as on its list\n", name );
      }
      if( &list == &wheel.expired_ ) {
         continue;
      }
      if( !( record->expires > wheel.now_ ) ) {
         good = wrong( out, "record %p of tick %" PRIu64 " waits at tick %" PRIu64 "\n", name,
                       record->expires, wheel.now_ );
         continue;
      }
      unsigned level = levelOf( record->expires, wheel.now_ );
      if( &list != &wheel.wheel_[ 64 * level + slotOf( record->expires, level ) ] ) {
         good = wrong( out, "record %p of tick %" PRIu64 " is in a wrong slot\n", name,
                       record->expires );
      }
   }
   if( list.last_ != link ) {
      good = wrong( out, "the end of a list is not its last record\n" );
   }
   return good;
}

} // namespace

struct timeout* timeout_init( struct timeout* record, int flags ) {
   *record = timeout{};
   record->flags = flags;
   return record;
}

struct timeouts* timeouts_open( timeout_t hz, int* error ) {
   auto* wheel = new( std::nothrow ) timeouts( hz );
   if( !wheel ) {
      *error = ENOMEM;
   }
   return wheel;
}

void timeouts_close( struct timeouts* wheel ) {
   if( !wheel ) {
      return;
   }
   // Gathering them first leaves one list to walk.
   drainLevelsBelow( *wheel, levels, wheel->expired_ );
   for( timeout* record = wheel->expired_.first_; record; record = record->tqe.tqe_next ) {
      record->pending = nullptr;
   }
   delete wheel;
}

void timeouts_update( struct timeouts* wheel, timeout_t now ) {
   if( now > wheel->now_ ) {
      advance( *wheel, now );
   } else if( now != wheel->now_ ) {
      retreat( *wheel, now );
   }
}

void timeouts_step( struct timeouts* wheel, timeout_t distance ) {
   timeouts_update( wheel, later( wheel->now_, distance ) );
}

timeout_t timeouts_hz( struct timeouts* wheel ) { return wheel->hz_; }

void timeouts_add( struct timeouts* wheel, struct timeout* record, timeout_t time ) {
   if( record->pending ) {
      remove( *wheel, record );
   }
   record->expires = record->flags & TIMEOUT_ABS ? time : later( wheel->now_, time );
   place( *wheel, record );
}

void timeouts_del( struct timeouts* wheel, struct timeout* record ) {
   if( record->pending ) {
      remove( *wheel, record );
   }
}

struct timeout* timeouts_get( struct timeouts* wheel ) {
   timeout* record = wheel->expired_.first_;
   if( !record ) {
      return nullptr;
   }
   unlink( record );
   return record;
}

bool timeouts_expired( struct timeouts* wheel ) { return !wheel->expired_.empty(); }

bool timeouts_pending( struct timeouts* wheel ) { return wheel->usedLevels_ != 0; }

timeout_t timeouts_timeout( struct timeouts* wheel ) {
   if( !wheel->expired_.empty() ) {
      return 0;
   }
   if( wheel->usedLevels_ == 0 ) {
      return lastTick;
   }
   unsigned level = lowestBit( wheel->usedLevels_ );
   unsigned slot = lowestBit( wheel->used_[ level ] );
   // All that expires first is in this slot. When it holds few records the answer is exact, so that
   // a lone timer is not woken on every level that it passes on its way down.
   const timeout* record = wheel->wheel_[ 64 * level + slot ].first_;
   timeout_t first = lastTick;
   for( int count = 0; count < exactlyTimed; ++count ) {
      first = std::min( first, record->expires );
      record = record->tqe.tqe_next;
      if( !record ) {
         return first - wheel->now_;
      }
   }
   // The first tick of the slot: a record on level 0 expires then, those of another level are to be
   // spread over lower ones.
   unsigned shift = groupBits * level;
   timeout_t ahead = slot - slotOf( wheel->now_, level );
   return ( ahead << shift ) - ( wheel->now_ & bitsBelow( shift ) );
}

bool timeouts_check( struct timeouts* wheel, FILE* out ) {
   bool good = checkList( *wheel, wheel->expired_, out );
   for( unsigned index = 0; index < slots; ++index ) {
      const timeout_list& list = wheel->wheel_[ index ];
      unsigned level = index / 64;
      unsigned slot = index % 64;
      if( list.empty() == ( ( wheel->used_[ level ] & bit( slot ) ) != 0 ) ) {
         good = wrong( out, "level %u has a wrong bit for slot %u\n", level, slot );
      }
      good = checkList( *wheel, list, out ) && good;
   }
   for( unsigned level = 0; level < levels; ++level ) {
      if( ( wheel->used_[ level ] == 0 ) == ( ( wheel->usedLevels_ & bit( level ) ) != 0 ) ) {
         good = wrong( out, "level %u has a wrong bit\n", level );
      }
   }
   return good;
}
