// A named debug handler: a thin view onto the framework's trace facility of the same name.
//
// The library traces through seven handlers that exist from load time ("QuarnUtil",
// "QuarnTimerWheel", "TaskScheduler", "QuarnPlugin", "OruQuarn", "QuarnLibevent" and "Assert");
// components make further ones by name. Two handlers of one name share one mask of levels.
//
//     auto handler = Quarn::Platform::getDebugHandler( "MyAgent", false );
//     handler->enabledIs( 5, true );
//     QUARN_FMTRACE( *handler, 5, "Poller", "polled {} peers", count );
//
// Levels 0 to 15 have a meaning: 0 failures that must be seen, 1 errors, 2 notable events,
// 3 unusual but harmless, 5 adapter entry, 7 accounting of runs, 8 scheduling detail,
// 9 construction and destruction. A level above 15 is never enabled.
//
// Thread: handlers are shared between threads. A level test is one relaxed load, so a change made
// by another thread is seen a little later, and a trace racing with it may or may not be written.

#pragma once

#include <Quarn/Export.h>
#include <Quarn/base/String.h>
#include <Quarn/debug/DebugStream.h>

#include <memory>

namespace Quarn::Platform {

class ORUQUARN_API DebugHandler : public std::enable_shared_from_this<DebugHandler> {
 public:
   virtual ~DebugHandler();

   // Switches one level of the facility on or off, for all handlers of its name.
   virtual void enabledIs( unsigned short level, bool on ) = 0;

   // Writes the text of `stream` as one trace line, whatever the mask says. Throws nothing: a line
   // that finds no memory is dropped, and a stream keeps what is thrown into it as its bad bit.
   virtual void dump( DebugStream& stream, unsigned short level, char const* file,
                      char const* function, int line ) const = 0;

   DebugHandler( const DebugHandler& ) = delete;
   DebugHandler& operator=( const DebugHandler& ) = delete;

   // Whether `level` is traced: one load of the mask and one bit test. Callers ask before they
   // format anything.
   bool levelEnabled( unsigned level ) const {
      return level < 16 && ( __atomic_load_n( levels_, __ATOMIC_RELAXED ) >> level & 1 ) != 0;
   }

   // The mask that `levelEnabled` reads; it lives at least as long as the handler.
   unsigned short const* levels() const { return levels_; }

   // The name of the facility.
   const String& name() const { return name_; }

 protected:
   // `levels` is the facility's mask, or null for a facility that offers none: the handler then
   // has nothing enabled.
   DebugHandler( String name, unsigned short const* levels );

 private:
   unsigned short fallbackLevels_ = 0;
   unsigned short const* levels_;
   String name_;
};

// Makes a handler for the facility `name`, which the framework finds or creates.
//
// Every call makes a new handler. With `removeFacilityOnDestroy` its destruction asks the framework
// to forget the facility, which happens when no other handler holds it.
//
// Errors: never throws; a failure ends the process.
ORUQUARN_API std::shared_ptr<DebugHandler> getDebugHandler( const String& name,
                                                            bool removeFacilityOnDestroy ) noexcept;

} // namespace Quarn::Platform
