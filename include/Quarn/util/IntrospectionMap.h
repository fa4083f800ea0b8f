// Functions that render an object as text, found by the name of its type.
//
//     Quarn::IntrospectionMap::insert( "Peer", []( void const* peer ) {
//        return static_cast<Peer const*>( peer )->name();
//     } );

#pragma once

#include <Quarn/Export.h>
#include <Quarn/base/String.h>

namespace Quarn {

// One map in the process, there from load time to the end of the process.
//
// Thread: any; each call holds the framework's activity lock (`Platform::Loco::Guard`), so it may
//         wait for the handler that runs on the framework's loop.
struct ORUQUARN_API IntrospectionMap {
   using Render = String ( * )( void const* );

   // Adds a function. The first one of a name stays: a later one changes nothing.
   //
   // Errors: fatal when `render` is null; std::bad_alloc, without a change.
   static void insert( const String& typeName, Render render );

   // The function of that name, or null.
   static Render lookup( const String& typeName );
};

} // namespace Quarn
