// The debug handler on a trace facility of the framework; what `getDebugHandler` makes.

#pragma once

#include <Quarn/debug/DebugHandler.h>

#include <Oru/Trace.h>

namespace OruQuarn {

class ORUQUARN_API OruDebug final : public Quarn::Platform::DebugHandler, public Oru::TraceHandle {
 public:
   // Finds or creates the facility `name` and holds it for the life of the handler.
   OruDebug( const Quarn::String& name, bool removeFacilityOnDestroy );

   // Asks the framework to forget the facility when the constructor was told so.
   //
   // Errors: a facility that the framework no longer knows is traced at level 0 and ends the
   // process.
   ~OruDebug() override;

   void enabledIs( unsigned short level, bool on ) override;
   void dump( Quarn::Platform::DebugStream& stream, unsigned short level, char const* file,
              char const* function, int line ) const override;

 private:
   OruDebug( Oru::TraceHandle handle, bool removeFacilityOnDestroy );

   bool removeFacilityOnDestroy_;
   Oru::Ptr<Oru::TraceFacility> facility_;
};

} // namespace OruQuarn
