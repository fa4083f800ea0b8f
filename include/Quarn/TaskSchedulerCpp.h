// Schedulers, statistics and history.

#pragma once

#include <Quarn/fdtask/FdToStream.h>
#include <Quarn/scheduler/CriticalTask.h>
#include <Quarn/scheduler/TaskGroup.h>
#include <Quarn/scheduler/TaskScheduler.h>
#include <Quarn/scheduler/TaskSchedulerRoot.h>
#include <Quarn/stats/TaskNameRegex.h>
#include <Quarn/stats/TaskSchedulerHistory.h>
#include <Quarn/stats/TaskSchedulerPrintContext.h>
#include <Quarn/stats/TaskSchedulerSnapshot.h>
#include <Quarn/stats/TaskStat.h>
