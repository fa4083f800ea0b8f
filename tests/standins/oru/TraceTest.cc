#include <Oru/Entity.h>
#include <Oru/Trace.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <initializer_list>
#include <memory>
#include <ostream>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using Oru::Ptr;
using Oru::TraceFacility;
using Oru::TraceFacilityMan;
using Oru::TraceHandle;
using testing::ElementsAre;
using testing::MatchesRegex;

// Takes standard error for its lifetime. The pipe keeps writes apart: each is one entry.
class StderrCapture {
 public:
   StderrCapture() : old_( dup( STDERR_FILENO ) ) {
      int ends[ 2 ];
      EXPECT_EQ( pipe2( ends, O_DIRECT | O_NONBLOCK | O_CLOEXEC ), 0 );
      reader_ = ends[ 0 ];
      dup2( ends[ 1 ], STDERR_FILENO );
      close( ends[ 1 ] );
   }
   ~StderrCapture() {
      dup2( old_, STDERR_FILENO );
      close( old_ );
      closeReader();
   }
   StderrCapture( StderrCapture const& ) = delete;
   StderrCapture& operator=( StderrCapture const& ) = delete;

   std::vector<std::string> writes() const {
      std::vector<std::string> all;
      char text[ 4096 ];
      for( ssize_t size; ( size = read( reader_, text, sizeof( text ) ) ) > 0; ) {
         all.emplace_back( text, static_cast<std::size_t>( size ) );
      }
      return all;
   }
   void closeReader() { close( std::exchange( reader_, -1 ) ); }

 private:
   int old_;
   int reader_ = -1;
};

void environmentIs( char const* trace, char const* format = nullptr ) {
   trace ? setenv( "TRACE", trace, 1 ) : unsetenv( "TRACE" );
   format ? setenv( "TRACEFORMAT", format, 1 ) : unsetenv( "TRACEFORMAT" );
   TraceFacilityMan::doReadEnvironment();
}

unsigned maskOf( Ptr<TraceFacility> const& facility ) {
   return __atomic_load_n( facility->levelsEnabledPtr(), __ATOMIC_RELAXED );
}

// A facility with a fresh mask that the manager forgets again at the end.
class ScopedFacility {
 public:
   explicit ScopedFacility( char const* name )
         : handle_( name, true ),
           facility_( handle_.facility() ) {}
   ~ScopedFacility() {
      TraceFacilityMan::globalTraceFacilityMan()->traceFacilityMaybeDel( facility_->name() );
   }
   ScopedFacility( ScopedFacility const& ) = delete;
   ScopedFacility& operator=( ScopedFacility const& ) = delete;

   unsigned mask() const { return maskOf( facility_ ); }

 private:
   TraceHandle handle_;
   Ptr<TraceFacility> facility_;
};

struct SettingsCase {
   char const* trace;
   std::vector<std::pair<char const*, unsigned>> masks;

   // Names the case in lists of tests.
   friend void PrintTo( SettingsCase const& settings, std::ostream* out ) {
      *out << '"' << settings.trace << '"';
   }
};

class TraceSettingsTest : public testing::TestWithParam<SettingsCase> {};

TEST_P( TraceSettingsTest, GiveTheMasksOfFacilitiesOldAndNew ) {
   for( bool const made : { true, false } ) {
      SCOPED_TRACE( made ? "made before the reading" : "made after the reading" );
      environmentIs( made ? nullptr : GetParam().trace );
      std::vector<std::unique_ptr<ScopedFacility>> facilities;
      for( auto const& [ name, mask ] : GetParam().masks ) {
         facilities.push_back( std::make_unique<ScopedFacility>( name ) );
      }
      if( made ) {
         environmentIs( GetParam().trace );
      }
      for( std::size_t i = 0; i < facilities.size(); ++i ) {
         EXPECT_EQ( facilities[ i ]->mask(), GetParam().masks[ i ].second )
               << GetParam().masks[ i ].first << " under " << GetParam().trace;
      }
   }
}

