// How the map of types comes to be.

#pragma once

namespace Quarn::Impl {

// Makes the map, empty; called once, at load time. It is never destroyed: a detached thread may use
// it when the process is about to end.
void makeIntrospectionMap();

} // namespace Quarn::Impl
