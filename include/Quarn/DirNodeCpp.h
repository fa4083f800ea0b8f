// Directories.

#pragma once

#include <Quarn/util/DirNode.h>