INSTANTIATE_TEST_SUITE_P(
      Levels, TraceSettingsTest,
      testing::Values( SettingsCase{ "", { { "Task", 0x0001 } } },
                       SettingsCase{ "Task", { { "Task", 0x03ff } } },
                       SettingsCase{ "TaskScheduler/8",
                                     { { "TaskScheduler", 0x01ff }, { "Task", 0x0001 } } },
                       SettingsCase{ "Task/0", { { "Task", 0x0001 } } },
                       SettingsCase{ "Task/15", { { "Task", 0xffff } } },
                       SettingsCase{ "Task/*", { { "Task", 0xffff } } },
                       SettingsCase{ "Task/3-5", { { "Task", 0x0039 } } },
                       SettingsCase{ "Task/12-12", { { "Task", 0x1001 } } },
                       SettingsCase{ "Task/=3+=5", { { "Task", 0x0029 } } },
                       SettingsCase{ "Task/2+8-9+=15", { { "Task", 0x8307 } } },
                       SettingsCase{ "Task/=3,Task/=5", { { "Task", 0x0029 } } } ) );

INSTANTIATE_TEST_SUITE_P(
      Patterns, TraceSettingsTest,
      testing::Values(
            SettingsCase{ "*/1,Lock*/=5", { { "LockFile", 0x0023 }, { "Task", 0x0003 } } },
            SettingsCase{ "**", { { "Task", 0x03ff } } },
            SettingsCase{ "Ta?k/2", { { "Task", 0x0007 }, { "Tak", 1 }, { "Taskk", 1 } } },
            SettingsCase{ "?ask?/2", { { "Task", 1 }, { "Tasks", 7 } } },
            SettingsCase{ "*a*k/2", { { "Task", 7 }, { "akka", 1 }, { "aakak", 7 } } },
            SettingsCase{ "task/8,Tas/8,ask/8", { { "Task", 1 } } },
            SettingsCase{ "a/b/3", { { "a/b", 0x000f }, { "a", 1 } } },
            SettingsCase{ " Task/3 ,, \t,Task/=7,", { { "Task", 0x008f } } } ) );

INSTANTIATE_TEST_SUITE_P(
      Clearing, TraceSettingsTest,
      testing::Values( SettingsCase{ "Quarn*,-QuarnLibevent",
                                     { { "QuarnTimerWheel", 0x03ff },
                                       { "QuarnLibevent", 0x0001 },
                                       { "Task", 0x0001 } } },
                       SettingsCase{ "-Task,Task", { { "Task", 0x03ff } } },
                       SettingsCase{ "Task/8,-Task/4-6", { { "Task", 0x018f } } },
                       // Level 0 goes only when it is named by itself.
                       SettingsCase{ "Task/*,-Task/*", { { "Task", 0x0001 } } },
                       SettingsCase{ "-Task/0", { { "Task", 0x0001 } } },
                       SettingsCase{ "-Task/0-5", { { "Task", 0x0001 } } },
                       SettingsCase{ "-Task/=0", { { "Task", 0x0000 } } },
                       SettingsCase{ "--Task/=0", { { "Task", 0x0000 } } },
                       SettingsCase{ "Task/*,-Task/5+=0", { { "Task", 0xffc0 } } },
                       SettingsCase{ "Task/*,-Task/=0", { { "Task", 0xfffe } } },
                       SettingsCase{ "-Task/=0,Task/0", { { "Task", 0x0001 } } } ) );

TEST( TraceTest, ItemsThatCannotBeReadAreIgnoredWithALine ) {
   TraceHandle const handle( "MalformedTest", true );
   for( std::string const item :
        { "*/16", "*/", "*/x", "*/5-3", "*/+3", "*/3+", "*/1--2", "*/-3", "*/=", "*/=*", "*/ 3",
          "*/3-16", "*/100", "*/**", "a/b", "/3", "-", "-/3" } ) {
      SCOPED_TRACE( item );
      StderrCapture const capture;
      environmentIs( ( "MalformedTest/1, " + item + " ,MalformedTest/=4" ).c_str() );
      EXPECT_EQ( maskOf( handle.facility() ), 0x0013u );
      EXPECT_THAT( capture.writes(), ElementsAre( "TRACE: ignored item '" + item + "'\n" ) );
   }
   StderrCapture const capture;
   environmentIs( "Task/x\ny" );
   TraceFacilityMan::doReadEnvironment();
   TraceHandle const later( "MalformedLater", true );
   EXPECT_THAT( capture.writes(), ElementsAre( "TRACE: ignored item 'Task/x\\ny'\n",
                                               "TRACE: ignored item 'Task/x\\ny'\n" ) );
}

