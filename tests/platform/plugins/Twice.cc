#include "platform/plugins/TestPlugin.h"

namespace {

TestPlugin plugin( "TestTwice" );
TestPlugin again( "TestTwice" );
[[maybe_unused]] const bool registered = ( Quarn::Platform::registerPlugin( &plugin ),
                                           Quarn::Platform::registerPlugin( &again ), true );

} // namespace
