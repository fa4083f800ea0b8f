// What is done while calls of the system fail.

#include "prove/SystemCallPairs.h"

#include <Quarn/DirNodeCpp.h>
#include <Quarn/FileLockCpp.h>
#include <Quarn/LibeventFactoryCpp.h>
#include <Quarn/PluginCpp.h>
#include <Quarn/TaskSchedulerCpp.h>
#include <Quarn/UtilCpp.h>
#include <Quarn/base/Exception.h>
#include <Quarn/base/PidMappings.h>
#include <Quarn/base/ThreadControl.h>
#include <Quarn/debug/Environment.h>
#include <Quarn/debug/Trace.h>
#include <Quarn/fdtask/FdToStream.h>
#include <Quarn/fdtask/FileDescriptorTask.h>
#include <Quarn/testing/VirtualTimeLoop.h>
#include <Quarn/util/Process.h>
#include <Quarn/util/Socket.h>

#include <event2/event.h>
#include <netns.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace prove {

using namespace Quarn;

Scene::Scene( std::string folder_ )
      : folder( std::move( folder_ ) ),
        owner( Platform::getDebugHandler( String( "Prover" ), false ) ),
        handler( *owner ) {}

namespace {

void need( bool condition, char const* what ) {
   if( !condition ) {
      throw std::logic_error( what );
   }
}

// "true", or "false" and the name of the errno.
std::string answer( bool good ) {
   return good ? "true" : std::string( "false " ) + strerrorname_np( errno );
}

std::string answer( int result ) {
   return result >= 0 ? std::to_string( result )
                      : std::to_string( result ) + " " + strerrorname_np( errno );
}

struct Pipe {
   Pipe() { need( pipe2( ends, O_CLOEXEC ) == 0, "pipe2" ); }
   ~Pipe() {
      close( ends[ 0 ] );
      if( ends[ 1 ] >= 0 ) {
         close( ends[ 1 ] );
      }
   }
   Pipe( const Pipe& ) = delete;
   Pipe& operator=( const Pipe& ) = delete;
   int in() const { return ends[ 1 ]; }
   int out() const { return ends[ 0 ]; }
   int ends[ 2 ];
};

struct File {
   explicit File( char const* content = "" ) : fd( memfd_create( "file", MFD_CLOEXEC ) ) {
      const auto size = static_cast<ssize_t>( std::strlen( content ) );
      need( fd >= 0 && write( fd, content, std::strlen( content ) ) == size, "memfd_create" );
   }
   ~File() { close( fd ); }
   File( const File& ) = delete;
   File& operator=( const File& ) = delete;
   std::string content() const {
      std::string text( static_cast<std::size_t>( lseek( fd, 0, SEEK_END ) ), '\0' );
      need( pread( fd, text.data(), text.size(), 0 ) == static_cast<ssize_t>( text.size() ),
            "pread" );
      return text;
   }
   int fd;
};

struct Listener : Platform::FdEventHandler {
   void readFdEvent( int fd ) override {
      char c;
      reads += read( fd, &c, 1 ) == 1 ? 1 : 0;
   }
   void writeFdEvent( int ) override { ++writes; }
   unsigned reads = 0;
   unsigned writes = 0;
};

struct OnTime : Platform::TimeoutHandler {
   void timeout() override { ++fired; }
   unsigned fired = 0;
};

// The thread's base, which goes with it.
struct Base {
   Base() { leInit(); }
   ~Base() { leFree(); }
   Base( const Base& ) = delete;
   Base& operator=( const Base& ) = delete;
};

} // namespace

// -------------------------------------------------------------------------------------- the loops

const Operation createBase{ "leCreateBase",
                            []( Scene& scene ) {
                               event_base* const base =
                                     scene.faulty( [] { return leCreateBase(); } );
                               event_base_free( base );
                               return std::string( "base" );
                            },
                            "base" };

const Operation createBaseInVain{ createBase.name, createBase.run, createBase.outcome,
                                  "[eventpoll]" };

const Operation init{ "leInit",
                      []( Scene& scene ) {
                         scene.faulty( [] { leInit(); } );
                         need( leInitialized(), "no base" );
                         leFree();
                         return std::string( "base" );
                      },
                      "base" };

