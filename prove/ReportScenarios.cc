// What reports of a scheduler come to when memory runs out.

#include "prove/AllocationScenarios.h"

#include "support/Tasks.h"

#include <Quarn/TaskSchedulerCpp.h>
#include <Quarn/fdtask/FdToStream.h>
#include <Quarn/testing/VirtualTimeLoop.h>

#include <sstream>
#include <string>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace prove {

namespace {

using namespace Quarn;
using testing_support::FunctionTask;
using testing_support::makeTask;

String longName( char const* what ) {
   return String( std::string( what ) + " of a scenario whose memory runs out" );
}

// A root with a group, tasks that have run, one that is gone, and a history of them.
struct Populated {
   Populated() {
      for( const auto& task : tasks ) {
         task->taskRunFromTest();
      }
      member->taskRunFromTest();
      makeTask( root, TaskPriority::low, longName( "gone" ) )->taskRunFromTest();
   }

   Quarn::Testing::VirtualTimeLoop loop;
   std::shared_ptr<TaskSchedulerRoot> root = loop.root();
   std::shared_ptr<TaskGroup> group =
         TaskGroup::TaskGroupIs( longName( "group" ), TaskPriority::low, false, root );
   std::vector<std::shared_ptr<FunctionTask>> tasks{
         makeTask( root, TaskPriority::high, longName( "first" ) ),
         makeTask( root, TaskPriority::normal, longName( "second" ) ) };
   std::shared_ptr<FunctionTask> member =
         makeTask( group, TaskPriority::low, longName( "member" ) );
};

std::string contentOf( int fd ) {
   std::string text( static_cast<std::size_t>( lseek( fd, 0, SEEK_END ) ), '\0' );
   Trial::require( pread( fd, text.data(), text.size(), 0 ) == static_cast<ssize_t>( text.size() ),
                   "pread" );
   return text;
}

unsigned openDescriptors() {
   unsigned open = 0;
   for( int fd = 0; fd < 100; ++fd ) {
      open += fcntl( fd, F_GETFD ) >= 0 ? 1 : 0;
   }
   return open;
}

int emptyFile() {
   const int fd = memfd_create( "report", MFD_CLOEXEC );
   Trial::require( fd >= 0, "memfd_create" );
   return fd;
}

// ------------------------------------------------------------------------------------- snapshots

void snapshots( Trial& trial ) {
   Populated all;
   trial.invariantsAre( [ & ] { Trial::require( all.root->checkForTest(), "the root differs" ); } );
   std::shared_ptr<const TaskSchedulerSnapshot> taken;
   trial.call( "snapshot", [ & ] {
      taken = all.root->snapshot( longName( "root" ), true, true, true, String(), 3 );
   } );
   Trial::require( taken->tasks().size() == 3 && taken->completedTasks().size() == 1 &&
                         taken->subSchedulers().size() == 1 && taken->history() &&
                         !taken->history()->events.empty(),
                   "the snapshot lacks something" );
   constexpr May invalid{ "makes the filter invalid and is reported on standard error. So does one "
                          "that finds no memory",
                          nullptr, nullptr };
   trial.call(
         "snapshot with a filter",
         [ & ] {
            taken = all.root->snapshot( String(), true, true, true,
                                        String( "(first|second).*memory runs out" ), 3 );
         },
         invalid );
   Trial::require( taken->taskNameRegexError().empty() && taken->tasks().size() == 2,
                   "the filter lets the wrong names pass" );
   trial.call( "snapshot of a group",
               [ & ] { taken = all.group->snapshot( String(), true, true, true, String(), 0 ); } );
   trial.call( "~snapshot", [ & ] { taken.reset(); } );
}

// ------------------------------------------------------------------------------------------ text

void textReport( Trial& trial ) {
   Populated all;
   const std::string whole =
         all.root->statsRenderTextForDebugToString( true, true, true, false ).stdString();
   const std::size_t wholeWithHistory =
         all.root->statsRenderTextForDebugToString( true, true, true, true ).size();
   constexpr May sortsInPlace{ "a sort that finds no memory for its buffer gives the same text",
                               nullptr, nullptr };
   std::string text;
   trial.call(
         "statsRenderTextForDebugToString",
         [ & ] {
            text = all.root->statsRenderTextForDebugToString( true, true, true, false ).stdString();
            Trial::require( text == whole, "the text differs" );
         },
         sortsInPlace );
   trial.call(
         "with history",
         [ & ] {
            text = all.root->statsRenderTextForDebugToString( true, true, true, true ).stdString();
            Trial::require( text.size() == wholeWithHistory, "the text with history differs" );
         },
         sortsInPlace );
   trial.call( "with a filter",
               [ & ] {
                  text = all.root
                               ->statsRenderTextForDebugToString( true, true, false, false,
                                                                  String( "first.*" ) )
                               .stdString();
               },
               { "makes the filter invalid and is reported on standard error. So does one that "
                 "finds no memory",
                 nullptr, nullptr } );
   constexpr May streamFails{ "a stream keeps what is thrown into it as its bad bit", nullptr,
                              nullptr };
   std::ostringstream out;
   bool good = true;
   trial.call(
         "statsRenderTextForDebug",
         [ & ] {
            out.str( {} );
            out.clear();
            all.root->statsRenderTextForDebug( out, true, true, true, false );
            good = good && !( out && out.str() != whole );
         },
         streamFails );
   Trial::require( good && out && out.str() == whole, "a good stream has another text" );
   const int fd = emptyFile();
   trial.call( "statsRenderTextForDebug onto a descriptor",
               [ & ] {
                  if( ftruncate( fd, 0 ) != 0 || lseek( fd, 0, SEEK_SET ) != 0 ) {
                     throw Fault( "ftruncate" );
                  }
                  all.root->statsRenderTextForDebug( fd, true, true, true, false );
               },
               { "what a descriptor or standard error does not take is lost without a word",
                 nullptr, nullptr } );
   Trial::require( contentOf( fd ) == whole, "the descriptor has another text" );
   trial.call( "historyRenderTextForDebug onto a descriptor",
               [ & ] { all.root->historyRenderTextForDebug( fd ); },
               { "what a descriptor or standard error does not take is lost without a word",
                 nullptr, nullptr } );
   close( fd );
}

void descriptorStream( Trial& trial ) {
   const int kept = emptyFile();
   trial.call( "FdToStream", [ & ] { const FdToStream out( kept, false ); } );
   Trial::require( fcntl( kept, F_GETFD ) >= 0, "a descriptor of the caller's is closed" );
   const int original = emptyFile();
   const unsigned open = openDescriptors();
   trial.call( "FdToStream that closes", [ & ] {
      const int fd = dup( original );
      const FdToStream out( fd, true );
   } );
   Trial::require( openDescriptors() == open, "a descriptor of the stream's is left open" );
   FdToStream out( original, true );
   trial.call( "writing", [ & ] {
      out << "some words" << 42 << 3.5;
      out.flush();
   } );
   Trial::require( out.good(), "the stream is bad" );
   close( kept );
}

// ------------------------------------------------------------------------------------------ JSON

void jsonReport( Trial& trial ) {
   Populated all;
   const std::string whole = all.root->statsRenderJsonToString( true, true, true ).stdString();
   // An inner failure is told in the document, which is whole all the same.
   constexpr May told{ "the object has the one member \"generalError\" instead", nullptr, nullptr };
   std::string text;
   trial.call(
         "statsRenderJsonToString",
         [ & ] {
            text = all.root->statsRenderJsonToString( true, true, true ).stdString();
            if( text != whole && text.find( "generalError" ) == std::string::npos ) {
               throw Fault( "neither the whole document nor one that says what failed: " + text );
            }
         },
         told );
   Trial::require( text == whole, "the document differs" );
   std::ostringstream out;
   trial.call(
         "statsRenderJson",
         [ & ] {
            out.str( {} );
            out.clear();
            all.root->statsRenderJson( out, true, true, true );
            if( out && out.str() != whole &&
                out.str().find( "generalError" ) == std::string::npos ) {
               throw Fault( "a good stream has neither: " + out.str() );
            }
         },
         told );
   Trial::require( out.str() == whole, "the stream's document differs" );
   const int fd = emptyFile();
   trial.call(
         "statsRenderJsonToBlockingFdForTest",
         [ & ] { all.root->statsRenderJsonToBlockingFdForTest( fd, true, true, true ); }, told );
   const auto taken = all.root->snapshot( String(), true, true, false, String(), 0 );
   std::shared_ptr<TaskSchedulerPrintContext> context;
   std::ostringstream document;
   trial.call( "PrintContextIs", [ & ] {
      document.str( {} );
      context = TaskScheduler::PrintContextIs( document );
   } );
   trial.call(
         "renderJson", [ & ] { taken->renderJson( *context ); }, told );
   trial.call(
         "renderJsonTasks",
         [ & ] {
            taken->renderJsonTasks( *context, taken->tasks(), longName( "more" ), 0, false );
         },
         told );
   trial.call( "~context", [ & ] { context.reset(); } );
   context.reset();
   const unsigned open = openDescriptors();
   trial.call( "PrintContextIs onto a descriptor",
               [ & ] { context = TaskScheduler::PrintContextIs( dup( fd ), true ); } );
   context.reset();
   Trial::require( openDescriptors() == open, "a descriptor of the document's is left open" );
   close( fd );
}

void jsonAsynchronous( Trial& trial ) {
   Populated all;
   std::vector<std::shared_ptr<const TaskSchedulerSnapshot>> taken{
         all.root->snapshot( String(), true, true, true, String(), 0 ),
         all.group->snapshot( String(), true, true, true, String(), 1 ) };
   const std::size_t tasksBefore = all.root->totalRegisteredTaskCount();
   trial.invariantsAre( [ & ] { Trial::require( all.root->checkForTest(), "the root differs" ); } );
   int ends[ 2 ];
   Trial::require( pipe2( ends, O_CLOEXEC ) == 0, "pipe2" );
   unsigned done = 0;
   bool requested = false;
   trial.call( "snapshotRenderJsonAsync",
               [ & ] {
                  if( requested ) {
                     // The failure was met by a request that stands.
                     return;
                  }
                  auto snapshots = taken;
                  all.root->snapshotRenderJsonAsync( ends[ 1 ], std::move( snapshots ),
                                                     [ & ] { ++done; } );
                  requested = true;
               },
               { "what is due is made active where there is no room for a timer" } );
   Trial::require( ( fcntl( ends[ 1 ], F_GETFL ) & O_NONBLOCK ) != 0,
                   "a render under way writes to a blocking descriptor" );
   const auto turn = [ & ] {
      for( int i = 0; i < 20 && done == 0; ++i ) {
         all.loop.runUntilIdle();
      }
   };
   trial.call(
         "the loop", turn,
         { "a snapshot that finds no memory says so; a document that finds none ends too early",
           "EvLoopBreak() Failed to add event|"
           "LibeventFdControl::_armWrite() Failed to add event fd " } );
   const bool failed = trial.failedInLastCall();
   turn();
   Trial::require( done == 1, "the completion was not called once" );
   Trial::require( fcntl( ends[ 1 ], F_GETFD ) < 0, "the descriptor is left open" );
   std::string text( 1 << 16, '\0' );
   const ssize_t size = read( ends[ 0 ], text.data(), text.size() );
   text.resize( size > 0 ? static_cast<std::size_t>( size ) : 0 );
   Trial::require( failed || ( text.size() > 2 && text.compare( text.size() - 2, 2, "}}" ) == 0 ),
                   "the document is cut short" );
   Trial::require( all.root->totalRegisteredTaskCount() == tasksBefore, "a task is left behind" );
   close( ends[ 0 ] );
}

// ---------------------------------------------------------------------------------------- filter

void nameFilter( Trial& trial ) {
   constexpr May invalid{ "makes the filter invalid and is reported on standard error. So does one "
                          "that finds no memory",
                          nullptr, nullptr };
   const String matching = longName( "first" );
   const String other = longName( "zero" );
   for( char const* pattern :
        { "(first|second) of .*", "fir[s-t]+ (of|[[:alpha:]]{2}) a.*", "(?!zero).*out" } ) {
      bool valid = false;
      trial.call(
            "TaskNameRegex",
            [ & ] {
               const TaskNameRegex filter{ String( pattern ) };
               valid = filter.valid();
               if( !valid && filter.error().empty() ) {
                  throw Fault( "an invalid filter says nothing" );
               }
               if( !valid && filter.match<0>( matching ) ) {
                  throw Fault( "an invalid filter matches" );
               }
            },
            invalid );
      Trial::require( valid, "a good expression is refused" );
      const TaskNameRegex filter{ String( pattern ) };
      bool first = false;
      bool zero = true;
      trial.call( "match", [ & ] { first = filter.match<0>( matching ); } );
      trial.call( "match of another", [ & ] { zero = filter.match<0>( other ); } );
      Trial::require( first && !zero, "the filter's answer is wrong" );
      trial.call( "match behind a tag", [ & ] { first = filter.match<2>( "N " + matching ); } );
      Trial::require( first, "the filter's answer behind a tag is wrong" );
   }
}

constexpr Scenario scenarios[] = {
      { "snapshots", &snapshots },
      { "text report", &textReport },
      { "descriptor stream", &descriptorStream },
      { "JSON", &jsonReport },
      { "JSON, asynchronous", &jsonAsynchronous },
      { "name filter", &nameFilter },
};

} // namespace

std::span<const Scenario> reportScenarios() { return scenarios; }

} // namespace prove
