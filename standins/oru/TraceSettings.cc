#include "TraceSettings.h"

#include <optional>

namespace Oru {

namespace {

constexpr unsigned maxLevel = 15;
constexpr unsigned defaultLevel = 9;

struct Levels {
   LevelMask mask = 0;
   bool exactlyZero = false; // whether `=0` is one of the parts
};

// The levels from low to high, both included, both at most maxLevel.
LevelMask levelRange( unsigned low, unsigned high ) {
   return static_cast<LevelMask>( ( ( 2u << high ) - 1 ) & ~( ( 1u << low ) - 1 ) );
}

std::optional<unsigned> parseLevel( std::string_view text ) {
   if( text.empty() || text.size() > 2 ) {
      return std::nullopt;
   }
   unsigned level = 0;
   for( char const c : text ) {
      if( c < '0' || c > '9' ) {
         return std::nullopt;
      }
      level = level * 10 + static_cast<unsigned>( c - '0' );
   }
   return level <= maxLevel ? std::optional( level ) : std::nullopt;
}

// One part between plus signs: `N`, `N-M`, `=N` or `*`.
std::optional<Levels> parsePart( std::string_view part ) {
   if( part == "*" ) {
      return Levels{ levelRange( 0, maxLevel ) };
   }
   if( part.starts_with( '=' ) ) {
      auto const level = parseLevel( part.substr( 1 ) );
      return level ? std::optional( Levels{ levelRange( *level, *level ), *level == 0 } )
                   : std::nullopt;
   }
   std::size_t const dash = part.find( '-' );
   if( dash == std::string_view::npos ) {
      auto const level = parseLevel( part );
      return level ? std::optional( Levels{ levelRange( 0, *level ) } ) : std::nullopt;
   }
   auto const low = parseLevel( part.substr( 0, dash ) );
   auto const high = parseLevel( part.substr( dash + 1 ) );
   if( !low || !high || *low > *high ) {
      return std::nullopt;
   }
   return Levels{ levelRange( *low, *high ) };
}

std::optional<Levels> parseLevels( std::string_view text ) {
   Levels all;
   for( ;; ) {
      std::size_t const plus = text.find( '+' );
      auto const part = parsePart( text.substr( 0, plus ) );
      if( !part ) {
         return std::nullopt;
      }
      all.mask = static_cast<LevelMask>( all.mask | part->mask );
      all.exactlyZero = all.exactlyZero || part->exactlyZero;
      if( plus == std::string_view::npos ) {
         return all;
      }
      text.remove_prefix( plus + 1 );
   }
}

std::string_view withoutBlanks( std::string_view text ) {
   constexpr std::string_view blanks = " \t\n\v\f\r";
   std::size_t const first = text.find_first_not_of( blanks );
   if( first == std::string_view::npos ) {
      return {};
   }
   return text.substr( first, text.find_last_not_of( blanks ) - first + 1 );
}

std::optional<TraceItem> parseItem( std::string_view text ) {
   TraceItem item;
   item.text = text;
   while( text.starts_with( '-' ) ) {
      item.clear = true;
      text = withoutBlanks( text.substr( 1 ) );
   }

   Levels levels{ levelRange( 0, defaultLevel ) };
   if( std::size_t const slash = text.rfind( '/' ); slash != std::string_view::npos ) {
      auto const given = parseLevels( text.substr( slash + 1 ) );
      if( !given ) {
         return std::nullopt;
      }
      levels = *given;
      text = text.substr( 0, slash );
   }
   if( text.empty() ) {
      return std::nullopt;
   }
   item.pattern = text;
   item.levels = levels.mask;
   // What must be seen stays on unless it is named by itself.
   if( item.clear && !levels.exactlyZero ) {
      item.levels = static_cast<LevelMask>( item.levels & ~1u );
   }
   return item;
}

} // namespace

TraceSettings parseTraceSettings( std::string_view text ) {
   TraceSettings settings;
   while( !text.empty() ) {
      std::size_t const comma = text.find( ',' );
      std::string_view const given = withoutBlanks( text.substr( 0, comma ) );
      text.remove_prefix( comma == std::string_view::npos ? text.size() : comma + 1 );
      if( given.empty() ) {
         continue;
      }
      if( auto item = parseItem( given ) ) {
         settings.items.push_back( std::move( *item ) );
      } else {
         settings.ignored.emplace_back( given );
      }
   }
   return settings;
}

LevelChange levelChange( std::vector<TraceItem> const& items, std::string_view name ) {
   LevelChange change;
   for( TraceItem const& item : items ) {
      if( !wildcardMatches( item.pattern, name ) ) {
         continue;
      }
      LevelMask& into = item.clear ? change.clear : change.set;
      LevelMask& from = item.clear ? change.set : change.clear;
      into = static_cast<LevelMask>( into | item.levels );
      from = static_cast<LevelMask>( from & ~item.levels );
   }
   return change;
}

// When a character fails, only the last star needs to take one more: whatever an earlier star
// could take instead, the last one can take too.
bool wildcardMatches( std::string_view pattern, std::string_view name ) {
   std::size_t p = 0;
   std::size_t n = 0;
   std::size_t lastStar = std::string_view::npos;
   std::size_t starTakesTo = 0;
   while( n < name.size() ) {
      if( p < pattern.size() && pattern[ p ] == '*' ) {
         lastStar = p++;
         starTakesTo = n;
      } else if( p < pattern.size() && ( pattern[ p ] == '?' || pattern[ p ] == name[ n ] ) ) {
         ++p;
         ++n;
      } else if( lastStar != std::string_view::npos ) {
         p = lastStar + 1;
         n = ++starTakesTo;
      } else {
         return false;
      }
   }
   return pattern.find_first_not_of( '*', p ) == std::string_view::npos;
}

std::string levelsText( LevelMask levels ) {
   std::string text;
   auto const has = [ levels ]( unsigned level ) {
      return level <= maxLevel && ( ( levels >> level ) & 1 ) != 0;
   };
   for( unsigned low = 0; low <= maxLevel; ++low ) {
      if( !has( low ) ) {
         continue;
      }
      unsigned high = low;
      while( has( high + 1 ) ) {
         ++high;
      }
      text += text.empty() ? "" : "+";
      text += low == high ? "=" + std::to_string( low )
                          : std::to_string( low ) + '-' + std::to_string( high );
      low = high;
   }
   return text.empty() ? "-" : text;
}

} // namespace Oru
