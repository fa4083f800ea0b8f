#include <Quarn/debug/Loco.h>

#include <Oru/ActivityLock.h>

namespace Quarn::Platform {

Loco::Guard::Guard() { Oru::ActivityLock::lock().acquire(); }

Loco::Guard::~Guard() { Oru::ActivityLock::lock().release(); }

bool Loco::owns_loco() { return Oru::ActivityLock::lock().ownedByThisThread(); }

} // namespace Quarn::Platform
