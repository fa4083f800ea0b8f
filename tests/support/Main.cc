#include <Quarn/base/Exception.h>
#include <Quarn/base/ThreadControl.h>

#include <gtest/gtest.h>

#include <cstdlib>

int main( int argc, char** argv ) {
   ::testing::InitGoogleTest( &argc, argv );
   GTEST_FLAG_SET( death_test_style, "threadsafe" );
   // An assertion is the expected result of many tests: throw it without a trace line.
   Quarn::throwOnAssertFailIs( true );
   // The same tests on the framework's loop.
   if( std::getenv( "ORUQUARN_TEST_FRAMEWORK" ) ) {
      Quarn::hasThreadLocalSingletonsIs( false );
   }
   return RUN_ALL_TESTS();
}
