// Lines of /proc/net/unix: an input is read as a line, as a number, and as the path of a socket.

#include "fuzz/Fuzz.h"
#include "util/ProcText.h"

#include <limits>
#include <string>
#include <vector>

namespace {

using namespace Quarn;

std::string inodeOf( std::string_view line ) {
   std::vector<std::size_t> blanks;
   for( std::size_t i = 0; i < line.size(); ++i ) {
      if( line[ i ] == ' ' ) {
         blanks.push_back( i );
      }
   }
   if( blanks.size() < 2 ) {
      return "";
   }
   const std::size_t begin = blanks[ blanks.size() - 2 ] + 1;
   return std::string( line.substr( begin, blanks.back() - begin ) );
}

// What C says of strtoul() with base 10, the lower half of it.
std::uint32_t numberOf( std::string_view text ) {
   std::size_t at = std::min( text.find_first_not_of( " \t\n\v\f\r" ), text.size() );
   const bool negative = at < text.size() && text[ at ] == '-';
   if( at < text.size() && ( text[ at ] == '-' || text[ at ] == '+' ) ) {
      ++at;
   }
   constexpr std::uint64_t max = std::numeric_limits<std::uint64_t>::max();
   std::uint64_t number = 0;
   for( ; at < text.size() && text[ at ] >= '0' && text[ at ] <= '9'; ++at ) {
      const auto digit = static_cast<std::uint64_t>( text[ at ] - '0' );
      if( number > ( max - digit ) / 10 ) {
         return 0xffffffff;
      }
      number = number * 10 + digit;
   }
   return static_cast<std::uint32_t>( negative ? 0 - number : number );
}

} // namespace

int LLVMFuzzerTestOneInput( const std::uint8_t* data, std::size_t size ) {
   const std::string_view text = Fuzz::asText( data, size );
   FUZZ_REQUIRE( ProcText::unixInode( text ) == inodeOf( text ) );
   FUZZ_REQUIRE( ProcText::inodeNumber( text ) == numberOf( text ) );

   const std::string_view path = text.substr( 0, text.find( ' ' ) );
   const std::string line =
         "0000000000000000: 00000002 00000000 00010000 0001 01 4294901761 " + std::string( path );
   FUZZ_REQUIRE( ProcText::unixInode( line ) == "4294901761" );
   FUZZ_REQUIRE( ProcText::inodeNumber( ProcText::unixInode( line ) ) == 4294901761 );
   return 0;
}
