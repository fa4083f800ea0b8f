#include <Quarn/base/ThreadControl.h>

#include <pthread.h>
#include <unistd.h>

namespace Quarn {

namespace Impl {

constinit std::atomic<bool> threadSafePointerMode{ true };

} // namespace Impl

namespace {

constinit std::atomic<void ( * )( bool )> modeHook{ nullptr };
constinit std::atomic<bool> threadLocalSingletons{ true };

struct Identity {
   // 0 until the thread has asked.
   pid_t tid = 0;
   bool isMain = false;
};

constinit thread_local Identity identity;

constinit std::atomic<bool> forkHandled{ false };

// Only the thread that called fork() lives on in the child, and this runs on it.
void forgetIdentity() { identity = Identity(); }

Identity knownIdentity() {
   if( identity.tid != 0 ) {
      return identity;
   }
   // Registered before anything is remembered, so a child never keeps its parent's values. Threads
   // that get here together register more than once, which is harmless; without the handler every
   // call asks the kernel.
   if( !forkHandled.load() && ::pthread_atfork( nullptr, nullptr, &forgetIdentity ) == 0 ) {
      forkHandled = true;
   }
   pid_t const tid = ::gettid();
   Identity const asked{ tid, tid == ::getpid() };
   if( forkHandled.load() ) {
      identity = asked;
   }
   return asked;
}

} // namespace

void Impl::threadSafePointerIsFnIs( void ( *fn )( bool ) ) { modeHook = fn; }

void ThreadControl::threadSafePointerIs( bool on ) {
   if( Impl::threadSafePointerMode.exchange( on ) == on ) {
      return;
   }
   if( auto* const hook = modeHook.load() ) {
      hook( on );
   }
}

pid_t gettid() { return knownIdentity().tid; }

bool isMainThread() { return knownIdentity().isMain; }

bool hasThreadLocalSingletons() { return threadLocalSingletons.load( std::memory_order_relaxed ); }

void hasThreadLocalSingletonsIs( bool on ) { threadLocalSingletons = on; }

} // namespace Quarn
