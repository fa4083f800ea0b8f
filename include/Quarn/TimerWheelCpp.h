// Timers: the timer wheel.

#pragma once

#include <Quarn/timers/TimerWheel.h>
#include <Quarn/timers/TimerWheelEvent.h>
