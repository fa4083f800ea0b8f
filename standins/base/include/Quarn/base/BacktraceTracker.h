// A recorder of backtraces for a process that runs: code at a place of interest records how it was
// reached, under a label, and an operator who switched the recorder on prints what came together.
//
//     Quarn::BacktraceTracker::backtraceIs( "session closed" );   // nothing while it is off
//
//     Quarn::BacktraceTracker::enabledIs( true );
//     ...
//     Quarn::BacktraceTracker::printAll( std::cerr );
//
// There is one recorder in the process. Recording takes addresses only; what they mean is looked up
// when they are printed.
//
// Thread: any.

#pragma once

#include <Quarn/base/Export.h>
#include <Quarn/base/String.h>

#include <cstdint>
#include <iosfwd>

namespace Quarn {

struct BacktraceTracker {
   // Forgets all recorded backtraces.
   QUARN_BASE_API static void clear();

   // How many backtraces are kept; 64 at the start. When one more comes the oldest goes.
   QUARN_BASE_API static std::uint32_t capacity();

   // Sets that number. When more are recorded the oldest go at once; 0 keeps none. Storage is taken
   // as backtraces come, so a large number costs nothing by itself.
   QUARN_BASE_API static void capacityIs( std::uint32_t capacity );

   // Writes the recorded backtraces, the oldest first; nothing when there are none:
   //
   //     backtrace "session closed" at 1700000000.250000 in thread 714
   //      #0 Session::close() at /src/Session.cc:81
   //      #1 main at /src/main.cc:20
   //
   // The time is that of Impl::timeIndirect(). A function without a known line is followed by " in"
   // and its file (a shared object or the program), one without a name is an address. Line numbers
   // are those of calls, and of functions that were inlined the outermost is named. The recorder
   // leaves itself out.
   //
   // `out` may be a stream that records: it gets the backtraces of the moment of the call, and the
   // recorder goes on meanwhile.
   //
   // Cost:   the first call of a thread reads the debugging information of the program, which can
   //         take seconds and many megabytes. The thread's copy is kept until the process ends,
   //         also beyond the thread, so a process prints from a thread that lives on. Of shared
   //         objects loaded later that thread knows exported names only.
   // Errors: std::bad_alloc, and what `out` throws; the recorder keeps what it has.
   QUARN_BASE_API static void printAll( std::ostream& out );

   // Whether recording is on; off at the start.
   QUARN_BASE_API static bool enabled() noexcept;

   // Switches recording. What is recorded stays.
   QUARN_BASE_API static void enabledIs( bool on ) noexcept;

   // Records the caller's backtrace with the time and the thread; at most its 128 innermost calls.
   // While recording is off it does nothing, at the cost of a call and one relaxed load.
   //
   // Errors: std::bad_alloc, with nothing recorded. A backtrace that finds no memory has no frames.
   QUARN_BASE_API static void backtraceIs( String const& label );
};

} // namespace Quarn
