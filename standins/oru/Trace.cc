#include <Oru/Trace.h>

#include "TraceFormat.h"
#include "TraceSettings.h"

#include <Oru/Allocator.h>
#include <Oru/Entity.h>
#include <Oru/GuardedWrite.h>
#include <Oru/System.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <ctime>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <pthread.h>
#include <sstream>
#include <string>
#include <string_view>
#include <unistd.h>
#include <utility>

namespace Oru {

namespace {

// The layout in force; null until the manager is made. The manager keeps every layout it ever
// read, so that a line is written without a lock, in a forked child too.
constinit std::atomic<std::string const*> currentFormat{ nullptr };

// What standard error does not take is dropped.
void writeLine( std::string const& line ) {
   while( guardedWrite( STDERR_FILENO, line.data(), line.size() ) == -EINTR ) {
   }
}

void writeIgnoredItem( std::string_view item ) {
   std::string line = "TRACE: ignored item '";
   appendEscaped( line, item );
   line += "'\n";
   writeLine( line );
}

// The two have no level in common, so no reader sees a level on that ends up off, or off that ends
// up on.
void apply( LevelChange change, unsigned short* mask ) {
   __atomic_fetch_and( mask, static_cast<unsigned short>( ~change.clear ), __ATOMIC_RELAXED );
   __atomic_fetch_or( mask, change.set, __ATOMIC_RELAXED );
}

std::string_view viewOf( char const* text ) { return text ? text : std::string_view(); }

std::string_view formatInForce() {
   std::string const* format = currentFormat.load( std::memory_order_acquire );
   if( !format ) {
      TraceFacilityMan::globalTraceFacilityMan();
      format = currentFormat.load( std::memory_order_acquire );
   }
   // Null only for a line written while the manager is being made.
   return format ? std::string_view( *format ) : defaultTraceFormat;
}

// Fills in time, process and thread; the thread is asked for each time, as it changes with fork.
void writeRecord( TraceRecord& record ) noexcept {
   int const savedErrno = errno;
   try {
      clock_gettime( CLOCK_REALTIME, &record.when );
      record.program = viewOf( program_invocation_short_name );
      record.process = getpid();
      record.thread = gettid();
      std::string line;
      line.reserve( 128 + record.message.size() );
      appendTraceRecord( line, formatInForce(), record );
      line += '\n';
      writeLine( line );
   } catch( ... ) {
      // No memory: the line is lost, what the caller is at is not.
   }
   errno = savedErrno;
}

} // namespace

struct TraceFacilityMan::State {
   using Entry = std::pair<Quarn::String const, Ptr<TraceFacility>>;

