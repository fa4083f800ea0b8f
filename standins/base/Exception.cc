#include <Quarn/base/Exception.h>

#include <atomic>
#include <cerrno>
#include <cstring>

namespace Quarn {

namespace {

constinit std::atomic<bool> throwOnFail{ false };

} // namespace

AssertException::~AssertException() = default;

void AssertException::throwException( String const& message ) { throw AssertException( message ); }

char const* AssertException::what() const noexcept { return message_.c_str(); }

RuntimeException::~RuntimeException() = default;

void RuntimeException::throwException( String const& message ) {
   throw RuntimeException( message );
}

char const* RuntimeException::what() const noexcept { return message_.c_str(); }

bool throwOnAssertFail() { return throwOnFail.load( std::memory_order_relaxed ); }

void throwOnAssertFailIs( bool on ) { throwOnFail = on; }

String strerror( int error ) {
   int const before = errno;
   char buffer[ 128 ];
   // The GNU form: returns a constant text of its own, or fills the buffer for an unknown value.
   String text( ::strerror_r( error, buffer, sizeof( buffer ) ) );
   errno = before;
   return text;
}

} // namespace Quarn
