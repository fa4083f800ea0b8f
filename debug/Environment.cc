#include <Quarn/debug/Environment.h>

#include <Quarn/base/String.h>

#include <Oru/Entity.h>
#include <Oru/System.h>
#include <Oru/Trace.h>

#include <cstdlib>
#include <iostream>
#include <string>

namespace Quarn::Platform {

namespace {

Oru::Ptr<Oru::TraceFacilityMan> facilityMan() {
   if( auto man = Oru::Entity::singletonExists<Oru::TraceFacilityMan>() ) {
      return man;
   }
   return Oru::Entity::singletonIs<Oru::TraceFacilityMan>();
}

} // namespace

void setupQuarnDebug( char const* spec ) noexcept {
   if( !spec ) {
      return;
   }
   const auto man = facilityMan();
   std::string value = Oru::System::getenv( "TRACE" ).stdString();
   if( !value.empty() ) {
      value += ",";
   }
   value += spec;
   setenv( "TRACE", value.c_str(), 1 );
   Oru::TraceFacilityMan::doReadEnvironment();
}

void clearQuarnDebug( char const* spec ) noexcept {
   if( !spec ) {
      return;
   }
   std::string minus = "-";
   for( char const* c = spec; *c; ++c ) {
      minus += *c;
      if( *c == ',' ) {
         minus += '-';
      }
   }
   setupQuarnDebug( minus.c_str() );
}

void setTraceFormat( char const* format ) noexcept {
   if( !format ) {
      return;
   }
   const auto man = facilityMan();
   setenv( "TRACEFORMAT", format, 1 );
   Oru::TraceFacilityMan::doReadEnvironment();
}

void clearTraceFormat() noexcept {
   setenv( "TRACEFORMAT", "", 1 );
   const auto man = facilityMan();
   Oru::TraceFacilityMan::doReadEnvironment();
}

void dumpQuarnDebugMap() noexcept {
   const auto man = facilityMan();
   for( const String& setting : man->traceSettingSnapshot() ) {
      std::cout << setting << std::endl;
   }
}

} // namespace Quarn::Platform
