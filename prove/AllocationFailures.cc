// Row 5: memory that runs out at every allocation of the scenarios, one process for each point.
//
// A point is a scenario and the number of the allocation that fails, alone or with all that follow
// it in the same call. The points of a scenario end where it succeeds without having met the
// failure. Each has to answer as the headers say: by std::bad_alloc, or by what they name for the
// call; then everything has to be in order, the same call to succeed, and no memory to be lost.

#include "prove/AllocationScenarios.h"
#include "prove/Row.h"
#include "prove/SharedMemory.h"

#include <fmt/format.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <execinfo.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using prove::Answer;
using prove::Scenario;
using prove::Trial;

// What a child leaves for its parent, in memory that they share.
struct Result {
   Trial::Place place;
   bool finished;
   bool hit;
   Answer answer;
   std::uint64_t allocations;
   std::int64_t blocks;
   char fault[ 300 ];
};

// A run of fewer has left some out.
constexpr std::uint64_t scenariosWhole = 21;

constinit Result* result = nullptr;
// A file that takes the standard error of a child.
constinit int standardError = -1;

// Whether the C library has ended the child, which it does when it finds no memory to note the
// destructor of a thread-local object; EventBase.h says so of the first use by a thread.
bool threadCannotBegin() {
   char text[ 200 ] = {};
   return pread( standardError, text, sizeof( text ) - 1, 0 ) > 0 &&
          std::strstr( text, "failed to register TLS destructor" );
}

void showStack() {
   if( std::getenv( "PROVE_SHOW_TRACES" ) ) {
      void* frames[ 40 ];
      backtrace_symbols_fd( frames, backtrace( frames, 40 ), STDERR_FILENO );
   }
}

// The functions that the library set for a fork run here, each once.
void requireFork() {
   const pid_t child = fork();
   if( child == 0 ) {
      _exit( 0 );
   }
   int status = -1;
   Trial::require( waitpid( child, &status, 0 ) == child && status == 0, "cannot fork any more" );
}

[[noreturn]] void diesOfIt() {
   testing_support::memory::disarm();
   showStack();
   result->place.terminated = true;
   result->hit = testing_support::memory::hasFailed();
   if( const std::exception_ptr pending = std::current_exception() ) {
      try {
         std::rethrow_exception( pending );
      } catch( const std::exception& e ) {
         std::snprintf( result->fault, sizeof( result->fault ), "%s", e.what() );
      } catch( ... ) {
         std::snprintf( result->fault, sizeof( result->fault ), "an unknown exception" );
      }
   } else {
      std::snprintf( result->fault, sizeof( result->fault ), "%s", prove::Fault::last() );
   }
   _exit( 0 );
}

[[noreturn]] void runInChild( const Scenario& scenario, std::uint64_t n, bool lasting ) {
   // A point that hangs is a fault like one that crashes.
   alarm( 60 );
   if( !std::getenv( "PROVE_SHOW_TRACES" ) ) {
      dup2( standardError, STDERR_FILENO );
   }
   std::set_terminate( diesOfIt );
   if( std::getenv( "PROVE_SHOW_TRACES" ) ) {
      testing_support::memory::watcherIs( showStack );
   }
   const std::int64_t before = testing_support::memory::blocksInUse();
   testing_support::memory::failAt( n, lasting );
   try {
      Trial trial( result->place );
      scenario.run( trial );
      trial.call( "fork", [] {} );
      requireFork();
      result->answer = trial.answer();
   } catch( const std::exception& e ) {
      std::snprintf( result->fault, sizeof( result->fault ), "%s", e.what() );
   }
   result->hit = testing_support::memory::hasFailed();
   result->allocations = testing_support::memory::counted();
   result->blocks = testing_support::memory::blocksInUse() - before;
   result->finished = true;
   _exit( 0 );
}

int runPoint( const Scenario& scenario, std::uint64_t n, bool lasting ) {
   *result = {};
   if( ftruncate( standardError, 0 ) != 0 || lseek( standardError, 0, SEEK_SET ) != 0 ) {
      throw std::runtime_error( "ftruncate failed" );
   }
   std::fflush( stdout );
   const pid_t child = fork();
   if( child < 0 ) {
      throw std::runtime_error( "fork failed" );
   }
   if( child == 0 ) {
      runInChild( scenario, n, lasting );
   }
   int status = 0;
   while( waitpid( child, &status, 0 ) < 0 ) {
   }
   return status;
}

// What is wrong with the point; empty when nothing is.
std::string verdict( int status, std::int64_t blocksWithoutFailure ) {
   if( WIFSIGNALED( status ) && WTERMSIG( status ) == SIGABRT && threadCannotBegin() ) {
      result->place.terminated = true;
      result->hit = true;
      std::snprintf(
            result->place.promise, sizeof( result->place.promise ),
            "note the end of the thread with the C library, which ends the process when it finds "
            "no memory for that" );
      return {};
   }
   if( WIFSIGNALED( status ) ) {
      return WTERMSIG( status ) == SIGALRM ? "hangs" : strsignal( WTERMSIG( status ) );
   }
   if( result->place.terminated ) {
      if( !result->hit || !result->place.mayTerminate ) {
         return fmt::format( "the process ends: {}", result->fault );
      }
      // From the answer on there is memory again.
      char const* const answered = result->place.failedCall;
      return answered[ 0 ] == '\0' ? std::string()
                                   : fmt::format( "the process ends after {} has answered: {}",
                                                  answered, result->fault );
   }
   if( WEXITSTATUS( status ) != 0 || !result->finished ) {
      return fmt::format( "the process leaves with status {}", WEXITSTATUS( status ) );
   }
   if( result->fault[ 0 ] != '\0' ) {
      return result->fault;
   }
   if( result->hit && !result->place.mayKeep && result->blocks > blocksWithoutFailure ) {
      return fmt::format( "{} blocks are lost since {}", result->blocks - blocksWithoutFailure,
                          result->place.failedCall );
   }
   return {};
}

