// The whole scheduler under random operations, compared after each with a naive model.
//
//     std::mt19937_64 random( seed );
//     const auto play = SchedulerPlay::make( random );
//     while( play->operations() < 1000 && play->stepOnce() ) {
//     }
//     if( !play->finish() ) { std::cerr << play->fault(); play->show( std::cerr ); }
//
// A step is an operation from outside: on a task, a timer, a group or the root, or a run. The model
// goes first. Where it runs a body, the operations of the body are drawn, from the model's state at
// that moment, and written to a script with what the model then looks like. The scheduler follows:
// whatever task it runs must be the next of the script, whose operations the body carries out.
//
// The clocks of the process stand still, and the thread has a fresh base, while a play lives; there
// is one at a time.

#pragma once

#include "support/SchedulerModel.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <string>

namespace testing_support {

class SchedulerPlay {
 public:
   // Where the steps come from: any number, each time. Equal numbers make equal plays.
   using Draw = std::function<std::uint64_t()>;
   static std::unique_ptr<SchedulerPlay> make( Draw draw );

   virtual ~SchedulerPlay() = default;

   // Returns false once the two have differed; the play is then only good for its `fault()`, and
   // what is broken may not come down in one piece.
   virtual bool stepOnce() = 0;

   // Lets everything come to rest and takes it down.
   virtual bool finish() = 0;

   // What differed, and the script of the step; empty while nothing does.
   virtual const std::string& fault() const = 0;

   // Writes the last operations from outside.
   virtual void show( std::ostream& out ) const = 0;

   // How many operations, from outside and of bodies, and how many runs were compared.
   virtual std::uint64_t operations() const = 0;
   virtual std::uint64_t runs() const = 0;

   // What the comparison is worth: how often the rarer rules came up.
   virtual const model::Tally& tally() const = 0;
};

} // namespace testing_support
