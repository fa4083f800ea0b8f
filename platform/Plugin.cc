#include <Quarn/platform/Plugin.h>

#include <Quarn/base/String.h>
#include <Quarn/debug/Loco.h>

#include "debug/Handlers.h"

#include <fmt/format.h>

#include <optional>
#include <string>
#include <unordered_map>
#include <utility>

#include <dlfcn.h>

namespace Quarn::Platform {

namespace {

constexpr char sourceFile[] = "PluginCpp";
constexpr char component[] = "Quarn::Platform";

struct Failure {
   Impl::SourceLoc at;
   std::string text;
};

// One `dlopen` under way on this thread, and the first failure met meanwhile.
struct Load {
   Load() : outer( std::exchange( innermost, this ) ) {}
   ~Load() { innermost = outer; }
   Load( const Load& ) = delete;
   Load& operator=( const Load& ) = delete;

   static constinit thread_local Load* innermost;

   Load* const outer;
   std::optional<Failure> failure;
};

constinit thread_local Load* Load::innermost = nullptr;

// Returns only when the failure is kept for later.
void fail( Failure failure ) {
   if( !Load::innermost ) {
      Impl::assertAt( failure.at, "{}", failure.text );
   }
   if( !Load::innermost->failure ) {
      Load::innermost->failure = std::move( failure );
   }
}

// Guarded by the activity lock. Made by the first call, which may be a static initialiser's, and
// never destroyed.
std::unordered_map<String, Plugin*>& registry() {
   static auto* const all = new std::unordered_map<String, Plugin*>;
   return *all;
}

Plugin* find( const String& name ) {
   const auto found = registry().find( name );
   return found == registry().end() ? nullptr : found->second;
}

} // namespace

void registerPlugin( Plugin* plugin ) {
   const Loco::Guard guard;
   char const* const pluginName = plugin ? plugin->pluginName() : nullptr;
   if( !pluginName ) {
      return fail( { QUARN_SOURCE_AT( component, __func__ ),
                     plugin ? "the plugin has no name" : "plugin is null" } );
   }
   const String name( pluginName );
   if( find( name ) ) {
      return fail( { QUARN_SOURCE_AT( component, __func__ ),
                     fmt::format( "Plugin {} already registered", name ) } );
   }
   QUARN_TRACE( pluginHandler, 2, component, "adding plugin {}", name );
   registry().emplace( name, plugin );
}

Plugin* loadPlugin( char const* name ) {
   const Loco::Guard guard;
   if( !name ) {
      fail( { QUARN_SOURCE_AT( component, __func__ ), "the name of the plugin is null" } );
      return nullptr;
   }
   const String key( name );
   if( Plugin* const plugin = find( key ) ) {
      QUARN_TRACE( pluginHandler, 3, component, "{} already loaded", key );
      return plugin;
   }
   const std::string file = fmt::format( "lib{}.so", key );
   std::optional<Failure> failure;
   {
      Load load;
      // Its initialisers may register plugins and come here again.
      if( !dlopen( file.c_str(), RTLD_NOW | RTLD_GLOBAL ) && !load.failure ) {
         // At once, for the text is that of the thread's last call.
         char const* const error = dlerror();
         QUARN_TRACE( pluginHandler, 0, component, "Failed to load plugin {}: {}", file,
                      error ? error : "unknown" );
         return nullptr;
      }
      failure = std::move( load.failure );
   }
   Plugin* const plugin = find( key );
   if( !failure && !plugin ) {
      failure = { QUARN_SOURCE_AT( component, __func__ ),
                  fmt::format( "Phooey -- plugin {} failed to register", key ) };
   }
   if( failure ) {
      fail( std::move( *failure ) );
      return nullptr;
   }
   QUARN_TRACE( pluginHandler, 2, component, "Yay!  Plugin {} loaded", key );
   return plugin;
}

} // namespace Quarn::Platform