TEST( TraceTest, PatternOfManyStarsIsNotTriedInAllWays ) {
   std::string pattern;
   for( int i = 0; i < 64; ++i ) {
      pattern += "a*";
   }
   TraceHandle const handle( std::string( 5000, 'a' ), true );
   environmentIs( ( pattern + "b/3" ).c_str() );
   EXPECT_EQ( maskOf( handle.facility() ), 0x0001u );
   environmentIs( ( pattern + "a/3" ).c_str() );
   EXPECT_EQ( maskOf( handle.facility() ), 0x000fu );
}

TEST( TraceTest, FirstReadingIsByTheManagerItself ) {
   ASSERT_EQ( Oru::Entity::singletonExists<TraceFacilityMan>(), nullptr )
         << "this case has a process of its own";
   StderrCapture const capture;
   environmentIs( "FirstReading/2,bad/" );
   EXPECT_EQ( capture.writes().size(), 1u );
   EXPECT_EQ( maskOf( TraceHandle( "FirstReading", true ).facility() ), 0x0007u );
}

TEST( TraceTest, ReadingAgainReplacesTheItemsAndKeepsTheMasks ) {
   environmentIs( "Again*/4" );
   TraceHandle const old( "AgainOld", true );
   environmentIs( "Again*/=6" );
   TraceHandle const fresh( "AgainNew", true );
   EXPECT_EQ( maskOf( old.facility() ), 0x005fu );
   EXPECT_EQ( maskOf( fresh.facility() ), 0x0041u );
}

TEST( TraceTest, HandlesOfOneNameShareOneMask ) {
   environmentIs( nullptr );
   TraceHandle const a( "Shared", true );
   TraceHandle const b( "Shared", false );
   EXPECT_EQ( a.facility(), b.facility() );
   EXPECT_EQ( a.facilityName(), "Shared" );
   a.facility()->levelEnabledIs( 7, true );
   EXPECT_TRUE( b.facility()->levelEnabled( 7 ) );
   EXPECT_EQ( maskOf( b.facility() ), 0x0081u );
   b.facility()->levelEnabledIs( 0, false );
   EXPECT_FALSE( a.facility()->levelEnabled( 0 ) );
   EXPECT_EQ( TraceFacilityMan::globalTraceFacilityMan()->facilityIs( "Shared" ), a.facility() );
}

TEST( TraceTest, LevelsAbove15DoNotExist ) {
   TraceHandle const handle( "Above15", true );
   handle.facility()->levelEnabledIs( 15, true );
   for( unsigned short const level : std::initializer_list<unsigned short>{ 16, 31, 32, 65535 } ) {
      handle.facility()->levelEnabledIs( level, true );
      EXPECT_FALSE( handle.facility()->levelEnabled( level ) );
   }
   EXPECT_EQ( maskOf( handle.facility() ), 0x8001u );
   handle.facility()->levelEnabledIs( 16, false );
   EXPECT_TRUE( handle.facility()->levelEnabled( 0 ) );
}

TEST( TraceTest, ThreadsChangeLevelsWithoutLosingAny ) {
   TraceHandle const handle( "ThreadsLevels", true );
   std::vector<std::thread> threads;
   for( unsigned short level = 1; level < 5; ++level ) {
      threads.emplace_back( [ facility = handle.facility(), level ] {
         for( int i = 0; i < 5000; ++i ) {
            facility->levelEnabledIs( level, i % 2 == 0 );
         }
         facility->levelEnabledIs( level, true );
      } );
   }
   for( std::thread& thread : threads ) {
      thread.join();
   }
   EXPECT_EQ( maskOf( handle.facility() ), 0x001fu );
}

