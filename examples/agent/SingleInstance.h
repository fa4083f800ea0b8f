// One agent of a name for each user: a lock that is held for as long as the agent runs.
//
// The lock file is NAME.lock in a folder of the user's own, "oruquarn-UID" in XDG_RUNTIME_DIR, or
// in /tmp where that is unset or of no use (it may be another user's, as after `su`). The folder is
// made with access for the user alone, and one that belongs to somebody else, that others may write
// to, or that is a symbolic link is refused: in /tmp anybody could have laid it there, to hold the
// lock or to have the file made elsewhere. The file stays behind; removing it would let a third
// agent lock a new one while a second waits with the old one open.

#pragma once

#include <Quarn/FileLockCpp.h>

#include <string>

#include <sys/types.h>

namespace HostAgent {

class SingleInstance {
 public:
   // Takes the lock of that name, a valid one of an agent.
   //
   // Errors: an exception when there is no folder for the file, or it cannot be opened.
   explicit SingleInstance( const std::string& agentName );

   // Whether no other process has the lock.
   bool held() const { return held_; }

   // Who has it instead; 0 when that cannot be seen.
   pid_t otherPid() const { return otherPid_; }

   std::string lockFile() const { return lock_.file().stdString(); }

 private:
   Quarn::FileLock lock_;
   bool held_;
   pid_t otherPid_ = 0;
};

} // namespace HostAgent