// By the destructor of a thread-local object that outlives those of the library.
const Operation lateInit{ "leInit at the end of a thread",
                          []( Scene& scene ) {
                             std::string outcome;
                             const auto atEnd = [ & ] {
                                try {
                                   scene.faulty( [] { leInit(); } );
                                   outcome = leInitialized() ? "base" : "none";
                                } catch( const AssertException& e ) {
                                   scene.said += e.what();
                                   outcome = leInitialized() ? "fatal, with a base" : "fatal";
                                }
                             };
                             std::thread( [ & ] {
                                struct End {
                                   ~End() { body(); }
                                   std::function<void()> body;
                                };
                                thread_local End end;
                                end.body = atEnd;
                                leInit();
                             } ).join();
                             return outcome;
                          },
                          "base" };

const Operation forkReinit{ "leForkReinit",
                            []( Scene& scene ) {
                               const Base base;
                               scene.faulty( [] { leForkReinit(); } );
                               return std::string( "base" );
                            },
                            "base" };

const Operation loop{ "eventLoopTimeout",
                      []( Scene& scene ) {
                         const Base base;
                         OnTime onTime;
                         const auto timer = Platform::getLeTimerControl( &onTime );
                         timer->setTimeout( 0.0 );
                         scene.faulty( [] { eventLoopTimeout( 0.01 ); } );
                         return std::string( onTime.fired == 1 ? "fired" : "lost" );
                      },
                      "fired" };

const Operation watchFd{ "setFd",
                         []( Scene& scene ) {
                            const Base base;
                            const Pipe pipe;
                            Listener listener;
                            const auto control = Platform::getLeFdControl( &listener );
                            control->setReads( true );
                            try {
                               scene.faulty( [ & ] { control->setFd( pipe.out() ); } );
                            } catch( const AssertException& ) {
                               need( control->getFd() == -1,
                                     "a descriptor that failed is still known" );
                               throw;
                            }
                            need( write( pipe.in(), "x", 1 ) == 1, "write" );
                            eventLoopTimeout( 0.0 );
                            return std::string( listener.reads == 1 ? "heard" : "not heard" );
                         },
                         "heard" };

// On a thread whose base is gone, so that it needs another.
const Operation watchFdAnew{ "setFd without a base",
                             []( Scene& scene ) {
                                const Pipe pipe;
                                Listener listener;
                                const auto control = Platform::getLeFdControl( &listener );
                                control->setReads( true );
                                leFree();
                                try {
                                   scene.faulty( [ & ] { control->setFd( pipe.out() ); } );
                                } catch( const AssertException& ) {
                                   need( control->getFd() == -1,
                                         "a descriptor that failed is still known" );
                                   throw;
                                }
                                control->delFd();
                                leFree();
                                return std::string( "watched" );
                             },
                             "watched" };

const Operation watchReads{ "setReads",
                            []( Scene& scene ) {
                               const Base base;
                               const Pipe pipe;
                               Listener listener;
                               const auto control = Platform::getLeFdControl( &listener );
                               control->setReads( false );
                               control->setFd( pipe.out() );
                               scene.faulty( [ & ] { control->setReads( true ); } );
                               need( write( pipe.in(), "x", 1 ) == 1, "write" );
                               eventLoopTimeout( 0.0 );
                               return std::string( listener.reads == 1 ? "heard" : "not heard" );
                            },
                            "heard" };

const Operation watchWrites{ "setWrites",
                             []( Scene& scene ) {
                                const Base base;
                                const Pipe pipe;
                                Listener listener;
                                const auto control = Platform::getLeFdControl( &listener );
                                control->setReads( false );
                                control->setFd( pipe.in() );
                                scene.faulty( [ & ] { control->setWrites( true ); } );
                                eventLoopTimeout( 0.0 );
                                return std::string( listener.writes == 1 ? "writable"
                                                                         : "not writable" );
                             },
                             "writable" };

const Operation unwatch{ "delFd",
                         []( Scene& scene ) {
                            const Base base;
                            const Pipe pipe;
                            Listener listener;
                            const auto control = Platform::getLeFdControl( &listener );
                            control->setFd( pipe.out() );
                            control->setReads( true );
                            scene.faulty( [ & ] { control->delFd(); } );
                            return std::string( control->getFd() == -1 ? "forgotten" : "known" );
                         },
                         "forgotten" };

