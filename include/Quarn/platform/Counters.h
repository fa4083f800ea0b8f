// Counters that a plugin keeps, for what can look at counters from outside; without the plugin the
// caller's own.
//
//     unsigned long ownTaken = 0;
//     Quarn::Counters counters( "sampler" );
//     unsigned long* const taken = counters.counter( "samples taken", &ownTaken );
//     ++*taken;
//
// The address is asked for once, so counting costs an increment in memory whether or not there is a
// plugin.

#pragma once

#include <Quarn/Export.h>
#include <Quarn/platform/Plugin.h>

namespace Quarn {

// What "libKestoCountersPlugin.so" registers, under the name "KestoCountersPlugin". The operations
// are called on any thread, and not under a lock.
class ORUQUARN_API CountersPlugin : public Platform::Plugin {
 public:
   // Registers a set of counters. The text is the caller's.
   virtual void counterSetIs( char const* setName ) = 0;

   // The address of the counter of that name, good for the rest of the process; `fallback`, which
   // may be null, for one that the plugin does not keep.
   virtual unsigned long* counter( char const* name, unsigned long* fallback ) = 0;

 protected:
   ~CountersPlugin() = default;
};

// Holds no more than the address of the plugin; copies are as good.
class ORUQUARN_API Counters {
 public:
   // Loads the plugin when it is not there yet, and registers the set with it, unless `setName` is
   // null. A plugin that cannot be loaded is no error; the attempt is traced, see `loadPlugin`.
   //
   // Thread: any.
   // Errors: fatal when the library is no plugin of that name, see `loadPlugin`.
   explicit Counters( char const* setName );

   // Where to count what `name` says: what the plugin answers; without a plugin `fallback`, and
   // without either one counter of the process that belongs to nobody, so that what is counted
   // there says nothing.
   //
   // Thread: any. Who counts on several threads uses `std::atomic_ref`, on the counter that belongs
   //         to nobody too.
   unsigned long* counter( char const* name, unsigned long* fallback );

 private:
   // Null without one.
   Platform::Plugin* plugin_;
};

} // namespace Quarn
