// The most recent scheduling events of a thread, for whoever looks at a stuck or slow one.
//
// One ring belongs to a thread's root scheduler and is shared by all schedulers of that root.
// Recording is always on and allocates nothing: the ring is fixed storage, and the identifiers that
// events carry are held in place or interned. A capacity of 0 turns it off.
//
// Thread: that of the root.

#pragma once

#include <Quarn/Export.h>
#include <Quarn/base/MemTrack.h>
#include <Quarn/base/String.h>

#include <fmt/format.h>

#include <chrono>
#include <cstdint>
#include <iosfwd>
#include <vector>

namespace Quarn {

class _TaskBase; // NOLINT(bugprone-reserved-identifier): part of the interface
class TaskNameRegex;
class TaskScheduler;

// What happened. The values up to `fdWritable` happen to a task, the others to a scheduler.
enum class TaskSchedulerEventType : std::uint8_t {
   schedule = 0,
   unschedule = 1,
   runStart = 2,
   runEnd = 3,
   timerStart = 4,
   timerStop = 5,
   suspendOn = 6,
   suspendOff = 7,
   scheduleSuspended = 8,
   forceYieldOn = 9,
   forceYieldOff = 10,
   idle = 11,
   busy = 12,
   create = 13,
   destroy = 14,
   fdReadable = 15,
   fdWritable = 16,
   schedulerBusy = 17,
   schedulerIdle = 18,
   schedulerHasRunnableTasks = 19,
   schedulerHasNoRunnableTasks = 20,
   schedulerSuspended = 21,
   schedulerUnsuspended = 22,
   schedulerRunIgnoredWhileSuspended = 23,
   schedulerVirtualTimeOn = 24,
   schedulerVirtualTimeOff = 25,
   schedulerTestYieldRatioOn = 26,
   schedulerTestYieldRatioOff = 27,
   schedulerRunCriticalStart = 28,
   schedulerRunCriticalEnd = 29,
};

// Whether the event happens to a task.
//
// Errors: fatal for an unknown value ("unexpected eventType=...").
ORUQUARN_API bool eventNeedTask( TaskSchedulerEventType type );

// The text that reports show for the event.
//
// Errors: fatal for an unknown value ("unexpected eventType ...").
ORUQUARN_API char const* eventTypeDisplay( TaskSchedulerEventType type );

class ORUQUARN_API TaskSchedulerHistory {
 public:
   using time_point = std::chrono::time_point<std::chrono::steady_clock, std::chrono::nanoseconds>;

   class ORUQUARN_API Event {
    public:
      Event() = default;
      Event( TaskSchedulerEventType type, const time_point& when, const String& identifier )
            : type_( type ),
              timestamp_( when ),
              identifier_( identifier ) {}

      TaskSchedulerEventType eventType() const { return type_; }
      char const* eventTypeDisplay() const { return Quarn::eventTypeDisplay( type_ ); }

      // When it happened: the steady clock, or the virtual clock while the root runs on it.
      const time_point& timestamp() const { return timestamp_; }

      // For a task its priority's character, a blank and its name; for a scheduler its name.
      //
      // Errors: fatal when copying the identifier would allocate.
      const String& eventIdentifier() const;

    private:
      friend class TaskSchedulerHistory;

      // Assigning the parts touches no count when the slot held the same identifier before.
      void _set( TaskSchedulerEventType type, const time_point& when, const String& identifier ) {
         type_ = type;
         timestamp_ = when;
         identifier_ = identifier;
      }

      TaskSchedulerEventType type_ = TaskSchedulerEventType::schedule;
      time_point timestamp_;
      String identifier_;
   };

   // Units: `capacity` is a number of events.
   explicit TaskSchedulerHistory( std::uint32_t capacity );
   ~TaskSchedulerHistory();

   TaskSchedulerHistory( const TaskSchedulerHistory& ) = delete;
   TaskSchedulerHistory& operator=( const TaskSchedulerHistory& ) = delete;

   // Records an event; a full ring forgets its oldest one.
   void insert( const time_point& when, TaskSchedulerEventType type, _TaskBase const* task );
   void insert( const time_point& when, TaskSchedulerEventType type,
                TaskScheduler const* scheduler );
   void insert( const time_point& when, TaskSchedulerEventType type, const String& identifier ) {
      if( !events_.empty() ) {
         _nextSlot()._set( type, when, identifier );
      }
   }

   // How many events the ring holds at most, and now.
   std::uint32_t capacity() const { return static_cast<std::uint32_t>( events_.size() ); }
   std::uint32_t size() const { return size_; }

   // The event that happened as the `age`-th before the newest, which has age 0. `age` is below
   // `size()`.
   const Event& event( std::uint32_t age ) const;

   // Sets the capacity, keeping the newest events that fit, and returns the previous one. When
   // memory is short nothing changes.
   //
   // Errors: `std::bad_alloc`.
   std::uint32_t capacityIs( std::uint32_t capacity );

   // Forgets all events; the capacity stays.
   void clear();

   // Writes a header, a rule and a line for each event, newest first. With a filter, events of
   // schedulers have no line, nor those of tasks whose names do not match.
   void renderText( std::ostream& out, TaskNameRegex const* filter = nullptr ) const;

 private:
   // Makes room for an event in front of the newest. The capacity is not 0.
   Event& _nextSlot() {
      newest_ = ( newest_ == 0 ? capacity() : newest_ ) - 1;
      if( size_ < capacity() ) {
         ++size_;
      }
      return events_[ newest_ ];
   }

   std::vector<Event, Allocator<Event>> events_;
   std::uint32_t newest_ = 0;
   std::uint32_t size_ = 0;
};

} // namespace Quarn

template<>
struct fmt::formatter<Quarn::TaskSchedulerEventType> : fmt::formatter<std::string_view> {
   template<typename Context>
   auto format( Quarn::TaskSchedulerEventType type, Context& context ) const {
      // A trace must not fail; an unknown value shows as its number.
      const auto value = static_cast<unsigned>( type );
      return fmt::formatter<std::string_view>::format(
            value > static_cast<unsigned>( Quarn::TaskSchedulerEventType::schedulerRunCriticalEnd )
                  ? std::string_view( fmt::to_string( value ) )
                  : std::string_view( Quarn::eventTypeDisplay( type ) ),
            context );
   }
};