namespace {

class Writer : public FileDescriptorTask {
 public:
   using FileDescriptorTask::FileDescriptorTask;
   unsigned writes = 0;

 private:
   void taskExecuteReadable() override {}
   void taskExecuteWritable() override { ++writes; }
};

// Makes the call on a task that watches no reads, and once more when it has failed: then it has to
// come to what it comes to without the failure.
std::string writerComesTo( Scene& scene, void ( *call )( Writer& task, int fd ), bool watches ) {
   const Base base;
   const Pipe pipe;
   const auto root = schedulerRootQuarnNonShared( String( "main" ) );
   const auto task = std::make_shared<Writer>( root, TaskPriority::normal, String( "writer" ) );
   task->taskWatchReadableIs( false );
   task->taskWatchWritableIs( watches );
   if( !watches ) {
      task->taskWatchFdIs( pipe.in() );
   }
   const auto outcome = [ & ] {
      for( int turn = 0; turn < 3; ++turn ) {
         eventLoopTimeout( 0.0 );
      }
      return std::string( task->writes == 1 && !task->taskWatchWritable() ? "writable"
                                                                          : "not writable" );
   };
   try {
      scene.faulty( [ & ] { call( *task, pipe.in() ); } );
   } catch( const AssertException& ) {
      call( *task, pipe.in() );
      need( outcome() == "writable", "the second try changes nothing" );
      throw;
   }
   return outcome();
}

} // namespace

const Operation watchTaskWrites{
      "taskWatchWritableIs",
      []( Scene& scene ) {
         return writerComesTo(
               scene, []( Writer& task, int ) { task.taskWatchWritableIs( true ); }, false );
      },
      "writable" };

const Operation watchTaskFd{
      "taskWatchFdIs",
      []( Scene& scene ) {
         return writerComesTo(
               scene, []( Writer& task, int fd ) { task.taskWatchFdIs( fd ); }, true );
      },
      "writable" };

const Operation frameworkFd{ "setFd on the framework's loop",
                             []( Scene& scene ) {
                                hasThreadLocalSingletonsIs( false );
                                const Pipe pipe;
                                Listener listener;
                                const auto control = Platform::getFdControl( &listener );
                                control->setReads( true );
                                try {
                                   scene.faulty( [ & ] { control->setFd( pipe.out() ); } );
                                } catch( const AssertException& ) {
                                   need( control->getFd() == -1,
                                         "a descriptor that failed is still known" );
                                   throw;
                                }
                                need( write( pipe.in(), "x", 1 ) == 1, "write" );
                                Platform::doEventLoop( 0.0 );
                                return std::string( listener.reads == 1 ? "heard" : "not heard" );
                             },
                             "heard" };

const Operation frameworkLoop{ "doEventLoop on the framework's loop",
                               []( Scene& scene ) {
                                  hasThreadLocalSingletonsIs( false );
                                  OnTime onTime;
                                  const auto timer = Platform::getTimerControl( &onTime );
                                  timer->setTimeout( 0.002 );
                                  scene.faulty( [] { Platform::doEventLoop( 0.005 ); } );
                                  return std::string( onTime.fired == 1 ? "fired" : "lost" );
                               },
                               "fired" };

// -------------------------------------------------------------------------------- streams, reports

const Operation openStream{ "FdToStream",
                            []( Scene& scene ) {
                               const File file;
                               const int fd = dup( file.fd );
                               const FdToStream out( scene.faulty( [ & ] {
                                  return FdToStream( fd, true ).good() ? file.fd : -1;
                               } ),
                                                     false );
                               return std::string( out.good() ? "good" : "bad" );
                            },
                            "good" };

const Operation stream{ "a write of FdToStream",
                        []( Scene& scene ) {
                           const File file;
                           FdToStream out( file.fd, false );
                           scene.faulty( [ & ] { out << "words" << std::flush; } );
                           if( !out.good() ) {
                              // What the stream holds goes out once the state is cleared.
                              out.clear();
                              out.flush();
                              need( file.content() == "words",
                                    "a failed write is not made up for" );
                              return std::string( "bad" );
                           }
                           return file.content() == "words" ? "good" : file.content();
                        },
                        "good" };

