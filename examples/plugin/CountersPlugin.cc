// An example of a plugin: the counters of a process, in one place.
//
// A program that counts through `Quarn::Counters` runs with or without it. `Counters` looks for
// "libKestoCountersPlugin.so", which is what this file makes, where `dlopen` looks for libraries,
// and counts in the program's own variables when there is none:
//
//     LD_LIBRARY_PATH=build/lean/examples/plugin build/lean/examples/agent/host-agent
//
// A plugin takes three things: a class that extends the one that program and plugin agreed on, an
// object of it that lives as long as the process, and a static initialiser that registers the
// object while the library is being loaded. That this one gathers counters is its own business;
// another might lay them where a monitoring program sees them.
//
// Counters of one name are one counter, in whatever set and on whatever thread they are asked for.
// From a debugger `call kestoCountersWrite( 2 )` shows them all.

#include <Quarn/PluginCpp.h>

#include <atomic>
#include <map>
#include <mutex>
#include <set>
#include <string>

#include <stdio.h>

namespace {

class KestoCounters final : public Quarn::CountersPlugin {
 public:
   char const* pluginName() override { return "KestoCountersPlugin"; }

   void counterSetIs( char const* setName ) override {
      const std::lock_guard guard( mutex_ );
      sets_.insert( setName );
   }

   // Elements of a map stay where they are, so the address is good for ever.
   unsigned long* counter( char const* name, unsigned long* ) override {
      const std::lock_guard guard( mutex_ );
      return &counters_[ name ];
   }

   void write( int fd ) {
      const std::lock_guard guard( mutex_ );
      for( const std::string& name : sets_ ) {
         dprintf( fd, "set %s\n", name.c_str() );
      }
      for( auto& [ name, value ] : counters_ ) {
         // Others may be counting.
         const auto now = std::atomic_ref( value ).load( std::memory_order_relaxed );
         dprintf( fd, "counter %s %lu\n", name.c_str(), now );
      }
   }

 private:
   std::mutex mutex_;
   std::set<std::string> sets_;
   std::map<std::string, unsigned long> counters_;
};

// Never destroyed: programs may count until their very end.
KestoCounters& theCounters = *new KestoCounters;

[[maybe_unused]] const bool registered = ( Quarn::Platform::registerPlugin( &theCounters ), true );

} // namespace

// Writes the names of the sets, and each counter with its value, a line each.
extern "C" __attribute__( ( visibility( "default" ) ) ) void kestoCountersWrite( int fd ) {
   theCounters.write( fd );
}
