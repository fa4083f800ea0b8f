#include <Quarn/util/Process.h>

#include <Quarn/Debug.h>
#include <Quarn/base/PidMappings.h>
#include <Quarn/base/ThreadControl.h>
#include <Quarn/util/HeapChecker.h>

#include "support/Child.h"
#include "support/Shell.h"
#include "support/TempDir.h"
#include "support/TraceCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <bit>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <typeinfo>

#include <dlfcn.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

namespace {

std::pair<int, std::string> lastSyslog;

} // namespace

// The library's calls end here instead of in the system log.
extern "C" __attribute__( ( visibility( "default" ) ) ) void syslog( int priority,
                                                                     char const* format, ... ) {
   char text[ 1024 ];
   va_list arguments;
   va_start( arguments, format );
   std::vsnprintf( text, sizeof( text ), format, arguments );
   va_end( arguments );
   lastSyslog = { priority, text };
}

namespace {

using namespace Quarn::Util;
using Quarn::MappingInfo;
using Quarn::MappingInfos;
using Quarn::PidMappings;
using Quarn::String;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using testing_support::Child;
using testing_support::openDescriptors;
using testing_support::TraceCapture;

class ProcessForkTest : public testing::Test {
 protected:
   ProcessForkTest() {
      Quarn::Platform::setTraceFormat( "%l %m" );
      handler_->enabledIs( 1, true );
   }

