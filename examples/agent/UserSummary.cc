#include "examples/agent/UserSummary.h"

#include <algorithm>
#include <tuple>
#include <unordered_map>
#include <utility>

namespace HostAgent {

std::vector<UserTotals> summarizeUsers( const ProcessTable& table ) {
   std::unordered_map<uid_t, UserTotals> byUser;
   for( const ProcessRecord& process : table.processes() ) {
      UserTotals& user = byUser[ process.uid ];
      user.uid = process.uid;
      ++user.processes;
      user.cpuTicksSincePrevious =
            saturatingSum( user.cpuTicksSincePrevious, process.cpuTicksSincePrevious );
      user.residentPages = saturatingSum( user.residentPages, process.residentPages );
   }
   std::vector<UserTotals> users;
   users.reserve( byUser.size() );
   for( const auto& [ uid, totals ] : byUser ) {
      users.push_back( totals );
   }
   std::ranges::sort( users, []( const UserTotals& a, const UserTotals& b ) {
      return std::tie( b.cpuTicksSincePrevious, b.residentPages, a.uid ) <
             std::tie( a.cpuTicksSincePrevious, a.residentPages, b.uid );
   } );
   return users;
}

UserSummary::UserSummary( std::shared_ptr<Quarn::TaskScheduler> scheduler, UserNames* names )
      : Task( std::move( scheduler ), Quarn::TaskPriority::high, "UserSummary" ),
        names_( names ) {}

void UserSummary::tableIs( std::shared_ptr<const ProcessTable> table ) {
   table_ = std::move( table );
   scheduleTask();
}

void UserSummary::taskExecute() {
   const std::shared_ptr<const ProcessTable> table = std::exchange( table_, nullptr );
   users_ = summarizeUsers( *table );
   interval_ = table->interval();
   for( const UserTotals& user : users_ ) {
      names_->name( user.uid );
   }
   taskWorkCountInc( table->processes().size() );
}

} // namespace HostAgent
