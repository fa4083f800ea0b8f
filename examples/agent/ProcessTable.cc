#include "examples/agent/ProcessTable.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace HostAgent {

std::uint64_t saturatingSum( std::uint64_t a, std::uint64_t b ) {
   std::uint64_t sum = 0;
   return __builtin_add_overflow( a, b, &sum ) ? std::numeric_limits<std::uint64_t>::max() : sum;
}

ProcessTable::ProcessTable( Quarn::TaskTimeStamp began,
                            std::shared_ptr<const ProcessTable> previous )
      : began_( began ),
        previous_( std::move( previous ) ) {
   if( previous_ ) {
      interval_ = began - previous_->began_;
      processes_.reserve( previous_->processes_.size() );
   }
}

void ProcessTable::processAdd( ProcessRecord process ) {
   process.cpuTicksSincePrevious = 0;
   if( previous_ ) {
      ProcessRecord const* before = previous_->find( process.pid );
      // Start times are too coarse to tell every reuse of a number; fewer ticks are one as well.
      const bool same = before && before->startTicks == process.startTicks &&
                        before->cpuTicks <= process.cpuTicks;
      process.cpuTicksSincePrevious = process.cpuTicks - ( same ? before->cpuTicks : 0 );
   }
   processes_.push_back( std::move( process ) );
}

void ProcessTable::close() {
   // The kernel lists processes by rising number; other file systems need not.
   std::ranges::sort( processes_, {}, &ProcessRecord::pid );
   previous_.reset();
}

ProcessRecord const* ProcessTable::find( pid_t pid ) const {
   const auto found = std::ranges::lower_bound( processes_, pid, {}, &ProcessRecord::pid );
   return found != processes_.end() && found->pid == pid ? &*found : nullptr;
}

} // namespace HostAgent
