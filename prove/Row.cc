#include "prove/Row.h"

#include <Quarn/base/Exception.h>
#include <Quarn/base/ThreadControl.h>

#include <fmt/format.h>

#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string_view>

namespace prove {

namespace {

bool isNumber( std::string_view text, std::uint64_t& number ) {
   char const* end = text.data() + text.size();
   const auto [ stop, error ] = std::from_chars( text.data(), end, number );
   return error == std::errc() && stop == end;
}

bool isGood( int argc, char** argv, Order& order ) {
   for( int n = 1; n < argc; n += 2 ) {
      const std::string_view option = argv[ n ];
      std::uint64_t* number = option == "--count"  ? &order.count
                              : option == "--seed" ? &order.seed
                                                   : nullptr;
      if( !number || n + 1 == argc || !isNumber( argv[ n + 1 ], *number ) ) {
         return false;
      }
   }
   return order.count > 0;
}

// Short enough to be typed again.
std::uint64_t seedOfNow() {
   const auto now = std::chrono::system_clock::now().time_since_epoch();
   return static_cast<std::uint64_t>( now / std::chrono::microseconds( 1 ) ) % 1'000'000'000;
}

} // namespace

std::string jsonText( const std::string& text ) {
   std::string json = "\"";
   for( const char c : text ) {
      if( c == '"' || c == '\\' ) {
         json += '\\';
         json += c;
      } else if( static_cast<unsigned char>( c ) < ' ' ) {
         json += fmt::format( "\\u{:04x}", c );
      } else {
         json += c;
      }
   }
   return json += '"';
}

int runRow( int argc, char** argv, const Facts& facts,
            const std::function<Outcome( const Order& )>& body ) {
   Order order{ facts.wholeCount, seedOfNow() };
   if( !isGood( argc, argv, order ) ) {
      std::fprintf( stderr, "usage: %s [--count N] [--seed S]\n", argv[ 0 ] );
      return 2;
   }
   const bool framework = std::getenv( "ORUQUARN_TEST_FRAMEWORK" );
   const std::string repeat =
         fmt::format( "{}{} --count {} --seed {}", framework ? "ORUQUARN_TEST_FRAMEWORK=1 " : "",
                      argv[ 0 ], order.count, order.seed );
   std::printf( "%s\n", repeat.c_str() );
   std::fflush( stdout );
   Quarn::throwOnAssertFailIs( true );
   if( framework ) {
      Quarn::hasThreadLocalSingletonsIs( false );
   }
   Outcome outcome{ false, "" };
   try {
      outcome = body( order );
   } catch( const std::exception& e ) {
      outcome = { false, fmt::format( "ended by an exception: {}", e.what() ) };
   }
   std::printf( "{\"row\": %d, \"name\": %s, \"figure\": %s, \"goal\": %s, \"count\": %llu, "
                "\"ok\": %s, \"repeat\": %s}\n",
                facts.row, jsonText( facts.name ).c_str(), jsonText( outcome.figure ).c_str(),
                jsonText( facts.goal ).c_str(), static_cast<unsigned long long>( order.count ),
                outcome.ok ? "true" : "false", jsonText( repeat ).c_str() );
   std::fflush( stdout );
   return outcome.ok ? 0 : 1;
}

} // namespace prove
