// Gathers the rounds of all figures and tells the result: a table of those with two sides, one of
// the plain figures, and a file of both for programs.

#pragma once

#include "Figure.h"

#include <benchmark/benchmark.h>

#include <map>
#include <span>
#include <string>
#include <vector>

namespace bench {

// A benchmark of one round is called "figure/side/round".
constexpr char const oursName[] = "ours";
constexpr char const floorName[] = "floor";

class Report final : public benchmark::BenchmarkReporter {
 public:
   // `figures` must outlive the report. With an empty `jsonFile` none is written.
   Report( std::span<const Figure> figures, std::string jsonFile );

   bool ReportContext( const Context& context ) override;
   void ReportRuns( const std::vector<Run>& runs ) override;
   void Finalize() override;

   // Whether the file was written, or none was asked for.
   bool written() const { return written_; }

 private:
   // A value for each round.
   struct Rounds {
      std::vector<double> ours;
      std::vector<double> floor;
   };
   // A plain figure that has values.
   struct Plain {
      std::string name;
      std::string unit;
      const Rounds& rounds;
   };

   void _writeTable();
   void _writePlainTable();
   void _writeJson();
   std::vector<Plain> _plain() const;

   std::span<const Figure> figures_;
   std::string jsonFile_;
   // Nanoseconds for one operation.
   std::map<std::string, Rounds, std::less<>> rounds_;
   // By the plain figure's full name, in its unit.
   std::map<std::string, Rounds, std::less<>> plainRounds_;
   bool written_ = true;
};

} // namespace bench
