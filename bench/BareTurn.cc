#include "BareTurn.h"

#include <Quarn/LibeventFactoryCpp.h>

namespace bench {

namespace {

constexpr timeval atOnce{ 0, 0 };

} // namespace

BareTurn::BareTurn() : base_( Quarn::leCreateBase() ) {
   event_assign( &event_, base_, -1, 0, &BareTurn::fired, this );
}

BareTurn::~BareTurn() {
   event_del( &event_ );
   event_base_free( base_ );
}

void BareTurn::fired( evutil_socket_t, short, void* self ) {
   auto* turn = static_cast<BareTurn*>( self );
   if( --turn->left_ != 0 ) {
      event_add( &turn->event_, &atOnce );
   }
}

Time BareTurn::run( std::int64_t turns ) {
   left_ = turns;
   event_add( &event_, &atOnce );
   return timed( [ this ] { event_base_dispatch( base_ ); } );
}

} // namespace bench
