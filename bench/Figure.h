// A figure: what one of the library's operations costs, beside the barest way to get the same done.
//
// The two are its sides, "ours" and "floor". A run of the program measures both in several rounds
// and compares the medians; whatever else the machine does meanwhile meets both.

#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace bench {

using Time = std::chrono::duration<double, std::nano>;

// What there is to tell of a side beside its time, by name.
using PlainValues = std::map<std::string, double>;

// What the two sides of a figure work on. Made before the first round of its figure and destroyed
// before the next figure begins.
class Sides {
 public:
   Sides() = default;
   virtual ~Sides() = default;
   Sides( const Sides& ) = delete;
   Sides& operator=( const Sides& ) = delete;

   // Does one slice of a round and returns how long the part took that the figure is about.
   virtual Time ours() = 0;
   virtual Time floor() = 0;

   // Of the last slice. A value may be missing when it cannot be had.
   virtual PlainValues oursPlain() const { return {}; }
   virtual PlainValues floorPlain() const { return {}; }
};

// A plain value of a figure's that is reported, under the figure's name, "_" and its own. It has
// neither ratio nor goal.
struct PlainFigure {
   std::string name;
   std::string unit;
};

struct Figure {
   std::string name;
   // The highest ratio of ours to floor that is promised; none for a figure that only informs.
   std::optional<double> goal;
   // Operations in a slice.
   std::int64_t oursCount;
   std::int64_t floorCount;
   std::function<std::unique_ptr<Sides>()> make;
   // A round takes the sides in so many slices, in turns. Other work on the machine comes and goes
   // in milliseconds and may halve a processor's speed; short slices have both sides meet it alike.
   int slices = 1;
   std::vector<PlainFigure> plain{};
   // The plain figures alone are reported, where the times of the sides say nothing.
   bool plainOnly = false;
};

constexpr int manySlices = 50;

// The real time that `body` takes.
template<typename Body>
Time timed( Body&& body ) {
   const auto begin = std::chrono::steady_clock::now();
   body();
   return std::chrono::steady_clock::now() - begin;
}

// Sides that need no state but what the functions carry.
class PlainSides final : public Sides {
 public:
   PlainSides( std::function<Time()> ours, std::function<Time()> floor )
         : ours_( std::move( ours ) ),
           floor_( std::move( floor ) ) {}

   Time ours() override { return ours_(); }
   Time floor() override { return floor_(); }

 private:
   std::function<Time()> ours_;
   std::function<Time()> floor_;
};

// The figures, in the order of the report.
void taskFigures( std::vector<Figure>& figures );
void timerFigures( std::vector<Figure>& figures );
void timerTaskFigures( std::vector<Figure>& figures );
void wheelFigures( std::vector<Figure>& figures );
void fdFigures( std::vector<Figure>& figures );
void statsFigures( std::vector<Figure>& figures );
void filterFigures( std::vector<Figure>& figures );
void deliveryFigures( std::vector<Figure>& figures );
void pathFigures( std::vector<Figure>& figures );

} // namespace bench
