// An exclusive lock on a file, such as keeps a program from running twice.
//
//     Quarn::FileLock lock( handler, "/run/agent", "agent.lock" );
//     if( !lock.lock( true ) ) {
//        const int holder = Quarn::Util::readLockPid( handler, lock.file() );
//        fmt::print( stderr, "process {} runs\n", holder );
//     }
//
// The lock covers the whole file and belongs to the open file (`F_OFD_SETLK`): two `FileLock`s on
// one path exclude each other, in one process as in two, and the system drops the lock when the
// process ends in whatever way. The file itself stays, and its content is not touched. Nothing ever
// waits. Nobody may remove or replace the file while it is in use: the next one would lock another.
//
// A forked child has the parent's lock open too, but only the parent may release it: in the child
// `release` is fatal, and so is the destruction of the object, which ends the process. A child of a
// process that holds a lock in a static object therefore leaves by `_exit`. A program started by
// `exec` does not get the lock.

#pragma once

#include <Quarn/Export.h>
#include <Quarn/base/String.h>
#include <Quarn/debug/Debuggable.h>

namespace Quarn {

// Traces with class "FileLock" on the handler it is given. Not for use by two threads at a time.
class ORUQUARN_API FileLock : public Debuggable {
 public:
   // Names the file; nothing is opened. With the empty directory `fileName` is the whole path, in
   // the current directory.
   //
   // Errors: fatal when `fileName` holds a "/".
   FileLock( Platform::DebugHandler& handler, const String& directory, const String& fileName );

   // Releases a lock that is held; a failure of that ends the process.
   ~FileLock();

   FileLock( const FileLock& ) = delete;
   FileLock& operator=( const FileLock& ) = delete;

   // Takes the lock, at once or not at all. Makes the directory and its parents (mode 0777) and the
   // file (0666, both without umask) when they are missing: anybody on the machine may lock it.
   //
   // In the process that holds it already the answer is true with `allowReentry`; without it the
   // file is opened once more and found locked.
   //
   // Returns whether the lock is held. When it is not, `errno` is EAGAIN for a lock that somebody
   // else holds, and otherwise tells why the file cannot be opened; the state is as before.
   //
   // Errors: fatal when the directory cannot be made or the system fails in another way.
   bool lock( bool allowReentry );

   // Drops the lock.
   //
   // Errors: fatal when it is not held, or was taken by another process, of which this is a child.
   void release();

   // The path of the lock file.
   const String& file() const { return file_; }

 private:
   void _closeFd();

   String directory_;
   String file_;
   int fd_ = -1;
   int ownerPid_ = -1;
};

namespace Util {

// The process that holds a lock on `lockFile`, found by a walk over the descriptors of all
// processes under /proc; 0 when none is found. What cannot be read is passed over.
//
// The path must be absolute and free of symbolic links, as /proc shows it, and the file must not
// have been removed since. Processes of other users may be invisible, which gives 0. A child that a
// holder has forked holds the lock too and may be the one that is found; asked by such a child, the
// answer is itself. The process may have ended by the time the caller looks.
//
// Errors: fatal when /proc cannot be opened ("Couldn't open /proc").
ORUQUARN_API int readLockPid( Platform::DebugHandler& handler, const String& lockFile );

} // namespace Util

} // namespace Quarn
