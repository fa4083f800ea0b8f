// A library with objects of types of its own, and with the hooks of a heap checker.

#include <typeinfo>

namespace TypenameLibrary {

struct Shape {
   virtual ~Shape() = default;
   virtual int corners() const { return 0; }
};

struct Square : Shape {
   int corners() const override { return 4; }
};

namespace {

// Compilers mark the names of types that are local to a library.
struct Triangle final : Square {
   int corners() const override { return 3; }
};

} // namespace

} // namespace TypenameLibrary

extern "C" __attribute__( ( visibility( "default" ) ) ) void const* testObject( bool local ) {
   static const TypenameLibrary::Square square;
   static const TypenameLibrary::Triangle triangle;
   return local ? static_cast<TypenameLibrary::Shape const*>( &triangle ) : &square;
}

extern "C" __attribute__( ( visibility( "default" ) ) ) char const* testObjectType( bool local ) {
   auto const& object = *static_cast<TypenameLibrary::Shape const*>( testObject( local ) );
   return typeid( object ).name();
}

extern "C" __attribute__( ( visibility( "default" ) ) ) void HeapChecker_RecordClientAlloc() {}
extern "C" __attribute__( ( visibility( "default" ) ) ) void HeapChecker_RecordClientFree() {}
