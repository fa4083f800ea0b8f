#include "examples/agent/EventLog.h"

#include <Quarn/LibeventFactoryCpp.h>

#include <utility>

namespace HostAgent {

EventLog::EventLog( unsigned long* counter ) : counter_( counter ), start_( Quarn::time() ) {}

void EventLog::add( std::string what, std::string name ) {
   if( events_.size() == capacity ) {
      events_.pop_front();
   }
   if( counter_ ) {
      ++*counter_;
   }
   events_.push_back( { Quarn::time() - start_, std::move( what ), std::move( name ) } );
}

} // namespace HostAgent
