// Debug handlers, the framework and its adapters, and the utilities, with memory that runs out.

#include "prove/AllocationScenarios.h"

#include <Quarn/Debug.h>
#include <Quarn/base/BacktraceTracker.h>
#include <Quarn/base/Exception.h>
#include <Quarn/base/PidMappings.h>
#include <Quarn/base/ThreadControl.h>
#include <Quarn/debug/Environment.h>
#include <Quarn/platform/EventHandlers.h>
#include <Quarn/platform/EventLoop.h>
#include <Quarn/platform/Plugin.h>
#include <Quarn/util/DirNode.h>
#include <Quarn/util/FileLock.h>
#include <Quarn/util/Files.h>
#include <Quarn/util/Hash.h>
#include <Quarn/util/Hex.h>
#include <Quarn/util/IntrospectionMap.h>
#include <Quarn/util/Process.h>
#include <Quarn/util/Sensitive.h>
#include <Quarn/util/Socket.h>

#include <OruQuarn/BacktraceTracker.h>
#include <OruQuarn/Callback.h>
#include <OruQuarn/ClockTimer.h>
#include <OruQuarn/FileDescriptor.h>
#include <OruQuarn/TaskWalkCollectionProgress.h>

#include <Oru/ActivityManager.h>
#include <Oru/NboAttrLog.h>
#include <Oru/System.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace prove {

