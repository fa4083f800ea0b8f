#include <Oru/Rdtsc.h>
#include <Oru/System.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

namespace {

using Oru::System;

double wallTime() {
   timespec now;
   clock_gettime( CLOCK_REALTIME, &now );
   return static_cast<double>( now.tv_sec * 1'000'000'000 + now.tv_nsec ) / 1e9;
}

double manualNow = 0;
double manualOffset = 0;

class SystemTest : public testing::Test {
 protected:
   ~SystemTest() override {
      System::clockFnIs( nullptr );
      System::currentTimeOffsetFnIs( nullptr );
   }
};

TEST_F( SystemTest, StartsAtTheWallTime ) {
   double const before = wallTime();
   double const now = System::currentTime();
   EXPECT_LE( before, now );
   EXPECT_LE( now, wallTime() );
}

TEST_F( SystemTest, NeverGoesBack ) {
   double last = System::currentTime();
   double const first = last;
   while( last == first ) { // until the clock has moved at all
      last = System::currentTime();
   }
   for( int i = 0; i < 100000; ++i ) {
      double const now = System::currentTime();
      ASSERT_LE( last, now );
      last = now;
   }
}

TEST_F( SystemTest, ManualClockReplacesTheRealOneAndTheOffsetIsAddedToBoth ) {
   manualNow = 100.25;
   manualOffset = 3600;
   System::clockFnIs( [] { return manualNow; } );
   EXPECT_EQ( System::currentTime(), 100.25 );
   System::currentTimeOffsetFnIs( [] { return manualOffset; } );
   EXPECT_EQ( System::currentTime(), 3700.25 );
   manualNow = 0;
   manualOffset = -1;
   EXPECT_EQ( System::currentTime(), -1 );

   System::clockFnIs( nullptr );
   System::currentTimeOffsetFnIs( nullptr );
   double const real = System::currentTime();
   manualOffset = 1e6;
   System::currentTimeOffsetFnIs( [] { return manualOffset; } );
   EXPECT_GE( System::currentTime(), real + 1e6 );
}

TEST_F( SystemTest, GetenvCopiesTheValue ) {
   setenv( "ORU_SYSTEM_TEST", "first", 1 );
   Quarn::String const value = System::getenv( "ORU_SYSTEM_TEST" );
   setenv( "ORU_SYSTEM_TEST", "other", 1 );
   EXPECT_EQ( value, "first" );
   unsetenv( "ORU_SYSTEM_TEST" );
   EXPECT_EQ( System::getenv( "ORU_SYSTEM_TEST" ), "" );
}

TEST_F( SystemTest, RdtscFollowsTheSourceOfTheBaseLibrary ) {
   Quarn::Rdtsc::sourceForTestIs( [] { return std::uint64_t{ 0 }; }, 2e9 );
   EXPECT_EQ( Oru::Rdtsc::approxTicksIn500Usec(), 1'000'000u );
   Quarn::Rdtsc::sourceForTestIs( nullptr, 0 );
}

} // namespace
