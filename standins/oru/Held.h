// Keeps an object while it is notified.

#pragma once

#include <Oru/Ptr.h>

namespace Oru {

// Null for an object that no Ptr holds, on the stack or part of another one: taking and dropping
// one would delete it.
template<class T>
Ptr<T> held( T& object ) {
   return object.references() != 0 ? &object : nullptr;
}

} // namespace Oru
