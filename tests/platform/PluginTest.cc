// Plugins, with the libraries of the folder beside. CTest says where they are, by LD_LIBRARY_PATH,
// and gives each case a process of its own: plugins stay.

#include <Quarn/PluginCpp.h>

#include <Quarn/Debug.h>

#include "platform/plugins/TestPlugin.h"
#include "support/Fatal.h"
#include "support/TraceCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <latch>
#include <thread>
#include <vector>

#include <dlfcn.h>

namespace {

using namespace Quarn::Platform;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;
using testing_support::TraceCapture;

TEST( PluginTest, LibraryIsLoadedOnceAndItsSymbolsAreOpenToAll ) {
   EXPECT_EQ( dlsym( RTLD_DEFAULT, "testGoodAnswer" ), nullptr );
   Quarn::Platform::setTraceFormat( "%f/%l %m" );
   const auto levels = getDebugHandler( "QuarnPlugin", false );
   levels->enabledIs( 2, true );
   levels->enabledIs( 3, true );
   TraceCapture capture;
   Plugin* const plugin = loadPlugin( "TestGood" );
   ASSERT_NE( plugin, nullptr ) << capture.text();
   EXPECT_EQ( loadPlugin( "TestGood" ), plugin );
   EXPECT_EQ( capture.text(),
              "QuarnPlugin/2 Quarn::Platform::registerPlugin() adding plugin TestGood\n"
              "QuarnPlugin/2 Quarn::Platform::loadPlugin() Yay!  Plugin TestGood loaded\n"
              "QuarnPlugin/3 Quarn::Platform::loadPlugin() TestGood already loaded\n" );
   const auto& good = *static_cast<TestPlugin*>( plugin );
   EXPECT_EQ( good.timesAsked, 1 );
   EXPECT_TRUE( good.askedUnderTheLock );
   EXPECT_FALSE( Loco::owns_loco() );
   EXPECT_NE( dlsym( RTLD_DEFAULT, "testGoodAnswer" ), nullptr );
}

TEST( PluginTest, WhatCannotBeLoadedIsNullAndTraced ) {
   TraceCapture capture;
   EXPECT_EQ( loadPlugin( "TestAbsent" ), nullptr );
   EXPECT_THAT( capture.text(),
                HasSubstr( "QuarnPlugin/0 Quarn::Platform::loadPlugin() Failed to load plugin "
                           "libTestAbsent.so: libTestAbsent.so: cannot open" ) );
   EXPECT_EQ( loadPlugin( "TestNoLibrary" ), nullptr );
   EXPECT_THAT( capture.text(), HasSubstr( "/libTestNoLibrary.so: invalid ELF header\n" ) );
   EXPECT_EQ( loadPlugin( "TestAbsent" ), nullptr );
   EXPECT_EQ( capture.count( "libTestAbsent.so: cannot open" ), 2u ) << "it is tried again";
}

TEST( PluginTest, LibraryWithoutThePluginOfItsNameIsFatal ) {
   EXPECT_FATAL( loadPlugin( "TestMisnamed" ),
                 "Quarn::Platform::loadPlugin() Phooey -- plugin TestMisnamed failed to register" );
   EXPECT_FATAL( loadPlugin( "TestEmpty" ), "Phooey -- plugin TestEmpty failed to register" );
   // What it did register is there.
   EXPECT_NE( loadPlugin( "TestOther" ), nullptr );
   EXPECT_FALSE( Loco::owns_loco() );
}

TEST( PluginTest, SecondRegistrationIsFatalAndLeavesTheFirst ) {
   static TestPlugin first( "TestOutside" );
   static TestPlugin second( "TestOutside" );
   registerPlugin( &first );
   // The part of the text in front is the file and the line of the check.
   EXPECT_THAT(
         testing_support::fatalText( [] { registerPlugin( &second ); } ),
         AllOf( StartsWith( "PluginCpp:" ),
                HasSubstr( ": Quarn::Platform::registerPlugin() Plugin TestOutside already" ) ) );
   EXPECT_EQ( loadPlugin( "TestOutside" ), &first );
   EXPECT_FATAL( registerPlugin( nullptr ), "plugin is null" );
   static TestPlugin nameless( nullptr );
   EXPECT_FATAL( registerPlugin( &nameless ), "the plugin has no name" );
   EXPECT_FATAL( loadPlugin( nullptr ), "the name of the plugin is null" );
   EXPECT_FALSE( Loco::owns_loco() );
}

TEST( PluginTest, FailureWithinAnInitialiserIsRaisedAfterTheLoad ) {
   EXPECT_THAT( testing_support::fatalText( [] { loadPlugin( "TestTwice" ); } ),
                AllOf( StartsWith( "PluginCpp:" ),
                       HasSubstr( ": Quarn::Platform::registerPlugin() Plugin TestTwice already "
                                  "registered" ) ) );
   EXPECT_FALSE( Loco::owns_loco() );
   // Told once; the first of the two is there.
   auto* const plugin = loadPlugin( "TestTwice" );
   ASSERT_NE( plugin, nullptr );
   EXPECT_FALSE( Loco::owns_loco() );
}

TEST( PluginTest, InitialiserMayLoadAndRegisterOthers ) {
   auto* const plugin = static_cast<TestPlugin*>( loadPlugin( "TestNested" ) );
   ASSERT_NE( plugin, nullptr );
   EXPECT_NE( plugin->loaded, nullptr );
   EXPECT_EQ( loadPlugin( "TestGood" ), plugin->loaded );
   auto* const second = loadPlugin( "TestSecond" );
   ASSERT_NE( second, nullptr );
   EXPECT_STREQ( second->pluginName(), "TestSecond" );
}

TEST( PluginTest, OutermostLoadRaisesTheFirstOfManyFailures ) {
   EXPECT_FATAL( loadPlugin( "TestNestedFault" ),
                 "Quarn::Platform::registerPlugin() Plugin TestTwice already registered" );
   // None of them is told again, and what could be registered is.
   auto* const plugin = static_cast<TestPlugin*>( loadPlugin( "TestNestedFault" ) );
   ASSERT_NE( plugin, nullptr );
   EXPECT_EQ( plugin->loaded, nullptr );
   EXPECT_NE( loadPlugin( "TestTwice" ), nullptr );
   EXPECT_NE( loadPlugin( "TestOther" ), nullptr );
}

TEST( PluginTest, ConcurrentLoadsWaitForEachOther ) {
   constexpr std::size_t count = 4;
   std::latch start( count );
   std::vector<Plugin*> plugins( count );
   std::vector<std::thread> threads;
   for( std::size_t i = 0; i < count; ++i ) {
      threads.emplace_back( [ &, i ] {
         start.arrive_and_wait();
         plugins[ i ] = loadPlugin( i % 2 == 0 ? "TestNested" : "TestGood" );
      } );
   }
   for( std::thread& thread : threads ) {
      thread.join();
   }
   EXPECT_NE( plugins[ 0 ], nullptr );
   EXPECT_EQ( plugins[ 0 ], plugins[ 2 ] );
   EXPECT_EQ( plugins[ 1 ], plugins[ 3 ] );
   EXPECT_EQ( static_cast<TestPlugin*>( plugins[ 0 ] )->loaded, plugins[ 1 ] );
   EXPECT_EQ( static_cast<TestPlugin*>( plugins[ 1 ] )->timesAsked, 1 );
}

} // namespace
