// The last things that happened on this host while the agent ran.

#pragma once

#include <cstddef>
#include <deque>
#include <string>

namespace HostAgent {

// Keeps the newest events only, so that a host where much happens costs no more memory than a quiet
// one.
class EventLog {
 public:
   static constexpr std::size_t capacity = 20;

   struct Event {
      // Since the log was made, on the clock of `Quarn::time()`.
      double seconds;
      std::string what;
      // Of whom; any bytes.
      std::string name;
   };

   // Counts every event at `counter` too, when it is not null. It outlives the log.
   explicit EventLog( unsigned long* counter = nullptr );

   void add( std::string what, std::string name );

   // The oldest first.
   const std::deque<Event>& events() const { return events_; }

 private:
   unsigned long* counter_;
   double start_;
   std::deque<Event> events_;
};

} // namespace HostAgent
