#include "platform/DeferredRelease.h"

#include <cstddef>
#include <new>
#include <utility>
#include <vector>

namespace Quarn::Platform {

constinit thread_local bool anyDeferred = false;

namespace {

using Deferred = std::vector<std::shared_ptr<void>>;

// Set when the list below is destroyed; a thread-local destroyed later may still defer.
constinit thread_local bool listGone = false;

struct List {
   Deferred objects;
   ~List() {
      listGone = true;
      anyDeferred = false;
   }
};
thread_local List list;

} // namespace

void releaseLater( std::shared_ptr<void> object ) noexcept {
   if( listGone ) {
      return;
   }
   try {
      list.objects.push_back( object );
      anyDeferred = true;
   } catch( const std::bad_alloc& ) {
      // The reference is abandoned, not dropped: the object must outlive this call.
      alignas( std::shared_ptr<void> ) std::byte grave[ sizeof( std::shared_ptr<void> ) ];
      new( grave ) std::shared_ptr<void>( std::move( object ) );
   }
}

void releaseAllDeferred() noexcept {
   anyDeferred = false;
   // A destructor may defer again; the list is taken first.
   Deferred taken;
   taken.swap( list.objects );
}

} // namespace Quarn::Platform
