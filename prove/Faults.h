// A library that stands between a program and the C library and has calls of the system fail.
//
// It is loaded before the C library: by a program that is linked with it first, which sets what is
// to fail with the functions below; or, as LD_PRELOAD, in front of any other program, which is told
// by the environment, a call, an errno and a number:
//
//     PROVE_FAULTS='open:24:1' LD_PRELOAD=libprove_faults.so program
//
// Calls are named as the C library names them; of `fcntl` with the command behind it
// ("fcntl(F_GETFL)"), of `syscall` with the number ("syscall(SYS_kcmp)"), and "write(stderr)" for
// the lines of traces.
//
// Thread: one thread makes the calls that are counted, see `proveFaultsArmed`.

#pragma once

extern "C" {

// An errno, or one of these.
enum : int {
   // The call does nothing and answers 0.
   proveFaultPretend = 0,
   // A write takes half of what it is given.
   proveFaultHalf = -1,
};

// Has the call of that name fail with `error`, from its `nth` on, for so many `times`; "" for none.
// Two calls that stand for each other are joined by a "|". A call that closes something closes it
// all the same.
void proveFaultIs( char const* call, int error, int nth, int times );

// Counts and fails calls of the calling thread from now on, or no longer.
void proveFaultsArmed( bool on );

// Whether everybody may enter network namespaces, and begins in his own: there is none named
// "default", and the first process's may be opened; armed calls of `setns` only note which of the
// two the thread has entered.
void proveNamespacesAreFree( bool on );

// Whether the calling thread is in the first process's namespace, by what was noted.
int proveNamespaceIsLeft( void );

// Whether armed calls read entries of directories without the types of the files.
void proveFileTypesAreUnknown( bool on );

// Whether armed calls find a kernel that does not compare descriptors.
void proveKcmpIsMissing( bool on );

// How many calls have failed since `proveFaultIs`.
int proveFaultHits( void );

// A place in the code that makes a call, by where it returns to.
struct ProveSite {
   void const* at;
   char call[ 32 ];
   bool hasFailed;
};

enum { proveSitesMax = 1000 };

// Of a `count` that is larger, the rest had no room.
struct ProveSites {
   int count;
   ProveSite all[ proveSitesMax ];
};

// Has the places of armed calls noted there. It may be in memory of several processes, one of which
// makes calls at a time.
void proveSitesAre( ProveSites* sites );

} // extern "C"
