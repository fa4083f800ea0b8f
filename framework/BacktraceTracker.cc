#include <OruQuarn/BacktraceTracker.h>

#include <Quarn/base/BacktraceTracker.h>

#include "framework/Modules.h"

#include <optional>
#include <sstream>

namespace OruQuarn {

namespace {

using Recorder = Quarn::BacktraceTracker;

Oru::String printed() {
   std::ostringstream out;
   Recorder::printAll( out );
   return std::move( out ).str();
}

} // namespace

Oru::FwkType const& BacktraceTracker::fwkType() {
   static Oru::FwkType const& type =
         Oru::FwkTypeOf<BacktraceTracker>( "BacktraceTracker" )
               .action( "clear", &Recorder::clear )
               .read<std::uint32_t>( "capacity", &Recorder::capacity )
               .write<std::uint32_t>( "capacityIs", &Recorder::capacityIs )
               .read<Oru::String>( "printAll", &printed )
               .read<bool>( "enabled", &Recorder::enabled )
               .write<bool>( "enabledIs", &Recorder::enabledIs )
               .write<Oru::String>( "backtraceIs", &Recorder::backtraceIs )
               .text( []( const BacktraceTracker& ) { return ""; },
                      []( const Oru::String& ) { return std::optional( BacktraceTracker() ); } )
               .made();
   return type;
}

Oru::Module backtraceTrackerModule() {
   return { "BacktraceTracker", { &BacktraceTracker::fwkType() } };
}

} // namespace OruQuarn
