// The root of the calling thread.

#include <Quarn/base/ThreadControl.h>
#include <Quarn/scheduler/TaskSchedulerRoot.h>

#include "util/ThreadSlot.h"

#include <sstream>
#include <thread>

namespace Quarn {

// What happens to the root of a thread that ends.
struct ThreadEnd {
   // A render under way holds its scheduler, and is held by it.
   static void of( TaskSchedulerRoot& root ) { root.abandonRenders(); }
};

namespace {

constinit thread_local Util::ThreadSlot<TaskSchedulerRoot> rootSlot;
thread_local Util::ThreadSlot<TaskSchedulerRoot>::Releaser rootReleaser{ rootSlot, &ThreadEnd::of };

String rootName() {
   if( isMainThread() ) {
      return "main";
   }
   std::ostringstream name;
   name.imbue( std::locale::classic() );
   name << "thread:" << std::this_thread::get_id();
   return String( name.str() );
}

} // namespace

std::shared_ptr<TaskSchedulerRoot> schedulerRootQuarn() {
   if( !rootSlot.holds() ) {
      std::shared_ptr<TaskSchedulerRoot> root = schedulerRootQuarnNonShared( rootName() );
      if( rootSlot.released() ) {
         return root;
      }
      rootReleaser.touch();
      rootSlot.hold( std::move( root ) );
   }
   rootSlot.get()->virtualTimeCheck();
   return rootSlot.get();
}

} // namespace Quarn
