// The platform seam: handlers, controls and their factories, and the event loop.

#pragma once

#include <Quarn/debug/Loco.h>
#include <Quarn/platform/Controls.h>
#include <Quarn/platform/EventBase.h>
#include <Quarn/platform/EventHandlers.h>
#include <Quarn/platform/EventLoop.h>
#include <Quarn/platform/EventPriority.h>
#include <Quarn/platform/Factories.h>
#include <Quarn/platform/TaskControls.h>
#include <Quarn/platform/Time.h>
#include <Quarn/platform/VirtualTime.h>
