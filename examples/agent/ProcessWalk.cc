#include "examples/agent/ProcessWalk.h"

#include <Quarn/base/Exception.h>

#include <cerrno>
#include <utility>

namespace HostAgent {

ProcessWalk::ProcessWalk( std::shared_ptr<Quarn::TaskScheduler> scheduler,
                          const std::string& procFolder, Publish publish )
      : Task( std::move( scheduler ), Quarn::TaskPriority::low, "ProcessWalk" ),
        debug_( Quarn::Platform::getDebugHandler( "HostAgent", false ) ),
        publish_( std::move( publish ) ),
        reader_( procFolder ) {}

bool ProcessWalk::walkStart() {
   if( walking() ) {
      return false;
   }
   reader_.rewind();
   table_ = std::make_shared<ProcessTable>( Quarn::taskTimeNow(), previous_ );
   scheduleTask();
   return true;
}

void ProcessWalk::walkStop() {
   if( walking() ) {
      unscheduleTask();
      table_.reset();
      ++walksStopped_;
   }
}

void ProcessWalk::taskExecute() {
   unsigned long read = 0;
   ProcReader::Step step;
   do {
      step = _readOne();
      ++read;
   } while( step != ProcReader::Step::end && step != ProcReader::Step::failed &&
            !taskShouldYield() );
   taskWorkCountInc( read );
   if( step == ProcReader::Step::end ) {
      _walkEnd();
   } else if( step == ProcReader::Step::failed ) {
      _walkFailed();
   } else {
      scheduleTask();
   }
}

ProcReader::Step ProcessWalk::_readOne() {
   const ProcReader::Step step = reader_.next( &record_ );
   switch( step ) {
   case ProcReader::Step::process:
      table_->processAdd( record_ );
      break;
   case ProcReader::Step::vanished:
      table_->vanishedInc();
      break;
   case ProcReader::Step::unreadable:
      QUARN_FMTRACE( *debug_, 3, "ProcessWalk", "skipped a process: {}",
                     errno != 0 ? Quarn::strerror( errno ) : "not the format of a stat file" );
      table_->unreadableInc();
      break;
   case ProcReader::Step::end:
   case ProcReader::Step::failed:
      break;
   }
   return step;
}

void ProcessWalk::_walkEnd() {
   table_->close();
   ++walksDone_;
   processesSeen_ += table_->processes().size();
   processesVanished_ += table_->vanished();
   processesUnreadable_ += table_->unreadable();
   QUARN_FMTRACE( *debug_, 5, "ProcessWalk", "walk {}: {} processes, {} vanished, {} unreadable",
                  walksDone_, table_->processes().size(), table_->vanished(),
                  table_->unreadable() );
   // The walk is over before others hear of it, so that they may start the next one.
   previous_ = std::exchange( table_, nullptr );
   publish_( previous_ );
}

void ProcessWalk::_walkFailed() {
   QUARN_FMTRACE( *debug_, 1, "ProcessWalk", "cannot list the processes: {}",
                  Quarn::strerror( errno ) );
   table_.reset();
   ++walksFailed_;
}

} // namespace HostAgent
