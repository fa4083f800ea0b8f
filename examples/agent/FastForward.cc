#include "examples/agent/FastForward.h"

#include <Quarn/LibeventFactoryCpp.h>
#include <Quarn/base/ThreadControl.h>

#include <Oru/ActivityManager.h>

namespace HostAgent {

FastForward::FastForward() {
   if( !Quarn::hasThreadLocalSingletons() ) {
      Quarn::Platform::setFastForward( true );
      return;
   }
   Quarn::setLeFastForward( true );
   Oru::ActivityManagerConfig::virtualTimeIs( true );
}

FastForward::~FastForward() {
   if( !Quarn::hasThreadLocalSingletons() ) {
      Quarn::Platform::setFastForward( false );
      return;
   }
   Oru::ActivityManagerConfig::virtualTimeIs( false );
   Quarn::setLeFastForward( false );
}

} // namespace HostAgent
