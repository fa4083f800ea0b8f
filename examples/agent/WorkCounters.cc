#include "examples/agent/WorkCounters.h"

#include <Quarn/Debug.h>
#include <Quarn/PluginCpp.h>

#include <memory>

namespace HostAgent {

namespace {

// Level 0 of plugins is off while this lives, unless somebody wants to see more of them.
class QuietPlugins {
 public:
   QuietPlugins() : quiet_( !debug_->levelEnabled( 1 ) && debug_->levelEnabled( 0 ) ) {
      if( quiet_ ) {
         debug_->enabledIs( 0, false );
      }
   }
   ~QuietPlugins() {
      if( quiet_ ) {
         debug_->enabledIs( 0, true );
      }
   }
   QuietPlugins( const QuietPlugins& ) = delete;
   QuietPlugins& operator=( const QuietPlugins& ) = delete;

 private:
   const std::shared_ptr<Quarn::Platform::DebugHandler> debug_ =
         Quarn::Platform::getDebugHandler( "QuarnPlugin", false );
   const bool quiet_;
};

Quarn::Counters quietCounters() {
   const QuietPlugins quiet;
   return Quarn::Counters( "host-agent" );
}

} // namespace

WorkCounters::WorkCounters() {
   Quarn::Counters counters = quietCounters();
   for( std::size_t i = 0; i < names.size(); ++i ) {
      counters_[ i ] = counters.counter( names[ i ], &own_[ i ] );
   }
}

} // namespace HostAgent
