// The text of /proc/locks, and of files in fdinfo: the first line of an input is a process, the
// rest is either text.

#include "fuzz/Fuzz.h"
#include "util/ProcText.h"

#include <sstream>
#include <string>
#include <vector>

namespace {

using namespace Quarn;

// A line is words between blanks; the owner is the third word after the kind of lock.
bool namesNobody( std::string_view text ) {
   std::istringstream lines{ std::string( text ) };
   for( std::string line; std::getline( lines, line ); ) {
      std::vector<std::string> words;
      std::istringstream rest( line );
      for( std::string word; std::getline( rest, word, ' ' ); ) {
         if( !word.empty() ) {
            words.push_back( word );
         }
      }
      const auto kind = std::ranges::find( words, "OFDLCK" );
      if( words.end() - kind > 3 && kind[ 3 ] == "-1" ) {
         return true;
      }
   }
   return false;
}

bool holds( std::string_view text, std::string_view part ) {
   return std::search( text.begin(), text.end(), part.begin(), part.end() ) != text.end() ||
          part.empty();
}

} // namespace

int LLVMFuzzerTestOneInput( const std::uint8_t* data, std::size_t size ) {
   std::string_view text = Fuzz::asText( data, size );
   const std::string_view pid = Fuzz::takeLine( text );
   FUZZ_REQUIRE( ProcText::locksNameNobody( text ) == namesNobody( text ) );
   FUZZ_REQUIRE( ProcText::locksName( text, pid ) == holds( text, pid ) );
   FUZZ_REQUIRE( ProcText::isLocked( text ) ==
                 ( holds( text, "OFDLCK" ) || holds( text, "POSIX" ) ) );

   // Lines after others are read as they are alone.
   const std::string whole =
         std::string( text ) + "\n9: OFDLCK ADVISORY  WRITE -1 fe:00:247498 0 EOF\n";
   FUZZ_REQUIRE( ProcText::locksNameNobody( whole ) );
   return 0;
}
