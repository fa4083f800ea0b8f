// The umask of the process, held at 0 while the object lives.

#pragma once

namespace Quarn::Util {

// Put it around one system call that makes a file, and nothing else: there is one umask for all
// threads, so objects wait for each other, and a nested one would wait for ever. Without that two
// threads could take over each other's 0 and leave the process with it.
//
// A process forked meanwhile gets the umask that will be restored; one that is made without
// fork(2)'s handlers, as by posix_spawn(3) or popen(3), may get the 0. The end of the object leaves
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

// Opens the file, for this program alone, and makes it with mode 0666 when it is missing. Only the
// making is done without umask, so that what blocks, as a FIFO without a reader, holds nobody up.
//
// Returns what open(2) does.
int openOrMake( char const* path, int flags );

} // namespace Quarn::Util