struct Tally {
   std::uint64_t points = 0;
   std::uint64_t badAlloc = 0;
   std::uint64_t absorbed = 0;
   std::uint64_t fatal = 0;
   std::uint64_t terminated = 0;
   std::uint64_t faults = 0;
   // How often each promise of something else than std::bad_alloc was kept.
   std::map<std::string, std::uint64_t> promises;
   std::vector<std::string> said;

   void fault( std::string what ) {
      ++faults;
      fmt::print( "FAULT {}\n", what );
      said.push_back( std::move( what ) );
   }

   void add( const Tally& other ) {
      points += other.points;
      badAlloc += other.badAlloc;
      absorbed += other.absorbed;
      fatal += other.fatal;
      terminated += other.terminated;
      faults += other.faults;
      for( const auto& [ promise, times ] : other.promises ) {
         promises[ promise ] += times;
      }
      said.insert( said.end(), other.said.begin(), other.said.end() );
   }
};

void count( Tally& tally ) {
   ++tally.points;
   if( result->place.terminated ) {
      ++tally.terminated;
      ++tally.promises[ fmt::format( "terminate in {}: {}", result->place.call,
                                     result->place.promise ) ];
      return;
   }
   if( result->answer == Answer::badAlloc ) {
      ++tally.badAlloc;
      return;
   }
   const bool absorbed = result->answer == Answer::absorbed;
   ++( absorbed ? tally.absorbed : tally.fatal );
   ++tally.promises[ fmt::format( "{} in {}: {}", absorbed ? "absorbed" : "fatal",
                                  result->place.failedCall, result->place.answered ) ];
}

Tally attack( const Scenario& scenario, std::uint64_t maxPoints ) {
   Tally tally;
   const int untouched = runPoint( scenario, 0, false );
   const std::int64_t blocks = result->blocks;
   std::string fault = verdict( untouched, blocks );
   if( fault.empty() && ( result->place.terminated || result->allocations == 0 ) ) {
      // Nothing could be said of its points, or it has none.
      fault = result->place.terminated ? "the process ends" : "allocates nothing";
   }
   if( !fault.empty() ) {
      tally.fault( fmt::format( "{} without a failure, in {}: {}", scenario.name,
                                result->place.call, fault ) );
      return tally;
   }
   for( const bool lasting : { false, true } ) {
      for( std::uint64_t n = 1; n <= maxPoints; ++n ) {
         const int status = runPoint( scenario, n, lasting );
         fault = verdict( status, blocks );
         if( !fault.empty() ) {
            ++tally.points;
            tally.fault( fmt::format( "{} allocation {}{}, in {}: {}", scenario.name, n,
                                      lasting ? " and all after it" : "", result->place.call,
                                      fault ) );
            if( result->finished && !result->hit ) {
               break;
            }
            continue;
         }
         if( !result->hit ) {
            break;
         }
         count( tally );
      }
   }
   fmt::print( "{:<32} {:>5} points: {} bad_alloc, {} absorbed, {} fatal, {} terminate\n",
               scenario.name, tally.points, tally.badAlloc, tally.absorbed, tally.fatal,
               tally.terminated );
   std::fflush( stdout );
   return tally;
}

} // namespace

int main( int argc, char** argv ) {
   result = prove::sharedMemory<Result>();
   if( !result ) {
      std::perror( "mmap" );
      return 2;
   }
   standardError = memfd_create( "stderr", MFD_CLOEXEC );
   // The count is the most points of a scenario, so that a count of 1 is a quick look.
   return prove::runRow(
         argc, argv,
         { 5, "allocation_failures",
           "every point ends in std::bad_alloc or as documented, with everything in order",
           100000 },
         []( const prove::Order& order ) {
            Tally all;
            std::uint64_t scenarios = 0;
            char const* const only = std::getenv( "PROVE_SCENARIO" );
            for( const auto family : { prove::taskScenarios(), prove::reportScenarios(),
                                       prove::surroundingScenarios() } ) {
               for( const Scenario& scenario : family ) {
                  if( only && std::strcmp( only, scenario.name ) != 0 ) {
                     continue;
                  }
                  ++scenarios;
                  all.add( attack( scenario, order.count ) );
               }
            }
            for( const auto& [ promise, times ] : all.promises ) {
               fmt::print( "{:>5} times as promised, {}\n", times, promise );
            }
            // Once more, where who looks at the end finds them.
            for( const std::string& fault : all.said ) {
               fmt::print( "FAULT {}\n", fault );
            }
            const std::string figure =
                  fmt::format( "{} points in {} scenarios: {} bad_alloc, {} absorbed, {} fatal, {} "
                               "terminate as documented; {} faults",
                               all.points, scenarios, all.badAlloc, all.absorbed, all.fatal,
                               all.terminated, all.faults );
            return prove::Outcome{ all.faults == 0 && all.points > 0 &&
                                         ( only || scenarios == scenariosWhole ),
                                   figure };
         } );
}