const Operation brokenStream{ "a write of FdToStream to nobody",
                              []( Scene& scene ) {
                                 int ends[ 2 ];
                                 need( pipe2( ends, O_CLOEXEC ) == 0, "pipe2" );
                                 close( ends[ 0 ] );
                                 FdToStream out( ends[ 1 ], true );
                                 scene.faulty( [ & ] { out << "words" << std::flush; } );
                                 return std::string( out.good() ? "good" : "bad" );
                              },
                              "bad" };

const Operation closeStream{ "~FdToStream",
                             []( Scene& scene ) {
                                const File file;
                                auto out = std::make_unique<FdToStream>( dup( file.fd ), true );
                                *out << "words" << std::flush;
                                scene.faulty( [ & ] { out.reset(); } );
                                return file.content();
                             },
                             "words" };

const Operation textReport{ "statsRenderTextForDebug",
                            []( Scene& scene ) {
                               const File file;
                               const Base base;
                               const auto root = schedulerRootQuarnNonShared( String( "main" ) );
                               scene.faulty( [ & ] { root->statsRenderTextForDebug( file.fd ); } );
                               return std::string( file.content().empty() ? "lost" : "written" );
                            },
                            "written" };

namespace {

// Renders a snapshot onto a pipe and tells how it went: "whole" or "cut", and whether the loop
// threw.
std::string rendered( Scene& scene, bool startFails, unsigned renders ) {
   Testing::VirtualTimeLoop turns;
   const auto root = turns.root();
   const Pipe pipe;
   std::vector<int> fds;
   unsigned done = 0;
   const auto start = [ & ] {
      for( const int fd : fds ) {
         root->snapshotRenderJsonAsync(
               fd, { root->snapshot( String(), true, true, true, String(), 0 ) },
               [ & ] { ++done; } );
      }
   };
   for( unsigned i = 0; i < renders; ++i ) {
      fds.push_back( dup( pipe.in() ) );
   }
   if( startFails ) {
      try {
         scene.faulty( start );
      } catch( const AssertException& ) {
         for( const int fd : fds ) {
            need( close( fd ) == 0, "the descriptor is not the caller's any more" );
         }
         throw;
      }
   } else {
      start();
   }
   std::string threw;
   const auto turn = [ & ] {
      for( int i = 0; i < 30 && done < renders; ++i ) {
         try {
            turns.runUntilIdle();
         } catch( const AssertException& e ) {
            threw = " fatal";
            scene.said += e.what();
         }
      }
   };
   if( startFails ) {
      turn();
   } else {
      scene.faulty( turn );
   }
   need( done == renders, "the completion was not called once" );
   for( const int fd : fds ) {
      need( fcntl( fd, F_GETFD ) < 0, "the descriptor is left open" );
   }
   const bool blocks = ( fcntl( pipe.in(), F_GETFL ) & O_NONBLOCK ) == 0;
   need( fcntl( pipe.out(), F_SETFL, O_NONBLOCK ) == 0, "fcntl" );
   std::string text( 1 << 16, '\0' );
   const ssize_t size = read( pipe.out(), text.data(), text.size() );
   text.resize( size > 0 ? static_cast<std::size_t>( size ) : 0 );
   const bool whole = text.size() > 2 && text.substr( text.size() - 2 ) == "}}";
   return ( whole ? "whole" : "cut" ) + threw + ( blocks ? "" : ", non-blocking" );
}

} // namespace

const Operation printContext{
      "TaskSchedulerPrintContext",
      []( Scene& scene ) {
         const File file;
         const int fd = dup( file.fd );
         scene.faulty( [ & ] { const TaskSchedulerPrintContext context( fd, true ); } );
         return std::string( fcntl( fd, F_GETFD ) < 0 ? "closed" : "open" );
      },
      "closed" };

const Operation startRender{ "snapshotRenderJsonAsync",
                             []( Scene& scene ) { return rendered( scene, true, 1 ); }, "whole" };
const Operation render{ "a render under way",
                        []( Scene& scene ) { return rendered( scene, false, 1 ); }, "whole" };
const Operation renderTwice{ "two renders onto one pipe",
                             []( Scene& scene ) { return rendered( scene, false, 2 ); }, "whole" };
const Operation renderTwiceUncompared{ "two renders onto one pipe that the kernel cannot compare",
                                       []( Scene& scene ) {
                                          proveKcmpIsMissing( true );
                                          return renderTwice.run( scene );
                                       },
                                       renderTwice.outcome };

