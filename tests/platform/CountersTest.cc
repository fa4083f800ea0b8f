#include <Quarn/PluginCpp.h>

#include "platform/plugins/TestCounters.h"
#include "support/TraceCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <dlfcn.h>

namespace {

using Quarn::Counters;
using testing::ElementsAre;
using testing::Pair;

// First: a plugin that has come stays.
TEST( CountersTest, WithoutThePluginTheFallbackCounts ) {
   testing_support::TraceCapture capture;
   Counters counters( "set" );
   EXPECT_EQ( capture.count( "Failed to load plugin libKestoCountersPlugin.so: " ), 1u );
   unsigned long own = 7;
   EXPECT_EQ( counters.counter( "a", &own ), &own );
   unsigned long* const nobodys = counters.counter( "a", nullptr );
   ASSERT_NE( nobodys, nullptr );
   EXPECT_EQ( Counters( nullptr ).counter( "b", nullptr ), nobodys );
   ++*nobodys;
   EXPECT_EQ( own, 7u );
}

TEST( CountersTest, ThePluginAnswersForEveryCounter ) {
   ASSERT_NE( dlopen( TEST_COUNTERS_PLUGIN, RTLD_NOW ), nullptr ) << dlerror();
   auto* const plugin =
         static_cast<TestCounters*>( Quarn::Platform::loadPlugin( "KestoCountersPlugin" ) );
   ASSERT_NE( plugin, nullptr );
   Counters counters( "set" );
   Counters nameless( nullptr );
   EXPECT_THAT( plugin->sets, ElementsAre( "set" ) );
   unsigned long own = 7;
   EXPECT_EQ( counters.counter( "a", &own ), &plugin->value );
   EXPECT_EQ( nameless.counter( "b", nullptr ), &plugin->value );
   EXPECT_THAT( plugin->asked, ElementsAre( Pair( "a", &own ), Pair( "b", nullptr ) ) );
}

} // namespace
