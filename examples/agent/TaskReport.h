// How the tasks of this agent ran, as its schedulers counted.

#pragma once

#include <iosfwd>

namespace HostAgent {

class Agent;

// Writes a row for each task, those that are gone included, and then one for each queue.
void renderTasks( std::ostream& out, const Agent& agent );

} // namespace HostAgent
