// Trace facilities: named groups of 16 levels, switched one by one while the process runs.
//
// A facility is a name and a mask of levels. Code that traces keeps a TraceHandle, tests the bit
// of its level in the facility's mask and only then formats a line. Level 0 is for what must be
// seen and is on from the start.
//
// TRACE in the environment switches levels on and off: items separated by commas, each
//
//     [-]pattern[/levels]
//
// The pattern matches whole names, `*` any run of characters and `?` one. Levels are parts joined
// by "+": `N` for 0 to N, `N-M`, `=N` for N alone, `*` for all; without them 0 to 9. A leading "-"
// clears what the item would set, but level 0 only where it is written `=0`.
//
//     TRACE='TaskScheduler/8'            levels 0 to 8 of one facility
//     TRACE='Quarn*,-QuarnLibevent'      all that begin with Quarn, but one
//     TRACE='*/1,Lock*/=5'               levels 0 and 1 everywhere, level 5 of the locks as well
//
// Items apply from left to right, to facilities made later too. One that cannot be read is
// ignored, with a line on standard error.
//
// TRACEFORMAT is the layout of a line, `%d %P[%p:%t] %f/%l %m` when unset or empty:
//
//     %d UTC time   %D local time   %P program   %p process   %t thread   %f facility   %l level
//     %F file   %L line   %n function   %m message   %% a per cent sign
//
//     2024-05-01T12:00:00.123456Z agent[712:715] QuarnTimerWheel/8 TimerWheel::timeout() expired
//
// Each line goes to standard error in one write; what the descriptor does not take is dropped.

#pragma once

#include <Oru/Export.h>
#include <Oru/Ptr.h>

#include <Quarn/base/String.h>

#include <iosfwd>
#include <memory>
#include <mutex>
#include <vector>

namespace Oru {

class TraceFacilityMan;

// A named group of trace levels, 0 to 15.
//
// Thread: any. Masks are read and changed without order to other memory: a change is seen soon,
//         not at once.
class ORU_API TraceFacility : public PtrInterface {
 public:
   Quarn::String name() const { return name_; }

   // The mask, bit N for level N, for tests in line. Lives as long as the facility.
   unsigned short* levelsEnabledPtr() { return &levelsEnabled_; }

   // Switches one level; does nothing for a level above 15.
   void levelEnabledIs( unsigned short level, bool enabled );

   // False for a level above 15.
   bool levelEnabled( unsigned short level ) const {
      return level < 16 &&
             ( ( __atomic_load_n( &levelsEnabled_, __ATOMIC_RELAXED ) >> level ) & 1 ) != 0;
   }

 private:
   friend class TraceFacilityMan;
   explicit TraceFacility( Quarn::String const& name ) : name_( name ) {}

   Quarn::String const name_;
   unsigned short levelsEnabled_ = 0x0001;
};

// Holds the facility of a name for as long as some code traces to it.
class ORU_API TraceHandle {
 public:
   // Finds the facility or makes it. The flag has no effect here; the framework's registry of
   // modules looks at it.
   //
   // Thread: any.
   TraceHandle( Quarn::String const& name, bool );

   Ptr<TraceFacility> facility() const { return facility_; }
   Quarn::String facilityName() const { return facility_->name(); }

 private:
   Ptr<TraceFacility> facility_;
};

// The facilities of the process and the settings that apply to them.
//
// Thread: any.
class ORU_API TraceFacilityMan : public PtrInterface {
 public:
   // The only one, also Entity::singletonIs<TraceFacilityMan>(). The first call reads TRACE and
   // TRACEFORMAT.
   static Ptr<TraceFacilityMan> globalTraceFacilityMan();

   // Reads TRACE and TRACEFORMAT again. The new items replace the old ones and apply to the masks
   // as they are: levels that the new items do not name stay as they were.
   //
   // Thread: while no other thread changes the environment.
   static void doReadEnvironment();

   // One string for each facility, by name, with its levels (`TaskScheduler/0-8`, `Assert/=0`,
   // `Lock/0-1+=5`, `Quiet/-` when all are off), then the items of TRACE as they were given.
   std::vector<Quarn::String> traceSettingSnapshot() const;

   // The facility of that name, null when there is none. It is forgotten when the caller is its
   // last user, which is when the caller holds it twice (its handle and one Ptr) and nobody else
   // does: the next handle of that name starts with a fresh mask.
   Ptr<TraceFacility> traceFacilityMaybeDel( Quarn::String const& name );

   // The facility of that name, made if need be: level 0 on, then what TRACE says.
   Ptr<TraceFacility> facilityIs( Quarn::String const& name );

   ~TraceFacilityMan() override;

 private:
   friend struct Entity;
   TraceFacilityMan();
   // Under the lock of the facilities, or while nobody else sees them.
   void _readEnvironment( std::unique_lock<std::mutex> held );

   struct State;
   std::unique_ptr<State> const state_;
};

// Writes the text gathered in a stream as one line of the facility. The caller has tested the
// level. Throws nothing: a line that finds no memory is dropped. `errno` is unchanged.
//
// Thread: any.
ORU_API void traceHelper( TraceFacility& facility, std::stringstream& text, unsigned short level,
                          char const* file, int line, char const* function );

// Writes one line, laid out as TRACEFORMAT says. The caller has tested the level. Bytes below 0x20
// and 0x7f become `\n`, `\t` or `\xNN`, so a message is always one line. Throws nothing; `errno`
// is unchanged.
//
// Units:  time stamps are the wall clock's, to the microsecond.
// Thread: any; takes no lock, except for %D that of the C library's time zone.
ORU_API void formatAndWriteTraceString( Quarn::String const& facility, char const* file, int line,
                                        char const* function, Quarn::String const& message,
                                        unsigned short level );

} // namespace Oru
