// The two exceptions of the library, and the switch that turns failed assertions into the first.
//
// Both carry a text and nothing else; copying one never throws. They are unrelated, so a handler
// for errors of the environment does not swallow errors of the program.

#pragma once

#include <Quarn/base/Export.h>
#include <Quarn/base/String.h>

#include <exception>

namespace Quarn {

// A rule of the program was broken: an assertion failed. Meant for tests; see throwOnAssertFail().
class QUARN_BASE_API AssertException : public std::exception {
 public:
   AssertException( AssertException const& ) noexcept = default;
   AssertException& operator=( AssertException const& ) noexcept = default;
   ~AssertException() override;

   // Throws an exception with this text, whatever throwOnAssertFail() says.
   [[noreturn]] static void throwException( String const& message );

   // The text, up to its first NUL byte. Valid as long as the exception.
   char const* what() const noexcept override;

 private:
   explicit AssertException( String const& message ) noexcept : message_( message ) {}

   String message_;
};

// Something failed at run time that a caller can handle.
class QUARN_BASE_API RuntimeException : public std::exception {
 public:
   explicit RuntimeException( String const& message ) noexcept : message_( message ) {}
   RuntimeException( RuntimeException const& ) noexcept = default;
   RuntimeException& operator=( RuntimeException const& ) noexcept = default;
   ~RuntimeException() override;

   // Throws an exception with this text.
   [[noreturn]] static void throwException( String const& message );

   // The text, up to its first NUL byte. Valid as long as the exception.
   char const* what() const noexcept override;

 private:
   String message_;
};

// Whether a failed assertion is to throw an AssertException (tests) or to end the process (the
// start value). Read by the code that reports assertions.
//
// Thread: any.
QUARN_BASE_API bool throwOnAssertFail();

// Chooses between the two, for the whole process.
QUARN_BASE_API void throwOnAssertFailIs( bool on );

// The system's text of an errno value; "Unknown error N" for a value it does not know.
//
// Thread: any. Leaves errno as it was.
QUARN_BASE_API String strerror( int error );

} // namespace Quarn
