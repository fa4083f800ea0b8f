#include "tools/show/ShowRequest.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace Show {

namespace {

constexpr std::array<std::string_view, 3> kinds = { "text", "json", "history" };

constexpr std::string_view okWord = "ok ";
constexpr std::string_view errorWord = "error: ";
// What POSIX promises of every pipe, PIPE_BUF, is 512.
constexpr std::size_t errorLineMax = 512;

constexpr std::string_view notUnderstood =
      "the request is not understood (KIND [all] [completed] [match REGEX])";

// Whether the next word of `rest`, with the blank in front, is this one; if so it is taken away.
bool takeWord( std::string_view& rest, std::string_view word ) {
   if( !rest.starts_with( word ) || ( rest.size() > word.size() && rest[ word.size() ] != ' ' ) ) {
      return false;
   }
   rest.remove_prefix( word.size() );
   return true;
}

Answer textAnswer( std::string_view bytes ) {
   const auto end = bytes.find( '\n' );
   if( !bytes.starts_with( okWord ) || end == bytes.npos ) {
      return {};
   }
   std::size_t size = 0;
   char const* const digitsEnd = bytes.data() + end;
   const auto [ stop, error ] = std::from_chars( bytes.data() + okWord.size(), digitsEnd, size );
   const std::string_view text = bytes.substr( end + 1 );
   if( error != std::errc() || stop != digitsEnd || text.size() != size ) {
      return {};
   }
   return { Answer::State::whole, text };
}

bool isWholeJson( std::string_view bytes ) {
   std::size_t depth = 0;
   bool inString = false;
   for( std::size_t i = 0; i < bytes.size(); ++i ) {
      const char c = bytes[ i ];
      if( inString ) {
         if( c == '\\' ) {
            ++i;
         } else if( c == '"' ) {
            inString = false;
         }
      } else if( c == '"' ) {
         inString = true;
      } else if( c == '{' ) {
         ++depth;
      } else if( c == '}' && ( depth == 0 || --depth == 0 ) ) {
         return depth == 0 && bytes.front() == '{' && i + 1 == bytes.size();
      }
   }
   return false;
}

} // namespace

std::string_view kindText( Kind kind ) { return kinds[ static_cast<std::size_t>( kind ) ]; }

std::optional<Kind> kindOf( std::string_view text ) {
   const auto found = std::ranges::find( kinds, text );
   if( found == kinds.end() ) {
      return std::nullopt;
   }
   return static_cast<Kind>( found - kinds.begin() );
}

std::string formatRequest( const Request& request ) {
   std::string record( kindText( request.kind ) );
   if( request.all ) {
      record += " all";
   }
   if( request.completed ) {
      record += " completed";
   }
   if( !request.match.empty() ) {
      record += " match ";
      record += request.match;
   }
   return record;
}

std::variant<Request, std::string_view> parseRequest( std::string_view record ) {
   if( record.size() > requestSizeMax ) {
      return "the request is too long";
   }
   const auto kindEnd = std::min( record.find( ' ' ), record.size() );
   const auto kind = kindOf( record.substr( 0, kindEnd ) );
   if( !kind || record.find( '\0' ) != record.npos ) {
      return notUnderstood;
   }
   Request request;
   request.kind = *kind;
   constexpr std::string_view match = " match ";
   for( std::string_view rest = record.substr( kindEnd ); !rest.empty(); ) {
      if( !request.all && takeWord( rest, " all" ) ) {
         request.all = true;
      } else if( !request.completed && takeWord( rest, " completed" ) ) {
         request.completed = true;
      } else if( rest.starts_with( match ) && rest.size() > match.size() ) {
         request.match = rest.substr( match.size() );
         rest = {};
      } else {
         return notUnderstood;
      }
   }
   return request;
}

std::string answerHead( std::size_t size ) {
   return std::string( okWord ) + std::to_string( size ) + '\n';
}

std::string answerError( std::string_view reason ) {
   std::string line( errorWord );
   line += reason.substr( 0, errorLineMax - errorWord.size() - 1 );
   std::ranges::replace_if(
         line, []( char c ) { return c < ' ' || c > '~'; }, '?' );
   return line + '\n';
}

Answer parseAnswer( Kind kind, std::string_view bytes ) {
   if( bytes.starts_with( errorWord ) ) {
      const std::string_view reason = bytes.substr( errorWord.size() );
      const auto end = reason.find( '\n' );
      return end + 1 == reason.size() && end != reason.npos
                   ? Answer{ Answer::State::refused, reason.substr( 0, end ) }
                   : Answer{};
   }
   if( kind != Kind::json ) {
      return textAnswer( bytes );
   }
   return isWholeJson( bytes ) ? Answer{ Answer::State::whole, bytes } : Answer{};
}

bool agentNameValid( std::string_view name ) {
   constexpr std::string_view allowed =
         "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-";
   return !name.empty() && name.size() <= 64 && name.front() != '-' &&
          name.find_first_not_of( allowed ) == name.npos;
}

std::string socketName( std::string_view agent ) { return "oruquarn-show/" + std::string( agent ); }

} // namespace Show
