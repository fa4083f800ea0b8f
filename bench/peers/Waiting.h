// How a program has one descriptor served after each look, on a loop that serves all it has found:
// a ready descriptor is not asked about again and waits in a queue, and one callback, which the
// loop calls in each turn, serves the first.

#pragma once

#include <cstddef>
#include <vector>

namespace bench::peers {

template<typename Player>
class Waiting {
 public:
   explicit Waiting( std::size_t players ) : ring_( players + 1 ) {}

   bool empty() const { return head_ == tail_; }
   void push( Player& player ) {
      ring_[ tail_ ] = &player;
      tail_ = after( tail_ );
   }
   Player& pop() {
      Player& player = *ring_[ head_ ];
      head_ = after( head_ );
      return player;
   }

 private:
   std::size_t after( std::size_t at ) const { return at + 1 == ring_.size() ? 0 : at + 1; }

   std::vector<Player*> ring_;
   std::size_t head_ = 0;
   std::size_t tail_ = 0;
};

} // namespace bench::peers
