#include "TraceFormat.h"

#include <chrono>
#include <cstdlib>
#include <fmt/format.h>
#include <iterator>

namespace Oru {

namespace {

// By the calendar of the standard library: gmtime_r takes the C library's time zone lock, which a
// forked child may find taken for ever.
void appendUtcTime( std::string& out, timespec const& when ) {
   using namespace std::chrono;
   sys_seconds const seconds{ std::chrono::seconds( when.tv_sec ) };
   sys_days const day = floor<days>( seconds );
   year_month_day const date( day );
   hh_mm_ss const time( seconds - day );
   fmt::format_to( std::back_inserter( out ), "{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:06}Z",
                   int{ date.year() }, unsigned{ date.month() }, unsigned{ date.day() },
                   time.hours().count(), time.minutes().count(), time.seconds().count(),
                   when.tv_nsec / 1000 );
}

void appendLocalTime( std::string& out, timespec const& when ) {
   tm local;
   if( !localtime_r( &when.tv_sec, &local ) ) {
      appendUtcTime( out, when );
      return;
   }
   long const offsetMinutes = std::labs( local.tm_gmtoff ) / 60;
   fmt::format_to( std::back_inserter( out ),
                   "{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:06}{}{:02}{:02}", local.tm_year + 1900L,
                   local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                   when.tv_nsec / 1000, local.tm_gmtoff < 0 ? '-' : '+', offsetMinutes / 60,
                   offsetMinutes % 60 );
}

void appendNumber( std::string& out, long number ) {
   fmt::format_to( std::back_inserter( out ), "{}", number );
}

// False when the letter names no escape; nothing is appended then.
bool appendEscape( std::string& out, char letter, TraceRecord const& record ) {
   switch( letter ) {
   case 'd':
      appendUtcTime( out, record.when );
      return true;
   case 'D':
      appendLocalTime( out, record.when );
      return true;
   case 'P':
      appendEscaped( out, record.program );
      return true;
   case 'p':
      appendNumber( out, record.process );
      return true;
   case 't':
      appendNumber( out, record.thread );
      return true;
   case 'f':
      appendEscaped( out, record.facility );
      return true;
   case 'l':
      appendNumber( out, record.level );
      return true;
   case 'F':
      appendEscaped( out, record.file );
      return true;
   case 'L':
      appendNumber( out, record.line );
      return true;
   case 'n':
      appendEscaped( out, record.function );
      return true;
   case 'm':
      appendEscaped( out, record.message );
      return true;
   case '%':
      out += '%';
      return true;
   default:
      return false;
   }
}

} // namespace

void appendTraceRecord( std::string& out, std::string_view format, TraceRecord const& record ) {
   for( std::size_t i = 0; i < format.size(); ++i ) {
      if( format[ i ] == '%' && i + 1 < format.size() &&
          appendEscape( out, format[ i + 1 ], record ) ) {
         ++i;
      } else {
         out += format[ i ];
      }
   }
}

void appendEscaped( std::string& out, std::string_view text ) {
   constexpr std::string_view hexDigits = "0123456789abcdef";
   for( char const c : text ) {
      auto const byte = static_cast<unsigned char>( c );
      if( byte >= 0x20 && byte != 0x7f ) {
         out += c;
      } else if( c == '\n' ) {
         out += "\\n";
      } else if( c == '\t' ) {
         out += "\\t";
      } else {
         out += "\\x";
         out += hexDigits[ byte >> 4 ];
         out += hexDigits[ byte & 15 ];
      }
   }
}

} // namespace Oru