TEST( TraceTest, FacilityIsForgottenByItsLastUserOnly ) {
   environmentIs( nullptr );
   auto const manager = TraceFacilityMan::globalTraceFacilityMan();
   EXPECT_EQ( manager->traceFacilityMaybeDel( "NeverMade" ), nullptr );

   auto handle = std::make_unique<TraceHandle>( "MaybeDel", true );
   handle->facility()->levelEnabledIs( 5, true );
   // Another handle stands by: known, and kept.
   {
      TraceHandle const other( "MaybeDel", true );
      Ptr<TraceFacility> const mine = handle->facility();
      EXPECT_EQ( manager->traceFacilityMaybeDel( "MaybeDel" ), mine );
   }
   EXPECT_TRUE( TraceHandle( "MaybeDel", true ).facility()->levelEnabled( 5 ) );
   // The last one: still given, and gone from the map.
   {
      Ptr<TraceFacility> const mine = handle->facility();
      EXPECT_EQ( manager->traceFacilityMaybeDel( "MaybeDel" ), mine );
      EXPECT_EQ( manager->traceFacilityMaybeDel( "MaybeDel" ), nullptr );
      EXPECT_EQ( mine->references(), 2u );
   }
   EXPECT_FALSE( TraceHandle( "MaybeDel", true ).facility()->levelEnabled( 5 ) );
}

TEST( TraceTest, SnapshotListsMasksByNameThenTheItems ) {
   ASSERT_EQ( Oru::Entity::singletonExists<TraceFacilityMan>(), nullptr )
         << "this case has a process of its own";
   environmentIs( " TaskScheduler/8 ,Lock/1+=5,-Quiet/=0, --None*/3,All/*,Pair/14-15" );
   std::vector<TraceHandle> handles;
   for( char const* name : { "TaskScheduler", "Lock", "Assert", "Quiet", "All", "Pair" } ) {
      handles.emplace_back( name, true );
   }
   EXPECT_THAT( TraceFacilityMan::globalTraceFacilityMan()->traceSettingSnapshot(),
                ElementsAre( "All/0-15", "Assert/=0", "Lock/0-1+=5", "Pair/=0+14-15", "Quiet/-",
                             "TaskScheduler/0-8", "TaskScheduler/8", "Lock/1+=5", "-Quiet/=0",
                             "--None*/3", "All/*", "Pair/14-15" ) );
}

// What one line looks like under a format.
std::string lineOf( char const* format, Quarn::String const& message = "text" ) {
   environmentIs( nullptr, format );
   StderrCapture const capture;
   Oru::formatAndWriteTraceString( "Timer", "Timer.cc", 42, "fire()", message, 8 );
   auto const writes = capture.writes();
   EXPECT_EQ( writes.size(), 1u );
   return writes.empty() ? std::string() : writes.front();
}

TEST( TraceFormatTest, EscapesStandForThePartsOfTheRecord ) {
   std::string const process = std::to_string( getpid() );
   std::string const thread = std::to_string( gettid() );
   EXPECT_EQ( lineOf( "%f/%l %F:%L %n %m" ), "Timer/8 Timer.cc:42 fire() text\n" );
   EXPECT_EQ( lineOf( "%p %t %P" ),
              process + " " + thread + " " + program_invocation_short_name + "\n" );
   EXPECT_EQ( lineOf( "%%m %%%m" ), "%m %text\n" );
   EXPECT_EQ( lineOf( "%q 100% %m %" ), "%q 100% text %\n" );
   EXPECT_EQ( lineOf( "fixed" ), "fixed\n" );

   std::string const byDefault = "[0-9T:.-]+Z " + std::string( program_invocation_short_name ) +
                                 "\\[" + process + ":" + thread + "\\] Timer/8 text\n";
   EXPECT_THAT( lineOf( nullptr ), MatchesRegex( byDefault ) );
   EXPECT_THAT( lineOf( "" ), MatchesRegex( byDefault ) );
}

// The seconds since 1970 of a time stamp taken as UTC; the text must have the promised form.
time_t secondsOf( std::string const& stamp ) {
   tm parts = {};
   int microseconds = -1;
   EXPECT_EQ( std::sscanf( stamp.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d.%6d", &parts.tm_year,
                           &parts.tm_mon, &parts.tm_mday, &parts.tm_hour, &parts.tm_min,
                           &parts.tm_sec, &microseconds ),
              7 );
   parts.tm_year -= 1900;
   parts.tm_mon -= 1;
   return timegm( &parts );
}

