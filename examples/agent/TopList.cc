#include "examples/agent/TopList.h"

#include <algorithm>
#include <tuple>
#include <utility>

namespace HostAgent {

std::vector<ProcessRecord> topProcesses( const ProcessTable& table, std::size_t count ) {
   std::vector<ProcessRecord> top( std::min( count, table.processes().size() ) );
   // Keeps the best in a heap of the result's size; the table is copied nowhere.
   std::ranges::partial_sort_copy(
         table.processes(), top, []( const ProcessRecord& a, const ProcessRecord& b ) {
            return std::tie( b.cpuTicksSincePrevious, b.residentPages, a.pid ) <
                   std::tie( a.cpuTicksSincePrevious, a.residentPages, b.pid );
         } );
   return top;
}

TopList::TopList( std::shared_ptr<Quarn::TaskScheduler> scheduler, std::size_t count )
      : Task( std::move( scheduler ), Quarn::TaskPriority::low, "TopList" ),
        count_( count ) {}

void TopList::tableIs( std::shared_ptr<const ProcessTable> table ) {
   table_ = std::move( table );
   scheduleTask();
}

void TopList::taskExecute() {
   const std::shared_ptr<const ProcessTable> table = std::exchange( table_, nullptr );
   processes_ = topProcesses( *table, count_ );
   interval_ = table->interval();
   taskWorkCountInc( table->processes().size() );
}

} // namespace HostAgent
