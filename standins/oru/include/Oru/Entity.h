// Objects of which the process has one.
//
//     Oru::Ptr<Registry> registry = Oru::Entity::singletonIs<Registry>();
//
// They are found by type name in one table of liboru, so every shared object of the process gets
// the same one. They are never destroyed: code that runs late in exit may still use them.

#pragma once

#include <Oru/Export.h>
#include <Oru/Ptr.h>

#include <typeinfo>

namespace Oru {

struct ORU_API Entity {
   // The T of this process, null while nobody made it.
   //
   // Thread: any.
   template<class T>
   static Ptr<T> singletonExists() {
      return static_cast<T*>( _singletonExists( typeid( T ) ) );
   }

   // The T of this process, made with its default constructor by the first caller. A class with a
   // private constructor befriends Entity.
   //
   // Thread: any. Others wait while a singleton is being made, so the constructor must not wait
   //         for another thread that asks for one; it may ask for singletons itself.
   // Errors: Quarn::AssertException when the constructor of T asks for T.
   template<class T>
   static Ptr<T> singletonIs() {
      return static_cast<T*>(
            _singletonIs( typeid( T ), []() -> PtrInterface* { return new T; } ) );
   }

 private:
   // Plain pointers suffice: the table holds its objects for ever.
   static PtrInterface* _singletonExists( std::type_info const& type );
   static PtrInterface* _singletonIs( std::type_info const& type, PtrInterface* ( *make )() );
};

} // namespace Oru