TEST( TraceFormatTest, TimeStampsAreWallTimeInUtcAndInTheZone ) {
   constexpr char digits[] = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6}";
   struct {
      char const* zone;
      char const* suffix;
      time_t east;
   } const zones[] = {
         { "AAA-2", "\\+0200", 7200 }, { "BBB3:30", "-0330", -12600 }, { "CCC0", "\\+0000", 0 } };
   for( auto const& z : zones ) {
      setenv( "TZ", z.zone, 1 );
      tzset();
      time_t const before = time( nullptr );
      std::string const line = lineOf( "%d %D" );
      time_t const after = time( nullptr );
      EXPECT_THAT( line, MatchesRegex( std::string( digits ) + "Z " + digits + z.suffix + "\n" ) );
      time_t const utc = secondsOf( line );
      EXPECT_LE( before, utc );
      EXPECT_LE( utc, after );
      EXPECT_EQ( secondsOf( line.substr( line.find( ' ' ) + 1 ) ), utc + z.east );
   }
}

TEST( TraceFormatTest, ControlCharactersNeverReachTheOutput ) {
   EXPECT_EQ( lineOf( "%m", "two\nlines\tand\r\x1b[31m \x7f" ),
              "two\\nlines\\tand\\x0d\\x1b[31m \\x7f\n" );
   EXPECT_EQ( lineOf( "%m", Quarn::String( "nul\0end", 7 ) ), "nul\\x00end\n" );
   EXPECT_EQ( lineOf( "%m", "gr\xc3\xbc\xc3\x9f \\n %d" ), "gr\xc3\xbc\xc3\x9f \\n %d\n" );
   EXPECT_EQ( lineOf( "%m", "" ), "\n" );

   StderrCapture const capture;
   environmentIs( nullptr, "%F|%n|%f" );
   Oru::formatAndWriteTraceString( "a\nb", nullptr, 1, nullptr, "", 0 );
   EXPECT_THAT( capture.writes(), ElementsAre( "||a\\nb\n" ) );
}

TEST( TraceOutputTest, HelperWritesTheStreamWhateverTheMask ) {
   environmentIs( nullptr, "%f/%l %F:%L %n %m" );
   TraceHandle const handle( "Helper", true );
   handle.facility()->levelEnabledIs( 0, false );
   std::stringstream text;
   text << "value " << 7;
   StderrCapture const capture;
   Oru::traceHelper( *handle.facility(), text, 3, "a.cc", 9, "f()" );
   Oru::traceHelper( *handle.facility(), text, 0, "a.cc", 10, "g()" );
   EXPECT_THAT( capture.writes(),
                ElementsAre( "Helper/3 a.cc:9 f() value 7\n", "Helper/0 a.cc:10 g() value 7\n" ) );
}

TEST( TraceOutputTest, ClosedStandardErrorNeitherKillsNorChangesErrno ) {
   environmentIs( nullptr );
   signal( SIGPIPE, SIG_DFL );
   StderrCapture capture;
   capture.closeReader();
   errno = ERANGE;
   Oru::formatAndWriteTraceString( "Timer", "Timer.cc", 42, "fire()", "lost", 8 );
   EXPECT_EQ( errno, ERANGE );
   std::stringstream text( "lost" );
   TraceHandle const handle( "Closed", true );
   errno = ERANGE;
   Oru::traceHelper( *handle.facility(), text, 0, "a.cc", 9, "f()" );
   EXPECT_EQ( errno, ERANGE );
}

TEST( TraceOutputTest, FullPipeDropsTheLine ) {
   environmentIs( nullptr, "%m" );
   StderrCapture const capture; // does not block
   Quarn::String const message( std::string( 1000, 'x' ) );
   for( int i = 0; i < 1000; ++i ) {
      Oru::formatAndWriteTraceString( "Timer", "Timer.cc", 42, "fire()", message, 8 );
   }
   auto const writes = capture.writes();
   EXPECT_LT( writes.size(), 1000u );
   EXPECT_THAT( writes, testing::Each( testing::SizeIs( 1001 ) ) );
}

TEST( TraceOutputTest, ForkedChildNamesItself ) {
   environmentIs( nullptr, "%p:%t %m" );
   StderrCapture const capture;
   pid_t const child = fork();
   if( child == 0 ) {
      Oru::formatAndWriteTraceString( "Timer", "Timer.cc", 42, "fire()", "child", 8 );
      _exit( 0 );
   }
   waitpid( child, nullptr, 0 );
   std::string const id = std::to_string( child );
   EXPECT_THAT( capture.writes(), ElementsAre( id + ":" + id + " child\n" ) );
}

} // namespace