// Its text is some megabytes, for which the kernel is advised to take large pages.
const Operation largeReport{
      "statsRenderJsonToString of many tasks",
      []( Scene& scene ) {
         struct Idle final : Task {
            using Task::Task;
            void taskExecute() override {}
         };
         const Base base;
         const auto root = schedulerRootQuarnNonShared( String( "main" ) );
         std::vector<std::shared_ptr<Idle>> tasks;
         for( unsigned n = 0; n < 20'000; ++n ) {
            tasks.push_back( std::make_shared<Idle>( root, TaskPriority::normal, "idle" ) );
         }
         const String text =
               scene.faulty( [ & ] { return root->statsRenderJsonToString( true ); } );
         return std::string( std::string_view( text ).ends_with( "}}" ) ? "whole" : "cut" );
      },
      "whole" };

const Operation nameFilter{ "TaskNameRegex",
                            []( Scene& scene ) {
                               return std::string( scene.faulty( [] {
                                  const TaskNameRegex filter( String( "fir[s-t]+ of .*" ) );
                                  return filter.valid() && filter.match<0>( "first of all" )
                                               ? "matches"
                                               : "does not match";
                               } ) );
                            },
                            "matches" };

namespace {

std::string environment( char const* name ) {
   char const* const value = std::getenv( name );
   return value ? value : "";
}

} // namespace

const Operation traceItems{
      "setupQuarnDebug",
      []( Scene& scene ) {
         const std::string before = environment( "TRACE" );
         scene.faulty( [] { Platform::setupQuarnDebug( "Nobody/3" ); } );
         const std::string now = environment( "TRACE" );
         return now == before ? "as before" : now == before + ",Nobody/3" ? "set" : now;
      },
      "set" };

const Operation traceFormat{ "setTraceFormat",
                             []( Scene& scene ) {
                                Platform::setTraceFormat( "%f: %m" );
                                scene.faulty( [] { Platform::setTraceFormat( "%m" ); } );
                                return environment( "TRACEFORMAT" );
                             },
                             "%m" };

const Operation noTraceFormat{ "clearTraceFormat",
                               []( Scene& scene ) {
                                  Platform::setTraceFormat( "%f: %m" );
                                  scene.faulty( [] { Platform::clearTraceFormat(); } );
                                  return environment( "TRACEFORMAT" );
                               },
                               "" };

const Operation trace{ "a trace",
                       []( Scene& scene ) {
                          errno = ENOTTY;
                          scene.faulty( [ & ] {
                             dumpDebugMsg( String( "the traced words" ), 1, scene.handler, "file",
                                           "function", 1 );
                          } );
                          return std::string( errno == ENOTTY ? "errno kept" : "errno changed" );
                       },
                       "errno kept" };

// ------------------------------------------------------------------------------------------ files

const Operation mkpath{ "mkpath",
                        []( Scene& scene ) {
                           const std::string path = scene.path( "a/b" );
                           std::string outcome = scene.faulty(
                                 [ & ] { return answer( Util::mkpath( path.c_str(), 0755 ) ); } );
                           std::filesystem::remove_all( scene.path( "a" ) );
                           return outcome;
                        },
                        "0" };

const Operation trimpath{ "trimpath",
                          []( Scene& scene ) {
                             const std::string path = scene.path( "a/b" );
                             std::filesystem::create_directories( path );
                             std::string outcome = scene.faulty( [ & ] {
                                return answer( Util::trimpath( path.c_str(), "a/b" ) );
                             } );
                             std::filesystem::remove_all( scene.path( "a" ) );
                             return outcome;
                          },
                          "0" };

const Operation touch{ "touch",
                       []( Scene& scene ) {
                          const std::string path = scene.path( "file" );
                          return scene.faulty( [ & ] {
                             return answer( Util::touch( scene.handler, path.c_str() ) );
                          } );
                       },
                       "true" };

const Operation fileWrite{
      "fileWrite",
      []( Scene& scene ) {
         const std::string path = scene.path( "file" );
         scene.faulty( [ & ] { Util::fileWrite( scene.handler, path.c_str(), "words", false ); } );
         return std::string( "written" );
      },
      "written" };

