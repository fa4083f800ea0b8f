// One side at work on one row, in a process of its own: no side finds memory, descriptors or
// threads of another's, and one that takes too long can be ended.

#pragma once

#include "Rows.h"

#include <optional>
#include <vector>

#include <sys/types.h>

namespace bench::peers {

// What a slice was found to cost, by step.
struct Taken {
   // A unit, in nanoseconds.
   double ns = 0;
   double looksPerUnit = 0;
};

// A slice whose budget was over: the step that it was in, and what a unit of that takes at least,
// or 0 when it was none.
struct Overrun {
   std::size_t step;
   double leastNs;
};

class SideProcess {
 public:
   // The first argument of such a process, before the numbers of row and side.
   static constexpr char const option[] = "--side";

   SideProcess( std::size_t row, std::size_t side, std::size_t steps );
   ~SideProcess();
   SideProcess( const SideProcess& ) = delete;
   SideProcess& operator=( const SideProcess& ) = delete;

   // Has it do one slice. Where steps are missing it was ended, and `overrun` says why.
   std::vector<Taken> slice();
   const std::optional<Overrun>& overrun() const { return overrun_; }

   // The life of such a process: does a slice for each byte on its standard input.
   static int serve( const Row& row, const Peer& side );

 private:
   void end();
   // Of the process, since it began.
   Time processorTime() const;

   std::size_t row_;
   std::size_t side_;
   std::size_t steps_;
   pid_t child_ = -1;
   int commands_ = -1;
   int news_ = -1;
   std::optional<Overrun> overrun_;
};

} // namespace bench::peers
