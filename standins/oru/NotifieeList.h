// The notifiees of one notifier, in the order they registered.
//
// A notifiee knows its place, so leaving takes no search. A place that is left stays empty while
// the list is walked, and until the empty ones outnumber the others; then the rest close up.

#pragma once

#include <Oru/Ptr.h>

#include <cstddef>
#include <vector>

namespace Oru {

// Thread: that of the notifier.
class NotifieeList {
 public:
   using Notifiee = PtrInterface::NotifieeConst;

   // The notifiee is not in a list; it leaves this one before it is destroyed.
   void add( Notifiee& notifiee );

   // The notifiee is in this list.
   void remove( Notifiee& notifiee );

   // Calls those that are in the list now and still are when their turn comes. The list outlives
   // the walk; see PtrInterface::notify for what the callbacks may do.
   void walk( AttributeId id, void const* value );

   bool empty() const { return places_.size() == emptyPlaces_; }

 private:
   class Walk;
   void _closeUp();

   std::vector<Notifiee*> places_;
   std::size_t emptyPlaces_ = 0;
   unsigned walks_ = 0; // nested walks under way
};

} // namespace Oru
