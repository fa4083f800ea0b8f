// The library's modules in the framework's registry.

#pragma once

#include <Oru/FwkType.h>

namespace OruQuarn {

Oru::Module systemStatusSmModule();
Oru::Module backtraceTrackerModule();

} // namespace OruQuarn
