// An intrusive list in which a walker can leave a bookmark.
//
// A walk over many elements that has to pause links a bookmark where it stopped; elements may come
// and go meanwhile, the one the walk stands at included. Everything that looks for elements passes
// over bookmarks.
//
//     IntrusiveBookmarkLinkedList< Job, &Job::link_ > jobs;
//     jobs.pushBack( job );
//     for( Job* j = jobs.front(); j; j = jobs.next( j ) ) ...
//
// Cost: constant for every operation but the checker, and `front` and `next` for the bookmarks they
//       pass.

#pragma once

#include <Quarn/IntrusiveLinkedListBase.h>
#include <Quarn/debug/Assert.h>

#include <boost/intrusive/list.hpp>
#include <boost/intrusive/parent_from_member.hpp>

namespace Quarn {

// A place in a list. Unlinks itself when it is destroyed.
class IntrusiveListBookmark : public IntrusiveLinkedListHook {
 public:
   IntrusiveListBookmark() : IntrusiveLinkedListHook( true ) {}
};

// Elements of type `T`, linked through their member `link`. The list owns nothing; what is left in
// it when it is destroyed is unlinked.
template<typename T, IntrusiveLinkedListHook T::*link>
class IntrusiveBookmarkLinkedList {
 public:
   IntrusiveBookmarkLinkedList() = default;
   IntrusiveBookmarkLinkedList( const IntrusiveBookmarkLinkedList& ) = delete;
   IntrusiveBookmarkLinkedList& operator=( const IntrusiveBookmarkLinkedList& ) = delete;

   // Errors: fatal when the element is linked already, to any list ("hook is already linked").
   void pushFront( T& element ) { hooks_.push_front( _fresh( element.*link ) ); }
   void pushBack( T& element ) { hooks_.push_back( _fresh( element.*link ) ); }

   // The first element; null when there is none.
   T* front() { return _element( hooks_.begin() ); }
   T const* front() const { return const_cast<IntrusiveBookmarkLinkedList*>( this )->front(); }

   // Whether there is no element; bookmarks do not count.
   bool empty() const { return !front(); }

   // The first element behind `hook`, which is linked here; null when there is none.
   T* next( IntrusiveLinkedListHook& hook ) { return _element( ++Hooks::s_iterator_to( hook ) ); }
   T* next( T* element ) { return next( element->*link ); }
   T const* next( T const* element ) const {
      return const_cast<IntrusiveBookmarkLinkedList*>( this )->next( const_cast<T*>( element ) );
   }

   // Links a bookmark before or behind `element`, taking it away from where it was.
   void insertBefore( T& element, IntrusiveListBookmark& bookmark ) {
      bookmark.unlink();
      hooks_.insert( Hooks::s_iterator_to( element.*link ), bookmark );
   }
   void insertAfter( T& element, IntrusiveListBookmark& bookmark ) {
      bookmark.unlink();
      hooks_.insert( ++Hooks::s_iterator_to( element.*link ), bookmark );
   }
   // The same before everything.
   void insertFront( IntrusiveListBookmark& bookmark ) {
      bookmark.unlink();
      hooks_.push_front( bookmark );
   }

   // Moves all of `other`, in its order, to the front or the back of this list.
   void spliceFront( IntrusiveBookmarkLinkedList& other ) {
      hooks_.splice( hooks_.begin(), other.hooks_ );
   }
   void spliceBack( IntrusiveBookmarkLinkedList& other ) {
      hooks_.splice( hooks_.end(), other.hooks_ );
   }

   // Whether walking in both directions meets the same hooks, each of them linked. Visits them all.
   bool checkForTest() const {
      std::size_t forward = 0;
      std::size_t backward = 0;
      for( auto hook = hooks_.begin(); hook != hooks_.end(); ++hook, ++forward ) {
         if( !hook->is_linked() ) {
            return false;
         }
      }
      for( auto hook = hooks_.rbegin(); hook != hooks_.rend(); ++hook ) {
         ++backward;
      }
      return forward == backward;
   }

 private:
   using Hooks = boost::intrusive::list<IntrusiveLinkedListHook,
                                        boost::intrusive::constant_time_size<false>>;

   static IntrusiveLinkedListHook& _fresh( IntrusiveLinkedListHook& hook ) {
      if( hook.linked() ) {
         fmassert( "IntrusiveBookmarkLinkedList", "IntrusiveBookmarkLinkedList", __func__, __LINE__,
                   "hook is already linked" );
      }
      return hook;
   }

   // The element at `hook`, or the first behind it.
   T* _element( typename Hooks::iterator hook ) {
      while( hook != hooks_.end() && hook->bookmark() ) {
         ++hook;
      }
      return hook == hooks_.end() ? nullptr
                                  : boost::intrusive::get_parent_from_member<T>( &*hook, link );
   }

   Hooks hooks_;
};

} // namespace Quarn
