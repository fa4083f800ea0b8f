// Counted objects and the pointers to them; notifiers and the notifiees that watch them.
//
// An object derives from PtrInterface, lives on the heap and is held by Ptr; the last Ptr to go
// deletes it. The count is in the object, so a Ptr may be made from a plain pointer at any time.
//
//     struct Peer : Oru::PtrInterface { void up() { notify( 1, nullptr ); } };
//     struct PeerWatch : Oru::PtrInterface::NotifieeConst {
//        void onAttribute( Oru::AttributeId id, void const* ) override;
//     };
//     Oru::Ptr<Peer> peer = new Peer;
//     Oru::Ptr<PeerWatch> watch = new PeerWatch;
//     watch->notifierIs( peer );   // the watch keeps the peer; the peer does not keep the watch
//
// Counting may be done by any thread while VFPtrInterface::threadSafePointers() is on. Notifiers,
// their notifiees and all that is registered between them belong to one thread.
//
// Setters ending in `Is` do nothing when the value is unchanged.

#pragma once

#include <Oru/Export.h>

#include <Quarn/base/String.h>

#include <atomic>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

namespace Oru {

class FwkType;
class NotifieeList;
template<class T>
class Ptr;

// Names what changed in a notifier; the notifier's class gives the numbers their meaning.
using AttributeId = std::uint32_t;

using String = Quarn::String;

// Whether counts are changed in one indivisible step.
struct ORU_API VFPtrInterface {
   // On at start. Off makes a copy of a Ptr cheaper, and wrong once two threads share an object.
   //
   // Thread: while the process has one thread, or while no other thread touches a Ptr.
   static void threadSafePointersIs( bool on );
   static bool threadSafePointers() {
      return threadSafePointers_.load( std::memory_order_relaxed );
   }

 private:
   static std::atomic<bool> threadSafePointers_;
};

// Base of everything a Ptr can hold.
//
// The order of the virtual functions is part of the binary interface; new ones go to the end.
class ORU_API PtrInterface {
 public:
   class NotifieeConst;

   PtrInterface( PtrInterface const& ) = delete;
   PtrInterface& operator=( PtrInterface const& ) = delete;

   // The notifiees registered with this object; null until the first one registers.
   virtual NotifieeList* notifieeList() const;

   // Whether this object, when it is a notifiee, is told of changes. What changes while it is off
   // is not told later. Notifiees start with it on, other objects with it off.
   virtual void hasNotificationActiveIs( bool active );

   // Called with true when the last Ptr goes; deletes the object. An override that keeps the
   // object for later is called again the next time the count comes down to zero.
   virtual void zeroReferencesIs( bool zero );

   // The description of the object's class; null for a class without one.
   virtual FwkType const* fwkType() const;

   virtual ~PtrInterface();

   // Has reactors whose object is gone finish their work; nothing to do here.
   virtual void oruDoZombieReactors( bool );

   // How many Ptr hold this object. With other threads about, the value is old when it is read.
   unsigned references() const noexcept {
      return word_.load( std::memory_order_relaxed ) & countMask;
   }

   bool hasNotificationActive() const noexcept {
      return ( word_.load( std::memory_order_relaxed ) & notificationActive ) != 0;
   }

 protected:
   PtrInterface() noexcept = default;

   // Calls onAttribute( id, value ) of each registered notifiee, in the order they registered.
   //
   // The callbacks may register, unregister or destroy any notifiee, drop the last outside Ptr to
   // this object, and notify again. Each notifiee is looked at when its turn comes: one that was
   // unregistered, destroyed or switched off by then is passed over, one that registered during
   // the walk (even again) waits for the next one. An exception ends the walk and goes on to the
   // caller.
   //
   // Ownership: the object is held for the walk and may be gone when the call returns.
   void notify( AttributeId id, void const* value ) const;

 private:
   template<class T>
   friend class Ptr;

   // The word holds the count in its low 29 bits and flags above it, as both are read together.
   static constexpr std::uint32_t countMask = ( 1u << 29 ) - 1;
   static constexpr std::uint32_t notificationActive = 1u << 29;
   static constexpr std::uint32_t beingDeleted = 1u << 30;

   void _newRef() const noexcept {
      if( VFPtrInterface::threadSafePointers() ) {
         word_.fetch_add( 1, std::memory_order_relaxed );
      } else {
         word_.store( word_.load( std::memory_order_relaxed ) + 1, std::memory_order_relaxed );
      }
   }

   void _deleteRef() const {
      std::uint32_t before;
      if( VFPtrInterface::threadSafePointers() ) {
         // Release what this thread wrote to the object, acquire what the others did before the
         // destructor reads it.
         before = word_.fetch_sub( 1, std::memory_order_acq_rel );
      } else {
         before = word_.load( std::memory_order_relaxed );
         word_.store( before - 1, std::memory_order_relaxed );
      }
      // A Ptr made and dropped by the destructor brings the count to zero once more.
      if( ( before & ( countMask | beingDeleted ) ) == 1 ) {
         _lastReferenceGone();
      }
   }

