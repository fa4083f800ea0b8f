// Diagnostics: debug handlers, traces, assertions and their switches.

#pragma once

#include <Quarn/debug/Assert.h>
#include <Quarn/debug/DebugHandler.h>
#include <Quarn/debug/DebugStream.h>
#include <Quarn/debug/Debuggable.h>
#include <Quarn/debug/Environment.h>
#include <Quarn/debug/Trace.h>
#include <Quarn/debug/TraceHandleName.h>
