// Plugins: objects that shared libraries contribute to the process.
//
// A plugin library registers its plugin while it is being loaded, from a static initialiser;
// `loadPlugin( name )` loads "libNAME.so" and then looks whether the plugin has come.
//
//     struct Beeper final : Quarn::Platform::Plugin {
//        char const* pluginName() override { return "Beeper"; } // of libBeeper.so
//     };
//     Beeper beeper;
//     const bool registered = ( Quarn::Platform::registerPlugin( &beeper ), true );
//
// Both functions hold the framework's activity lock from beginning to end, also while the library's
// initialisers run. An initialiser may register any number of plugins and load others; it must not
// wait for another thread that needs the lock.
//
// While other threads run, load plugins through `loadPlugin` only: a bare `dlopen` of a plugin has
// the loader's lock and waits for the activity lock, and a `loadPlugin` at the same time has them
// in the other order, which is a deadlock.
//
// No exception can pass through the loader: one that leaves an initialiser ends the process. What
// is fatal in these functions is therefore kept while an initialiser of a library under
// `loadPlugin` runs, and raised by the outermost `loadPlugin` of the thread as soon as the loader
// has returned; the first of several is. The call that failed does nothing, or returns null.

#pragma once

#include <Quarn/Export.h>

namespace Quarn::Platform {

// What a plugin library registers. Libraries and programs agree on classes that extend it.
//
// Nobody destroys a plugin through this class. It lives as long as the process, best as a static
// object of its library: libraries are never unloaded.
class ORUQUARN_API Plugin {
 public:
   // The name under which it is registered and loaded, ended by a zero byte.
   virtual char const* pluginName() = 0;

 protected:
   ~Plugin() = default;
};

// Adds `plugin`, which stays the caller's, to the plugins of the process, for good. Its name is
// asked for once.
//
// Thread: any.
// Errors: fatal on a name that is taken ("Plugin ... already registered"), and when the plugin or
//         its name is null.
ORUQUARN_API void registerPlugin( Plugin* plugin );

// The plugin of that name. When there is none, "libNAME.so" is loaded first, with its symbols open
// to all that is loaded later; it is searched for as `dlopen` does (LD_LIBRARY_PATH, the run path
// of this library, the system's folders), so a name is trusted as code is. Null when that fails,
// which is traced at level 0 of "QuarnPlugin"; the next call tries again.
//
// Thread: any; see above.
// Errors: fatal when the library has loaded and there is no plugin of that name ("Phooey -- plugin
//         ... failed to register"), when the name is null, and what was kept for this call. The
//         library stays loaded.
ORUQUARN_API Plugin* loadPlugin( char const* name );

} // namespace Quarn::Platform