namespace {

using namespace Quarn;

String longName( char const* what ) {
   return String( std::string( what ) + " of a scenario whose memory runs out" );
}

// ---------------------------------------------------------------------------------------- traces

void debugHandlers( Trial& trial ) {
   const auto settings = [] {
      setenv( "TRACE", "", 1 );
      Oru::TraceFacilityMan::doReadEnvironment();
   };
   constexpr char const* function = "traces";
   settings();
   std::shared_ptr<Platform::DebugHandler> handler;
   constexpr May ends{ nullptr, nullptr, "never throws; a failure ends the process" };
   trial.call(
         "getDebugHandler",
         [ & ] { handler = Platform::getDebugHandler( longName( "handler" ), true ); }, ends );
   handler->enabledIs( 5, true );
   trial.call( "QUARN_FMTRACE",
               [ & ] {
                  QUARN_FMTRACE(
                        *handler, 5, "Prover",
                        "a text of {} bytes, which is more than what a string has room for in "
                        "place and than a line has room for at first, so that it grows: {}",
                        250, std::string_view( "and grows, and grows, and grows, and grows" ) );
               },
               { "a line that finds no memory is dropped", nullptr,
                 "a trace whose text finds no memory ends the process" } );
   trial.call( "dumpDebugMsg",
               [ & ] { dumpDebugMsg( longName( "message" ), 5, *handler, __FILE__, function, 1 ); },
               { "never throws: a line that finds no memory is dropped", nullptr, nullptr } );
   trial.call(
         "dump",
         [ & ] {
            Platform::DebugStream text;
            text << longName( "streamed" );
            handler->dump( text, 5, __FILE__, function, 1 );
         },
         { "throws nothing: a line that finds no memory is dropped, and a stream keeps what is "
           "thrown into it as its bad bit",
           nullptr, nullptr } );
   String thrown;
   trial.call( "fmthrow",
               [ & ] {
                  thrown = fmthrow( *handler, 5, "Prover", __FILE__, function, 1, "{} and {}", 1,
                                    std::string_view( "a text that does not fit in place" ) );
               },
               { "a line that finds no memory is dropped", nullptr, nullptr } );
   trial.call( "fmtracestr", [ & ] {
      thrown = fmtracestr( true, "Prover", __FILE__, function, 1, "{} and {}", 1,
                           std::string_view( "a text that does not fit in place" ) );
   } );
   bool asserted = false;
   trial.call( "fmassert",
               [ & ] {
                  try {
                     fmassert( *handler, "Prover", __FILE__, function, 1, "{} is not {}", 1, 2 );
                  } catch( const AssertException& ) {
                     asserted = true;
                  }
               },
               { "a line that finds no memory is dropped", nullptr, nullptr } );
   Trial::require( asserted, "an assertion returns" );
   trial.call(
         "Debuggable", [ & ] { const Debuggable debuggable( longName( "own" ), true ); }, ends );
   trial.invariantsAre( settings );
   constexpr May environmentEnds{ "a text that the environment finds no memory for is left out",
                                  nullptr, "none lets an exception out; a failure ends the process",
                                  "the C library keeps every value of the environment" };
   trial.call(
         "setupQuarnDebug", [ & ] { Platform::setupQuarnDebug( "Prover*/3,Other/=2" ); },
         environmentEnds );
   trial.call(
         "clearQuarnDebug", [ & ] { Platform::clearQuarnDebug( "Prover*/3,Other/=2" ); },
         environmentEnds );
   trial.call(
         "setTraceFormat", [ & ] { Platform::setTraceFormat( "%f/%l of the prover: %m" ); },
         environmentEnds );
   trial.call(
         "clearTraceFormat", [ & ] { Platform::clearTraceFormat(); }, environmentEnds );
   trial.call( "traceSettingSnapshot",
               [ & ] { Oru::TraceFacilityMan::globalTraceFacilityMan()->traceSettingSnapshot(); } );
   trial.call( "traceHandleName", [ & ] {
      Util::traceHandleName( String( "Prover-" ), String( "/var/run/prover/a long name" ), true );
   } );
   trial.call( "~DebugHandler", [ & ] { handler.reset(); } );
}

// ------------------------------------------------------------------------------- the framework's
// loop

struct OnTime : Platform::TimeoutHandler {
   void timeout() override { ++fired; }
   unsigned fired = 0;
};

struct OnCall : Platform::CallbackHandler {
   void callback() override { ++calls; }
   unsigned calls = 0;
};

struct OnFd : Platform::FdEventHandler {
   void readFdEvent( int fd ) override {
      char c;
      reads += read( fd, &c, 1 ) == 1 ? 1 : 0;
   }
   void writeFdEvent( int ) override { ++writes; }
   unsigned reads = 0;
   unsigned writes = 0;
};

void frameworkControls( Trial& trial ) {
   hasThreadLocalSingletonsIs( false );
   Oru::ActivityManagerConfig::virtualTimeIs( true );
   int ends[ 2 ];
   Trial::require( pipe2( ends, O_CLOEXEC ) == 0, "pipe2" );
   OnTime onTime;
   OnCall onCall;
   OnFd onFd;
   std::optional<OruQuarn::ClockTimer> timer;
   std::optional<OruQuarn::Callback> callback;
   std::optional<OruQuarn::FileDescriptor> descriptor;
   trial.call( "ClockTimer", [ & ] { timer.emplace( &onTime ); } );
   trial.call( "Callback", [ & ] { callback.emplace( &onCall ); } );
   trial.call( "FileDescriptor", [ & ] { descriptor.emplace( &onFd ); } );
   trial.call( "setFd", [ & ] { descriptor->setFd( ends[ 0 ] ); } );
   trial.call( "setReads", [ & ] { descriptor->setReads( true ); } );
   trial.call( "setTimeout", [ & ] { timer->setTimeout( 3.0 ); } );
   trial.call( "requestCallback", [ & ] { callback->requestCallback(); } );
   Trial::require( write( ends[ 1 ], "x", 1 ) == 1, "write" );
   trial.call( "doEventLoop", [ & ] { Platform::doEventLoop( 5.0 ); } );
   Platform::doEventLoop( 5.0 );
   Trial::require( onTime.fired == 1, "a timer was lost" );
   Trial::require( onCall.calls == 1, "a callback was lost" );
   Trial::require( onFd.reads == 1, "a descriptor was not heard" );
   trial.call( "~controls", [ & ] {
      timer.reset();
      callback.reset();
      descriptor.reset();
   } );
   close( ends[ 0 ] );
   close( ends[ 1 ] );
}

// ------------------------------------------------------------------------ records and attributes

void attributes( Trial& trial ) {
   std::optional<Oru::NboAttrLog> log;
   trial.call( "NboAttrLog", [ & ] { log.emplace( 256 ); } );
   const std::string_view text = "a record of the attribute log";
   trial.call( "Out", [ & ] {
      Oru::NboAttrLog::Out out( *log );
      if( !out.sizeIsValid( 4 + text.size() ) ) {
         throw Fault( "a record does not fit" );
      }
      out.u32( static_cast<std::uint32_t>( text.size() ) );
      out.bytes( text.data(), text.size() );
   } );
   std::string read( text.size(), '\0' );
   trial.call( "In", [ & ] {
      Oru::NboAttrLog::In in( *log );
      if( in.u32() != read.size() ) {
         throw Fault( "another size came out" );
      }
      in.bytes( read.data(), read.size() );
   } );
   Trial::require( read == text, "another record came out" );
   Oru::FwkType const* type = nullptr;
   trial.call( "FwkTypeOf", [ & ] {
      type = &Oru::FwkTypeOf<OnTime>( longName( "type" ) )
                    .action( longName( "action" ), []( OnTime& o ) { ++o.fired; } )
                    .read<std::uint32_t>( longName( "fired" ),
                                          []( const OnTime& o ) { return o.fired; } )
                    .made();
   } );
   trial.call( "oruModuleIs", [ & ] { Oru::oruModuleIs( { longName( "module" ), { type } } ); } );
   trial.call( "oruModule", [ & ] { Oru::oruModule( std::string_view( longName( "module" ) ) ); } );
   OnTime object;
   trial.call( "action",
               [ & ] { type->action( &object, std::string_view( longName( "action" ) ) ); } );
   Oru::FwkType const& recorder = OruQuarn::BacktraceTracker::fwkType();
   OruQuarn::BacktraceTracker tracker;
   trial.call( "capacityIs", [ & ] { recorder.write( &tracker, "capacityIs", 8u ); } );
   trial.call( "enabledIs", [ & ] { recorder.write( &tracker, "enabledIs", true ); } );
   trial.call(
         "backtraceIs",
         [ & ] { recorder.write( &tracker, "backtraceIs", Oru::String( longName( "place" ) ) ); },
         { "a backtrace that finds no memory has no frames", nullptr, nullptr } );
   recorder.action( &tracker, "clear" );
   trial.call( "text of a value", [ & ] { recorder.text( &tracker ); } );
   trial.call( "TaskWalkCollectionProgress", [ & ] {
      OruQuarn::TaskWalkCollectionProgress{ false, true, 12345678 }.toString();
   } );
}

// ------------------------------------------------------------------------------------- utilities

void utilities( Trial& trial ) {
   trial.call( "base64Encode", [ & ] { Util::base64Encode( Util::hash( longName( "text" ) ) ); } );
   const auto render = []( void const* ) { return String(); };
   trial.call( "IntrospectionMap::insert",
               [ & ] { IntrospectionMap::insert( longName( "type" ), render ); } );
   Trial::require( IntrospectionMap::lookup( longName( "type" ) ) != nullptr,
                   "what was inserted is not found" );
   trial.call( "IntrospectionMap::lookup",
               [ & ] { IntrospectionMap::lookup( longName( "type" ) ); } );
   trial.call( "System::getenv", [ & ] { Oru::System::getenv( String( "PATH" ) ); } );
   String text;
   trial.call( "String",
               [ & ] { text = ( longName( "Text" ) + " and more" ).toLower().deduped(); } );
   trial.call( "substr", [ & ] { text = text.substr( 2, 30 ); } );
}

// A folder of one's own, which goes with what is in it.
struct Folder {
   Folder() { Trial::require( mkdtemp( path.data() ) != nullptr, "mkdtemp" ); }
   ~Folder() { std::filesystem::remove_all( path ); }
   Folder( const Folder& ) = delete;
   Folder& operator=( const Folder& ) = delete;
   std::string path = std::filesystem::temp_directory_path() / "prove-memory-XXXXXX";
};

void filesAndLocks( Trial& trial ) {
   const Folder folder;
   const auto owner = Platform::getDebugHandler( String( "Prover" ), false );
   Platform::DebugHandler& handler = *owner;
   // Nothing at level 0: a trace whose text finds no memory ends the process.
   handler.enabledIs( 0, false );
   Platform::setupQuarnDebug( "-Quarn*/=0" );
   const std::string deep = folder.path + "/a/folder with a name/that is deep";
   trial.call( "mkpath", [ & ] { Util::mkpath( deep.c_str(), 0755 ); } );
   Trial::require( std::filesystem::is_directory( deep ), "a folder is missing" );
   const std::string file = deep + "/file";
   trial.call( "touch", [ & ] { Util::touch( handler, file.c_str() ); } );
   trial.call( "fileWrite", [ & ] { Util::fileWrite( handler, file.c_str(), "words", false ); } );
   constexpr May unread{ "empty when it cannot be read", nullptr, nullptr };
   String text;
   trial.call(
         "fileRead", [ & ] { text = Util::fileRead( handler, file.c_str(), true ); }, unread );
   Trial::require( text == "words", "another text was read" );
   trial.call( "getCwd", [ & ] { Util::getCwd( handler ); } );
   std::vector<String> found;
   trial.call( "DirNode",
               [ & ] {
                  const DirNode node( handler, String( deep ), nullptr );
                  found =
                        node.isOpen() ? node.findFiles( String( "file" ) ) : std::vector<String>();
               },
               { "a directory that cannot be opened is no error: the node is then not open",
                 nullptr, nullptr } );
   Trial::require( found.size() == 1, "a file was not found" );
   std::optional<FileLock> lock;
   trial.call( "FileLock", [ & ] { lock.emplace( handler, String( deep ), String( "lock" ) ); } );
   bool held = false;
   trial.call( "lock", [ & ] { held = lock->lock( true ); } );
   Trial::require( held, "the lock is not held" );
   int pid = 0;
   trial.call( "readLockPid", [ & ] { pid = Util::readLockPid( handler, lock->file() ); },
               { "what cannot be read is passed over", "Couldn't open /proc", nullptr } );
   Trial::require( pid == getpid(), "the lock's holder was not found" );
   trial.call( "release", [ & ] {
      if( held ) {
         lock->release();
         held = false;
      }
   } );
   Trial::require( Util::fileRemove( handler, file.c_str() ) &&
                         Util::fileRemove( handler, lock->file().c_str() ),
                   "fileRemove" );
   trial.call( "trimpath",
               [ & ] { Util::trimpath( deep.c_str(), "folder with a name/that is deep" ); } );
}

void processes( Trial& trial ) {
   const auto owner = Platform::getDebugHandler( String( "Prover" ), false );
   Platform::DebugHandler& handler = *owner;
   handler.enabledIs( 0, false );
   constexpr May unread{ "the readers give an empty text or 0 for what cannot be read", nullptr,
                         nullptr };
   String text;
   trial.call(
         "readPidCmdline", [ & ] { text = Util::readPidCmdline( handler, getpid() ); }, unread );
   Trial::require( !text.empty(), "no command line" );
   trial.call(
         "readProcTitle", [ & ] { text = Util::readProcTitle( handler, 0, true ); }, unread );
   Trial::require( !text.empty(), "no title" );
   trial.call(
         "readProcStartTime", [ & ] { text = Util::readProcStartTime( handler, getpid() ); },
         unread );
   Trial::require( !text.empty(), "no start time" );
   trial.call( "PidMappings::populate", [ & ] {
      Trial::require( !PidMappings::populate( getpid() ).empty(), "no mappings" );
   } );
   trial.call( "decodeMagic", [ & ] { Util::decodeMagic( 0x6d6167696374ul ); } );
   trial.call( "resolveSym", [ & ] { Util::resolveSym( handler, "no such symbol at all" ); },
               { "null when there is none", "dlopen() failed", nullptr } );
   int sd = -1;
   const String name = longName( std::to_string( getpid() ).c_str() );
   trial.call( "createAndBindSocket", [ & ] { sd = Util::createAndBindSocket( handler, name ); } );
   Trial::require( sd >= 0, "no socket" );
   close( sd );
   trial.call( "SYSTEM_MAX_SEND_BUFFER_SIZE", [ & ] { Util::SYSTEM_MAX_SEND_BUFFER_SIZE(); },
               { "8 MiB where it does not say", "unable to convert string", nullptr } );
   trial.call( "dumpHex", [ & ] { text = dumpHex( name.data(), 20 ); } );
   Sensitive secret;
   const auto* bytes = reinterpret_cast<unsigned char const*>( name.data() );
   trial.call( "Sensitive", [ & ] { secret = Sensitive( bytes, 8, bytes, 12 ); } );
   Trial::require( secret.size() == 20, "a secret of another size" );
   trial.call( "valueToStrep", [ & ] { text = valueToStrep( secret ); } );
   trial.call( "sequenceToValue", [ & ] { sequenceToValue( std::string_view( text ), secret ); } );
   struct Named final : Platform::Plugin {
      char const* pluginName() override { return "a plugin of a scenario whose memory runs out"; }
   };
   static Named plugin;
   trial.call( "registerPlugin", [ & ] { Platform::registerPlugin( &plugin ); } );
   Platform::Plugin* loaded = nullptr;
   trial.call( "loadPlugin", [ & ] { loaded = Platform::loadPlugin( plugin.pluginName() ); } );
   Trial::require( loaded == &plugin, "another plugin" );
   trial.call( "loadPlugin of none", [ & ] { Platform::loadPlugin( "NoPluginOfThatName" ); },
               { "null when that fails", nullptr,
                 "a trace whose text finds no memory ends the process" } );
}

constexpr Scenario scenarios[] = {
      { "debug handlers", &debugHandlers },  { "framework controls", &frameworkControls },
      { "attributes", &attributes },         { "utilities", &utilities },
      { "files and locks", &filesAndLocks }, { "processes and plugins", &processes },
};

} // namespace

std::span<const Scenario> surroundingScenarios() { return scenarios; }

} // namespace prove
