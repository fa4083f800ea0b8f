// Row 6: calls of the system that fail, each with the errors that it may have, in operations of the
// library, its utilities and the stand-ins. The table is in SystemCallPairs.cc. Each function of
// the C library that they import is in it, or in the list of SystemCallImports.cc with the reason
// why not; one that is in neither is a fault, and so is a place in their code that the operations
// come by and that never meets a failure.
//
// Each pair has a process of its own. The operation has to come to the outcome that the headers
// promise, with the text that they promise; the open descriptors, the umask, the current directory,
// the signal mask and the network namespace have to be what they were; and the operation has to
// succeed when it is made again.

#include "prove/Row.h"
#include "prove/SharedMemory.h"
#include "prove/SystemCallImports.h"
#include "prove/SystemCallPairs.h"

#include <Quarn/base/Exception.h>
#include <Quarn/debug/Environment.h>

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using prove::Operation;
using prove::Pair;
using prove::Scene;

// What a child leaves for its parent, in memory that they share.
struct Result {
   bool finished;
   int hits;
   char outcome[ 200 ];
   char fault[ 1000 ];
};

constinit Result* result = nullptr;
constinit int standardError = -1;

void complain( const std::string& fault ) {
   if( result->fault[ 0 ] == '\0' ) {
      std::snprintf( result->fault, sizeof( result->fault ), "%s", fault.c_str() );
   }
}

std::string traced() {
   std::string text(
         static_cast<std::size_t>( std::max<off_t>( lseek( standardError, 0, SEEK_CUR ), 0 ) ),
         '\0' );
   const ssize_t size = pread( standardError, text.data(), text.size(), 0 );
   text.resize( size > 0 ? static_cast<std::size_t>( size ) : 0 );
   return text;
}

// What an operation has to leave as it was, as lines of text.
std::set<std::string> stateOfProcess() {
   std::set<std::string> lines;
   DIR* const walk = opendir( "/proc/self/fd" );
   if( !walk ) {
      throw std::runtime_error( "cannot look at the open descriptors" );
   }
   const std::string own = std::to_string( dirfd( walk ) );
   while( dirent const* const entry = readdir( walk ) ) {
      const std::string number = entry->d_name;
      if( number == "." || number == ".." || number == own ) {
         continue;
      }
      lines.insert( "descriptor " + number + " " +
                    std::filesystem::read_symlink( "/proc/self/fd/" + number ).string() );
   }
   closedir( walk );
   const mode_t mask = umask( 0 );
   umask( mask );
   lines.insert( fmt::format( "umask {:o}", mask ) );
   lines.insert( "directory " + std::filesystem::current_path().string() );
   lines.insert( "namespace " +
                 std::filesystem::read_symlink( "/proc/thread-self/ns/net" ).string() );
   if( proveNamespaceIsLeft() ) {
      lines.insert( "namespace of the first process" );
   }
   sigset_t blocked;
   sigprocmask( SIG_BLOCK, nullptr, &blocked );
   sigset_t pending;
   sigpending( &pending );
   for( int signal = 1; signal <= SIGRTMAX; ++signal ) {
      if( sigismember( &blocked, signal ) == 1 ) {
         lines.insert( fmt::format( "signal {} blocked", signal ) );
      }
      if( sigismember( &pending, signal ) == 1 ) {
         lines.insert( fmt::format( "signal {} pending", signal ) );
      }
   }
   return lines;
}

// Descriptors to what is called `but` may be there in addition.
void requireState( const std::set<std::string>& before, char const* when, char const* but ) {
   const std::set<std::string> now = stateOfProcess();
   for( const std::string& line : now ) {
      if( !before.contains( line ) && !( but && line.find( but ) != std::string::npos ) ) {
         complain( fmt::format( "{} there is more: {}", when, line ) );
      }
   }
   for( const std::string& line : before ) {
      if( !now.contains( line ) ) {
         complain( fmt::format( "{} there is less: {}", when, line ) );
      }
   }
}

