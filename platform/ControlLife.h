// Knowing, after a call out, whether the caller is still there.

#pragma once

namespace Quarn {

// Tells a callback whether its control was destroyed by the handler it called. Calls may nest: a
// handler can bring its own control to call it again.
class ControlLife {
 public:
   class Watch {
    public:
      explicit Watch( ControlLife& life ) : life_( &life ), outer_( life.watch_ ) { _enter(); }
      ~Watch() {
         if( life_ ) {
            life_->watch_ = outer_;
         }
      }
      Watch( const Watch& ) = delete;
      Watch& operator=( const Watch& ) = delete;
      bool alive() const { return life_ != nullptr; }

    private:
      friend class ControlLife;

      // Out of line, or gcc 12 takes the address that is stored for one that is left behind.
      [[gnu::noinline]] void _enter() { life_->watch_ = this; }

      ControlLife* life_;
      Watch* outer_;
   };

   ControlLife() = default;
   ~ControlLife() {
      for( Watch* watch = watch_; watch; watch = watch->outer_ ) {
         watch->life_ = nullptr;
      }
   }
   ControlLife( const ControlLife& ) = delete;
   ControlLife& operator=( const ControlLife& ) = delete;

 private:
   Watch* watch_ = nullptr;
};

} // namespace Quarn
