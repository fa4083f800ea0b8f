// The umask of the process, held at 0 while the object lives.

#pragma once

namespace Quarn::Util {

// Put it around one system call that makes a file, and nothing else: there is one umask for all
// threads, so objects wait for each other, and a nested one would wait for ever. Without that two
// threads could take over each other's 0 and leave the process with it.
//
// A process forked meanwhile gets the umask that will be restored. The end of the object leaves
// `errno` alone.
class UmaskZero {
 public:
   UmaskZero();
   ~UmaskZero();
   UmaskZero( const UmaskZero& ) = delete;
   UmaskZero& operator=( const UmaskZero& ) = delete;

 private:
   unsigned int before_;
};

} // namespace Quarn::Util
