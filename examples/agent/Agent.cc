#include "examples/agent/Agent.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

namespace HostAgent {

Agent::Agent( const Options& options, const std::string& procFolder )
      : options_( options ),
        debug_( Quarn::Platform::getDebugHandler( "HostAgent", false ) ),
        signals_(
              [ this ]( int signal ) { stop( fmt::format( "SIG{}", sigabbrev_np( signal ) ) ); } ),
        root_( Quarn::schedulerRootQuarn() ),
        userSummary_( std::make_shared<UserSummary>( root_, &userNames_ ) ),
        topList_( std::make_shared<TopList>( root_, options.top ) ),
        walk_( std::make_shared<ProcessWalk>(
              root_, procFolder,
              [ this ]( const std::shared_ptr<const ProcessTable>& table ) {
                 _publish( table );
              } ) ),
        beatTimer_( [ this ] { _beat(); } ),
        endTimer_( [ this ] { stop( "time is over" ); } ) {}

void Agent::run() {
   start_ = Quarn::taskTimeNow();
   nextBeat_ = Quarn::time();
   if( options_.seconds > 0.0 ) {
      endTimer_.start( options_.seconds );
   }
   _walkStart();
   _beatArm();
   Quarn::Platform::doEventLoop();
   end_ = Quarn::taskTimeNow();
}

void Agent::stop( std::string_view reason ) {
   if( !stopReason_.empty() ) {
      return;
   }
   stopReason_ = reason;
   QUARN_FMTRACE( *debug_, 2, "Agent", "ends: {}", reason );
   beatTimer_.stop();
   endTimer_.stop();
   signals_.stop();
   walk_->walkStop();
}

void Agent::_publish( const std::shared_ptr<const ProcessTable>& table ) {
   userSummary_->tableIs( table );
   topList_->tableIs( table );
}

void Agent::_walkStart() {
   if( !walk_->walkStart() ) {
      ++walksSkipped_;
      QUARN_FMTRACE( *debug_, 3, "Agent", "the last walk is not finished; skipped one" );
   }
}

void Agent::_beat() {
   _beatArm();
   _walkStart();
}

void Agent::_beatArm() {
   // Beats keep to a grid, so that lateness does not add up. One that was missed altogether,
   // because the machine slept for example, moves the grid instead of being made up for.
   const double now = Quarn::time();
   nextBeat_ = std::max( nextBeat_ + options_.intervalSeconds, now );
   beatTimer_.start( nextBeat_ - now );
}

} // namespace HostAgent