   std::shared_ptr<Quarn::Platform::DebugHandler> handler_ =
         Quarn::Platform::getDebugHandler( "ProcessTest", false );
};

std::string firstLine( const std::string& path ) {
   std::ifstream in( path );
   std::string line;
   std::getline( in, line );
   return line;
}

// Field 22 of the stat file, as another program finds it.
std::string startTimeByPython( int pid ) {
   return shell( fmt::format( "python3 -c 'import sys; t = open(\"/proc/{}/stat\", \"rb\").read(); "
                              "sys.stdout.write(t[t.rindex(b\")\") + 2:].split()[19].decode())'",
                              pid ) )
         .second;
}

// When the process began, in seconds since 1970: as ps has it, and by clock ticks since boot.
long startByPs( int pid ) {
   return std::stol(
         shell( fmt::format( "date -d \"$(LC_ALL=C ps -o lstart= -p {})\" +%s", pid ) ).second );
}
long startByTicks( const String& ticks ) {
   const long booted = std::stol( shell( "sed -n 's/^btime //p' /proc/stat" ).second );
   return booted + std::stol( ticks.stdString() ) / sysconf( _SC_CLK_TCK );
}

TEST_F( ProcessForkTest, StartTimeAndTitleOfAnyName ) {
   if( shell( "command -v python3" ).first != 0 ) {
      GTEST_SKIP() << "there is no python3";
   }
   const bool psIsThere = shell( "command -v ps" ).first == 0;
   struct {
      char const* name;
      char const* title;
   } const cases[] = {
         { "plain", "plain" }, { "a\nb) c", "a\\nb) c" }, { ") S 1 2 3 4 5", ") S 1 2 3 4 5" },
         { "  x y ", "x y" },  { "a\\b", "a\\\\b" },      { "Name:", "Name:" },
         { "\n", "\\n" },
   };
   for( const auto& c : cases ) {
      const Child child( [ & ] {
         prctl( PR_SET_NAME, c.name );
         return std::string();
      } );
      const std::string expected = startTimeByPython( child.pid() );
      EXPECT_THAT( expected, Not( IsEmpty() ) );
      EXPECT_EQ( readProcStartTime( *handler_, child.pid() ), expected ) << c.name;
      EXPECT_EQ( readProcStartTime( child.pid() ), expected ) << c.name;
      if( psIsThere ) {
         // Both round to seconds, and ps reckons the moment of the boot anew.
         EXPECT_LE( std::abs( startByPs( child.pid() ) - startByTicks( expected ) ), 2 ) << c.name;
      }
      EXPECT_EQ( readProcTitle( *handler_, child.pid(), false ), c.title );
      // As the kernel shows it, but for the blanks around it.
      EXPECT_THAT( firstLine( fmt::format( "/proc/{}/status", child.pid() ) ),
                   HasSubstr( c.title ) );
   }
   EXPECT_EQ( readProcStartTime( getpid() ), startTimeByPython( getpid() ) );
   char own[ 16 ];
   prctl( PR_GET_NAME, own );
   EXPECT_EQ( readProcTitle( 0, false ), own );
}

TEST_F( ProcessForkTest, CommandLineIsTheFirstArgument ) {
   const Child child( [] {
      execlp( "cat", "/some path/cat", "-", "-", nullptr );
      return std::string( "failed" );
   } );
   ASSERT_EQ( child.said(), "" );
   EXPECT_EQ( readPidCmdline( *handler_, child.pid() ), "/some path/cat" );
   if( shell( "command -v ps" ).first == 0 ) {
      EXPECT_EQ( shell( fmt::format( "ps -ww -o args= -p {}", child.pid() ) ).second,
                 readPidCmdline( *handler_, child.pid() ).stdString() + " - -\n" );
      EXPECT_EQ( shell( fmt::format( "ps -o comm= -p {}", child.pid() ) ).second,
                 readProcTitle( *handler_, child.pid(), false ).stdString() + "\n" );
   }
}

TEST_F( ProcessForkTest, FailuresAreEmptyAndTraced ) {
   const auto descriptors = openDescriptors();
   TraceCapture capture;
   EXPECT_EQ( readPidCmdline( *handler_, -1 ), "" );
   EXPECT_EQ( readProcStartTime( *handler_, -1 ), "" );
   EXPECT_EQ( readProcTitle( *handler_, -1, true ), "" );
   EXPECT_EQ( readProcTitle( *handler_, -1, false ), "" );
   EXPECT_EQ( capture.text(),
              "1 Quarn::Util::readProcStartTime() error - Couldn't access stat file:/proc/-1/stat "
              "stream state:4\n"
              "1 Quarn::Util::readProcTitle() error - Couldn't read status file:/proc/-1/status "
              "stream state:4\n" );
   const Child nameless( [] {
      prctl( PR_SET_NAME, " " );
      return std::string();
   } );
   EXPECT_EQ( readProcTitle( *handler_, nameless.pid(), true ), "" );
   EXPECT_THAT( capture.text(),
                HasSubstr( fmt::format(
                      "1 Quarn::Util::readProcTitle() error - Read 0 length title for pid:{}\n",
                      nameless.pid() ) ) );
   // Those of the capture and the child.
   EXPECT_EQ( openDescriptors(), descriptors + 3 );
}

// ------------------------------------------------------------------------------------- sockets

// Listens on an abstract socket.
bool listenOn( const std::string& name ) {
   const int fd = socket( AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0 );
   sockaddr_un address = {};
   address.sun_family = AF_UNIX;
   std::memcpy( address.sun_path + 1, name.data(), name.size() );
   const auto size = static_cast<socklen_t>( offsetof( sockaddr_un, sun_path ) + 1 + name.size() );
   return bind( fd, reinterpret_cast<sockaddr const*>( &address ), size ) == 0 &&
          listen( fd, 1 ) == 0;
}

TEST_F( ProcessForkTest, SocketOfAnotherProcessIsFoundLikeSsDoes ) {
   const std::string name = fmt::format( "quarn-test-{}", getpid() );
   EXPECT_EQ( readSocketPid( *handler_, "@" + name ), 0 );
   const Child child( [ & ] { return listenOn( name ) ? "listening" : "failed"; } );
   ASSERT_EQ( child.said(), "listening" );
   EXPECT_EQ( readSocketPid( *handler_, "@" + name ), child.pid() );

   if( shell( "command -v ss" ).first != 0 ) {
      GTEST_SKIP() << "there is no ss to compare with";
   }
   const auto [ code, line ] = shell( "ss -xlp | grep -F '@" + name + " '" );
   ASSERT_EQ( code, 0 );
   EXPECT_THAT( line, HasSubstr( fmt::format( "pid={},", child.pid() ) ) );
}

TEST_F( ProcessForkTest, OwnSocketIsFoundAndAnUnknownNameEndsEarly ) {
   const std::string name = fmt::format( "quarn-test-own-{}", getpid() );
   ASSERT_TRUE( listenOn( name ) );
   // A child has the socket too; the caller comes first.
   const Child child( [] { return std::string(); } );
   handler_->enabledIs( 5, true );
   TraceCapture capture;
   EXPECT_EQ( readSocketPid( *handler_, name ), getpid() );
   EXPECT_EQ( capture.count( "5 Quarn::Util::readProcFd() searching for inode: " ), 1u );
   EXPECT_EQ( capture.count(
                    fmt::format( "5 Quarn::Util::readProcFd() found owner pid:{}\n", getpid() ) ),
              1u );
   EXPECT_EQ( readSocketPid( *handler_, name + "-unknown" ), 0 );
   EXPECT_EQ( capture.count( "searching for inode" ), 1u );
   EXPECT_THAT( capture.text(),
                HasSubstr( "5 Quarn::Util::readSocketPid() unable to find inode\n" ) );
   // A name that the heading holds has no number in its column.
   EXPECT_EQ( readSocketPid( *handler_, "RefCount" ), 0 );
   EXPECT_THAT( capture.text(),
                HasSubstr( "1 Quarn::Util::readProcNetUnix() Couldn't convert inode 'Inode' to "
                           "U32.\n" ) );
}

// ----------------------------------------------------------------------------------- type names

using Object = void const* (*)( bool );
using ObjectType = char const* (*)( bool );

template<typename Function>
Function function( void* library, char const* name ) {
   return reinterpret_cast<Function>( dlsym( library, name ) );
}

void const* vptrOf( void const* object ) {
   void const* vptr;
   std::memcpy( &vptr, object, sizeof( vptr ) );
   return vptr;
}

// A process that has the library where this one does not put it, and tells the table of an object
// there and the name of its type, one line each.
std::string loadElsewhere( bool local ) {
   // Every gap that the library might fill, and much of what is below.
   for( int page = 0; page < 4096; ++page ) {
      if( mmap( nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0 ) == MAP_FAILED ) {
         return "no memory";
      }
   }
   void* const library = dlopen( TYPENAME_LIBRARY, RTLD_NOW );
   if( !library ) {
      return dlerror();
   }
   return fmt::format( "{}\n{}", vptrOf( function<Object>( library, "testObject" )( local ) ),
                       function<ObjectType>( library, "testObjectType" )( local ) );
}

struct OtherObject {
   explicit OtherObject( const Child& child )
         : vptr( std::bit_cast<void const*>( std::strtoul( child.said().c_str(), nullptr, 16 ) ) ),
           type( child.said().substr( child.said().find( '\n' ) + 1 ) ) {}

