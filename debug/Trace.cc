#include <Quarn/debug/Trace.h>

#include <iterator>

namespace Quarn {

namespace Impl {

String vtracestr( bool withLocation, char const* className, char const* file, char const* function,
                  int line, fmt::string_view format, fmt::format_args arguments ) {
   // Room for an ordinary line, so that the buffer does not grow.
   std::string text;
   text.reserve( 128 );
   auto out = std::back_inserter( text );
   if( withLocation ) {
      fmt::format_to( out, "{}:{}: ", orNull( file ), line );
   }
   if( className ) {
      if( *className ) {
         fmt::format_to( out, "{}::", className );
      }
      fmt::format_to( out, "{}() ", orNull( function ) );
   }
   fmt::vformat_to( out, format, arguments );
   return String( text );
}

void vfmtrace( const Platform::DebugHandler& handler, unsigned short level, char const* className,
               char const* file, char const* function, int line, fmt::string_view format,
               fmt::format_args arguments ) noexcept {
   dumpDebugMsg( vtracestr( false, className, file, function, line, format, arguments ), level,
                 handler, file, function, line );
}

String vfmthrow( const Platform::DebugHandler& handler, unsigned short level, char const* className,
                 char const* file, char const* function, int line, fmt::string_view format,
                 fmt::format_args arguments ) {
   String message = vtracestr( false, className, file, function, line, format, arguments );
   if( handler.levelEnabled( level ) ) {
      dumpDebugMsg( message, level, handler, file, function, line );
   }
   return message;
}

} // namespace Impl

void dumpDebugMsg( const String& message, unsigned short level,
                   const Platform::DebugHandler& handler, char const* file, char const* function,
                   int line ) noexcept {
   Oru::formatAndWriteTraceString( handler.name(), Impl::orNull( file ), line,
                                   Impl::orNull( function ), message, level );
}

void dumpDebugMsg( const String& message, unsigned short level, const Oru::TraceHandle& handle,
                   char const* file, char const* function, int line ) noexcept {
   Oru::formatAndWriteTraceString( handle.facilityName(), Impl::orNull( file ), line,
                                   Impl::orNull( function ), message, level );
}

} // namespace Quarn
