#include <Quarn/debug/DebugHandler.h>
#include <Quarn/debug/Debuggable.h>

#include "debug/Handlers.h"

#include <locale>
#include <new>

namespace Quarn {

namespace Platform {

DebugStream::DebugStream() : std::stringstream( std::ios::in | std::ios::out ) {
   imbue( std::locale::classic() );
   precision( 12 );
}

DebugStream::~DebugStream() = default;

DebugHandler::DebugHandler( String name, unsigned short const* levels )
      : levels_( levels ? levels : &fallbackLevels_ ),
        name_( std::move( name ) ) {}

DebugHandler::~DebugHandler() = default;

void HandlerSlot::handlerIs( std::shared_ptr<DebugHandler> handler ) {
   const auto* owner = new( owner_ ) std::shared_ptr<DebugHandler>( std::move( handler ) );
   handler_.store( owner->get(), std::memory_order_relaxed );
   levels_.store( ( *owner )->levels(), std::memory_order_relaxed );
}

void HandlerSlot::release() {
   // The handler itself stays where it is: a detached thread may be in the middle of a trace, and
   // an assertion may still come.
   levels_.store( &noLevels, std::memory_order_relaxed );
}

} // namespace Platform

Debuggable::Debuggable( const std::shared_ptr<Platform::DebugHandler>& handler )
      : handler_( handler ) {}

Debuggable::Debuggable( Platform::DebugHandler& handler )
      : handler_( handler.shared_from_this() ) {}

Debuggable::Debuggable( const String& name, bool removeFacilityOnDestroy )
      : handler_( Platform::getDebugHandler( name, removeFacilityOnDestroy ) ) {}

} // namespace Quarn
