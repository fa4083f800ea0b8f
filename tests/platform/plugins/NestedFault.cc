// Meets three failures while it is loaded: a library that registers twice; itself, which has not
// registered yet; and a library that registers nothing under its name.

#include "platform/plugins/TestPlugin.h"

#include <initializer_list>

namespace {

TestPlugin plugin( "TestNestedFault" );
[[maybe_unused]] const bool registered = [] {
   for( char const* name : { "TestTwice", "TestNestedFault", "TestMisnamed" } ) {
      if( auto* const loaded = Quarn::Platform::loadPlugin( name ) ) {
         plugin.loaded = loaded;
      }
   }
   Quarn::Platform::registerPlugin( &plugin );
   return true;
}();

} // namespace
