// Names of users.

#pragma once

#include <Quarn/base/String.h>

#include <unordered_map>

#include <sys/types.h>

namespace HostAgent {

// Asks the system's user database once for each number and remembers the answer. A database on
// another machine may take its time over a number's first look-up.
class UserNames {
 public:
   // The user's name, or the number in decimal when the database has none or cannot be asked; the
   // latter is asked again the next time.
   Quarn::String name( uid_t uid );

   // Forgets what it remembers, so that renamed users show by their new names.
   void forget() { names_.clear(); }

 private:
   std::unordered_map<uid_t, Quarn::String> names_;
};

} // namespace HostAgent
