#include "prove/Trial.h"

#include <Quarn/base/Exception.h>

#include <algorithm>
#include <cstdio>
#include <string_view>

namespace prove {

namespace {

constinit char lastFault[ 300 ] = "";

// Whether `text` holds one of those between the bars.
bool holdsOneOf( std::string_view text, std::string_view alternatives ) {
   for( std::size_t at = 0; at <= alternatives.size(); ) {
      const std::size_t end = std::min( alternatives.find( '|', at ), alternatives.size() );
      if( text.find( alternatives.substr( at, end - at ) ) != std::string_view::npos ) {
         return true;
      }
      at = end + 1;
   }
   return false;
}

} // namespace

Fault::Fault( const std::string& what ) : runtime_error( what ) {
   std::snprintf( lastFault, sizeof( lastFault ), "%s", what.c_str() );
}

char const* Fault::last() { return lastFault; }

void Trial::_enters( char const* name, const May& may ) {
   failedHere_ = false;
   std::snprintf( place_.call, sizeof( place_.call ), "%s", name );
   std::snprintf( place_.promise, sizeof( place_.promise ), "%s",
                  may.terminate ? may.terminate : "" );
   place_.mayTerminate = may.terminate != nullptr;
}

void Trial::_failed( Answer answer, const May& may ) {
   std::snprintf( place_.failedCall, sizeof( place_.failedCall ), "%s", place_.call );
   char const* const words = answer == Answer::absorbed ? may.absorb
                             : answer == Answer::fatal  ? may.fatal
                                                        : nullptr;
   std::snprintf( place_.answered, sizeof( place_.answered ), "%s", words ? words : "" );
   place_.mayKeep = may.keep || ( may.keepWhenFatal && answer == Answer::fatal );
}

Answer Trial::_judge( const std::exception& e, const May& may ) const {
   const bool isFatal = dynamic_cast<const Quarn::AssertException*>( &e ) != nullptr;
   if( isFatal && may.fatal && holdsOneOf( e.what(), may.fatal ) ) {
      return Answer::fatal;
   }
   throw Fault( std::string( isFatal ? "fatal: " : "exception: " ) + e.what() );
}

} // namespace prove
