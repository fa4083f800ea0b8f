// The example of a plugin, by itself and in the agent.

#include "examples/agent/WorkCounters.h"

#include "examples/RuntimeFolder.h"
#include "support/Shell.h"
#include "support/TraceCapture.h"

#include <Quarn/Debug.h>
#include <Quarn/PluginCpp.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include <dlfcn.h>
#include <unistd.h>

namespace HostAgent {
namespace {

using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;

TEST( CountersPluginTest, AbsenceIsTracedForWhoWantsToSeeItOnly ) {
   const auto debug = Quarn::Platform::getDebugHandler( "QuarnPlugin", false );
   testing_support::TraceCapture capture;
   WorkCounters counters;
   EXPECT_EQ( capture.text(), "" );
   EXPECT_TRUE( debug->levelEnabled( 0 ) );
   EXPECT_FALSE( counters.fromPlugin() );
   ++*counters.counter( WorkCounters::Work::events );
   EXPECT_EQ( counters.count( WorkCounters::Work::events ), 1u );
   EXPECT_EQ( counters.count( WorkCounters::Work::answers ), 0u );
   debug->enabledIs( 1, true );
   const WorkCounters told;
   EXPECT_EQ( capture.count( "Failed to load plugin libKestoCountersPlugin.so" ), 1u );
   EXPECT_EQ( told.count( WorkCounters::Work::events ), 0u );
}

TEST( CountersPluginTest, ConcurrentCallersOfANameGetOneCounter ) {
   ASSERT_NE( dlopen( COUNTERS_PLUGIN, RTLD_NOW | RTLD_GLOBAL ), nullptr ) << dlerror();
   std::vector<unsigned long*> found( 4 );
   std::vector<std::thread> threads;
   threads.reserve( found.size() );
   for( unsigned long*& at : found ) {
      threads.emplace_back( [ &at ] {
         unsigned long own = 0;
         Quarn::Counters counters( "set" );
         for( int i = 0; i < 100; ++i ) {
            counters.counter( std::to_string( i ).c_str(), nullptr );
         }
         at = counters.counter( "shared", &own );
      } );
   }
   for( std::thread& thread : threads ) {
      thread.join();
   }
   EXPECT_THAT( found, ::testing::Each( found.front() ) );
   WorkCounters counters;
   EXPECT_TRUE( counters.fromPlugin() );
   *counters.counter( WorkCounters::Work::samples ) += 5;
   *found.front() = 7;

   auto* const write =
         reinterpret_cast<void ( * )( int )>( dlsym( RTLD_DEFAULT, "kestoCountersWrite" ) );
   ASSERT_NE( write, nullptr );
   testing_support::TraceCapture capture;
   write( STDERR_FILENO );
   EXPECT_THAT( capture.text(), HasSubstr( "set host-agent\nset set\n" ) );
   EXPECT_THAT( capture.text(), HasSubstr( "counter samples taken 5\ncounter shared 7\n" ) );
}

TEST( CountersPluginTest, AgentReportsWhatThePluginCounted ) {
   const testing_support::RuntimeFolder folder;
   const std::string run =
         "'" HOST_AGENT_PROGRAM
         "' --name c$$ --seconds 0.05 ${ORUQUARN_TEST_FRAMEWORK:+--framework} 2>&1";
   const auto [ code, text ] =
         shell( "LD_LIBRARY_PATH=$(dirname '" COUNTERS_PLUGIN "'):$LD_LIBRARY_PATH " + run );
   EXPECT_EQ( code, 0 );
   EXPECT_THAT( text,
                ContainsRegex( "\nCounters of the plugin\n  counter *\n  samples taken +[1-9]" ) );
   const auto without = shell( run );
   EXPECT_EQ( without.first, 0 );
   EXPECT_THAT( without.second, Not( HasSubstr( "lugin" ) ) );
}

} // namespace
} // namespace HostAgent