   mutable std::mutex mutex;
   std::map<Quarn::String, Ptr<TraceFacility>, std::less<>, Allocator<Entry>> facilities;
   std::vector<TraceItem> items;
   std::list<std::string> formats; // all that were ever in force
};

void TraceFacility::levelEnabledIs( unsigned short level, bool enabled ) {
   if( level > 15 ) {
      return;
   }
   auto const bit = static_cast<unsigned short>( 1u << level );
   if( enabled ) {
      __atomic_fetch_or( &levelsEnabled_, bit, __ATOMIC_RELAXED );
   } else {
      __atomic_fetch_and( &levelsEnabled_, static_cast<unsigned short>( ~bit ), __ATOMIC_RELAXED );
   }
}

TraceHandle::TraceHandle( Quarn::String const& name, bool )
      : facility_( TraceFacilityMan::globalTraceFacilityMan()->facilityIs( name ) ) {}

namespace {

// The mutex of the only manager, for the functions around a fork.
constinit std::mutex* managerMutex = nullptr;

} // namespace

TraceFacilityMan::TraceFacilityMan() : state_( std::make_unique<State>() ) {
   // A child that is forked while another thread makes a handler can make its own.
   managerMutex = &state_->mutex;
   pthread_atfork( [] { managerMutex->lock(); }, [] { managerMutex->unlock(); },
                   [] { managerMutex->unlock(); } );
   // Nobody else sees this object yet, so no lock is taken: the table of singletons is locked here,
   // and around a fork the two locks are taken in the other order.
   _readEnvironment( {} );
}

TraceFacilityMan::~TraceFacilityMan() = default;

Ptr<TraceFacilityMan> TraceFacilityMan::globalTraceFacilityMan() {
   return Entity::singletonIs<TraceFacilityMan>();
}

void TraceFacilityMan::doReadEnvironment() {
   if( Ptr<TraceFacilityMan> const manager = Entity::singletonExists<TraceFacilityMan>() ) {
      manager->_readEnvironment( std::unique_lock( manager->state_->mutex ) );
   } else {
      // Reads it while it is made.
      globalTraceFacilityMan();
   }
}

void TraceFacilityMan::_readEnvironment( std::unique_lock<std::mutex> ) {
   TraceSettings settings = parseTraceSettings( System::getenv( "TRACE" ) );
   for( std::string const& item : settings.ignored ) {
      writeIgnoredItem( item );
   }
   Quarn::String const given = System::getenv( "TRACEFORMAT" );
   std::string_view const format = given.empty() ? defaultTraceFormat : std::string_view( given );

   state_->items = std::move( settings.items );
   for( auto const& [ name, facility ] : state_->facilities ) {
      apply( levelChange( state_->items, name ), facility->levelsEnabledPtr() );
   }
   auto known = std::find( state_->formats.begin(), state_->formats.end(), format );
   if( known == state_->formats.end() ) {
      known = state_->formats.emplace( known, format );
   }
   currentFormat.store( &*known, std::memory_order_release );
}

std::vector<Quarn::String> TraceFacilityMan::traceSettingSnapshot() const {
   std::lock_guard const guard( state_->mutex );
   std::vector<Quarn::String> lines;
   lines.reserve( state_->facilities.size() + state_->items.size() );
   for( auto const& [ name, facility ] : state_->facilities ) {
      LevelMask const mask = __atomic_load_n( facility->levelsEnabledPtr(), __ATOMIC_RELAXED );
      lines.push_back( name + "/" + levelsText( mask ) );
   }
   for( TraceItem const& item : state_->items ) {
      lines.emplace_back( item.text );
   }
   return lines;
}

Ptr<TraceFacility> TraceFacilityMan::traceFacilityMaybeDel( Quarn::String const& name ) {
   std::lock_guard const guard( state_->mutex );
   auto const found = state_->facilities.find( name );
   if( found == state_->facilities.end() ) {
      return nullptr;
   }
   // The map's one and the caller's two. Under the lock nobody gets another through the map, and
   // only the caller could copy one of his.
   bool const callerIsLastUser = found->second->references() == 3;
   Ptr<TraceFacility> facility = found->second;
   if( callerIsLastUser ) {
      state_->facilities.erase( found );
   }
   return facility;
}

Ptr<TraceFacility> TraceFacilityMan::facilityIs( Quarn::String const& name ) {
   std::lock_guard const guard( state_->mutex );
   Ptr<TraceFacility>& facility = state_->facilities[ name ];
   if( !facility ) {
      facility = new TraceFacility( name );
      apply( levelChange( state_->items, name ), facility->levelsEnabledPtr() );
   }
   return facility;
}

void traceHelper( TraceFacility& facility, std::stringstream& text, unsigned short level,
                  char const* file, int line, char const* function ) {
   Quarn::String const name = facility.name();
   TraceRecord record;
   record.facility = name;
   record.level = level;
   record.file = viewOf( file );
   record.line = line;
   record.function = viewOf( function );
   record.message = text.view();
   writeRecord( record );
}

void formatAndWriteTraceString( Quarn::String const& facility, char const* file, int line,
                                char const* function, Quarn::String const& message,
                                unsigned short level ) {
   TraceRecord record;
   record.facility = facility;
   record.level = level;
   record.file = viewOf( file );
   record.line = line;
   record.function = viewOf( function );
   record.message = message;
   writeRecord( record );
}

} // namespace Oru