   void _lastReferenceGone() const;
   NotifieeList& _notifieeListMade() const;

   mutable std::atomic<std::uint32_t> word_{ 0 };
   mutable NotifieeList* notifieeList_ = nullptr;
};

// Pointer that counts itself in the object it points to.
//
// T derives from PtrInterface, which is checked where a count changes, so that a Ptr to a class
// that is only declared can be a member.
//
// Thread: one Ptr belongs to one thread; different Ptr to one object need thread-safe pointers.
template<class T>
class Ptr {
 public:
   using element_type = T;

   Ptr() noexcept = default;
   Ptr( std::nullptr_t ) noexcept {}
   Ptr( T* object ) noexcept : object_( object ) { _newRef(); }
   Ptr( Ptr const& other ) noexcept : object_( other.object_ ) { _newRef(); }
   Ptr( Ptr&& other ) noexcept : object_( std::exchange( other.object_, nullptr ) ) {}

   template<class U>
   requires std::convertible_to<U*, T*> Ptr( Ptr<U> const& other )
   noexcept : object_( other.object_ ) { _newRef(); }

   template<class U>
   requires std::convertible_to<U*, T*> Ptr( Ptr<U>&& other )
   noexcept : object_( std::exchange( other.object_, nullptr ) ) {}

   ~Ptr() {
      if( object_ ) {
         _base( object_ )->_deleteRef();
      }
   }

   // By value: this Ptr already points to its new object when the old one is destroyed, so a
   // destructor that comes back to it finds it in order.
   Ptr& operator=( Ptr other ) noexcept {
      swap( other );
      return *this;
   }

   void swap( Ptr& other ) noexcept { std::swap( object_, other.object_ ); }

   T* get() const noexcept { return object_; }
   // Not to be used on null. Saying so spares a temporary Ptr the check in its destructor, and
   // keeps the compiler from warning of accesses that null would make.
   T* operator->() const noexcept {
      if( !object_ ) {
         __builtin_unreachable();
      }
      return object_;
   }
   T& operator*() const noexcept { return *object_; }
   explicit operator bool() const noexcept { return object_ != nullptr; }

   friend bool operator==( Ptr const& left, std::nullptr_t ) noexcept { return !left.object_; }

 private:
   template<class U>
   friend class Ptr;

   static PtrInterface const* _base( T const* object ) noexcept {
      static_assert( std::is_base_of_v<PtrInterface, T>, "T derives from Oru::PtrInterface" );
      return object;
   }

   void _newRef() const noexcept {
      if( object_ ) {
         _base( object_ )->_newRef();
      }
   }

   T* object_ = nullptr;
};

// Pointers are equal when they point to the same object.
template<class T, class U>
bool operator==( Ptr<T> const& left, Ptr<U> const& right ) noexcept {
   return left.get() == right.get();
}

template<class T, class U>
bool operator==( Ptr<T> const& left, U const* right ) noexcept {
   return left.get() == right;
}

// Watches one notifier.
//
// Ownership: holds its notifier; the notifier knows it without holding it. The destructor
//            unregisters, so a notifiee that is gone is never called.
// Thread:    that of the notifier.
class ORU_API PtrInterface::NotifieeConst : public PtrInterface {
 public:
   ~NotifieeConst() override;

   // What the notifier passed to notify(); the value's type goes with the attribute. Does nothing
   // unless overridden. See PtrInterface::notify for what it may do.
   virtual void onAttribute( AttributeId id, void const* value );

   // The object to watch, null for none. Leaves the old notifier and registers with the new one,
   // behind the notifiees already there.
   //
   // After: the old notifier may be gone.
   void notifierIs( Ptr<PtrInterface const> notifier );
   Ptr<PtrInterface const> notifier() const { return notifier_; }

   // False leaves the notifier's list and keeps the notifier; true enters it again at its end.
   // Without a notifier it stays false.
   void isRegisteredNotifieeIs( bool registered );
   bool isRegisteredNotifiee() const { return slot_ != unregistered; }

   // Whether the last Ptr to this notifiee has gone and its destructor is to run or running.
   bool markedForDeletion() const {
      return ( word_.load( std::memory_order_relaxed ) & beingDeleted ) != 0;
   }

 protected:
   NotifieeConst();

 private:
   friend class Oru::NotifieeList;
   static constexpr std::size_t unregistered = SIZE_MAX;

   // Called when the notifier has changed, and when this notifiee has entered its list; for classes
   // of the framework that keep notifiees in other places as well. Throws nothing.
   virtual void _notifierChanged();

   Ptr<PtrInterface const> notifier_;
   std::size_t slot_ = unregistered; // place in the notifier's list
};

} // namespace Oru
