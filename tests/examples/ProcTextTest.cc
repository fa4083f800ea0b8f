#include "examples/agent/ProcText.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

using namespace std::string_literals;
using namespace std::string_view_literals;

namespace HostAgent {
namespace {

// The fields from the fourth on, up to the one after resident memory.
constexpr auto rest =
      "1 42 42 0 -1 4194560 9 0 0 0 7 5 0 0 20 0 1 0 12345 8192 300 18446744073709551615"sv;

std::string lineOf( std::string_view name, std::string_view fields = rest ) {
   return "42 ("s + std::string( name ) + ") S " + std::string( fields ) + "\n";
}

TEST( ProcStatTest, LineGivesItsFields ) {
   const std::string line = lineOf( "sleep" );
   const auto stat = parseProcStat( line );
   ASSERT_TRUE( stat );
   EXPECT_EQ( stat->pid, 42 );
   EXPECT_EQ( stat->name, "sleep" );
   EXPECT_EQ( stat->state, 'S' );
   EXPECT_EQ( stat->cpuTicks, 12u );
   EXPECT_EQ( stat->startTicks, 12345u );
   EXPECT_EQ( stat->residentPages, 300u );
}

TEST( ProcStatTest, NameMayHoldAnyBytes ) {
   for( const auto name : { ""sv, " "sv, ")"sv, "("sv, ") ("sv, ")))((("sv, "a) R 1 2 3"sv,
                            "a\nb"sv, "\n"sv, "a\0b"sv, "\x1b[2J"sv, "\xff\xfe"sv } ) {
      const std::string line = lineOf( name );
      const auto stat = parseProcStat( line );
      ASSERT_TRUE( stat ) << printable( name );
      EXPECT_EQ( stat->name, name );
      EXPECT_EQ( stat->cpuTicks, 12u ) << printable( name );
   }
}

TEST( ProcStatTest, LineCutOffAnywhereGivesNoValue ) {
   // A line that ends in the name's own parenthesis and numbers would look whole.
   const std::string line = lineOf( ") ( S 1\n2" );
   for( std::size_t size = 0; size < line.size(); ++size ) {
      EXPECT_FALSE( parseProcStat( std::string_view( line ).substr( 0, size ) ) ) << size;
   }
   EXPECT_FALSE( parseProcStat( line + "\n" ) );
   EXPECT_FALSE( parseProcStat( line + "43" ) );
}

TEST( ProcStatTest, LineWithoutResidentMemoryGivesNoValue ) {
   EXPECT_FALSE( parseProcStat(
         lineOf( "a", "1 42 42 0 -1 4194560 9 0 0 0 7 5 0 0 20 0 1 0 12345 8192" ) ) );
   EXPECT_TRUE( parseProcStat(
         lineOf( "a", "1 42 42 0 -1 4194560 9 0 0 0 7 5 0 0 20 0 1 0 12345 8192 300" ) ) );
}

TEST( ProcStatTest, NumbersThatDoNotFitGiveNoValue ) {
   const auto withTimes = []( std::string_view user, std::string_view system ) {
      return lineOf( "a", "1 42 42 0 -1 0 9 0 0 0 "s + std::string( user ) + " " +
                                std::string( system ) + " 0 0 20 0 1 0 12345 8192 300" );
   };
   ASSERT_TRUE( parseProcStat( withTimes( "18446744073709551615", "0" ) ) );
   EXPECT_EQ( parseProcStat( withTimes( "18446744073709551615", "0" ) )->cpuTicks, ~0ull );
   EXPECT_FALSE( parseProcStat( withTimes( "18446744073709551615", "1" ) ) );
   EXPECT_FALSE( parseProcStat( withTimes( "18446744073709551616", "0" ) ) );
   EXPECT_FALSE( parseProcStat( withTimes( "-1", "0" ) ) );
   EXPECT_FALSE( parseProcStat( withTimes( "", "0" ) ) );
   EXPECT_FALSE( parseProcStat( withTimes( "+1", "0" ) ) );
   EXPECT_FALSE( parseProcStat( withTimes( "1x", "0" ) ) );
}

TEST( ProcStatTest, MalformedHeadGivesNoValue ) {
   const std::string tail = ") S " + std::string( rest ) + "\n";
   for( const auto head : { ""sv, " 42 (a"sv, "0 (a"sv, "-42 (a"sv, "99999999999 (a"sv, "42(a"sv,
                            "42  (a"sv, "x (a"sv, "42 a"sv } ) {
      EXPECT_FALSE( parseProcStat( std::string( head ) + tail ) ) << head;
   }
   for( const auto state : { ""sv, "SS"sv, "4"sv, " "sv, "\xd3"sv } ) {
      EXPECT_FALSE(
            parseProcStat( "42 (a) "s + std::string( state ) + " " + std::string( rest ) + "\n" ) )
            << state;
   }
}

TEST( ProcStatTest, DamagedLinesAreRefusedOrReadWithinBounds ) {
   constexpr unsigned seed = 20260;
   SCOPED_TRACE( seed );
   std::mt19937 random( seed );
   const std::string whole = lineOf( "da) mon" );
   for( int round = 0; round < 20000; ++round ) {
      std::string line = whole;
      for( unsigned damage = random() % 4; damage != 0; --damage ) {
         line[ random() % line.size() ] = static_cast<char>( random() );
      }
      if( const auto stat = parseProcStat( line ) ) {
         EXPECT_GE( stat->name.data(), line.data() );
         EXPECT_LE( stat->name.data() + stat->name.size(), line.data() + line.size() );
         EXPECT_GT( stat->pid, 0 );
      }
   }
}

TEST( ParsePidTest, TakesTheFoldersOfProcessesAlone ) {
   EXPECT_EQ( parsePid( "1" ), 1 );
   EXPECT_EQ( parsePid( "4194304" ), 4194304 );
   EXPECT_EQ( parsePid( "2147483647" ), 2147483647 );
   for( const auto name : { ""sv, "0"sv, "01"sv, "-1"sv, "+1"sv, " 1"sv, "1 "sv, "1a"sv, "self"sv,
                            "."sv, "2147483648"sv, "99999999999999999999"sv, "1\0"sv } ) {
      EXPECT_FALSE( parsePid( name ) ) << printable( name );
   }
}

TEST( PrintableTest, EscapesWhatCouldSteerATerminal ) {
   EXPECT_EQ( printable( "kworker/0:1 (x)~" ), "kworker/0:1 (x)~" );
   EXPECT_EQ( printable( "a\n\x1b[2J\x7f\0b"sv ), "a\\x0a\\x1b[2J\\x7f\\x00b" );
   EXPECT_EQ( printable( "\xc2\x9b\xff" ), "\\xc2\\x9b\\xff" );
   // So that the text of an escape is told from an escape.
   EXPECT_EQ( printable( "\\x0a" ), "\\\\x0a" );
}

TEST( ProcTextTest, LoadAverageIsTheFirstOfAWholeLine ) {
   EXPECT_EQ( parseLoadAverage( "0.20 0.18 0.12 1/80 11206\n" ), 0.20 );
   EXPECT_EQ( parseLoadAverage( "1000.00 3 2.5 100/8000 1\n" ), 1000.0 );
   for( char const* text :
        { "", "0.20\n", "0.20 0.18 0.12 1/80 11206", "nan 0.18 0.12 1/80 1\n",
          "inf 0.18 0.12 1/80 1\n", "-0.20 0.18 0.12 1/80 1\n", "0x1 0.18 0.12 1/80 1\n",
          "1e3 0.18 0.12 1/80 1\n", "0.20 0.18 0.12 1 80 1\n", "0.20 0.18 0.12 1/80 1\nx",
          " 0.20 0.18 0.12 1/80 1\n" } ) {
      EXPECT_EQ( parseLoadAverage( text ), std::nullopt ) << text;
   }
}

} // namespace
} // namespace HostAgent
