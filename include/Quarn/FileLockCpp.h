// Locks on files, and who holds them.

#pragma once

#include <Quarn/util/FileLock.h>
