#include <Quarn/platform/Counters.h>

namespace Quarn {

namespace {

constinit unsigned long nobodysCounter = 0;

// Whatever registers under the name is of this class.
CountersPlugin* countersPlugin( Platform::Plugin* plugin ) {
   return static_cast<CountersPlugin*>( plugin );
}

} // namespace

Counters::Counters( char const* setName )
      : plugin_( Platform::loadPlugin( "KestoCountersPlugin" ) ) {
   if( plugin_ && setName ) {
      countersPlugin( plugin_ )->counterSetIs( setName );
   }
}

unsigned long* Counters::counter( char const* name, unsigned long* fallback ) {
   if( plugin_ ) {
      return countersPlugin( plugin_ )->counter( name, fallback );
   }
   return fallback ? fallback : &nobodysCounter;
}

} // namespace Quarn
