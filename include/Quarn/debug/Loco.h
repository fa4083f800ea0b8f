// The framework's activity lock, as this library takes it.

#pragma once

#include <Quarn/Export.h>

namespace Quarn::Platform {

struct Loco {
   // Holds the activity lock for its lifetime. The lock is recursive: a thread that has it may take
   // it again.
   class ORUQUARN_API Guard {
    public:
      Guard();
      ~Guard();
      Guard( const Guard& ) = delete;
      Guard& operator=( const Guard& ) = delete;
   };

   // Whether the calling thread holds the activity lock.
   ORUQUARN_API static bool owns_loco();
};

} // namespace Quarn::Platform