const Operation fileWriteQuietly{
      "fileWrite without exceptions",
      []( Scene& scene ) {
         const std::string path = scene.path( "file" );
         errno = 0;
         scene.faulty( [ & ] { Util::fileWrite( scene.handler, path.c_str(), "words", true ); } );
         return std::string( strerrorname_np( errno ) );
      },
      "0" };

const Operation fileRead{ "fileRead",
                          []( Scene& scene ) {
                             const std::string path = scene.path( "file" );
                             Util::fileWrite( scene.handler, path.c_str(), "words", false );
                             errno = 0;
                             const String text = scene.faulty( [ & ] {
                                return Util::fileRead( scene.handler, path.c_str(), true );
                             } );
                             return text.empty()
                                          ? std::string( "empty " ) + strerrorname_np( errno )
                                          : text.stdString();
                          },
                          "words" };

const Operation fileExists{
      "fileExists",
      []( Scene& scene ) {
         return scene.faulty( [ & ] { return answer( Util::fileExists( scene.handler, "/" ) ); } );
      },
      "true" };

const Operation fileRemove{ "fileRemove",
                            []( Scene& scene ) {
                               const std::string path = scene.path( "gone" );
                               Util::touch( scene.handler, path.c_str() );
                               return scene.faulty( [ & ] {
                                  return answer( Util::fileRemove( scene.handler, path.c_str() ) );
                               } );
                            },
                            "true" };

const Operation fileSize{
      "fileSize",
      []( Scene& scene ) {
         const std::string path = scene.path( "file" );
         Util::fileWrite( scene.handler, path.c_str(), "words", false );
         return scene.faulty(
               [ & ] { return std::to_string( Util::fileSize( scene.handler, path.c_str() ) ); } );
      },
      "5" };

const Operation fdSize{ "fileSize of a descriptor",
                        []( Scene& scene ) {
                           const File file( "words" );
                           return scene.faulty( [ & ] {
                              return std::to_string( Util::fileSize( scene.handler, file.fd ) );
                           } );
                        },
                        "5" };

const Operation truncateFile{
      "truncate",
      []( Scene& scene ) {
         const File file( "words" );
         return scene.faulty(
               [ & ] { return answer( Util::truncate( scene.handler, "a file", file.fd, 3 ) ); } );
      },
      "0" };

const Operation getCwd{ "getCwd",
                        []( Scene& scene ) {
                           return std::string( scene.faulty( [ & ] {
                              return Util::getCwd( scene.handler ).empty() ? "empty" : "path";
                           } ) );
                        },
                        "path" };

const Operation openDir{ "DirNode",
                         []( Scene& scene ) {
                            return scene.faulty( [ & ] {
                               const DirNode node( scene.handler, String( scene.folder ), nullptr );
                               return answer( node.isOpen() );
                            } );
                         },
                         "true" };

// In another folder, and from the start.
const Operation moveDir{ "pathIs",
                         []( Scene& scene ) {
                            DirNode node( scene.handler, String( "/" ), nullptr );
                            return scene.faulty( [ & ] {
                               node.pathIs( String( scene.folder ) );
                               return answer( node.isOpen() );
                            } );
                         },
                         "true" };
const Operation reopenDir{ "openDir",
                           []( Scene& scene ) {
                              DirNode node( scene.handler, String( scene.folder ), nullptr );
                              return scene.faulty( [ & ] {
                                 node.openDir();
                                 return answer( node.isOpen() );
                              } );
                           },
                           "true" };

const Operation readDir{
      "readEntry",
      []( Scene& scene ) {
         const DirNode node( scene.handler, String( scene.folder ), nullptr );
         return std::string( scene.faulty( [ & ] { return node.readEntry() ? "entry" : "end"; } ) );
      },
      "entry" };

const Operation findFiles{ "findFiles",
                           []( Scene& scene ) {
                              Util::touch( scene.handler, scene.path( "file" ).c_str() );
                              const DirNode node( scene.handler, String( scene.folder ), nullptr );
                              return scene.faulty( [ & ] {
                                 return std::to_string( node.findFiles( String( "file" ) ).size() );
                              } );
                           },
                           "1" };

const Operation findUntypedFiles{ "findFiles where entries have no type",
                                  []( Scene& scene ) {
                                     proveFileTypesAreUnknown( true );
                                     return findFiles.run( scene );
                                  },
                                  findFiles.outcome };

