// A JSON document that takes snapshots one by one.
//
//     auto context = Quarn::TaskScheduler::PrintContextIs( std::cout );
//     snapshot->renderJson( *context );
//     context->closeJson();
//
// The document is compact UTF-8 text, an object with the one member "schedulers": an object with a
// member for each snapshot, by the scheduler's name. Names are the caller's to keep apart: two of
// the same are two members. A byte of a name that is not part of valid UTF-8 becomes U+FFFD.
//
// Durations are in seconds; "nsSinceBoot" and the time stamps of runs are nanoseconds of the clock
// that they were taken on.
//
// Thread: any, one at a time.

#pragma once

#include <Quarn/Export.h>

#include <iosfwd>
#include <memory>

namespace Quarn {

class ORUQUARN_API TaskSchedulerPrintContext {
 public:
   // Opens the document on a stream, which outlives it.
   //
   // Errors: a stream that fails loses the rest of the document; `closeJson()` tells it of the
   //         failure.
   explicit TaskSchedulerPrintContext( std::ostream& out );

   // Opens the document on a blocking descriptor, which is closed with it when the flag is set,
   // also when this constructor fails.
   //
   // Errors: those of `FdToStream`.
   TaskSchedulerPrintContext( int fd, bool closeOnDestroy );

   // Leaves a document that was not closed as it is.
   ~TaskSchedulerPrintContext();

   TaskSchedulerPrintContext( const TaskSchedulerPrintContext& ) = delete;
   TaskSchedulerPrintContext& operator=( const TaskSchedulerPrintContext& ) = delete;

   // Ends the document. Nothing may be rendered afterwards.
   //
   // Errors: fatal the second time ("JSON already closed"); the exception of a stream that was
   //         asked to throw.
   void closeJson();

 private:
   friend class TaskScheduler;
   friend class TaskSchedulerSnapshot;

   struct Impl;
   std::unique_ptr<Impl> impl_;
};

} // namespace Quarn
