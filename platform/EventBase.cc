#include <Quarn/platform/EventBase.h>

#include "debug/Handlers.h"
#include "platform/EventBase.h"

#include <Quarn/base/ThreadControl.h>

#include <event2/thread.h>

#include <atomic>
#include <memory>

#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

namespace Quarn {

namespace Platform {

constinit thread_local ThreadBase threadBase;

namespace {

constexpr char sourceFile[] = "LibeventFactoryCpp";

constexpr int eventPriorities = 2;

thread_local std::exception_ptr escaped;

// libevent may call with the lock of a base held. The thread gives its base up before an assertion
// unwinds through such a frame, so that no destructor on the way asks for that lock again.
void abandonBase() {
   threadBase.base = nullptr;
   threadBase.freedAtThreadEnd = false;
}

unsigned short levelOfSeverity( int severity, char const* message ) {
   switch( severity ) {
   case EVENT_LOG_DEBUG:
      return 9;
   case EVENT_LOG_MSG:
      return 5;
   case EVENT_LOG_WARN:
      return 1;
   case EVENT_LOG_ERR:
      return 0;
   default:
      abandonBase();
      QUARN_FAIL( "Quarn", "invalid libevent severity:{} msg:{}", severity,
                  Impl::orNull( message ) );
   }
}

void logCallback( int severity, char const* message ) {
   const unsigned short level = levelOfSeverity( severity, message );
   QUARN_TRACE( libeventHandler, level, nullptr, "{}", Impl::orNull( message ) );
}

void fatalCallback( int error ) {
   abandonBase();
   QUARN_FAIL( "Quarn", "libevent fatal error:{}", error );
}

struct LeInitializer {
   LeInitializer() {
      if( const int rc = evthread_use_pthreads(); rc != 0 ) {
         QUARN_FAIL( "Quarn", "failed to set up libevent threading: {}", rc );
      }
      event_set_fatal_callback( fatalCallback );
      event_set_log_callback( logCallback );
   }
};

void freeBase() {
   baseAfterFork();
   event_base* base = threadBase.base;
   threadBase.base = nullptr;
   threadBase.freedAtThreadEnd = false;
   event_base_free( base );
}

// Set once the holder below is gone.
constinit thread_local bool threadEnded = false;

void freeBaseOfThread() noexcept {
   if( threadBase.base && threadBase.freedAtThreadEnd ) {
      try {
         freeBase();
      } catch( ... ) {
         // A child whose base cannot be set up again: leaking it spares the parent's.
         threadBase.base = nullptr;
      }
   }
}

// Frees the base of a thread that ends. Controls destroyed after it find no base and leave libevent
// alone.
struct ThreadEnd {
   bool armed = false;
   ~ThreadEnd() {
      threadEnded = true;
      freeBaseOfThread();
   }
};
thread_local ThreadEnd threadEnd;

// For a base that is made later still, by the destructor of another thread-local: values of keys
// are destroyed after all of those.
void freeBaseWithLateKey() {
   static const pthread_key_t key = [] {
      pthread_key_t made;
      if( const int error = pthread_key_create( &made, []( void* ) { freeBaseOfThread(); } ) ) {
         QUARN_FAIL_AS( "Quarn", "freeBaseWithLateKey", "pthread_key_create() failed: {}", error );
      }
      return made;
   }();
   if( const int error = pthread_setspecific( key, &threadBase ) ) {
      QUARN_FAIL_AS( "Quarn", "freeBaseWithLateKey", "pthread_setspecific() failed: {}", error );
   }
}

} // namespace

constinit std::atomic<std::atomic<pid_t>*> processMark{ nullptr };

namespace {

// Makes the page of `processMark`. What it holds is written by `processAsked`.
std::atomic<pid_t>* makeProcessMark() {
   const auto size = static_cast<std::size_t>( sysconf( _SC_PAGESIZE ) );
   void* page = mmap( nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0 );
   if( page == MAP_FAILED ) {
      return nullptr;
   }
   // Linux 4.14 and later.
   if( madvise( page, size, MADV_WIPEONFORK ) != 0 ) {
      munmap( page, size );
      return nullptr;
   }
   return new( page ) std::atomic<pid_t>( 0 );
}

} // namespace

pid_t processAsked() {
   static std::atomic<pid_t>* const made = [] {
      std::atomic<pid_t>* mark = makeProcessMark();
      processMark.store( mark, std::memory_order_release );
      return mark;
   }();
   const pid_t pid = getpid();
   if( made ) {
      made->store( pid, std::memory_order_relaxed );
   }
   return pid;
}

void baseAfterFork() {
   if( threadBase.base && threadBase.pid != process() ) {
      leForkReinit();
   }
}

void escapeFromCallback() {
   if( !threadBase.loopRunning || !threadBase.base ) {
      std::rethrow_exception( std::current_exception() );
   }
   if( !escaped ) {
      escaped = std::current_exception();
   }
   event_base_loopbreak( threadBase.base );
}

std::exception_ptr takeEscaped() noexcept { return std::exchange( escaped, nullptr ); }

} // namespace Platform

using Platform::libeventHandler;
using Platform::sourceFile;
using Platform::threadBase;

event_base* leCreateBase() {
   static const Platform::LeInitializer initializer;
   std::unique_ptr<event_config, decltype( &event_config_free )> config( event_config_new(),
                                                                         &event_config_free );
   if( config ) {
      event_config_require_features( config.get(), EV_FEATURE_ET );
      // With the time cached at the start of a turn, a timer armed after 40 ms of work would fire
      // 40 ms early.
      event_config_set_flag( config.get(), EVENT_BASE_FLAG_NO_CACHE_TIME );
   }
   event_base* base = config ? event_base_new_with_config( config.get() ) : nullptr;
   if( base && event_base_priority_init( base, Platform::eventPriorities ) != 0 ) {
      event_base_free( base );
      base = nullptr;
   }
   if( !base ) {
      QUARN_FAIL( "Quarn", "Failed to create event_base" );
   }
   return base;
}

void leRegisterBase( event_base* base ) {
   if( threadBase.base && threadBase.base != base ) {
      QUARN_FAIL( "Quarn",
                  "Tried to register a base:{} but a thread_local  base already exists: {}",
                  fmt::ptr( base ), fmt::ptr( threadBase.base ) );
   }
   if( !threadBase.base ) {
      static constinit std::atomic<std::uint64_t> generations{ 0 };
      threadBase.generation = generations.fetch_add( 1, std::memory_order_relaxed ) + 1;
   }
   threadBase.base = base;
   threadBase.pid = Platform::processAsked();
   setMainThread();
}

void leInit() {
   if( threadBase.base ) {
      return;
   }
   // Before there is a base, which nobody would free when this fails.
   if( Platform::threadEnded ) {
      Platform::freeBaseWithLateKey();
   } else {
      // Touching the object is what has it destroyed at the end of the thread.
      Platform::threadEnd.armed = true;
   }
   leRegisterBase( leCreateBase() );
   threadBase.freedAtThreadEnd = true;
}

bool leInitialized() { return threadBase.base != nullptr; }

void leFree() {
   if( threadBase.loopRunning ) {
      QUARN_FAIL( "Quarn", "event base freed while its loop runs" );
   }
   if( threadBase.base ) {
      Platform::freeBase();
   }
}

void leForkReinit() {
   if( !threadBase.base ) {
      leInit();
      return;
   }
   if( const int rc = event_reinit( threadBase.base ); rc != 0 ) {
      QUARN_FAIL( "Quarn", "event_reinit failed: {}", rc );
   }
   threadBase.pid = Platform::processAsked();
   setMainThread();
}

void eventPrioritySet( event* ev, Platform::EventPriority priority ) {
   QUARN_TRACE( libeventHandler, 1, "Quarn", "event {} priority {}", fmt::ptr( ev ), priority );
   if( const int rc = event_priority_set( ev, static_cast<int>( priority ) ); rc != 0 ) {
      QUARN_FAIL( "Quarn", "Failed to set priority on {} to {} rc {}", fmt::ptr( ev ), priority,
                  rc );
   }
}

void setMainThread() { threadBase.mainThread = isMainThread(); }

} // namespace Quarn
