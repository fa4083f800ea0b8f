// The text report of a run.

#pragma once

#include <iosfwd>

namespace HostAgent {

class Agent;

// Writes what the agent found, the scheduler's history, and how the agent's tasks ran. The agent's
// run is over. Names of users that were not needed before may be looked up.
void renderReport( std::ostream& out, Agent& agent );

} // namespace HostAgent
