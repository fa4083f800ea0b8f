// The TRACE variable: the first line of an input is the name of a facility, the rest the variable.
//
// A second reader goes by the table of docs/tracing.md, level by level.

#include "fuzz/Fuzz.h"
#include "standins/oru/TraceSettings.h"

#include <array>
#include <optional>
#include <string>
#include <vector>

namespace {

using Levels = std::array<bool, 16>;

constexpr char blanks[] = " \t\n\v\f\r";

// The number from 0 to 15 that the text is, in one or two digits.
std::optional<std::size_t> levelOf( std::string_view text ) {
   for( std::size_t level = 0; level < 16; ++level ) {
      const std::string plain = std::to_string( level );
      if( text == plain || ( level < 10 && text == "0" + plain ) ) {
         return level;
      }
   }
   return std::nullopt;
}

bool addPart( std::string_view part, Levels& levels, bool& namesZero ) {
   std::optional<std::size_t> low = 0;
   std::optional<std::size_t> high;
   if( part == "*" ) {
      high = 15;
   } else if( part.starts_with( "=" ) ) {
      low = high = levelOf( part.substr( 1 ) );
      namesZero = namesZero || low == 0u;
   } else if( part.find( '-' ) != part.npos ) {
      low = levelOf( part.substr( 0, part.find( '-' ) ) );
      high = levelOf( part.substr( part.find( '-' ) + 1 ) );
   } else {
      high = levelOf( part );
   }
   if( !low || !high || *low > *high ) {
      return false;
   }
   for( std::size_t level = *low; level <= *high; ++level ) {
      levels[ level ] = true;
   }
   return true;
}

struct Item {
   std::string pattern;
   Levels levels{};
   bool clear = false;
};

std::vector<std::string> split( const std::string& text, char separator ) {
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

std::optional<Item> itemOf( std::string text ) {
   Item item;
   while( text.starts_with( "-" ) ) {
      item.clear = true;
      text.erase( 0, 1 );
      text.erase( 0, text.find_first_not_of( blanks ) );
   }
   item.pattern = text.substr( 0, text.rfind( '/' ) );
   if( item.pattern.empty() ) {
      return std::nullopt;
   }
   bool namesZero = false;
   const std::string levels = item.pattern == text ? "9" : text.substr( item.pattern.size() + 1 );
   for( const std::string& part : split( levels, '+' ) ) {
      if( !addPart( part, item.levels, namesZero ) ) {
         return std::nullopt;
      }
   }
   if( item.clear && !namesZero ) {
      item.levels[ 0 ] = false;
   }
   return item;
}

// Row by row: how far the name may have come when the pattern is read up to here.
bool matches( std::string_view pattern, std::string_view name ) {
   std::vector<bool> reached( name.size() + 1 );
   reached[ 0 ] = true;
   for( const char p : pattern ) {
      std::vector<bool> next( name.size() + 1 );
      for( std::size_t n = 0; n <= name.size(); ++n ) {
         const bool takesOne = n > 0 && ( p == '?' || p == '*' || p == name[ n - 1 ] );
         next[ n ] = ( p == '*' && reached[ n ] ) || ( takesOne && reached[ n - 1 ] ) ||
                     ( p == '*' && n > 0 && next[ n - 1 ] );
      }
      reached = next;
   }
   return reached.back();
}

Oru::LevelMask maskOf( const Levels& levels ) {
   unsigned mask = 0;
   for( unsigned level = 0; level < levels.size(); ++level ) {
      mask |= levels[ level ] ? 1u << level : 0u;
   }
   return static_cast<Oru::LevelMask>( mask );
}

void requireSame( const Oru::TraceItem& item, const Item& expected, const std::string& text ) {
   FUZZ_REQUIRE( item.text == text );
   FUZZ_REQUIRE( item.pattern == expected.pattern );
   FUZZ_REQUIRE( item.levels == maskOf( expected.levels ) );
   FUZZ_REQUIRE( item.clear == expected.clear );
}

// What is printed reads as the same levels.
void requireReadsBack( Oru::LevelMask levels ) {
   const std::string printed = Oru::levelsText( levels );
   const auto settings = Oru::parseTraceSettings( "Printed/" + printed );
   FUZZ_REQUIRE( ( printed == "-" ) == ( levels == 0 ) );
   FUZZ_REQUIRE( settings.items.size() == ( levels == 0 ? 0 : 1 ) );
   FUZZ_REQUIRE( levels == 0 || settings.items.front().levels == levels );
}

} // namespace

int LLVMFuzzerTestOneInput( const std::uint8_t* data, std::size_t size ) {
   std::string_view text = Fuzz::asText( data, size );
   const std::string_view name = Fuzz::takeLine( text );
   const Oru::TraceSettings settings = Oru::parseTraceSettings( text );
   const Oru::LevelChange change = Oru::levelChange( settings.items, name );

   std::size_t items = 0;
   std::size_t ignored = 0;
   Levels set{};
   Levels cleared{};
   for( std::string given : split( std::string( text ), ',' ) ) {
      given.erase( 0, given.find_first_not_of( blanks ) );
      given.erase( given.find_last_not_of( blanks ) + 1 );
      if( given.empty() ) {
         continue;
      }
      const std::optional<Item> expected = itemOf( given );
      if( !expected ) {
         FUZZ_REQUIRE( ignored < settings.ignored.size() && settings.ignored[ ignored ] == given );
         ++ignored;
         continue;
      }
      FUZZ_REQUIRE( items < settings.items.size() );
      requireSame( settings.items[ items ], *expected, given );
      requireReadsBack( settings.items[ items ].levels );
      ++items;
      if( matches( expected->pattern, name ) ) {
         for( std::size_t level = 0; level < set.size(); ++level ) {
            if( expected->levels[ level ] ) {
               set[ level ] = !expected->clear;
               cleared[ level ] = expected->clear;
            }
         }
      }
   }
   FUZZ_REQUIRE( items == settings.items.size() );
   FUZZ_REQUIRE( ignored == settings.ignored.size() );
   FUZZ_REQUIRE( change.set == maskOf( set ) );
   FUZZ_REQUIRE( change.clear == maskOf( cleared ) );
   return 0;
}
