// The agent's command line.

#pragma once

#include "tools/show/ShowRequest.h"

#include <iosfwd>
#include <string>
#include <variant>

namespace HostAgent {

struct Options {
   // By which clients of the show socket find the agent.
   std::string name{ Show::agentNameDefault };
   // How long to run, 0 for until a signal comes.
   double seconds = 10.0;
   // Hours of virtual time to run instead, 0 for real time.
   double fastForwardHours = 0.0;
   // The longest time from the start of one walk to that of the next, and by how much it may be
   // shorter.
   double intervalSeconds = 1.0;
   unsigned jitterPercent = 10;
   // Rows of the top list.
   unsigned top = 10;
   // Whose entries are watched; empty for none.
   std::string watchFolder;
   // Whether the framework's loop runs the agent instead of libevent's.
   bool framework = false;
   // Trace settings, in the syntax of the environment variable TRACE.
   std::string trace;
};

// What the process ends with when the command line asks for no run.
struct ExitCode {
   int value;
};

// Exit codes of the program: for a failure at run time, for a bad command line, and when the user
// has an agent of that name already.
inline constexpr int exitFailure = 1;
inline constexpr int exitUsage = 2;
inline constexpr int exitRunning = 3;

// Reads the command line. Help and version go to `out`; what is wrong goes to `err`, in one line.
std::variant<Options, ExitCode> optionsFromCommandLine( int argc, char const* const* argv,
                                                        std::ostream& out, std::ostream& err );

} // namespace HostAgent
