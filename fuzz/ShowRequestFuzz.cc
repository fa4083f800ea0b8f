// Show requests and answers: an input is read as a record, as the bytes of an answer, as the reason
// of a refusal, as an expression and as the name of an agent.

#include "fuzz/Fuzz.h"
#include "tools/show/ShowRequest.h"

#include <cctype>
#include <optional>
#include <string>
#include <variant>

namespace {

using namespace Show;
using State = Answer::State;

constexpr Kind kinds[] = { Kind::text, Kind::json, Kind::history };

// Tries all that may stand before the expression.
std::optional<Request> requestOf( std::string_view record ) {
   const struct {
      char const* words;
      bool all;
      bool completed;
   } options[] = { { "", false, false },
                   { " all", true, false },
                   { " completed", false, true },
                   { " all completed", true, true },
                   { " completed all", true, true } };
   if( record.size() > requestSizeMax || record.find( '\0' ) != record.npos ) {
      return std::nullopt;
   }
   for( const Kind kind : kinds ) {
      for( const auto& option : options ) {
         const std::string plain = std::string( kindText( kind ) ) + option.words;
         const std::string withMatch = plain + " match ";
         if( record == plain ) {
            return Request{ kind, option.all, option.completed, "" };
         }
         if( record.starts_with( withMatch ) && record.size() > withMatch.size() ) {
            return Request{ kind, option.all, option.completed,
                            std::string( record.substr( withMatch.size() ) ) };
         }
      }
   }
   return std::nullopt;
}

void tryRecord( std::string_view record ) {
   const auto parsed = parseRequest( record );
   Request const* const request = std::get_if<Request>( &parsed );
   const std::optional<Request> expected = requestOf( record );
   FUZZ_REQUIRE( ( request != nullptr ) == expected.has_value() );
   if( request ) {
      FUZZ_REQUIRE( *request == *expected );
      const auto again = parseRequest( formatRequest( *request ) );
      FUZZ_REQUIRE( std::holds_alternative<Request>( again ) );
      FUZZ_REQUIRE( std::get<Request>( again ) == *request );
   } else {
      FUZZ_REQUIRE( !std::get<std::string_view>( parsed ).empty() );
   }
}

// Any expression without NUL gets through.
void tryExpression( std::string_view match ) {
   const Request request{ Kind::history, true, true, std::string( match ) };
   const std::string record = formatRequest( request );
   const auto parsed = parseRequest( record );
   const bool fit = record.size() <= requestSizeMax && match.find( '\0' ) == match.npos;
   FUZZ_REQUIRE( std::holds_alternative<Request>( parsed ) == fit );
   FUZZ_REQUIRE( !fit || std::get<Request>( parsed ) == request );
}

// Whether the outermost braces, those in strings apart, close with the last byte.
bool isDocument( std::string_view bytes ) {
   std::string braces;
   bool quoted = false;
   for( std::size_t i = 0; i < bytes.size(); ++i ) {
      if( quoted && bytes[ i ] == '\\' ) {
         ++i;
      } else if( bytes[ i ] == '"' ) {
         quoted = !quoted;
      } else if( !quoted && ( bytes[ i ] == '{' || bytes[ i ] == '}' ) ) {
         braces += bytes[ i ];
      }
   }
   std::ptrdiff_t depth = 0;
   for( std::size_t i = 0; i < braces.size(); ++i ) {
      depth += braces[ i ] == '{' ? 1 : -1;
      if( depth <= 0 ) {
         return depth == 0 && i + 1 == braces.size() && !quoted && bytes.starts_with( '{' ) &&
                bytes.ends_with( '}' );
      }
   }
   return false;
}

void tryAnswer( Kind kind, std::string_view bytes ) {
   const Answer answer = parseAnswer( kind, bytes );
   FUZZ_REQUIRE( kind != Kind::json || ( answer.state == State::whole ) == isDocument( bytes ) );
   if( answer.state == State::brokenOff ) {
      return;
   }
   if( answer.state == State::refused ) {
      FUZZ_REQUIRE( bytes == "error: " + std::string( answer.text ) + "\n" );
      FUZZ_REQUIRE( answer.text.find( '\n' ) == answer.text.npos );
   } else if( kind == Kind::json ) {
      FUZZ_REQUIRE( answer.text == bytes );
   } else {
      // The size may have zeros in front.
      const std::string head = answerHead( answer.text.size() );
      FUZZ_REQUIRE( bytes.ends_with( head.substr( 3 ) + std::string( answer.text ) ) );
      FUZZ_REQUIRE( bytes.starts_with( "ok " ) );
   }
   // Neither less of it nor more is an answer.
   FUZZ_REQUIRE( parseAnswer( kind, std::string( bytes ) + 'x' ).state == State::brokenOff );
   std::string_view less = bytes;
   for( int dropped = 1; dropped <= 64 && !less.empty(); ++dropped ) {
      less.remove_suffix( 1 );
      FUZZ_REQUIRE( parseAnswer( kind, less ).state == State::brokenOff );
   }
}

void tryMadeAnswers( std::string_view bytes ) {
   const std::string refusal = answerError( bytes );
   FUZZ_REQUIRE( refusal.size() <= 512 );
   FUZZ_REQUIRE( std::count( refusal.begin(), refusal.end(), '\n' ) == 1 );
   for( const Kind kind : kinds ) {
      FUZZ_REQUIRE( parseAnswer( kind, refusal ).state == State::refused );
   }
   const std::string text = answerHead( bytes.size() ) + std::string( bytes );
   FUZZ_REQUIRE( parseAnswer( Kind::text, text ).state == State::whole );
   FUZZ_REQUIRE( parseAnswer( Kind::text, text ).text == bytes );
}

void tryName( std::string_view name ) {
   bool valid = !name.empty() && name.size() <= 64 && name[ 0 ] != '-';
   for( const char c : name ) {
      const auto byte = static_cast<unsigned char>( c );
      valid = valid && byte < 128 &&
              ( std::isalnum( byte ) || byte == '.' || byte == '_' || byte == '-' );
   }
   FUZZ_REQUIRE( agentNameValid( name ) == valid );
}

} // namespace

int LLVMFuzzerTestOneInput( const std::uint8_t* data, std::size_t size ) {
   const std::string_view bytes = Fuzz::asText( data, size );
   for( char const* more : { "", "x", " ", " all", " match " } ) {
      tryRecord( std::string( bytes ) + more );
   }
   tryExpression( bytes );
   for( const Kind kind : kinds ) {
      tryAnswer( kind, bytes );
   }
   tryMadeAnswers( bytes );
   tryName( bytes );
   return 0;
}
