// What a program writes that has one callback of the loop and many units to run in turn.

#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace bench::peers {

// A queue of units, first in, first out, in front of the one callback. A single unit needs no queue
// and has none.
class Rotation {
 public:
   explicit Rotation( std::size_t units ) {
      if( units > 1 ) {
         units_.resize( units, { &Rotation::runAgain } );
         ring_.resize( units + 1 );
         for( Unit& unit : units_ ) {
            push( unit );
         }
      }
   }

   void begin( std::int64_t runs ) { left_ = runs; }

   // Runs the unit whose turn it is. False after the last run.
   bool next() {
      if( !ring_.empty() ) {
         Unit& unit = *ring_[ head_ ];
         head_ = after( head_ );
         unit.run( *this, unit );
      }
      return --left_ != 0;
   }

 private:
   struct Unit {
      void ( *run )( Rotation&, Unit& );
   };

   // A unit does nothing but ask for its next run.
   static void runAgain( Rotation& rotation, Unit& unit ) { rotation.push( unit ); }

   void push( Unit& unit ) {
      ring_[ tail_ ] = &unit;
      tail_ = after( tail_ );
   }
   std::size_t after( std::size_t at ) const { return at + 1 == ring_.size() ? 0 : at + 1; }

   std::vector<Unit> units_;
   std::vector<Unit*> ring_;
   std::size_t head_ = 0;
   std::size_t tail_ = 0;
   std::int64_t left_ = 0;
};

} // namespace bench::peers
