#include <Quarn/debug/TraceHandleName.h>

#include <Quarn/util/Hash.h>

#include <fmt/format.h>

#include <string_view>

namespace Quarn::Util {

String traceHandleName( String prefix, const String& path, bool temporary ) {
   std::string_view stripped = path;
   while( !stripped.empty() && stripped.back() == '/' ) {
      stripped.remove_suffix( 1 );
   }
   // npos + 1 is 0: without a "/" the whole path is the base name.
   const std::string_view baseName = stripped.substr( stripped.rfind( '/' ) + 1 );
   return String( fmt::format( "{}{}{}-{}", prefix, temporary ? "Temp-" : "",
                               base64Encode( hash( String( stripped ) ) ), baseName ) );
}

} // namespace Quarn::Util
