// The bare turn of the event loop: a timer of libevent's own that fires at once and adds itself
// again, on a base with the settings of the library's bases.

#pragma once

#include "Figure.h"

#include <event2/event.h>
#include <event2/event_struct.h>

namespace bench {

class BareTurn {
 public:
   BareTurn();
   ~BareTurn();
   BareTurn( const BareTurn& ) = delete;
   BareTurn& operator=( const BareTurn& ) = delete;

   Time run( std::int64_t turns );

 private:
   static void fired( evutil_socket_t, short, void* self );

   event_base* base_;
   event event_;
   std::int64_t left_ = 0;
};

} // namespace bench
