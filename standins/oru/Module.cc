#include <Oru/FwkType.h>

#include <Quarn/base/Exception.h>

#include <algorithm>
#include <list>
#include <mutex>

#include <pthread.h>

namespace Oru {

namespace {

// There are few modules, and look-ups serve operators: no index is worth its keeping.
struct Registry {
   std::mutex mutex;
   std::list<Module> modules; // never removed, so references stay valid
};

// Never destroyed, as threads and destructors of statics may come late.
Registry& registry() {
   static Registry& theRegistry = []() -> Registry& {
      // A child that is forked while another thread looks something up has the mutex free.
      pthread_atfork( [] { registry().mutex.lock(); }, [] { registry().mutex.unlock(); },
                      [] { registry().mutex.unlock(); } );
      return *new Registry;
   }();
   return theRegistry;
}

// The two functions below are called under the mutex.
Module const* moduleOf( std::string_view name ) {
   for( Module const& module : registry().modules ) {
      if( module.name == name ) {
         return &module;
      }
   }
   return nullptr;
}

FwkType const* typeOf( std::string_view name ) {
   for( Module const& module : registry().modules ) {
      for( FwkType const* type : module.types ) {
         if( type->name() == name ) {
            return type;
         }
      }
   }
   return nullptr;
}

// Refuses records of which one name would not find them again.
void checkTypes( Module const& module ) {
   for( FwkType const* const& type : module.types ) {
      if( !type ) {
         Quarn::AssertException::throwException(
               fmt::format( "module {}: a type without a record", module.name ) );
      }
      auto const alike = [ type ]( FwkType const* other ) { return other->name() == type->name(); };
      if( typeOf( type->name() ) ||
          std::any_of( module.types.data(), &type, alike ) ) { // those in front of it
         Quarn::AssertException::throwException(
               fmt::format( "module {}: another type {}", module.name, type->name() ) );
      }
   }
}

} // namespace

void oruModuleIs( Module const& module ) {
   std::lock_guard const guard( registry().mutex );
   if( Module const* known = moduleOf( module.name ) ) {
      if( *known == module ) {
         return;
      }
      Quarn::AssertException::throwException(
            fmt::format( "another module {} is registered", module.name ) );
   }
   checkTypes( module );
   registry().modules.push_back( module );
}

Module const* oruModule( std::string_view name ) {
   std::lock_guard const guard( registry().mutex );
   return moduleOf( name );
}

FwkType const* oruFwkType( std::string_view name ) {
   std::lock_guard const guard( registry().mutex );
   return typeOf( name );
}

} // namespace Oru
