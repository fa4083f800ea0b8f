// Counts of the agent's own work, which the counters plugin keeps when it can be loaded.

#pragma once

#include <array>
#include <cstddef>

namespace HostAgent {

class WorkCounters {
 public:
   // Walks begun and loads taken; events of links and folders; show requests answered.
   enum class Work : std::size_t { samples, events, answers };
   static constexpr std::array names = { "samples taken", "events seen", "show requests answered" };

   // Loads the plugin. An agent works as well without it, so that its absence is traced only when
   // errors of the facility "QuarnPlugin" are enabled, at level 1.
   //
   // Thread: one without others beside it that load plugins.
   // Errors: fatal when there is a library of that name and it is no such plugin.
   WorkCounters();

   WorkCounters( const WorkCounters& ) = delete;
   WorkCounters& operator=( const WorkCounters& ) = delete;

   // Where to count that work. The address is good as long as this object.
   unsigned long* counter( Work work ) { return counters_[ static_cast<std::size_t>( work ) ]; }
   unsigned long count( Work work ) const { return *counters_[ static_cast<std::size_t>( work ) ]; }

   // Whether the plugin keeps the counters. Its counts are those of the process.
   bool fromPlugin() const { return counters_.front() != &own_.front(); }

 private:
   std::array<unsigned long, names.size()> own_{};
   std::array<unsigned long*, names.size()> counters_;
};

} // namespace HostAgent