std::string outcomeOf( const Operation& operation, Scene& scene ) {
   try {
      return operation.run( scene );
   } catch( const Quarn::AssertException& e ) {
      scene.said += e.what();
      return "fatal";
   } catch( const Quarn::RuntimeException& e ) {
      scene.said += e.what();
      return "RuntimeException";
   }
}

[[noreturn]] void terminates() {
   proveFaultsArmed( false );
   result->hits = proveFaultHits();
   std::snprintf( result->outcome, sizeof( result->outcome ), "terminate" );
   if( const std::exception_ptr pending = std::current_exception() ) {
      try {
         std::rethrow_exception( pending );
      } catch( const std::exception& e ) {
         std::fprintf( stderr, "%s\n", e.what() );
      } catch( ... ) {
      }
   }
   result->finished = true;
   _exit( 0 );
}

void runPair( const Pair& pair, const std::string& folder ) {
   Quarn::Platform::setupQuarnDebug( "Prover/9,Quarn*/9,OruQuarn/9,TaskScheduler/9,Activity/9" );
   Scene scene( folder );
   const auto before = stateOfProcess();
   proveFaultIs( pair.call, pair.error, pair.nth, pair.times );
   const std::string outcome = outcomeOf( pair.operation, scene );
   result->hits = proveFaultHits();
   proveFaultIs( "", 0, 0, 0 );
   std::snprintf( result->outcome, sizeof( result->outcome ), "%s", outcome.c_str() );
   requireState( before, "after the failure", pair.operation.leaves );
   const std::string text = traced() + scene.said;
   if( text.find( pair.text ) == std::string::npos ) {
      complain( fmt::format( "\"{}\" is not in what was said: {}", pair.text,
                             text.size() > 600 ? text.substr( text.size() - 600 ) : text ) );
   }
   if( const std::string again = outcomeOf( pair.operation, scene );
       again != pair.operation.outcome ) {
      complain( fmt::format( "the same operation comes to \"{}\" again", again ) );
   }
   requireState( before, "after the second time", pair.operation.leaves );
}

// What is wrong with the pair; empty when nothing is.
std::string attack( const Pair& pair, const std::string& folder ) {
   *result = {};
   if( ftruncate( standardError, 0 ) != 0 || lseek( standardError, 0, SEEK_SET ) != 0 ) {
      throw std::runtime_error( "ftruncate failed" );
   }
   std::filesystem::create_directory( folder );
   std::fflush( stdout );
   const pid_t child = fork();
   if( child < 0 ) {
      throw std::runtime_error( "fork failed" );
   }
   if( child == 0 ) {
      // Long enough for a slow machine; an operation that hangs is a fault.
      alarm( 120 );
      dup2( standardError, STDERR_FILENO );
      std::set_terminate( terminates );
      try {
         runPair( pair, folder );
      } catch( const std::exception& e ) {
         proveFaultsArmed( false );
         complain( e.what() );
      }
      result->finished = true;
      _exit( 0 );
   }
   int status = 0;
   while( waitpid( child, &status, 0 ) < 0 ) {
   }
   std::filesystem::remove_all( folder );
   if( WIFSIGNALED( status ) ) {
      return WTERMSIG( status ) == SIGALRM ? "hangs" : strsignal( WTERMSIG( status ) );
   }
   if( result->fault[ 0 ] != '\0' ) {
      return fmt::format( "\"{}\", {}", result->outcome, result->fault );
   }
   if( !result->finished ) {
      return "the process has left";
   }
   if( result->hits == 0 ) {
      return fmt::format( "the call is not made; \"{}\"", result->outcome );
   }
   if( std::strcmp( result->outcome, pair.outcome ) != 0 ) {
      return fmt::format( "comes to \"{}\" and not to \"{}\"", result->outcome, pair.outcome );
   }
   if( traced().find( pair.text ) == std::string::npos &&
       std::strcmp( result->outcome, "terminate" ) == 0 ) {
      return fmt::format( "\"{}\" is not in what was said", pair.text );
   }
   return {};
}

