// Virtual time for as long as this object lives.

#pragma once

namespace HostAgent {

// The event loop jumps to its next timer instead of sleeping. Two parties have to know: the loop,
// and the scheduler, which asks the framework's activity manager and then measures quanta on the
// virtual clock as well. The framework's own loop asks that too, so there one switch does.
//
// Thread: the main one.
class FastForward {
 public:
   FastForward();
   ~FastForward();

   FastForward( const FastForward& ) = delete;
   FastForward& operator=( const FastForward& ) = delete;
};

} // namespace HostAgent
