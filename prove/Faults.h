// A library that stands between a program and the C library and has calls of the system fail.
//
// It is loaded before the C library: by a program that is linked with it first, which sets what is
// to fail with the functions below; or, as LD_PRELOAD, in front of any other program, which is told
// by the environment, a call, an errno and a number:
//
//     PROVE_FAULTS='openat:24:1' LD_PRELOAD=libprove_faults.so program
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

// Whether everybody may enter network namespaces: armed calls find that of this process in place of
// the first process's, and `setns` does nothing.
void proveNamespacesAreFree( bool on );

// How many calls have failed since `proveFaultIs`.
int proveFaultHits( void );

} // extern "C"
