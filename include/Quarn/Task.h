// Tasks and their priorities.

#pragma once

#include <Quarn/fdtask/FileDescriptorTask.h>
#include <Quarn/scheduler/CriticalTask.h>
#include <Quarn/scheduler/Task.h>
#include <Quarn/scheduler/TaskBase.h>
#include <Quarn/scheduler/TaskImpl.h>
#include <Quarn/scheduler/TaskKey.h>
#include <Quarn/scheduler/TaskPriority.h>
#include <Quarn/scheduler/TaskTime.h>
#include <Quarn/timers/TimerTask.h>