const Operation closeDir{ "~DirNode",
                          []( Scene& scene ) {
                             auto node = std::make_unique<DirNode>(
                                   scene.handler, String( scene.folder ), nullptr );
                             errno = ENOTTY;
                             scene.faulty( [ & ] { node.reset(); } );
                             return std::string( errno == ENOTTY ? "errno kept" : "errno changed" );
                          },
                          "errno kept" };

const Operation lock{ "lock",
                      []( Scene& scene ) {
                         FileLock file( scene.handler, String( scene.folder ), String( "lock" ) );
                         return scene.faulty( [ & ] { return answer( file.lock( true ) ); } );
                      },
                      "true" };

const Operation release{ "release",
                         []( Scene& scene ) {
                            FileLock file( scene.handler, String( scene.folder ),
                                           String( "lock" ) );
                            need( file.lock( true ), "no lock" );
                            scene.faulty( [ & ] { file.release(); } );
                            return std::string( "released" );
                         },
                         "released" };

const Operation dropLock{ "~FileLock",
                          []( Scene& scene ) {
                             auto file = std::make_unique<FileLock>(
                                   scene.handler, String( scene.folder ), String( "lock" ) );
                             need( file->lock( true ), "no lock" );
                             scene.faulty( [ & ] { file.reset(); } );
                             return std::string( "released" );
                          },
                          "released" };

const Operation lockPid{
      "readLockPid",
      []( Scene& scene ) {
         FileLock file( scene.handler, String( scene.folder ), String( "lock" ) );
         need( file.lock( true ), "no lock" );
         const int pid =
               scene.faulty( [ & ] { return Util::readLockPid( scene.handler, file.file() ); } );
         return std::string( pid == getpid() ? "this process" : pid == 0 ? "none" : "another" );
      },
      "this process" };

// -------------------------------------------------------------------------------------- processes

const Operation cmdline{ "readPidCmdline",
                         []( Scene& scene ) {
                            return std::string( scene.faulty( [ & ] {
                               return Util::readPidCmdline( scene.handler, getpid() ).empty()
                                            ? "empty"
                                            : "text";
                            } ) );
                         },
                         "text" };

const Operation title{ "readProcTitle",
                       []( Scene& scene ) {
                          return std::string( scene.faulty( [ & ] {
                             return Util::readProcTitle( scene.handler, 0, false ).empty() ? "empty"
                                                                                           : "text";
                          } ) );
                       },
                       "text" };

const Operation startTime{ "readProcStartTime",
                           []( Scene& scene ) {
                              return std::string( scene.faulty( [ & ] {
                                 return Util::readProcStartTime( scene.handler, getpid() ).empty()
                                              ? "empty"
                                              : "text";
                              } ) );
                           },
                           "text" };

const Operation socketPid{
      "readSocketPid",
      []( Scene& scene ) {
         const std::string name = "prove-" + std::to_string( getpid() );
         const int sd = ::socket( AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0 );
         sockaddr_un address{};
         const unsigned size = Util::createSockaddr( scene.handler, &address, String( name ) );
         need( bind( sd, reinterpret_cast<sockaddr*>( &address ), size ) == 0, "bind" );
         struct Closer {
            ~Closer() { close( sd ); }
            int sd;
         } const closer{ sd };
         const int pid = scene.faulty(
               [ & ] { return Util::readSocketPid( scene.handler, String( name ) ); } );
         return std::string( pid == getpid() ? "this process" : pid == 0 ? "none" : "another" );
      },
      "this process" };

const Operation typeName{
      "typenameFromVptr",
      []( Scene& scene ) {
         void const* vptr = nullptr;
         std::memcpy( &vptr, static_cast<void const*>( scene.owner.get() ), sizeof( vptr ) );
         String error;
         char const* const found =
               scene.faulty( [ & ] { return Util::typenameFromVptr( getpid(), vptr, error ); } );
         scene.said += error.stdString();
         return std::string( found ? "name" : "null" );
      },
      "name" };

const Operation coreFilter{ "includeShmemInCore",
                            []( Scene& scene ) {
                               scene.faulty( [] { Util::includeShmemInCore(); } );
                               return std::string( "done" );
                            },
                            "done" };

