// The draws of a random play, out of the bytes of an input.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace Fuzz {

// Each draw takes two bytes, so that a byte changed, or two taken out, changes one operation and
// leaves the others. They stand at both ends of the number: a play takes its remainder by a small
// one, or its high bits as a fraction. Every remainder comes up, since 2^48 + 1 has no divisor
// below 193. Once the bytes have ended the draws go on, so that the operation under way comes to
// its end; the play asks `ended()` between two.
class Draws {
 public:
   explicit Draws( std::string_view bytes ) : bytes_( bytes ) {}

   bool ended() const { return bytes_.empty(); }

   std::uint64_t operator()() {
      if( ended() ) {
         // Any numbers that do not repeat, lest a play that draws until something fits never ends
         // (the sequence of Sebastiano Vigna's splitmix64).
         std::uint64_t mixed = beyond_ += 0x9E3779B97F4A7C15;
         mixed = ( mixed ^ mixed >> 30 ) * 0xBF58476D1CE4E5B9;
         mixed = ( mixed ^ mixed >> 27 ) * 0x94D049BB133111EB;
         return mixed ^ mixed >> 31;
      }
      const std::uint64_t drawn = std::uint64_t{ byte() } << 8 | byte();
      return drawn << 48 | drawn;
   }

   // For what is not drawn by the play; 0 beyond the end.
   std::uint8_t byte() {
      if( ended() ) {
         return 0;
      }
      const auto first = static_cast<std::uint8_t>( bytes_.front() );
      bytes_.remove_prefix( 1 );
      return first;
   }

   // The next so many, or those that are left.
   std::string bytes( std::size_t count ) {
      std::string taken( bytes_.substr( 0, count ) );
      bytes_.remove_prefix( taken.size() );
      return taken;
   }

 private:
   std::string_view bytes_;
   std::uint64_t beyond_ = 0;
};

} // namespace Fuzz
