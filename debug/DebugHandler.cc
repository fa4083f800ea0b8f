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

namespace {

// What stands in a slot after its handler was released.
class SilentHandler final : public DebugHandler {
 public:
   SilentHandler() : DebugHandler( "released", nullptr ) {}
   void enabledIs( unsigned short, bool ) override {}
   void dump( DebugStream&, unsigned short, char const*, char const*, int ) const override {}
};

SilentHandler& silentHandler() {
   static SilentHandler* handler = new SilentHandler;
   return *handler;
}

} // namespace

void HandlerSlot::handlerIs( std::shared_ptr<DebugHandler> handler ) {
   const auto* owner = new( owner_ ) std::shared_ptr<DebugHandler>( std::move( handler ) );
   handler_.store( owner->get(), std::memory_order_relaxed );
   levels_.store( ( *owner )->levels(), std::memory_order_relaxed );
}

void HandlerSlot::release() {
   // Readers are sent elsewhere before the memory goes.
   levels_.store( &noLevels, std::memory_order_relaxed );
   handler_.store( &silentHandler(), std::memory_order_relaxed );
   std::launder( reinterpret_cast<std::shared_ptr<DebugHandler>*>( owner_ ) )->~shared_ptr();
}

} // namespace Platform

Debuggable::Debuggable( const std::shared_ptr<Platform::DebugHandler>& handler )
      : handler_( handler ) {}

Debuggable::Debuggable( Platform::DebugHandler& handler )
      : handler_( handler.shared_from_this() ) {}

Debuggable::Debuggable( const String& name, bool removeFacilityOnDestroy )
      : handler_( Platform::getDebugHandler( name, removeFacilityOnDestroy ) ) {}

} // namespace Quarn
