// Texts about one process: an input is read as a stat file, as the command name within one, as a
// status file, and as the name of an entry of /proc.

#include "fuzz/Fuzz.h"
#include "util/ProcText.h"

#include <cctype>
#include <string>
#include <vector>

namespace {

using namespace Quarn;
using Outcome = ProcText::StartTime::Outcome;

std::vector<std::string> split( std::string_view text, char separator ) {
   std::vector<std::string> parts( 1 );
   for( const char c : text ) {
      if( c == separator ) {
         parts.emplace_back();
      } else {
         parts.back() += c;
      }
   }
   return parts;
}

void tryStat( std::string_view text ) {
   const ProcText::StartTime time = ProcText::startTime( text );
   FUZZ_REQUIRE( ( time.outcome == Outcome::found ) == !time.text.empty() );
   const std::vector<std::string> pieces = split( text, ')' );
   const std::string& afterName = pieces.back();
   if( pieces.size() == 1 || afterName.empty() ) {
      FUZZ_REQUIRE( time.outcome == Outcome::tooShort );
      return;
   }
   const std::vector<std::string> fields = split( std::string_view( afterName ).substr( 1 ), ' ' );
   if( fields.size() <= 19 ) {
      FUZZ_REQUIRE( time.outcome == Outcome::noField );
      FUZZ_REQUIRE( time.position <= fields.size() );
   } else {
      FUZZ_REQUIRE( time.text == fields[ 19 ] );
      FUZZ_REQUIRE( time.position == 19 );
   }
}

void tryCommandName( std::string_view name ) {
   const std::string stat = "7 (" + std::string( name ) +
                            ") S 1 7 7 0 -1 4194304 3 0 0 0 1 2 0 0 20 0 1 0 123456789 4096 1";
   const ProcText::StartTime time = ProcText::startTime( stat );
   FUZZ_REQUIRE( time.outcome == Outcome::found );
   FUZZ_REQUIRE( time.text == "123456789" );
}

std::string titleOf( std::string_view text ) {
   for( std::string line : split( text, '\n' ) ) {
      const std::size_t label = line.find( "Name:" );
      if( label == line.npos ) {
         continue;
      }
      line.erase( 0, label + 5 );
      while( line.starts_with( ' ' ) || line.starts_with( '\t' ) ) {
         line.erase( 0, 1 );
      }
      while( line.ends_with( ' ' ) || line.ends_with( '\t' ) ) {
         line.pop_back();
      }
      return line;
   }
   return "";
}

void tryEntryName( std::string_view name ) {
   constexpr std::uint64_t pidMax = 0x7fffffff;
   std::uint64_t pid = 0;
   for( const char c : name ) {
      if( !std::isdigit( static_cast<unsigned char>( c ) ) || pid > pidMax ) {
         pid = pidMax + 1;
         break;
      }
      pid = pid * 10 + static_cast<std::uint64_t>( c - '0' );
   }
   FUZZ_REQUIRE( ProcText::pidOf( name ) == ( pid > pidMax ? 0 : static_cast<int>( pid ) ) );
}

} // namespace

int LLVMFuzzerTestOneInput( const std::uint8_t* data, std::size_t size ) {
   const std::string_view text = Fuzz::asText( data, size );
   tryStat( text );
   tryCommandName( text );
   FUZZ_REQUIRE( ProcText::title( text ) == titleOf( text ) );
   tryEntryName( text );
   return 0;
}