const Operation symbol{ "resolveSym",
                        []( Scene& scene ) {
                           return std::string( scene.faulty( [ & ] {
                              return Util::resolveSym( scene.handler, "getpid" ) ? "address"
                                                                                 : "null";
                           } ) );
                        },
                        "address" };

const Operation mappings{ "PidMappings::populate",
                          []( Scene& scene ) {
                             errno = ENOTTY;
                             const bool empty = scene.faulty(
                                   [ & ] { return PidMappings::populate( getpid() ).empty(); } );
                             need( errno == ENOTTY, "errno has changed" );
                             return std::string( empty ? "empty" : "mappings" );
                          },
                          "mappings" };

// A library that is there wherever this is built, and is no plugin, of which it is told when it
// loads.
const Operation plugin{ "loadPlugin",
                        []( Scene& scene ) {
                           return std::string( scene.faulty( [] {
                              return Platform::loadPlugin( "event_core" ) ? "plugin" : "null";
                           } ) );
                        },
                        "fatal" };

// ---------------------------------------------------------------------------------------- sockets

namespace {

std::string socketOutcome( Scene& scene, bool free ) {
   proveNamespacesAreFree( free );
   const int sd = scene.faulty(
         [ & ] { return Util::socket( scene.handler, AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0 ); } );
   if( sd < 0 ) {
      return std::string( "-1 " ) + strerrorname_np( errno );
   }
   close( sd );
   return "socket";
}

} // namespace

const Operation socketHere{ "socket, where namespaces are out of reach",
                            []( Scene& scene ) { return socketOutcome( scene, false ); },
                            "socket" };
const Operation socketThere{ "socket in the default namespace",
                             []( Scene& scene ) { return socketOutcome( scene, true ); },
                             "socket" };
const Operation socketNotBack{ "socket without a way back",
                               []( Scene& scene ) {
                                  try {
                                     return socketOutcome( scene, true );
                                  } catch( const RuntimeException& ) {
                                     need( proveNamespaceIsLeft(), "the thread is back" );
                                     throw;
                                  }
                               },
                               "socket", "namespace of the first process" };

// Whose namespace another file tells.
const Operation socketOfThread{
      "socket of another thread",
      []( Scene& scene ) {
         std::string outcome;
         std::thread( [ & ] { outcome = socketOutcome( scene, true ); } ).join();
         return outcome;
      },
      "socket" };

const Operation bindSocket{ "createAndBindSocket",
                            []( Scene& scene ) {
                               // So that it makes the same calls on any machine.
                               proveNamespacesAreFree( true );
                               const String name( "prove-" + std::to_string( getpid() ) );
                               const int sd = scene.faulty( [ & ] {
                                  return Util::createAndBindSocket( scene.handler, name );
                               } );
                               close( sd );
                               return std::string( "socket" );
                            },
                            "socket" };

const Operation sendBuffer{ "setSocketSendBufferSize",
                            []( Scene& scene ) {
                               const int sd = ::socket( AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0 );
                               struct Closer {
                                  ~Closer() { close( sd ); }
                                  int sd;
                               } const closer{ sd };
                               return scene.faulty( [ & ] {
                                  return answer( Util::setSocketSendBufferSize( sd, 4096 ) );
                               } );
                            },
                            "0" };

const Operation mostSendBuffer{ "SYSTEM_MAX_SEND_BUFFER_SIZE",
                                []( Scene& scene ) {
                                   return std::string( scene.faulty( [] {
                                      return Util::SYSTEM_MAX_SEND_BUFFER_SIZE() > 0 ? "size" : "0";
                                   } ) );
                                },
                                "size" };

const Operation enterNamespace{ "setnsByName",
                                []( Scene& scene ) {
                                   proveNamespacesAreFree( true );
                                   std::string outcome = scene.faulty( [] {
                                      return answer( setnsByName( DEFAULT_NS, CLONE_NEWNET ) );
                                   } );
                                   scene.said += netnsGetTracebuffer();
                                   need( ( outcome == "0" ) == ( proveNamespaceIsLeft() != 0 ),
                                         "the result is not where the thread is" );
                                   // Back, as it is the caller's to come.
                                   proveNamespacesAreFree( true );
                                   return outcome;
                                },
                                "0" };

} // namespace prove
