#include "examples/agent/UserNames.h"

#include <fmt/format.h>

#include <cerrno>
#include <vector>

#include <pwd.h>

namespace HostAgent {

Quarn::String UserNames::name( uid_t uid ) {
   if( const auto known = names_.find( uid ); known != names_.end() ) {
      return known->second;
   }
   // An entry that does not fit is asked for again with more room, up to a bound that no sane entry
   // reaches.
   constexpr std::size_t roomMax = std::size_t{ 1 } << 20;
   std::vector<char> room( 1024 );
   passwd entry{};
   passwd* found = nullptr;
   int error = getpwuid_r( uid, &entry, room.data(), room.size(), &found );
   while( error == ERANGE && room.size() < roomMax ) {
      room.resize( room.size() * 2 );
      error = getpwuid_r( uid, &entry, room.data(), room.size(), &found );
   }
   Quarn::String name( found ? found->pw_name : fmt::format( "{}", uid ) );
   // These errors are ways to say that there is no such user; getpwnam(3) lists them.
   const bool settled = error == 0 || error == ENOENT || error == ESRCH || error == EPERM;
   if( settled ) {
      names_.emplace( uid, name );
   }
   return name;
}

} // namespace HostAgent
