#include "prove/Trial.h"

#include <Quarn/base/Exception.h>

#include <cstdio>
#include <cstring>

namespace prove {

void Trial::_enters( char const* name, const May& may ) {
   failedHere_ = false;
   std::snprintf( place_.call, sizeof( place_.call ), "%s", name );
   std::snprintf( place_.promise, sizeof( place_.promise ), "%s",
                  may.terminate ? may.terminate : "" );
   place_.mayTerminate = may.terminate != nullptr;
   mayKeep_ = may.keep != nullptr;
}

void Trial::_failed() {
   std::snprintf( place_.failedCall, sizeof( place_.failedCall ), "%s", place_.call );
   place_.mayKeep = mayKeep_;
}

Answer Trial::_judge( const std::exception& e, const May& may ) const {
   const bool isFatal = dynamic_cast<const Quarn::AssertException*>( &e ) != nullptr;
   if( isFatal && may.fatal && std::strstr( e.what(), may.fatal ) ) {
      return Answer::fatal;
   }
   throw Fault( std::string( isFatal ? "fatal: " : "exception: " ) + e.what() );
}

} // namespace prove
