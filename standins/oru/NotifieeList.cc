#include "NotifieeList.h"

#include "Held.h"

namespace Oru {

// Keeps places where they are for as long as one walk goes on, however it ends.
class NotifieeList::Walk {
 public:
   explicit Walk( NotifieeList& list ) : list_( list ) { ++list_.walks_; }
   ~Walk() {
      --list_.walks_;
      list_._closeUp();
   }
   Walk( Walk const& ) = delete;
   Walk& operator=( Walk const& ) = delete;

 private:
   NotifieeList& list_;
};

void NotifieeList::add( Notifiee& notifiee ) {
   places_.push_back( &notifiee );
   notifiee.slot_ = places_.size() - 1;
}

void NotifieeList::remove( Notifiee& notifiee ) {
   places_[ notifiee.slot_ ] = nullptr;
   notifiee.slot_ = Notifiee::unregistered;
   ++emptyPlaces_;
   _closeUp();
}

void NotifieeList::walk( AttributeId id, void const* value ) {
   Walk const walk( *this );
   // By index and up to the present end: a callback may grow the list and move it in memory.
   std::size_t const end = places_.size();
   for( std::size_t i = 0; i < end; ++i ) {
      Notifiee* const notifiee = places_[ i ];
      if( notifiee && notifiee->hasNotificationActive() ) {
         // It may be dropped by its own call.
         Ptr<Notifiee> const hold = held( *notifiee );
         notifiee->onAttribute( id, value );
      }
   }
}

void NotifieeList::_closeUp() {
   if( walks_ != 0 || emptyPlaces_ <= places_.size() / 2 ) {
      return;
   }
   std::erase( places_, nullptr );
   emptyPlaces_ = 0;
   for( std::size_t i = 0; i < places_.size(); ++i ) {
      places_[ i ]->slot_ = i;
   }
}

PtrInterface::NotifieeConst::NotifieeConst() { PtrInterface::hasNotificationActiveIs( true ); }

PtrInterface::NotifieeConst::~NotifieeConst() { isRegisteredNotifieeIs( false ); }

void PtrInterface::NotifieeConst::onAttribute( AttributeId, void const* ) {}

void PtrInterface::NotifieeConst::_notifierChanged() {}

void PtrInterface::NotifieeConst::notifierIs( Ptr<PtrInterface const> notifier ) {
   if( notifier == notifier_ ) {
      return;
   }
   isRegisteredNotifieeIs( false );
   // The old notifier goes with the parameter, last of all: its destructor may come back here.
   notifier_.swap( notifier );
   // Before anything can fail: from here on nobody holds the old notifier for this notifiee.
   _notifierChanged();
   isRegisteredNotifieeIs( true );
}

void PtrInterface::NotifieeConst::isRegisteredNotifieeIs( bool registered ) {
   if( !notifier_ || registered == isRegisteredNotifiee() ) {
      return;
   }
   NotifieeList& list = notifier_->_notifieeListMade();
   if( registered ) {
      list.add( *this );
      _notifierChanged();
   } else {
      list.remove( *this );
   }
}

} // namespace Oru
