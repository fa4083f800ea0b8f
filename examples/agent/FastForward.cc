#include "examples/agent/FastForward.h"

#include <Quarn/LibeventFactoryCpp.h>

#include <Oru/ActivityManager.h>

namespace HostAgent {

FastForward::FastForward() {
   Quarn::setLeFastForward( true );
   Oru::ActivityManagerConfig::virtualTimeIs( true );
}

FastForward::~FastForward() {
   Oru::ActivityManagerConfig::virtualTimeIs( false );
   Quarn::setLeFastForward( false );
}

} // namespace HostAgent
