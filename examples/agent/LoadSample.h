// The load of this host, as seen by samples of /proc/loadavg.

#pragma once

#include <cstdint>
#include <string>

namespace HostAgent {

class LoadSample {
 public:
   explicit LoadSample( const std::string& procFolder );

   // Reads the load once.
   void take();

   // Samples that were read, and those that could not be.
   std::uint64_t taken() const { return taken_; }
   std::uint64_t failed() const { return failed_; }

   // The average over a minute: of the last sample, and the least and the most of all. 0 before the
   // first.
   double last() const { return last_; }
   double least() const { return least_; }
   double most() const { return most_; }

 private:
   std::string path_;
   std::uint64_t taken_ = 0;
   std::uint64_t failed_ = 0;
   double last_ = 0.0;
   double least_ = 0.0;
   double most_ = 0.0;
};

} // namespace HostAgent
