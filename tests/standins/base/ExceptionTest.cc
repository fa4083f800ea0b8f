#include <Quarn/base/Exception.h>

#include <cerrno>
#include <exception>
#include <gtest/gtest.h>
#include <type_traits>

using Quarn::AssertException;
using Quarn::RuntimeException;
using Quarn::String;

static_assert( std::is_nothrow_copy_constructible_v<AssertException> );
static_assert( std::is_nothrow_copy_constructible_v<RuntimeException> );
static_assert( !std::is_convertible_v<String, RuntimeException> );
static_assert( !std::is_base_of_v<AssertException, RuntimeException> );
static_assert( !std::is_base_of_v<RuntimeException, AssertException> );

namespace {

template<class Exception>
std::string whatOf( String const& message ) {
   // The copy outlives the exception that was thrown.
   std::exception_ptr kept;
   try {
      Exception::throwException( message );
   } catch( Exception const& thrown ) {
      kept = std::make_exception_ptr( thrown );
   }
   try {
      std::rethrow_exception( kept );
   } catch( std::exception const& copy ) {
      return copy.what();
   }
}

} // namespace

TEST( ExceptionTest, TheTextIsCarriedInBothAssertModes ) {
   bool const before = Quarn::throwOnAssertFail();
   for( bool const throwing : { false, true } ) {
      Quarn::throwOnAssertFailIs( throwing );
      EXPECT_EQ( Quarn::throwOnAssertFail(), throwing );
      for( char const* const text : { "", "short", "a text that lives on the heap" } ) {
         EXPECT_EQ( whatOf<AssertException>( text ), text );
         EXPECT_EQ( whatOf<RuntimeException>( text ), text );
      }
   }
   Quarn::throwOnAssertFailIs( before );
   EXPECT_STREQ( RuntimeException( "constructed" ).what(), "constructed" );
}

TEST( ExceptionTest, ErrorTextsAreThoseOfTheSystem ) {
   errno = EBUSY;
   EXPECT_EQ( Quarn::strerror( ENOENT ), "No such file or directory" );
   EXPECT_EQ( Quarn::strerror( 123456 ), "Unknown error 123456" );
   EXPECT_EQ( Quarn::strerror( -1 ), "Unknown error -1" );
   EXPECT_EQ( errno, EBUSY );
}
