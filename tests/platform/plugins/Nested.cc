// Loads another plugin before it registers its own, and one more that is its own as well.

#include "platform/plugins/TestPlugin.h"

namespace {

TestPlugin plugin( "TestNested" );
TestPlugin second( "TestSecond" );
[[maybe_unused]] const bool registered =
      ( plugin.loaded = Quarn::Platform::loadPlugin( "TestGood" ),
        Quarn::Platform::registerPlugin( &plugin ), Quarn::Platform::registerPlugin( &second ),
        true );

} // namespace
