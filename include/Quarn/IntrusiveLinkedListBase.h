// The hook with which an object is a member of an intrusive list.
//
// The links are in the object, so linking and unlinking allocate nothing and take constant time,
// and an object leaves its list by itself when it is destroyed.
//
// Thread: none is created and nothing is locked; a list and its objects are one thread's.

#pragma once

#include <boost/intrusive/link_mode.hpp>
#include <boost/intrusive/list_hook.hpp>

namespace Quarn {

// A member of at most one list at a time. It stays in place, so it can be neither copied nor moved.
class IntrusiveLinkedListHook : public boost::intrusive::list_base_hook<
                                      boost::intrusive::link_mode<boost::intrusive::auto_unlink>> {
 public:
   IntrusiveLinkedListHook() = default;
   IntrusiveLinkedListHook( const IntrusiveLinkedListHook& ) = delete;
   IntrusiveLinkedListHook& operator=( const IntrusiveLinkedListHook& ) = delete;

   bool linked() const { return is_linked(); }

   // Does nothing to a hook that is not linked. (Of the list, too: that is why lists keep no size.)
   void unlink() {
      using Base = boost::intrusive::list_base_hook<
            boost::intrusive::link_mode<boost::intrusive::auto_unlink>>;
      if( is_linked() ) {
         Base::unlink();
      }
   }

   // Whether this hook marks a place instead of belonging to an element.
   bool bookmark() const { return bookmark_; }

 protected:
   explicit IntrusiveLinkedListHook( bool bookmark ) : bookmark_( bookmark ) {}

 private:
   bool bookmark_ = false;
};

} // namespace Quarn
