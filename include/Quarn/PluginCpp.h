// Plugins, and the counters that one of them keeps.

#pragma once

#include <Quarn/platform/Counters.h>
#include <Quarn/platform/Plugin.h>
