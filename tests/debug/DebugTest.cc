#include <Quarn/Debug.h>

#include <OruQuarn/OruDebug.h>

#include <Quarn/base/Exception.h>

#include "support/Fatal.h"
#include "support/TraceCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <locale>
#include <thread>

#include <fcntl.h>
#include <unistd.h>

namespace {

using namespace Quarn;
using namespace Quarn::Platform;
using testing::HasSubstr;
using testing_support::TraceCapture;

TEST( DebugTest, TraceTextFollowsTheClassArgument ) {
   // One line shows that file, line, function, class, facility and level each reach their place.
   setTraceFormat( "%f|%l|%F|%L|%n|%m" );
   const auto handler = getDebugHandler( "Facility", false );
   TraceCapture capture;
   fmtrace( *handler, 3, "File", "func", 17, nullptr, "{} {}", 1, "msg" );
   fmtrace( *handler, 4, "File", "func", 18, "", "msg" );
   fmtrace( *handler, 5, "File", "func", 19, "Foo", "msg" );
   EXPECT_EQ( capture.text(), "Facility|3|File|17|func|1 msg\n"
                              "Facility|4|File|18|func|func() msg\n"
                              "Facility|5|File|19|func|Foo::func() msg\n" );
}

TEST( DebugTest, TextsAreBuiltWithAndWithoutLocation ) {
   EXPECT_EQ( fmtracestr( true, "Foo", "File", "f", 7, "n={}", 3 ), "File:7: Foo::f() n=3" );
   EXPECT_EQ( fmtracestr( false, nullptr, "File", "f", 7, "n={}", 3 ), "n=3" );

   const auto handler = getDebugHandler( "Thrower", false );
   TraceCapture capture;
   EXPECT_EQ( fmthrow( *handler, 5, "Foo", "File", "f", 7, "bad {}", 1 ), "Foo::f() bad 1" );
   EXPECT_EQ( capture.text(), "" );
   handler->enabledIs( 5, true );
   fmthrow( *handler, 5, "Foo", "File", "f", 7, "bad {}", 1 );
   EXPECT_THAT( capture.text(), HasSubstr( "Thrower/5 Foo::f() bad 1" ) );
}

TEST( DebugTest, HandlersOfOneNameShareLevels ) {
   const auto a = getDebugHandler( "Shared", false );
   const auto b = getDebugHandler( "Shared", false );
   EXPECT_TRUE( b->levelEnabled( 0 ) ) << "level 0 must be seen";
   EXPECT_FALSE( b->levelEnabled( 5 ) );
   a->enabledIs( 5, true );
   EXPECT_TRUE( b->levelEnabled( 5 ) );
   a->enabledIs( 5, false );
   EXPECT_FALSE( b->levelEnabled( 5 ) );
   a->enabledIs( 16, true );
   EXPECT_FALSE( a->levelEnabled( 16 ) );
   EXPECT_FALSE( a->levelEnabled( 70000 ) );
}

TEST( DebugTest, ArgumentsOfADisabledTraceAreNotEvaluated ) {
   const auto handler = getDebugHandler( "Lazy", false );
   int evaluated = 0;
   QUARN_FMTRACE( *handler, 8, "Lazy", "{}", ++evaluated );
   EXPECT_EQ( evaluated, 0 );
   handler->enabledIs( 8, true );
   TraceCapture capture;
   QUARN_FMTRACE( *handler, 8, "Lazy", "{}", ++evaluated );
   EXPECT_EQ( evaluated, 1 );
}

TEST( DebugTest, FacilityIsForgottenOnlyByItsLastHandler ) {
   auto keeper = getDebugHandler( "Gone", false );
   keeper->enabledIs( 7, true );
   auto first = getDebugHandler( "Gone", true );
   auto second = getDebugHandler( "Gone", true );
   first.reset();
   second.reset();
   EXPECT_TRUE( getDebugHandler( "Gone", false )->levelEnabled( 7 ) ) << "still held by the keeper";
   keeper.reset();
   getDebugHandler( "Gone", true ).reset();
   EXPECT_FALSE( getDebugHandler( "Gone", false )->levelEnabled( 7 ) );
}

TEST( DebugTest, AssertionTextsNameWhereTheyStand ) {
   using testing_support::fatalText;
   const auto handler = getDebugHandler( "Asserter", false );
   EXPECT_EQ( fatalText( [ & ] { fmassert( "Foo", "File", "f", 9, "n={}", 3 ); } ),
              "File:9: Foo::f() n=3" );
   EXPECT_EQ( fatalText( [ & ] { fmassert( *handler, nullptr, "File", "f", 9, "n={}", 3 ); } ),
              "File:9: n=3" );
   // The streamed form has the function between file and line.
   DebugStream text;
   text << "sum " << 0.1 + 0.2;
   EXPECT_EQ( fatalText( [ & ] { debugAndAssert( *handler, text, "File", "f", 9 ); } ),
              "File:f:9: sum 0.3" );
   EXPECT_EQ( fatalText( [ & ] { debugAndAssert( text, "File", "f", 9 ); } ), "File:f:9: sum 0.3" );
}

TEST( DebugTest, AssertionsAreTracedUnlessThrowingIsEnough ) {
   const auto handler = getDebugHandler( "Asserter", false );
   handler->enabledIs( 0, false );
   const auto fail = [ & ] {
      EXPECT_THROW( fmassert( *handler, "Foo", "File", "f", 9, "told" ), AssertException );
      DebugStream text;
      text << "streamed";
      EXPECT_THROW( debugAndAssert( *handler, text, "File", "f", 9 ), AssertException );
   };
   TraceCapture capture;
   fail();
   EXPECT_EQ( capture.text(), "" );
   forceTraceOnAssertIs( true );
   fail();
   // Level 0, although the mask says no.
   EXPECT_THAT( capture.text(), HasSubstr( "Asserter/0 File:9: Foo::f() told" ) );
   EXPECT_THAT( capture.text(), HasSubstr( "Asserter/0 File:f:9: streamed" ) );
   forceTraceOnAssertIs( false );
   throwOnAssertFailIs( false );
   fail();
   EXPECT_EQ( capture.count( "told" ), 2u );
   EXPECT_EQ( capture.count( "streamed" ), 2u );
}

TEST( DebugTest, StreamsIgnoreTheGlobalLocale ) {
   struct Grouped : std::numpunct<char> {
      char do_thousands_sep() const override { return ','; }
      std::string do_grouping() const override { return "\3"; }
   };
   const std::locale before =
         std::locale::global( std::locale( std::locale::classic(), new Grouped ) );
   DebugStream text;
   text << 1234567 << ' ' << 1.5;
   std::locale::global( before );
   EXPECT_EQ( text.str(), "1234567 1.5" );
}

TEST( DebugTest, SettingsAccumulateAndCanBeTakenBack ) {
   unsetenv( "TRACE" );
   const auto handler = getDebugHandler( "Facility", false );
   setupQuarnDebug( "Facility/5" );
   EXPECT_STREQ( getenv( "TRACE" ), "Facility/5" );
   EXPECT_TRUE( handler->levelEnabled( 5 ) );
   setupQuarnDebug( "Other" );
   EXPECT_STREQ( getenv( "TRACE" ), "Facility/5,Other" );
   EXPECT_TRUE( getDebugHandler( "Other", false )->levelEnabled( 9 ) );
   clearQuarnDebug( "Facility/5,x" );
   EXPECT_STREQ( getenv( "TRACE" ), "Facility/5,Other,-Facility/5,-x" );
   EXPECT_FALSE( handler->levelEnabled( 5 ) );
   EXPECT_TRUE( handler->levelEnabled( 0 ) );
   clearQuarnDebug( "" );
   EXPECT_STREQ( getenv( "TRACE" ), "Facility/5,Other,-Facility/5,-x,-" );
   clearQuarnDebug( "x, Other" );
   EXPECT_STREQ( getenv( "TRACE" ), "Facility/5,Other,-Facility/5,-x,-,-x,- Other" );
   EXPECT_FALSE( getDebugHandler( "Other", false )->levelEnabled( 9 ) );

   setupQuarnDebug( nullptr );
   clearQuarnDebug( nullptr );
   setTraceFormat( nullptr );
   EXPECT_STREQ( getenv( "TRACE" ), "Facility/5,Other,-Facility/5,-x,-,-x,- Other" );
}

TEST( DebugTest, FormatIsReplacedAndCleared ) {
   const auto handler = getDebugHandler( "Facility", false );
   TraceCapture capture;
   setTraceFormat( "<%m>" );
   fmtrace( *handler, 0, "File", "f", 1, nullptr, "one" );
   EXPECT_EQ( capture.text(), "<one>\n" );
   clearTraceFormat();
   EXPECT_STREQ( getenv( "TRACEFORMAT" ), "" );
   fmtrace( *handler, 0, "File", "f", 1, nullptr, "two" );
   EXPECT_THAT( capture.text(), HasSubstr( " Facility/0 two\n" ) );
}

TEST( DebugTest, MapIsWrittenToStandardOutput ) {
   getDebugHandler( "Facility", false )->enabledIs( 3, true );
   testing::internal::CaptureStdout();
   dumpQuarnDebugMap();
   const std::string map = testing::internal::GetCapturedStdout();
   EXPECT_THAT( map, HasSubstr( "Assert/=0\n" ) );
   EXPECT_THAT( map, HasSubstr( "Facility/" ) );
   EXPECT_THAT( map, HasSubstr( "TaskScheduler/=0\n" ) );
}

TEST( DebugTest, DebuggableSharesItsHandler ) {
   const Debuggable empty;
   EXPECT_FALSE( empty.levelEnabled( 0 ) );
   QUARN_FMTRACE( empty, 0, "Empty", "nothing {}", 1 );
   fmtrace( empty, 0, "File", "f", 1, "Empty", "nothing" );
   const Debuggable named( "Named", false );
   EXPECT_EQ( Debuggable( named ).debugHandler(), named.debugHandler() );
   const Debuggable fromReference( *named.debugHandler() );
   EXPECT_EQ( fromReference.debugHandler(), named.debugHandler() );
   OruQuarn::OruDebug notShared( "Stack", false );
   EXPECT_THROW( Debuggable{ notShared }, std::bad_weak_ptr );
}

TEST( DebugTest, TracesArriveWholeFromManyThreads ) {
   const auto handler = getDebugHandler( "Busy", false );
   setTraceFormat( "%m" );
   TraceCapture capture;
   // Appending keeps the offsets of concurrent writers apart.
   fcntl( STDERR_FILENO, F_SETFL, O_APPEND );
   std::vector<std::thread> threads;
   threads.reserve( 4 );
   for( int n = 0; n < 4; ++n ) {
      threads.emplace_back( [ & ] {
         for( int i = 0; i < 200; ++i ) {
            handler->enabledIs( 7, i % 2 == 0 );
            QUARN_FMTRACE( *handler, 0, nullptr, "0123456789{}", "abcdef" );
         }
      } );
   }
   for( std::thread& thread : threads ) {
      thread.join();
   }
   EXPECT_EQ( capture.count( "0123456789abcdef\n" ), 800u );
   EXPECT_EQ( capture.text().size(), 800u * 17 );
}

} // namespace
