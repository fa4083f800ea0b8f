#include "tools/oruquarn-show/Paint.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstddef>

namespace OruQuarnShow {

namespace {

constexpr std::string_view bold = "\x1b[1m";
constexpr std::string_view red = "\x1b[31m";
constexpr std::string_view yellow = "\x1b[33m";
constexpr std::string_view green = "\x1b[32m";
constexpr std::string_view plain = "\x1b[0m";

// Where the name column of a table of tasks ends.
constexpr std::string_view afterName = " SP   RunCount";

unsigned char byteAt( std::string_view text, std::size_t i ) {
   return i < text.size() ? static_cast<unsigned char>( text[ i ] ) : 0;
}

bool isContinuation( unsigned char byte ) { return ( byte & 0xC0 ) == 0x80; }

// The length of the character at `i` when a terminal may have it, else 0. U+0080 to U+009F are
// controls, and the second byte's bounds leave out forms too long, surrogates and what is beyond
// the last character (RFC 3629).
std::size_t characterAt( std::string_view text, std::size_t i ) {
   const unsigned char first = byteAt( text, i );
   if( first < 0x80 ) {
      return ( first >= ' ' && first != 0x7F ) || first == '\n' ? 1 : 0;
   }
   const unsigned char second = byteAt( text, i + 1 );
   if( first == 0xC2 ? second < 0xA0 : first < 0xC2 ) {
      return 0;
   }
   if( !isContinuation( second ) || ( first == 0xE0 && second < 0xA0 ) ||
       ( first == 0xED && second > 0x9F ) || ( first == 0xF0 && second < 0x90 ) ||
       ( first == 0xF4 && second > 0x8F ) || first > 0xF4 ) {
      return 0;
   }
   const std::size_t size = first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
   for( std::size_t k = 2; k < size; ++k ) {
      if( !isContinuation( byteAt( text, i + k ) ) ) {
         return 0;
      }
   }
   return size;
}

// The field of that number, counted from 0, of fields with blanks between them.
std::string_view field( std::string_view text, std::size_t number ) {
   std::size_t begin = 0;
   for( ;; ) {
      begin = std::min( text.find_first_not_of( ' ', begin ), text.size() );
      const std::size_t end = std::min( text.find( ' ', begin ), text.size() );
      if( number-- == 0 || end == text.size() ) {
         return text.substr( begin, end - begin );
      }
      begin = end;
   }
}

bool isAboveZero( std::string_view number ) {
   return !number.empty() && number.find_first_not_of( "0123456789" ) == number.npos &&
          number.find_first_not_of( '0' ) != number.npos;
}

// The colour of a row, given what follows its name: a blank, two characters of status, numbers.
std::string_view rowColour( std::string_view columns ) {
   constexpr std::size_t numbersBegin = 3;
   if( columns.size() < numbersBegin ) {
      return {};
   }
   const std::string_view numbers = columns.substr( numbersBegin );
   if( isAboveZero( field( numbers, 5 ) ) ) {
      return red;
   }
   if( isAboveZero( field( numbers, 4 ) ) ) {
      return yellow;
   }
   return columns[ 1 ] == '*' || ( columns[ 2 ] >= 'A' && columns[ 2 ] <= 'Z' )
                ? green
                : std::string_view();
}

void append( std::string& out, std::string_view line, std::string_view colour ) {
   out += colour;
   out += line;
   if( !colour.empty() ) {
      out += plain;
   }
}

} // namespace

std::string printable( std::string_view text ) {
   std::string result = harmless( text );
   std::ranges::replace( result, '\n', '?' );
   return result;
}

std::string harmless( std::string_view text ) {
   std::string result;
   result.reserve( text.size() );
   for( std::size_t i = 0; i < text.size(); ) {
      const std::size_t size = characterAt( text, i );
      if( size == 0 ) {
         result += '?';
         ++i;
      } else {
         result += text.substr( i, size );
         i += size;
      }
   }
   return result;
}

std::string coloured( std::string_view text ) {
   std::string out;
   out.reserve( text.size() + text.size() / 8 );
   // Where the names of the table end, while in one.
   std::size_t nameEnd = std::string_view::npos;
   bool first = true;
   while( !text.empty() ) {
      const std::size_t end = std::min( text.find( '\n' ), text.size() );
      const std::string_view line = text.substr( 0, end );
      text.remove_prefix( end );
      const std::size_t heading =
            line.starts_with( "TaskName" ) ? line.rfind( afterName ) : line.npos;
      if( first || heading != line.npos ) {
         append( out, line, bold );
         nameEnd = heading;
      } else if( nameEnd < line.size() ) {
         append( out, line, rowColour( line.substr( nameEnd ) ) );
      } else {
         out += line;
      }
      first = false;
      if( !text.empty() ) {
         out += '\n';
         text.remove_prefix( 1 );
      }
   }
   return out;
}

std::string withoutLegend( std::string_view text ) {
   const std::size_t begin = text.find( "\n\nSP " );
   const std::size_t end = text.find( "\nTaskName" );
   std::string result( text );
   if( begin != text.npos && end != text.npos && begin < end ) {
      result.erase( begin + 1, end - begin - 1 );
   }
   return result;
}

} // namespace OruQuarnShow
