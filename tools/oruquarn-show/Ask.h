// One request to an agent, from finding it to the whole of its answer.

#pragma once

#include "tools/oruquarn-show/Options.h"

#include <string>

namespace OruQuarnShow {

struct Outcome {
   ExitCode code = exitFailure;
   // The report when `code` is `exitAnswered`, else what to tell the user. Any bytes.
   std::string text;
};

// Takes in the whole answer before anything is shown: a reader of ours that waits, a pager for
// example, is not to make the agent wait.
//
// Errors: none thrown but `std::bad_alloc`.
Outcome ask( const Options& options );

} // namespace OruQuarnShow
