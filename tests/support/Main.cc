#include <Quarn/base/Exception.h>

#include <gtest/gtest.h>

int main( int argc, char** argv ) {
   ::testing::InitGoogleTest( &argc, argv );
   GTEST_FLAG_SET( death_test_style, "threadsafe" );
   // An assertion is the expected result of many tests: throw it without a trace line.
   Quarn::throwOnAssertFailIs( true );
   return RUN_ALL_TESTS();
}
