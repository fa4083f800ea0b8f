#include <Quarn/util/IntrospectionMap.h>

#include <Quarn/base/MemTrack.h>
#include <Quarn/debug/Loco.h>

#include "debug/Handlers.h"
#include "util/IntrospectionMap.h"

#include <unordered_map>

namespace Quarn {

namespace {

constexpr char sourceFile[] = "UtilCpp";

using Entry = std::pair<const String, IntrospectionMap::Render>;
using Map = std::unordered_map<String, IntrospectionMap::Render, std::hash<String>,
                               std::equal_to<String>, Allocator<Entry>>;

constinit Map* theMap = nullptr;

} // namespace

void Impl::makeIntrospectionMap() {
   theMap = new Map;
   theMap->max_load_factor( 1.0 );
}

void IntrospectionMap::insert( const String& typeName, Render render ) {
   if( !render ) {
      QUARN_FAIL_ON( Platform::utilHandler, "IntrospectionMap", "render function of {} is null",
                     typeName );
   }
   const Platform::Loco::Guard guard;
   theMap->emplace( typeName, render );
}

IntrospectionMap::Render IntrospectionMap::lookup( const String& typeName ) {
   const Platform::Loco::Guard guard;
   const auto found = theMap->find( typeName );
   return found == theMap->end() ? nullptr : found->second;
}

} // namespace Quarn
