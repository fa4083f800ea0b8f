#include "examples/agent/Agent.h"

#include <Quarn/LibeventFactoryCpp.h>
#include <Quarn/base/ThreadControl.h>

#include <fmt/format.h>

#include <chrono>
#include <cstring>
#include <limits>

namespace HostAgent {

namespace {

using namespace std::chrono_literals;

constexpr Rhythm loadRhythm{ 5.0, 20 };
constexpr Rhythm namesRhythm{ 3600.0, 20 };
// How often to look whether the last client has gone.
constexpr double lookAgainSeconds = 0.05;

std::shared_ptr<Quarn::TaskGroup>
makeSamplesGroup( const std::shared_ptr<Quarn::TaskSchedulerRoot>& root ) {
   auto group = Quarn::TaskGroup::TaskGroupIs( "samples", Quarn::TaskPriority::low, false, root );
   group->taskGroupQuantumIs( 50ms );
   group->defaultTaskQuantumIs( 10ms );
   return group;
}

} // namespace

// Ends the run when the time is over. It fires again until no client is being answered. The last
// time is the very end: the wheel's pass for it finds no other timer, and disarms the wheel's own.
// Stopping timers leaves that set, and it would keep a loop that ends when nothing is pending.
class Agent::EndTimer final : public Quarn::TimerTask {
 public:
   explicit EndTimer( Agent& agent )
         : TimerTask( agent.root_, Quarn::TaskPriority::normal, "EndTimer" ),
           agent_( agent ) {}

   // Leaves the loop with an answer pending.
   struct AnswerLeft {};

   void fireLast() {
      giveUpAt_ = Quarn::time() + lastAnswerSeconds;
      scheduleTaskDelay( -1.0 );
   }

 private:
   void taskExecute() override {
      if( agent_.stopReason().empty() ) {
         agent_.stop( "time is over" );
      } else if( agent_._answering() ) {
         if( Quarn::time() >= giveUpAt_ ) {
            throw AnswerLeft();
         }
         scheduleTaskDelay( lookAgainSeconds );
      } else {
         // The scheduler holds this task for the run, and keeps its counters for the report.
         agent_.endTimer_.reset();
      }
   }

   Agent& agent_;
   double giveUpAt_ = 0.0;
};

Agent::Agent( const Options& options, const std::string& procFolder )
      : options_( options ),
        debug_( Quarn::Platform::getDebugHandler( "HostAgent", false ) ),
        signals_(
              [ this ]( int signal ) { stop( fmt::format( "SIG{}", sigabbrev_np( signal ) ) ); } ),
        eventLog_( counters_.counter( WorkCounters::Work::events ) ),
        load_( procFolder ),
        root_( Quarn::schedulerRootQuarn() ),
        samples_( makeSamplesGroup( root_ ) ),
        userSummary_( std::make_shared<UserSummary>( root_, &userNames_ ) ),
        topList_( std::make_shared<TopList>( root_, options.top ) ),
        walk_( std::make_shared<ProcessWalk>(
              samples_, procFolder,
              [ this ]( const std::shared_ptr<const ProcessTable>& table ) {
                 _publish( table );
              } ) ),
        walkTimer_( std::make_shared<SampleTimer>(
              root_, Quarn::TaskPriority::normal, "WalkTimer",
              Rhythm{ options.intervalSeconds, static_cast<std::uint8_t>( options.jitterPercent ) },
              [ this ] { _walkBeat(); } ) ),
        loadTimer_( std::make_shared<SampleTimer>( samples_, Quarn::TaskPriority::low, "LoadTimer",
                                                   loadRhythm, [ this ] { _loadBeat(); } ) ),
        namesTimer_( std::make_shared<SampleTimer>( root_, Quarn::TaskPriority::scavenge,
                                                    "NamesTimer", namesRhythm,
                                                    [ this ] { userNames_.forget(); } ) ),
        linkWatch_( std::make_shared<LinkWatch>( root_, &eventLog_ ) ),
        endTimer_( std::make_shared<EndTimer>( *this ) ) {
   if( !options.watchFolder.empty() ) {
      folderWatch_ = std::make_shared<FolderWatch>( root_, options.watchFolder, &eventLog_ );
   }
   if( options.fastForwardHours > 0.0 ) {
      fastForward_.emplace();
   } else {
      showServer_ = std::make_shared<ShowServer>( root_, options.name );
      showServer_->answeredCounterIs( counters_.counter( WorkCounters::Work::answers ) );
   }
}

Quarn::TaskTimeDuration Agent::timerTime() const {
   return std::chrono::duration_cast<Quarn::TaskTimeDuration>(
         std::chrono::duration<double>( timerEnd_ - timerStart_ ) );
}

void Agent::run() {
   start_ = Quarn::taskTimeNow();
   timerStart_ = Quarn::time();
   const double seconds = fastForward() ? options_.fastForwardHours * 3600.0 : options_.seconds;
   if( seconds > 0.0 ) {
      endTimer_->scheduleTaskDelay( seconds );
   }
   for( const auto& timer : { walkTimer_, loadTimer_, namesTimer_ } ) {
      timer->start();
   }
   // Libevent's plain loop jumps to its first timer only and then goes on in real time.
   while( fastForward() && Quarn::hasThreadLocalSingletons() && stopReason_.empty() ) {
      Quarn::eventLoopFastForwardToFirstTimer( std::numeric_limits<double>::infinity() );
   }
   try {
      Quarn::Platform::doEventLoop();
   } catch( const EndTimer::AnswerLeft& ) {
      QUARN_FMTRACE( *debug_, 1, "Agent", "{} answers are left unfinished",
                     showServer_->sessions() );
   }
}

bool Agent::_answering() {
   if( !showServer_ || showServer_->sessions() == 0 ) {
      return false;
   }
   // The way to throw an answer away may be open now.
   showServer_->stop();
   return showServer_->sessions() != 0;
}

void Agent::stop( std::string_view reason ) {
   if( !stopReason_.empty() ) {
      return;
   }
   stopReason_ = reason;
   end_ = Quarn::taskTimeNow();
   timerEnd_ = Quarn::time();
   QUARN_FMTRACE( *debug_, 2, "Agent", "ends: {}", reason );
   for( const auto& timer : { walkTimer_, loadTimer_, namesTimer_ } ) {
      timer->stop();
   }
   signals_.stop();
   linkWatch_->stop();
   if( folderWatch_ ) {
      folderWatch_->stop();
   }
   if( showServer_ ) {
      showServer_->stop();
   }
   walk_->walkStop();
   endTimer_->fireLast();
}

void Agent::_publish( const std::shared_ptr<const ProcessTable>& table ) {
   userSummary_->tableIs( table );
   topList_->tableIs( table );
}

void Agent::_loadBeat() {
   load_.take();
   ++*counters_.counter( WorkCounters::Work::samples );
}

void Agent::_walkBeat() {
   if( walk_->walkStart() ) {
      ++*counters_.counter( WorkCounters::Work::samples );
   } else {
      ++walksSkipped_;
      QUARN_FMTRACE( *debug_, 3, "Agent", "the last walk is not finished; skipped one" );
   }
}

} // namespace HostAgent