// The places in the library and its stand-ins that have made calls, and those whose calls never
// failed.
struct Places {
   std::size_t count = 0;
   std::set<std::string> spared;
};

Places placesOf( const ProveSites& sites ) {
   if( sites.count > proveSitesMax ) {
      throw std::runtime_error( "too many places make calls" );
   }
   Places places;
   for( const ProveSite& site : std::span( sites.all, static_cast<std::size_t>( sites.count ) ) ) {
      Dl_info info{};
      if( dladdr( site.at, &info ) == 0 || !prove::isLibrary( info.dli_fname ) ) {
         continue;
      }
      ++places.count;
      if( !site.hasFailed ) {
         places.spared.insert( fmt::format(
               "{} in {}, at {:#x} of {}", site.call,
               info.dli_sname ? info.dli_sname : "a function without a name",
               static_cast<char const*>( site.at ) - static_cast<char const*>( info.dli_fbase ),
               info.dli_fname ) );
      }
   }
   return places;
}

std::string errorName( int error ) {
   return error == proveFaultPretend ? "nothing done"
          : error == proveFaultHalf  ? "half"
                                     : strerrorname_np( error );
}

} // namespace

int main( int argc, char** argv ) {
   result = prove::sharedMemory<Result>();
   auto* const sites = prove::sharedMemory<ProveSites>();
   standardError = memfd_create( "stderr", MFD_CLOEXEC );
   if( !result || !sites || standardError < 0 ) {
      std::perror( "mmap or memfd_create" );
      return 2;
   }
   proveSitesAre( sites );
   return prove::runRow(
         argc, argv,
         { 6, "system_calls",
           "at least 150 pairs, each as documented, with nothing left open or changed", 100000 },
         [ sites ]( const prove::Order& order ) {
            std::string folder = std::filesystem::temp_directory_path() / "prove-calls-XXXXXX";
            if( !mkdtemp( folder.data() ) ) {
               throw std::runtime_error( "no folder to work in" );
            }
            std::uint64_t done = 0;
            std::uint64_t faults = 0;
            std::set<std::pair<std::string, std::string>> operations;
            for( const Pair& pair : prove::systemCallPairs() ) {
               if( done == order.count ) {
                  break;
               }
               ++done;
               operations.emplace( pair.call, pair.operation.name );
               if( const std::string fault = attack( pair, folder + "/scene" ); !fault.empty() ) {
                  ++faults;
                  fmt::print( "FAULT {} fails with {} ({}th, {} times) in {}: {}\n", pair.call,
                              errorName( pair.error ), pair.nth, pair.times, pair.operation.name,
                              fault );
               }
            }
            std::filesystem::remove_all( folder );
            const Places places = placesOf( *sites );
            // A part of the table comes by more than it has fail.
            if( done < order.count ) {
               faults += places.spared.size();
               for( const std::string& place : places.spared ) {
                  fmt::print( "FAULT {} never fails\n", place );
               }
            }
            const std::set<std::string> imports = prove::importsOfLibrary();
            const std::set<std::string> missing = prove::importsWithoutPair( imports );
            for( const std::string& function : missing ) {
               ++faults;
               fmt::print( "FAULT {} is called and has neither a pair nor a reason for none\n",
                           function );
            }
            const std::string figure = fmt::format(
                  "{} pairs of call and error, {} of call and operation; {} of {} places that make "
                  "calls and {} of {} functions imported are spared; {} faults",
                  done, operations.size(), places.spared.size(), places.count, missing.size(),
                  imports.size(), faults );
            const bool enough = done >= 150 || done == order.count;
            return prove::Outcome{ enough && faults == 0, figure };
         } );
}
