// Registers a plugin, but not the one that the library is named after.

#include "platform/plugins/TestPlugin.h"

namespace {

TestPlugin plugin( "TestOther" );
[[maybe_unused]] const bool registered = ( Quarn::Platform::registerPlugin( &plugin ), true );

} // namespace
