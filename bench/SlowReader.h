// A reader of a pipe that takes its time, in a process of its own: a thread would have the library
// count references with locked instructions, in all figures that follow.

#pragma once

#include <cstddef>
#include <string>

#include <sys/types.h>

namespace bench {

class SlowReader {
 public:
   // `leastBytes` is what must come through the pipe.
   explicit SlowReader( std::size_t leastBytes );
   SlowReader( const SlowReader& ) = delete;
   SlowReader& operator=( const SlowReader& ) = delete;

   // The end to write into, whose owner is the caller.
   int pipe() const { return pipe_; }
   // Waits for the reader to come to the end of the pipe, and fails the program when less has come.
   void finish();

   // The first argument by which this program is the reader, the second being the least number of
   // bytes; and what it does then.
   static constexpr char option[] = "--read-slowly";
   static int read( const std::string& leastBytes );

 private:
   int pipe_ = -1;
   pid_t child_ = -1;
};

} // namespace bench
