// host-agent: watches the processes of this host for a while and reports who uses it.
//
// Ends with 0 after a run, 1 when something fails (the report cannot be written, for example), 2
// for a bad command line, and 3 when the user has an agent of that name already.

#include "examples/agent/Agent.h"
#include "examples/agent/AgentReport.h"
#include "examples/agent/Options.h"
#include "examples/agent/SingleInstance.h"

#include "tools/show/Descriptor.h"

#include <Quarn/Debug.h>
#include <Quarn/UtilCpp.h>
#include <Quarn/base/Exception.h>
#include <Quarn/base/ThreadControl.h>

#include <cerrno>
#include <csignal>
#include <exception>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <variant>

namespace {

int writeOut( std::string_view text ) {
   errno = 0;
   std::cout << text << std::flush;
   if( !std::cout ) {
      const int error = errno;
      std::cerr << "host-agent: cannot write to standard output: "
                << ( error != 0 ? Quarn::strerror( error ) : "unknown error" ) << '\n';
      return HostAgent::exitFailure;
   }
   return 0;
}

// The end of a process that is not the only one of its name.
int giveWay( const std::string& name, pid_t otherPid ) {
   std::cerr << "host-agent: "
             << ( otherPid != 0 ? "process " + std::to_string( otherPid ) : "another process" )
             << " runs already under the name '" << name << "'\n";
   return HostAgent::exitRunning;
}

int runAgent( const HostAgent::Options& options ) {
   if( !options.trace.empty() ) {
      Quarn::Platform::setupQuarnDebug( options.trace.c_str() );
   }
   const HostAgent::SingleInstance instance( options.name );
   if( !instance.held() ) {
      return giveWay( options.name, instance.otherPid() );
   }
   Quarn::Util::emitCanaryLog( *Quarn::Platform::getDebugHandler( "HostAgent", false ),
                               Quarn::String( "agent " + options.name + " starts" ) );
   // Before the first control is made, for it decides which kind.
   Quarn::hasThreadLocalSingletonsIs( !options.framework );
   std::ostringstream report;
   auto agent = std::make_unique<HostAgent::Agent>( options );
   if( const std::string refusal = agent->showRefusal(); !refusal.empty() ) {
      std::cerr << "host-agent: answers no show requests: " << refusal << '\n';
   }
   agent->run();
   HostAgent::renderReport( report, *agent );
   // Signals end the process the usual way from here on, also when nobody reads the report.
   agent.reset();
   return writeOut( report.view() );
}

int runProgram( int argc, char** argv ) {
   std::ostringstream text;
   const auto parsed = HostAgent::optionsFromCommandLine( argc, argv, text, std::cerr );
   if( auto const* code = std::get_if<HostAgent::ExitCode>( &parsed ) ) {
      return code->value != 0 ? code->value : writeOut( text.view() );
   }
   return runAgent( std::get<HostAgent::Options>( parsed ) );
}

} // namespace

int main( int argc, char** argv ) {
   Show::reserveStandardDescriptors();
   // A reader that has gone away shows as a failed write.
   std::signal( SIGPIPE, SIG_IGN );
   try {
      return runProgram( argc, argv );
   } catch( const std::exception& error ) {
      std::cerr << "host-agent: " << error.what() << '\n';
      return HostAgent::exitFailure;
   }
}
