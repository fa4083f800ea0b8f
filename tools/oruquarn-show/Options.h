// The client's command line.

#pragma once

#include "tools/show/ShowRequest.h"

#include <iosfwd>
#include <string>
#include <variant>

namespace OruQuarnShow {

// Exit codes of the program. Scripts depend on them; the manual page lists them.
enum ExitCode : int {
   exitAnswered = 0,
   // The agent said no, or its answer broke off.
   exitRefused = 1,
   exitUsage = 2,
   exitNoAgent = 3,
   exitTimeout = 4,
   // Standard output could not be written, or something else of this machine failed.
   exitFailure = 5,
};

struct Options {
   std::string agent{ Show::agentNameDefault };
   Show::Request request;
   // Seconds between two reports, 0 for one report only.
   double watchSeconds = 0.0;
   // Seconds until an answer must be complete.
   double timeoutSeconds = 10.0;
   // Seconds to wait for an agent that is not there yet.
   double waitSeconds = 0.0;
};

// Reads the command line. Help and version go to `out`; what is wrong goes to `err`, in one line.
std::variant<Options, ExitCode> optionsFromCommandLine( int argc, char const* const* argv,
                                                        std::ostream& out, std::ostream& err );

} // namespace OruQuarnShow
