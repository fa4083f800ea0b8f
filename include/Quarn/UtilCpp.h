// Utilities of the process level.

#pragma once

#include <Quarn/debug/TraceHandleName.h>
#include <Quarn/util/Hash.h>
#include <Quarn/util/IntrospectionMap.h>
