// A shared pointer for each thread, released when the thread ends.

#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>

namespace Quarn::Util {

// Storage for one thread-local shared pointer. It is trivially destructible, so that a thread-local
// of the application that was made earlier, and is therefore destroyed later, may still ask: it is
// told that the thread is ending.
//
//     constinit thread_local ThreadSlot<Wheel> slot;
//     thread_local ThreadSlot<Wheel>::Releaser releaser{ slot };
template<typename T>
class ThreadSlot {
 public:
   // Empties the slot at the end of the thread; constructed by the first use of its thread-local.
   class Releaser {
    public:
      // `atEnd` is called for the object, if there is one, before its reference goes.
      explicit Releaser( ThreadSlot& slot, void ( *atEnd )( T& ) = nullptr )
            : slot_( slot ),
              atEnd_( atEnd ) {}
      ~Releaser() { slot_._release( atEnd_ ); }
      Releaser( const Releaser& ) = delete;
      Releaser& operator=( const Releaser& ) = delete;
      // Makes sure that the object exists.
      void touch() {}

    private:
      ThreadSlot& slot_;
      void ( *atEnd_ )( T& );
   };

   bool holds() const { return state_ == State::holds; }
   bool released() const { return state_ == State::released; }
   // Only while it holds one.
   const std::shared_ptr<T>& get() const { return *_pointer(); }

   // Only on a slot that neither holds nor was released.
   void hold( std::shared_ptr<T> pointer ) {
      new( storage_ ) std::shared_ptr<T>( std::move( pointer ) );
      state_ = State::holds;
   }

 private:
   enum class State : std::uint8_t { empty, holds, released };

   std::shared_ptr<T>* _pointer() const {
      return std::launder( reinterpret_cast<std::shared_ptr<T>*>( storage_ ) );
   }

   void _release( void ( *atEnd )( T& ) ) {
      if( std::exchange( state_, State::released ) == State::holds ) {
         // The slot reads as released while the last reference goes.
         const std::shared_ptr<T> last = std::move( *_pointer() );
         _pointer()->~shared_ptr();
         if( atEnd ) {
            atEnd( *last );
         }
      }
   }

   // Bytes, so that the slot is trivially destructible.
   alignas( std::shared_ptr<T> ) mutable std::byte storage_[ sizeof( std::shared_ptr<T> ) ] = {};
   State state_ = State::empty;
};

} // namespace Quarn::Util
