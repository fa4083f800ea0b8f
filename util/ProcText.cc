#include "util/ProcText.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <string>

namespace Quarn::ProcText {

namespace {

// Takes the first line, without its newline, off `text`.
std::string_view takeLine( std::string_view& text ) {
   const std::size_t end = text.find( '\n' );
   const std::string_view line = text.substr( 0, end );
   text.remove_prefix( end == std::string_view::npos ? text.size() : end + 1 );
   return line;
}

// Takes the first word off `line`; empty at its end.
std::string_view takeWord( std::string_view& line ) {
   line.remove_prefix( std::min( line.find_first_not_of( ' ' ), line.size() ) );
   const std::string_view word = line.substr( 0, line.find( ' ' ) );
   line.remove_prefix( word.size() );
   return word;
}

} // namespace

StartTime startTime( std::string_view text ) {
   StartTime result;
   const std::size_t nameEnd = text.rfind( ')' );
   if( nameEnd == std::string_view::npos || nameEnd + 1 == text.size() ) {
      return result;
   }
   result.outcome = StartTime::Outcome::noField;
   std::string_view fields = text.substr( nameEnd + 2 );
   while( result.position < StartTime::fieldPosition ) {
      const std::size_t blank = fields.find( ' ' );
      if( blank == std::string_view::npos ) {
         return result;
      }
      fields.remove_prefix( blank + 1 );
      ++result.position;
   }
   result.text = fields.substr( 0, fields.find( ' ' ) );
   if( !result.text.empty() ) {
      result.outcome = StartTime::Outcome::found;
   }
   return result;
}

std::string_view unixInode( std::string_view line ) {
   const std::size_t last = line.rfind( ' ' );
   if( last == std::string_view::npos || last == 0 ) {
      return {};
   }
   const std::size_t before = line.rfind( ' ', last - 1 );
   if( before == std::string_view::npos ) {
      return {};
   }
   return line.substr( before + 1, last - before - 1 );
}

std::uint32_t inodeNumber( std::string_view text ) {
   // strtoul needs the NUL at the end.
   return static_cast<std::uint32_t>( std::strtoul( std::string( text ).c_str(), nullptr, 10 ) );
}

std::string_view title( std::string_view text ) {
   static constexpr std::string_view label = "Name:";
   static constexpr std::string_view white = " \t\n";
   while( !text.empty() ) {
      std::string_view line = takeLine( text );
      const std::size_t at = line.find( label );
      if( at == std::string_view::npos ) {
         continue;
      }
      line.remove_prefix( at + label.size() );
      line.remove_prefix( std::min( line.find_first_not_of( white ), line.size() ) );
      // npos + 1 is 0: nothing is left of a name that is all white.
      return line.substr( 0, line.find_last_not_of( white ) + 1 );
   }
   return {};
}

bool locksNameNobody( std::string_view text ) {
   while( !text.empty() ) {
      // "1: OFDLCK ADVISORY  WRITE -1 fe:00:247498 0 EOF", with "->" after the number of one that
      // waits.
      std::string_view line = takeLine( text );
      std::string_view kind;
      do {
         kind = takeWord( line );
      } while( !kind.empty() && kind != "OFDLCK" );
      takeWord( line );
      takeWord( line );
      if( takeWord( line ) == "-1" ) {
         return true;
      }
   }
   return false;
}

bool locksName( std::string_view text, std::string_view pid ) {
   return text.find( pid ) != std::string_view::npos;
}

bool isLocked( std::string_view text ) {
   return text.find( "OFDLCK" ) != std::string_view::npos ||
          text.find( "POSIX" ) != std::string_view::npos;
}

int pidOf( std::string_view entryName ) {
   const char* const end = entryName.data() + entryName.size();
   int pid = 0;
   const auto [ rest, error ] = std::from_chars( entryName.data(), end, pid );
   return error == std::errc() && rest == end && pid > 0 ? pid : 0;
}

} // namespace Quarn::ProcText
