// The rows of the comparison: pieces of work, each for so many tasks, timers or descriptors.

#pragma once

#include "Peer.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace bench::peers {

// Where the measuring process is told what happens.
class Listener {
 public:
   virtual ~Listener() = default;
   // The step begins with so many units to do. The last that is heard of a side that takes too
   // long.
   virtual void begins( std::size_t step, std::int64_t units ) = 0;
   // So many units took the time, and the process looked at its descriptors so often meanwhile.
   virtual void ends( std::size_t step, std::int64_t units, Time time, std::int64_t looks ) = 0;
};

// A row's work on one side, prepared. What it works on stays between slices.
class Work {
 public:
   virtual ~Work() = default;
   // Takes each step at least once.
   virtual void slice( Listener& listener ) = 0;
};

struct Row {
   std::string name;
   std::size_t n;
   std::vector<std::string> steps;
   // How many slices of each side are measured, after one that is not.
   int passes;
   std::function<std::unique_ptr<Work>( const Peer& )> make;
};

std::vector<Row> allRows();

} // namespace bench::peers
