// The result of one walk over all processes.

#pragma once

#include <Quarn/Task.h>
#include <Quarn/Vector.h>

#include <cstdint>
#include <memory>
#include <optional>

#include <sys/types.h>

namespace HostAgent {

// The sum, or the largest number when it does not fit: figures that others wrote may be anything.
std::uint64_t saturatingSum( std::uint64_t a, std::uint64_t b );

// One process as a walk found it.
struct ProcessRecord {
   pid_t pid = 0;
   // The effective owner.
   uid_t uid = 0;
   char state = '?';
   Quarn::String name;
   std::uint64_t startTicks = 0;
   std::uint64_t residentPages = 0;
   // User and kernel time in clock ticks: of the whole life, and since the previous walk.
   std::uint64_t cpuTicks = 0;
   std::uint64_t cpuTicksSincePrevious = 0;
};

// A table is filled by its walk, closed, and then shared read-only.
class ProcessTable {
 public:
   // `began` is when the walk began, on the steady clock. `previous` is the closed table of the
   // walk before, null for the first walk; it is let go when this table is closed.
   ProcessTable( Quarn::TaskTimeStamp began, std::shared_ptr<const ProcessTable> previous );

   // Adds a process and works out its ticks since the previous walk. A process that the previous
   // walk did not see counts from 0, also when its number belonged to another process then; on the
   // first walk, with nothing to compare with, every count is 0.
   void processAdd( ProcessRecord process );

   // A process that was gone, or that could not be read or made no sense.
   void vanishedInc() { ++vanished_; }
   void unreadableInc() { ++unreadable_; }

   // Ends the filling.
   void close();

   // By rising number once the table is closed.
   const Quarn::BasicVector<ProcessRecord>& processes() const { return processes_; }

   // The process of that number in a closed table, null for none. Valid as long as the table.
   ProcessRecord const* find( pid_t pid ) const;

   std::uint64_t vanished() const { return vanished_; }
   std::uint64_t unreadable() const { return unreadable_; }

   // From the beginning of the previous walk to that of this one; no value on the first. A process
   // is met at about the same place of every walk, so this is also the time between two looks at
   // it.
   std::optional<Quarn::TaskTimeDuration> interval() const { return interval_; }

 private:
   Quarn::TaskTimeStamp began_;
   std::optional<Quarn::TaskTimeDuration> interval_;
   std::shared_ptr<const ProcessTable> previous_;
   Quarn::BasicVector<ProcessRecord> processes_;
   std::uint64_t vanished_ = 0;
   std::uint64_t unreadable_ = 0;
};

} // namespace HostAgent
