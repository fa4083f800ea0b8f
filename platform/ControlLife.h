// Knowing, after a call out, whether the caller is still there.

#pragma once

namespace Quarn {

// Tells a callback whether its control was destroyed by the handler it called.
class ControlLife {
 public:
   ControlLife() = default;
   ~ControlLife() {
      if( alive_ ) {
         *alive_ = false;
      }
   }
   ControlLife( const ControlLife& ) = delete;
   ControlLife& operator=( const ControlLife& ) = delete;

   class Watch {
    public:
      explicit Watch( ControlLife& life ) : life_( life ) { life_.alive_ = &alive_; }
      ~Watch() {
         if( alive_ ) {
            life_.alive_ = nullptr;
         }
      }
      Watch( const Watch& ) = delete;
      Watch& operator=( const Watch& ) = delete;
      bool alive() const { return alive_; }

    private:
      ControlLife& life_;
      bool alive_ = true;
   };

 private:
   bool* alive_ = nullptr;
};

} // namespace Quarn
