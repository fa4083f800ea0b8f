// The scenarios of the row on allocation failures.

#pragma once

#include "prove/Trial.h"

#include <span>

namespace prove {

std::span<const Scenario> taskScenarios();
std::span<const Scenario> reportScenarios();
std::span<const Scenario> surroundingScenarios();

} // namespace prove
