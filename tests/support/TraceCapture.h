// Standard error of this process, caught while the object lives.

#pragma once

#include <string>

namespace testing_support {

class TraceCapture {
 public:
   TraceCapture();
   ~TraceCapture();
   TraceCapture( const TraceCapture& ) = delete;
   TraceCapture& operator=( const TraceCapture& ) = delete;

   // Everything written so far.
   std::string text() const;

   // How often `needle` occurs in it.
   unsigned count( const std::string& needle ) const;

 private:
   int file_;
   int saved_;
};

} // namespace testing_support
