#include <Oru/Ptr.h>

#include "NotifieeList.h"

namespace Oru {

constinit std::atomic<bool> VFPtrInterface::threadSafePointers_{ true };

void VFPtrInterface::threadSafePointersIs( bool on ) {
   threadSafePointers_.store( on, std::memory_order_relaxed );
}

PtrInterface::~PtrInterface() { delete notifieeList_; }

NotifieeList* PtrInterface::notifieeList() const { return notifieeList_; }

void PtrInterface::hasNotificationActiveIs( bool active ) {
   if( active ) {
      word_.fetch_or( notificationActive, std::memory_order_relaxed );
   } else {
      word_.fetch_and( ~notificationActive, std::memory_order_relaxed );
   }
}

void PtrInterface::zeroReferencesIs( bool zero ) {
   if( zero ) {
      // Marked here and not where the count fell, so that an override that keeps the object does
      // not lose the next call.
      word_.fetch_or( beingDeleted, std::memory_order_relaxed );
      delete this;
   }
}

FwkType const* PtrInterface::fwkType() const { return nullptr; }

void PtrInterface::oruDoZombieReactors( bool ) {}

// The count and the notifiees change on objects the holders see as const; the object itself was
// not created const, so it may be deleted through the same cast.
void PtrInterface::_lastReferenceGone() const {
   const_cast<PtrInterface*>( this )->zeroReferencesIs( true );
}

NotifieeList& PtrInterface::_notifieeListMade() const {
   if( NotifieeList* list = notifieeList() ) {
      return *list;
   }
   notifieeList_ = new NotifieeList;
   return *notifieeList_;
}

void PtrInterface::notify( AttributeId id, void const* value ) const {
   NotifieeList* const list = notifieeList();
   // Without notifiees there may be no Ptr either (a constructor that notifies), and holding the
   // object would delete it.
   if( !list || list->empty() ) {
      return;
   }
   Ptr<PtrInterface const> const hold = this;
   list->walk( id, value );
}

} // namespace Oru
