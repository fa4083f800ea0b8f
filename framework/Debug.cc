#include <OruQuarn/OruDebug.h>

#include <Quarn/base/MemTrack.h>

#include "debug/Handlers.h"

namespace OruQuarn {

OruDebug::OruDebug( const Quarn::String& name, bool removeFacilityOnDestroy )
      : OruDebug( Oru::TraceHandle( name, false ), removeFacilityOnDestroy ) {}

OruDebug::OruDebug( Oru::TraceHandle handle, bool removeFacilityOnDestroy )
      : DebugHandler( handle.facilityName(), handle.facility()->levelsEnabledPtr() ),
        Oru::TraceHandle( std::move( handle ) ),
        removeFacilityOnDestroy_( removeFacilityOnDestroy ),
        facility_( facility() ) {}

OruDebug::~OruDebug() {
   if( removeFacilityOnDestroy_ &&
       !Oru::TraceFacilityMan::globalTraceFacilityMan()->traceFacilityMaybeDel( name() ) ) {
      Quarn::Impl::dieAt( { "OruDebug", "Debug", "~OruDebug", 39 },
                          "facility for name:{} should not be null", name() );
   }
}

void OruDebug::enabledIs( unsigned short level, bool on ) {
   facility()->levelEnabledIs( level, on );
}

void OruDebug::dump( Quarn::Platform::DebugStream& stream, unsigned short level, char const* file,
                     char const* function, int line ) const {
   // The framework takes the line before the function.
   Oru::traceHelper( *facility(), stream, level, file, line, function );
}

} // namespace OruQuarn

namespace Quarn::Platform {

std::shared_ptr<DebugHandler> getDebugHandler( const String& name,
                                               bool removeFacilityOnDestroy ) noexcept {
   return std::allocate_shared<OruQuarn::OruDebug>( Allocator<OruQuarn::OruDebug>(), name,
                                                    removeFacilityOnDestroy );
}

} // namespace Quarn::Platform
