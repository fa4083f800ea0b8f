// Where the agents of a test keep their locks, removed with the test.

#pragma once

#include "support/TempDir.h"

#include <stdlib.h>

namespace testing_support {

class RuntimeFolder {
 public:
   RuntimeFolder() { setenv( "XDG_RUNTIME_DIR", folder_.path().c_str(), 1 ); }

   std::string path() const { return folder_.path(); }

 private:
   TempDir folder_;
};

} // namespace testing_support
