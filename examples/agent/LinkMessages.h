// What the kernel says about network interfaces, taken from the bytes of a route socket.
//
// rtnetlink(7) and netlink(7) describe the format. The parser takes any bytes and reads nothing but
// them: parts that are not the format are counted and give no message.

#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace HostAgent {

struct LinkMessage {
   enum class Kind {
      link,     // a link is there, new or changed
      linkGone, // a link is there no longer
      listEnd,  // the list that was asked for is at its end
      refused,  // the list that was asked for does not come
   };

   Kind kind = Kind::link;
   // Of a list rather than news.
   bool listed = false;
   // The list changed while it was written and may lack a link.
   bool listInterrupted = false;
   // The link's number, unique while it exists.
   int index = 0;
   // Switched on, and able to carry traffic.
   bool up = false;
   // Empty in the rare message that names its link by number only.
   std::string name;
   // Why the list was refused, as an errno value.
   int error = 0;
};

struct LinkMessages {
   std::vector<LinkMessage> messages;
   std::uint64_t malformed = 0;
};

// Parses what one read has brought. Lengths that lie end the parsing of what they are the length
// of: an attribute's that of its message, a message's all of it.
LinkMessages parseLinkMessages( std::span<const std::byte> bytes );

} // namespace HostAgent
