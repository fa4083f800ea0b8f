#include "examples/agent/ProcText.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <iterator>

namespace HostAgent {

namespace {

// Takes a text apart from its front. Every step says whether it found what it looked for; after one
// that did not, the position means nothing.
class Cursor {
 public:
   explicit Cursor( std::string_view text ) : text_( text ) {}

   bool atEnd() const { return text_.empty(); }

   bool skip( char wanted ) {
      if( text_.empty() || text_.front() != wanted ) {
         return false;
      }
      text_.remove_prefix( 1 );
      return true;
   }

   // A decimal number; fails on a sign and on overflow.
   template<typename Number>
   bool take( Number* number ) {
      if( text_.empty() || text_.front() == '-' ) {
         return false;
      }
      const auto [ end, error ] =
            std::from_chars( text_.data(), text_.data() + text_.size(), *number );
      if( error != std::errc() ) {
         return false;
      }
      text_.remove_prefix( static_cast<std::size_t>( end - text_.data() ) );
      return true;
   }

   // A decimal number with a fraction, or without; no sign, exponent or name of a number.
   bool takeFraction( double* number ) {
      if( text_.empty() || text_.front() < '0' || text_.front() > '9' ) {
         return false;
      }
      const auto [ end, error ] = std::from_chars( text_.data(), text_.data() + text_.size(),
                                                   *number, std::chars_format::fixed );
      if( error != std::errc() ) {
         return false;
      }
      text_.remove_prefix( static_cast<std::size_t>( end - text_.data() ) );
      return true;
   }

   // A decimal number of any length and sign.
   bool skipNumber() {
      skip( '-' );
      const std::size_t digits = std::min( text_.find_first_not_of( "0123456789" ), text_.size() );
      text_.remove_prefix( digits );
      return digits != 0;
   }

   bool takeLetter( char* letter ) {
      if( text_.empty() || ( text_.front() | 0x20 ) < 'a' || ( text_.front() | 0x20 ) > 'z' ) {
         return false;
      }
      *letter = text_.front();
      text_.remove_prefix( 1 );
      return true;
   }

   // The bytes up to the last `end`, which is passed over.
   bool takeToLast( char end, std::string_view* bytes ) {
      const std::size_t size = text_.rfind( end );
      if( size == std::string_view::npos ) {
         return false;
      }
      *bytes = text_.substr( 0, size );
      text_.remove_prefix( size + 1 );
      return true;
   }

 private:
   std::string_view text_;
};

} // namespace

std::optional<ProcStat> parseProcStat( std::string_view text ) {
   Cursor cursor( text );
   ProcStat stat;
   // Nothing but numbers follows the name, so its closing parenthesis is the last one.
   if( !cursor.take( &stat.pid ) || stat.pid <= 0 || !cursor.skip( ' ' ) || !cursor.skip( '(' ) ||
       !cursor.takeToLast( ')', &stat.name ) || !cursor.skip( ' ' ) ||
       !cursor.takeLetter( &stat.state ) ) {
      return std::nullopt;
   }
   std::uint64_t userTicks = 0;
   std::uint64_t systemTicks = 0;
   // Numbered as in proc(5); the name and the state are fields 2 and 3.
   constexpr unsigned lastUsedField = 24;
   unsigned field = 4;
   for( ; cursor.skip( ' ' ); ++field ) {
      bool found = false;
      switch( field ) {
      case 14:
         found = cursor.take( &userTicks );
         break;
      case 15:
         found = cursor.take( &systemTicks );
         break;
      case 22:
         found = cursor.take( &stat.startTicks );
         break;
      case lastUsedField:
         found = cursor.take( &stat.residentPages );
         break;
      default:
         found = cursor.skipNumber();
         break;
      }
      if( !found ) {
         return std::nullopt;
      }
   }
   // Without the newline the last number may be half of one.
   if( field <= lastUsedField || !cursor.skip( '\n' ) || !cursor.atEnd() ||
       __builtin_add_overflow( userTicks, systemTicks, &stat.cpuTicks ) ) {
      return std::nullopt;
   }
   return stat;
}

std::optional<double> parseLoadAverage( std::string_view text ) {
   Cursor cursor( text );
   double minute = 0.0;
   double longer = 0.0;
   // Averages over 1, 5 and 15 minutes, runnable and all threads, and the newest process.
   if( !cursor.takeFraction( &minute ) || !cursor.skip( ' ' ) || !cursor.takeFraction( &longer ) ||
       !cursor.skip( ' ' ) || !cursor.takeFraction( &longer ) || !cursor.skip( ' ' ) ||
       !cursor.skipNumber() || !cursor.skip( '/' ) || !cursor.skipNumber() || !cursor.skip( ' ' ) ||
       !cursor.skipNumber() || !cursor.skip( '\n' ) || !cursor.atEnd() ) {
      return std::nullopt;
   }
   return minute;
}

std::optional<pid_t> parsePid( std::string_view entryName ) {
   Cursor cursor( entryName );
   pid_t pid = 0;
   if( cursor.skip( '0' ) || !cursor.take( &pid ) || !cursor.atEnd() ) {
      return std::nullopt;
   }
   return pid;
}

std::string printable( std::string_view text ) {
   std::string result;
   result.reserve( text.size() );
   for( const char c : text ) {
      if( c == '\\' ) {
         result += "\\\\";
      } else if( c >= 0x20 && c < 0x7f ) {
         result += c;
      } else {
         fmt::format_to( std::back_inserter( result ), "\\x{:02x}",
                         static_cast<unsigned char>( c ) );
      }
   }
   return result;
}

} // namespace HostAgent
