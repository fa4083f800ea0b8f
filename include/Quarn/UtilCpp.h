// Utilities of the process level.

#pragma once

#include <Quarn/debug/TraceHandleName.h>
#include <Quarn/util/Files.h>
#include <Quarn/util/Hash.h>
#include <Quarn/util/HeapChecker.h>
#include <Quarn/util/Hex.h>
#include <Quarn/util/IntrospectionMap.h>
#include <Quarn/util/Process.h>
#include <Quarn/util/Sensitive.h>
#include <Quarn/util/Socket.h>
