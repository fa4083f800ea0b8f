#include <Quarn/base/BacktraceTracker.h>

#include <Quarn/base/ThreadControl.h>
#include <Quarn/base/Time.h>

#include <atomic>
#include <boost/stacktrace.hpp>
#include <deque>
#include <iterator>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <ostream>
#include <pthread.h>
#include <utility>
#include <vector>

namespace Quarn {

namespace {

// As many as boost::stacktrace collects without allocating for the walk.
constexpr std::size_t maxDepth = 128;

struct Backtrace {
   String label;
   double time;
   pid_t thread;
   boost::stacktrace::stacktrace frames;
};

struct Recorder {
   std::mutex mutex;
   std::uint32_t capacity = 64;
   std::deque<Backtrace> backtraces; // the oldest first
};

constinit std::atomic<bool> on{ false };

// Never destroyed, as threads and destructors of statics may come late.
Recorder& recorder() {
   static Recorder& theRecorder = []() -> Recorder& {
      // Made first: handlers that were set twice would lock twice.
      auto made = std::make_unique<Recorder>();
      // A child that is forked while another thread records has the mutex free and a list that
      // nobody was changing.
      if( ::pthread_atfork( [] { recorder().mutex.lock(); }, [] { recorder().mutex.unlock(); },
                            [] { recorder().mutex.unlock(); } ) != 0 ) {
         throw std::bad_alloc();
      }
      return *made.release();
   }();
   return theRecorder;
}

// Made while the library is loaded: a child that is forked in the middle of it would have it half
// made for ever.
[[maybe_unused]] Recorder const& madeAtLoad = recorder();

// Recorded addresses are where calls return to, which may be the next line or, behind a call that
// never returns, the next function. The byte before belongs to the call.
boost::stacktrace::frame callOf( boost::stacktrace::frame const& frame ) {
   return boost::stacktrace::frame( static_cast<char const*>( frame.address() ) - 1 );
}

void print( std::ostream& out, Backtrace const& backtrace ) {
   fmt::memory_buffer text;
   auto const to = std::back_inserter( text );
   fmt::format_to( to, "backtrace \"{}\" at {:.6f} in thread {}\n", backtrace.label, backtrace.time,
                   backtrace.thread );
   std::size_t number = 0;
   for( boost::stacktrace::frame const& frame : backtrace.frames ) {
      fmt::format_to( to, " #{} {}\n", number++, boost::stacktrace::to_string( callOf( frame ) ) );
   }
   if( number == maxDepth ) {
      fmt::format_to( to, " and perhaps more\n" );
   }
   out.write( text.data(), static_cast<std::streamsize>( text.size() ) );
}

} // namespace

void BacktraceTracker::clear() {
   std::deque<Backtrace> gone; // freed without the mutex
   std::lock_guard const guard( recorder().mutex );
   gone.swap( recorder().backtraces );
}

std::uint32_t BacktraceTracker::capacity() {
   std::lock_guard const guard( recorder().mutex );
   return recorder().capacity;
}

void BacktraceTracker::capacityIs( std::uint32_t capacity ) {
   std::unique_lock lock( recorder().mutex );
   recorder().capacity = capacity;
   std::deque<Backtrace>& backtraces = recorder().backtraces;
   while( backtraces.size() > recorder().capacity ) {
      {
         Backtrace const gone = std::move( backtraces.front() );
         backtraces.pop_front();
         lock.unlock();
      } // freed without the mutex
      lock.lock();
   }
}

void BacktraceTracker::printAll( std::ostream& out ) {
   std::vector<Backtrace> all;
   {
      std::lock_guard const guard( recorder().mutex );
      std::deque<Backtrace> const& backtraces = recorder().backtraces;
      all.assign( backtraces.begin(), backtraces.end() );
   }
   // Looking up names is slow, and the stream is the caller's: neither holds up those who record.
   for( Backtrace const& backtrace : all ) {
      print( out, backtrace );
   }
}

bool BacktraceTracker::enabled() noexcept { return on.load( std::memory_order_relaxed ); }

void BacktraceTracker::enabledIs( bool enable ) noexcept {
   on.store( enable, std::memory_order_relaxed );
}

// Never inlined, so that exactly one frame belongs to the recorder.
__attribute__( ( noinline ) ) void BacktraceTracker::backtraceIs( String const& label ) {
   if( !enabled() ) {
      return;
   }
   Backtrace backtrace{ label, Impl::timeIndirect(), gettid(),
                        boost::stacktrace::stacktrace( 1, maxDepth ) };
   std::optional<Backtrace> gone; // freed without the mutex
   std::lock_guard const guard( recorder().mutex );
   std::deque<Backtrace>& backtraces = recorder().backtraces;
   backtraces.push_back( std::move( backtrace ) );
   if( backtraces.size() > recorder().capacity ) {
      gone = std::move( backtraces.front() );
      backtraces.pop_front();
   }
}

} // namespace Quarn