   void const* vptr;
   std::string type;
};

TEST_F( ProcessForkTest, TypeNameIsFoundInALibraryThatIsElsewhere ) {
   // Both before the library is loaded here, as it then would be in a child.
   const Child plain( [] { return loadElsewhere( false ); } );
   const Child local( [] { return loadElsewhere( true ); } );
   ASSERT_EQ( dlopen( TYPENAME_LIBRARY, RTLD_LAZY | RTLD_NOLOAD ), nullptr );
   for( const Child* child : { &plain, &local } ) {
      const OtherObject other( *child );
      ASSERT_THAT( other.type, HasSubstr( child == &local ? "Triangle" : "Square" ) )
            << child->said();
      String error;
      char const* const name = typenameFromVptr( child->pid(), other.vptr, error );
      ASSERT_NE( name, nullptr ) << error.stdString();
      EXPECT_EQ( name, other.type );
      EXPECT_EQ( error, "" );

      // The first round has loaded it here.
      void* const library = dlopen( TYPENAME_LIBRARY, RTLD_LAZY | RTLD_NOLOAD );
      ASSERT_NE( library, nullptr );
      EXPECT_NE( vptrOf( function<Object>( library, "testObject" )( child == &local ) ),
                 other.vptr );
   }
}

struct InTheProgram {
   virtual ~InTheProgram() = default;
};

TEST_F( ProcessForkTest, TypeNameIsFoundInTheProgramAndInLibrariesOfIts ) {
   const InTheProgram object;
   const Child child( [] { return std::string(); } );
   String error;
   char const* const own = typenameFromVptr( child.pid(), vptrOf( &object ), error );
   ASSERT_NE( own, nullptr ) << error.stdString();
   EXPECT_STREQ( own, typeid( InTheProgram ).name() );
   // The handler's class is known to the library alone.
   char const* const theirs = typenameFromVptr( child.pid(), vptrOf( handler_.get() ), error );
   ASSERT_NE( theirs, nullptr ) << error.stdString();
   const Quarn::Platform::DebugHandler& handler = *handler_;
   EXPECT_STREQ( theirs, typeid( handler ).name() );
}

// Whatever address is asked for, the answer is a name or a reason.
TEST_F( ProcessForkTest, NoPointerIntoALibraryDoesHarm ) {
   const Child child( [] { return loadElsewhere( false ); } );
   const OtherObject other( child );
   const MappingInfos mappings = PidMappings::populate( child.pid() );
   MappingInfo const* const tables =
         mappings.find( reinterpret_cast<std::uintptr_t>( other.vptr ) );
   ASSERT_NE( tables, nullptr ) << child.said();
   unsigned asked = 0;
   unsigned named = 0;
   for( const MappingInfo& mapping : mappings ) {
      if( mapping.file != tables->file ) {
         continue;
      }
      // The tables word by word, and samples of the rest.
      const std::uint64_t step = &mapping == tables ? 8 : 1016;
      for( std::uint64_t at = mapping.start; at < mapping.end; at += step ) {
         String error;
         char const* const name =
               typenameFromVptr( child.pid(), std::bit_cast<void const*>( at ), error );
         ++asked;
         named += name != nullptr && std::strlen( name ) != 0;
         EXPECT_EQ( name == nullptr, !error.empty() );
      }
   }
   EXPECT_GT( asked, 100u );
   EXPECT_GE( named, 2u );
}

TEST_F( ProcessForkTest, TypeNameFailuresSayWhy ) {
   const Child child( [] { return loadElsewhere( false ); } );
   const OtherObject other( child );
   const int pid = child.pid();
   const auto reason = [ & ]( void const* vptr, int process ) {
      String error;
      EXPECT_EQ( typenameFromVptr( process, vptr, error ), nullptr );
      return error.stdString();
   };
   const auto moved = [ & ]( std::ptrdiff_t bytes ) {
      return static_cast<void const*>( static_cast<char const*>( other.vptr ) + bytes );
   };
   EXPECT_EQ( reason( nullptr, pid ),
              fmt::format( "Could not find mapping for vptr:0x0 otherPid:{}", pid ) );
   EXPECT_EQ( reason( other.vptr, -1 ),
              fmt::format( "Could not find mapping for vptr:{} otherPid:-1", other.vptr ) );

   const MappingInfos mappings = PidMappings::populate( pid );
   const MappingInfo& tables = *mappings.find( reinterpret_cast<std::uintptr_t>( other.vptr ) );
   EXPECT_EQ( reason( moved( 1 ), pid ),
              fmt::format( "Bad vptr:{} otherPid:{} mapping:{}", moved( 1 ), pid, tables ) );
   void const* const start = std::bit_cast<void const*>( tables.start );
   EXPECT_EQ( reason( start, pid ),
              fmt::format( "Bad vptr:{} otherPid:{} mapping:{}", start, pid, tables ) );

   // The stack is no file.
   const int local = 0;
   void const* const onStack =
         std::bit_cast<void const*>( reinterpret_cast<std::uintptr_t>( &local ) & ~7ul );
   const MappingInfos mine = PidMappings::populate( pid );
   MappingInfo const* const stack = mine.find( reinterpret_cast<std::uintptr_t>( onStack ) );
   ASSERT_NE( stack, nullptr );
   EXPECT_EQ( reason( onStack, pid ),
              fmt::format( "Failed to open library for vptr:{} otherPid:{} other mapping:{}",
                           onStack, pid, *stack ) );
   // Eight bytes on, the word before is the address of a function.
   EXPECT_THAT( reason( moved( 8 ), pid ),
                StartsWith( "TypeInfo is not stored in proper mapping. Expected:" ) );
}

// ------------------------------------------------------------------------------------- switches

TEST_F( ProcessForkTest, SharedMappingsAreAddedToTheCoreFilter ) {
   const std::string path = "/proc/self/coredump_filter";
   const std::string before = firstLine( path );
   if( before.empty() || !( std::ofstream( path ) << "0x33" << std::flush ) ) {
      GTEST_SKIP() << "this kernel lets nobody choose what core dumps hold";
   }
   includeShmemInCore();
   EXPECT_EQ( firstLine( path ), "0000003b" );
   includeShmemInCore();
   EXPECT_EQ( firstLine( path ), "0000003b" );
   std::ofstream( path ) << "0x" << before;
   EXPECT_EQ( firstLine( path ), before );
}

TEST_F( ProcessForkTest, CanaryGoesToTheTraceAndAlwaysToTheSystemLog ) {
   const std::string line = fmt::format( "CANARY: pid:{} tid:{} ProcessTest at {{}} 100%s",
                                         getpid(), Quarn::gettid() );
   TraceCapture capture;
   emitCanaryLog( *handler_, "at {} 100%s" );
   EXPECT_EQ( capture.text(), "1 " + line + "\n" );
   EXPECT_EQ( lastSyslog, std::pair( LOG_LOCAL5 | LOG_DEBUG, line ) );

   lastSyslog = {};
   handler_->enabledIs( 1, false );
   emitCanaryLog( *handler_, "at {} 100%s" );
   EXPECT_EQ( capture.count( "CANARY" ), 1u );
   EXPECT_EQ( lastSyslog.second, line );
}

TEST_F( ProcessForkTest, MagicIsReadUpToItsFirstZeroByte ) {
   EXPECT_EQ( decodeMagic( 0x4847464544434241 ), "ABCDEFGH" );
   EXPECT_EQ( decodeMagic( 0x4847464544004241 ), "AB" );
   EXPECT_EQ( decodeMagic( 0x4847464544434200 ), "" );
   EXPECT_EQ( decodeMagic( 0xff ), "\xff" );
}

TEST_F( ProcessForkTest, SymbolsAreFoundAndTheLastErrorKept ) {
   EXPECT_EQ( resolveSymError(), "" );
   EXPECT_EQ( resolveSym( *handler_, "no_such_symbol" ), nullptr );
   EXPECT_THAT( resolveSymError().stdString(), HasSubstr( "no_such_symbol" ) );
   // An error of before is not taken for its own.
   EXPECT_EQ( dlopen( nullptr, 0 ), nullptr );
   EXPECT_EQ( resolveSym( *handler_, "getpid" ), dlsym( RTLD_DEFAULT, "getpid" ) );
   EXPECT_EQ( resolveSymError(), "" );
}

TEST_F( ProcessForkTest, HeapCheckerIsAskedForOnlyWhenTheEnvironmentSaysSo ) {
   using Quarn::HeapChecker;
   void* const library = dlopen( TYPENAME_LIBRARY, RTLD_NOW | RTLD_GLOBAL );
   ASSERT_NE( library, nullptr ) << dlerror();
   char const* const variables[] = { "HEAPCHECK", "HEAP_CHECK_QUARN_ENABLED_DONT_DELETE" };
   for( char const* variable : variables ) {
      unsetenv( variable );
   }
   for( char const* variable : variables ) {
      EXPECT_EQ( HeapChecker::resolveAllocSym( *handler_ ), nullptr );
      EXPECT_EQ( HeapChecker::resolveFreeSym( *handler_ ), nullptr );
      setenv( variable, "", 1 );
      EXPECT_EQ( HeapChecker::resolveAllocSym( *handler_ ),
                 dlsym( library, "HeapChecker_RecordClientAlloc" ) );
      EXPECT_EQ( HeapChecker::resolveFreeSym( *handler_ ),
                 dlsym( library, "HeapChecker_RecordClientFree" ) );
      unsetenv( variable );
   }
}

} // namespace
