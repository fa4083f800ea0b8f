// Timers: the timer wheel, and the tasks on it.

#pragma once

#include <Quarn/timers/TimerTask.h>
#include <Quarn/timers/TimerWheel.h>
#include <Quarn/timers/TimerWheelEvent.h>
