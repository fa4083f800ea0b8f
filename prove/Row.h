// What the programs of the proof have in common: each makes one row of its table.
//
//     int main( int argc, char** argv ) {
//        return prove::runRow( argc, argv, { 8, "timers", "none early, none lost", 100'000'000 },
//                              []( const prove::Order& order ) {
//                                 ...
//                                 return prove::Outcome{ early + lost == 0, figure };
//                              } );
//     }
//
// The command line is `--count N` (how much of the work; a whole run if not given) and `--seed S`
// (drawn from the clock if not given). The first line of standard output is the command that
// repeats the run, so that a crash has its seed too; the last is the row, one JSON object:
//
//     {"row": 8, "name": "timers", "figure": "...", "goal": "...", "count": N, "ok": true,
//      "repeat": "build/lean/prove/prove_timers --count N --seed S"}

#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace prove {

struct Facts {
   int row;
   char const* name;
   char const* goal;
   // The count of a whole run.
   std::uint64_t wholeCount;
};

struct Order {
   std::uint64_t count;
   std::uint64_t seed;
};

struct Outcome {
   bool ok;
   // For people; what was reached, in the terms of the goal.
   std::string figure;
};

// Runs `body` and writes the row. Returns the exit status: 0 when the goal is met, 1 when it is
// missed or `body` throws, 2 for a bad command line.
//
// The environment variable ORUQUARN_TEST_FRAMEWORK switches to the framework's loop, as it does for
// the tests. Failed assertions are exceptions, which `body` may let out as a fault.
int runRow( int argc, char** argv, const Facts& facts,
            const std::function<Outcome( const Order& )>& body );

// `text` between quotes, as JSON writes it.
std::string jsonText( const std::string& text );

} // namespace prove
