// The network interfaces of this host, and how often each went up and down.

#pragma once

#include "examples/agent/LinkMessages.h"

#include <cstdint>
#include <functional>
#include <map>
#include <string>

namespace HostAgent {

// News tell how a link is now, whatever has changed about it, so going up and down shows only by
// comparing with what was known. The first list makes that known and counts nothing. Later ones,
// asked for when news were lost, count what has changed meanwhile, as far as it still shows.
class LinkTable {
 public:
   struct Link {
      std::string name;
      bool up = false;
      std::uint64_t ups = 0;
      std::uint64_t downs = 0;
      // Met since the list began.
      bool met = true;
   };

   // `changed` is called with a link's name whenever one goes up or down; a link that is removed
   // while it is up goes down.
   explicit LinkTable( std::function<void( const std::string& name, bool up )> changed );

   // A list of all links begins, and has come to its end: what it lacks is gone.
   void listBegin();
   void listEnd();

   // Takes a message of kind `link` or `linkGone`.
   void messageIs( const LinkMessage& message );

   // The links that are there, by number.
   const std::map<int, Link>& links() const { return links_; }

   // Of all links, those that are gone included.
   std::uint64_t ups() const { return ups_; }
   std::uint64_t downs() const { return downs_; }

 private:
   void _linkIs( const LinkMessage& message );
   void _linkDel( std::map<int, Link>::iterator link );
   void _upIs( Link& link, bool up );

   std::function<void( const std::string&, bool )> changed_;
   std::map<int, Link> links_;
   // Whether a list has come to its end, so that a link not known is a new one.
   bool complete_ = false;
   std::uint64_t ups_ = 0;
   std::uint64_t downs_ = 0;
};

} // namespace HostAgent
