#include <Quarn/util/Process.h>

#include <Quarn/base/Exception.h>
#include <Quarn/base/ThreadControl.h>
#include <Quarn/util/Files.h>

#include "debug/Handlers.h"
#include "util/ProcText.h"
#include "util/ProcWalk.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <new>
#include <string>

#include <dlfcn.h>
#include <pthread.h>
#include <syslog.h>
#include <unistd.h>

namespace Quarn::Util {

namespace {

constexpr char sourceFile[] = "UtilCpp";
constexpr char className[] = "Quarn::Util";

// A file under /proc, read to its end.
struct ProcFile {
   explicit ProcFile( const std::string& path ) {
      std::ifstream in( path, std::ios::in | std::ios::binary );
      opened = in.is_open();
      // There is no NUL in these texts. A failing read, as of a process that has ended meanwhile,
      // leaves its mark in the state of the stream.
      std::getline( in, text, '\0' );
      state = in.rdstate();
      failed = in.fail();
   }

   bool opened;
   bool failed;
   std::ios_base::iostate state;
   std::string text;
};

// `Handler` is a handler of the caller's or a load-time one.
template<typename Handler>
String procTitle( const Handler& handler, int pid, bool quiet ) {
   static constexpr char function[] = "readProcTitle";
   const unsigned short failureLevel = quiet ? 5 : 1;
   if( pid == 0 ) {
      pid = ::getpid();
   }
   const std::string path = fmt::format( "/proc/{}/status", pid );
   try {
      const ProcFile file( path );
      if( file.failed ) {
         QUARN_TRACE_AS( handler, failureLevel, className, function,
                         "error - Couldn't read status file:{} stream state:{}", path,
                         static_cast<int>( file.state ) );
         return {};
      }
      String title( ProcText::title( file.text ) );
      if( title.empty() ) {
         QUARN_TRACE_AS( handler, 1, className, function, "error - Read 0 length title for pid:{}",
                         pid );
      } else {
         QUARN_TRACE_AS( handler, 5, className, function, "success - title:{}", title );
      }
      return title;
   } catch( const std::exception& e ) {
      QUARN_TRACE_AS( handler, failureLevel, className, function,
                      "error - Couldn't read status file:{} exception:{}", path, e.what() );
      return {};
   }
}

template<typename Handler>
String procStartTime( const Handler& handler, int pid ) {
   static constexpr char function[] = "readProcStartTime";
   using ProcText::StartTime;
   const std::string path = fmt::format( "/proc/{}/stat", pid );
   const ProcFile file( path );
   if( !file.opened ) {
      QUARN_TRACE_AS( handler, 1, className, function,
                      "error - Couldn't access stat file:{} stream state:{}", path,
                      static_cast<int>( file.state ) );
      return {};
   }
   if( file.failed ) {
      QUARN_TRACE_AS( handler, 1, className, function,
                      "failed to read contents of file: {} stream state: {}", path,
                      static_cast<int>( file.state ) );
      return {};
   }
   std::string_view line = file.text;
   // The name of the process may hold more newlines.
   if( line.ends_with( '\n' ) ) {
      line.remove_suffix( 1 );
   }
   const StartTime startTime = ProcText::startTime( line );
   switch( startTime.outcome ) {
   case StartTime::Outcome::tooShort:
      QUARN_TRACE_AS( handler, 1, className, function,
                      "input not long enough to contain start time. file: {} line: \"{}\"", path,
                      line );
      break;
   case StartTime::Outcome::noField:
      QUARN_TRACE_AS( handler, 1, className, function,
                      "Failed to parse start time from file: {} line: \"{}\" "
                      "procStartTime.size():{} tokPos:{} startTimeFieldPos:{}",
                      path, line, startTime.text.size(), startTime.position,
                      StartTime::fieldPosition );
      break;
   case StartTime::Outcome::found:
      QUARN_TRACE_AS( handler, 5, className, function, "success - pid:{} start time:{}", pid,
                      startTime.text );
      break;
   }
   return String( startTime.text );
}

// The inode of a local socket; 0 when no line of /proc/net/unix has its name.
std::uint32_t readProcNetUnix( Platform::DebugHandler& handler, const String& socketName ) {
   std::ifstream in( "/proc/net/unix", std::ios::in | std::ios::binary );
   std::string line;
   while( std::getline( in, line ) ) {
      QUARN_TRACE( handler, 7, className, "{}", line );
      if( line.find( socketName ) == std::string::npos ) {
         continue;
      }
      const std::string_view field = ProcText::unixInode( line );
      const std::uint32_t inode = ProcText::inodeNumber( field );
      if( inode == 0 ) {
         QUARN_TRACE( handler, 1, className, "Couldn't convert inode '{}' to U32.", field );
      } else {
         QUARN_TRACE( handler, 5, className, "sockInode:{}", inode );
      }
      return inode;
   }
   return 0;
}

// The first process with a descriptor on that inode; 0 when there is none.
int readProcFd( Platform::DebugHandler& handler, std::uint32_t inode ) {
   static constexpr char function[] = "readProcFd";
   QUARN_TRACE( handler, 5, className, "searching for inode: {}", inode );
   const ProcWalk walk( handler, className, function );
   return walk.find( []( std::string_view ) { return true; },
                     [ & ]( const ProcWalk::Fd& fd ) {
                        if( fd.error != 0 ) {
                           QUARN_TRACE_AS( handler, 5, className, function, "stat failed:{}",
                                           strerror( fd.error ) );
                           return false;
                        }
                        // The folders have inodes too.
                        if( fd.name == "." || fd.name == ".." || fd.file.st_ino != inode ) {
                           return false;
                        }
                        QUARN_TRACE_AS( handler, 5, className, function, "found owner pid:{}",
                                        fd.pid );
                        return true;
                     } );
}

// What the last look-up said, from any thread. Never destroyed: other destructors may look up.
struct LastError {
   std::mutex mutex;
   String text;
};

LastError& lastError() {
   static LastError* const error = [] {
      auto made = std::make_unique<LastError>();
      // A child has the mutex free, whoever looked up meanwhile.
      if( ::pthread_atfork( [] { lastError().mutex.lock(); }, [] { lastError().mutex.unlock(); },
                            [] { lastError().mutex.unlock(); } ) != 0 ) {
         throw std::bad_alloc();
      }
      return made.release();
   }();
   return *error;
}

// Made while the library is loaded: a child that is forked in the middle of it would have it half
// made for ever.
[[maybe_unused]] LastError const& madeAtLoad = lastError();

// The loader's text of the calling thread, which the call clears.
String takeLoaderError() {
   char const* const text = ::dlerror();
   return text ? String( text ) : String();
}

void* openProgram( const Platform::DebugHandler& handler ) {
   void* const program = ::dlopen( nullptr, RTLD_LAZY );
   if( !program ) {
      Impl::assertAt( handler, QUARN_SOURCE_AT( className, "resolveSym" ), "dlopen() failed: {}",
                      takeLoaderError() );
   }
   return program;
}

} // namespace

String readPidCmdline( Platform::DebugHandler& handler, int pid ) {
   // The arguments are divided by NUL bytes, and the first one ends what is read of a file, so that
   // none is left in the result.
   return fileRead( handler, fmt::format( "/proc/{}/cmdline", pid ).c_str(), true );
}

String readProcTitle( Platform::DebugHandler& handler, int pid, bool quiet ) {
   return procTitle( handler, pid, quiet );
}

String readProcTitle( int pid, bool quiet ) {
   return procTitle( Platform::utilHandler, pid, quiet );
}

String readProcStartTime( Platform::DebugHandler& handler, int pid ) {
   return procStartTime( handler, pid );
}

String readProcStartTime( int pid ) { return procStartTime( Platform::utilHandler, pid ); }

int readSocketPid( Platform::DebugHandler& handler, const String& socketName ) {
   QUARN_TRACE( handler, 5, className, "searching for socket name:{}", socketName );
   const std::uint32_t inode = readProcNetUnix( handler, socketName );
   if( inode == 0 ) {
      QUARN_TRACE( handler, 5, className, "unable to find inode" );
      return 0;
   }
   return readProcFd( handler, inode );
}

void includeShmemInCore() {
   static constexpr unsigned sharedFileMappings = 1u << 3;
   const std::string path = fmt::format( "/proc/{}/coredump_filter", ::getpid() );
   const auto traceFailure = [ & ]( int error ) {
      QUARN_TRACE_AS( Platform::utilHandler, 1, className, "includeShmemInCore",
                      "failed to open {}: {} (has EUID changed?)", path, strerror( error ) );
   };
   std::FILE* const file = std::fopen( path.c_str(), "r+e" );
   if( !file ) {
      traceFailure( errno );
      return;
   }
   unsigned filter = 0;
   errno = 0;
   if( std::fscanf( file, "%x", &filter ) < 1 ) {
      const int error = errno;
      std::fclose( file );
      QUARN_FAIL_ON( Platform::utilHandler, className, "fscanf failed for file:{} error:{}", path,
                     strerror( error ) );
   }
   // A stream that was read must be positioned anew before it is written.
   std::rewind( file );
   // The kernel takes both bases, and writes hexadecimal.
   const bool written =
         std::fprintf( file, "%d", static_cast<int>( filter | sharedFileMappings ) ) > 0;
   const int writeError = errno;
   // The kernel sees the value here.
   if( std::fclose( file ) != 0 ) {
      traceFailure( errno );
   } else if( !written ) {
      traceFailure( writeError );
   }
}

void emitCanaryLog( Platform::DebugHandler& handler, const String& text ) {
   static constexpr int priority = 175;
   static_assert( priority == ( LOG_LOCAL5 | LOG_DEBUG ) );
   const std::string line = fmt::format( "CANARY: pid:{} tid:{} {} {}", ::getpid(), Quarn::gettid(),
                                         handler.name(), text );
   QUARN_TRACE( handler, 1, nullptr, "{}", line );
   ::syslog( priority, "%s", line.c_str() );
}

String decodeMagic( unsigned long magic ) {
   static_assert( sizeof( magic ) == 8 );
   char bytes[ sizeof( magic ) + 1 ] = {};
   for( std::size_t i = 0; i < sizeof( magic ); ++i ) {
      bytes[ i ] = static_cast<char>( magic >> ( 8 * i ) & 0xff );
   }
   return String( bytes );
}

void* resolveSym( Platform::DebugHandler& handler, char const* symbol ) {
   static void* const program = openProgram( handler );
   symbol = symbol ? symbol : "";
   ::dlerror();
   void* const address = ::dlsym( program, symbol );
   const String error = takeLoaderError();
   {
      LastError& last = lastError();
      const std::lock_guard guard( last.mutex );
      last.text = error;
   }
   if( error.empty() ) {
      QUARN_TRACE( handler, 5, className, "symbolName:{} resolved to:{}", symbol, address );
   } else {
      QUARN_TRACE( handler, 1, className, "symbolName:{} unable to resolve:{}", symbol, error );
   }
   return address;
}

String resolveSymError() {
   LastError& last = lastError();
   const std::lock_guard guard( last.mutex );
   return last.text;
}

} // namespace Quarn::Util
