// The base library's recorder of backtraces, for code that addresses it by the names of attributes.
//
//     Oru::FwkType const& type = OruQuarn::BacktraceTracker::fwkType();
//     OruQuarn::BacktraceTracker tracker;
//     type.write( &tracker, "enabledIs", true );
//     type.write( &tracker, "backtraceIs", Oru::String( "slow reader" ) );
//     Oru::AttributeValue all = type.read( &tracker, "printAll" );

#pragma once

#include <Quarn/Export.h>

#include <Oru/FwkType.h>

namespace OruQuarn {

// A value without data: there is one recorder in the process, `Quarn::BacktraceTracker`, and every
// value stands for it. The text of a value is empty, and any text is read back as one.
//
// The attributes of its type, in this order, are the recorder's operations of the same names:
// the action "clear", "capacity", "capacityIs", "printAll" (what the recorder prints, as one
// string), "enabled", "enabledIs" and "backtraceIs" (records one under that label).
//
// Thread: any.
struct ORUQUARN_API BacktraceTracker {
   // The type "BacktraceTracker" of the module of that name, registered when the library is loaded.
   static Oru::FwkType const& fwkType();

   friend bool operator==( const BacktraceTracker&, const BacktraceTracker& ) = default;
};

} // namespace OruQuarn
