#include "platform/plugins/TestPlugin.h"

namespace {

TestPlugin plugin( "TestGood" );
[[maybe_unused]] const bool registered = ( Quarn::Platform::registerPlugin( &plugin ), true );

} // namespace

// For what is loaded later.
extern "C" __attribute__( ( visibility( "default" ) ) ) int testGoodAnswer() { return 42; }
