#include "examples/agent/LoadSample.h"

#include "examples/agent/ProcText.h"

#include "tools/show/Descriptor.h"

#include <algorithm>

#include <fcntl.h>
#include <unistd.h>

namespace HostAgent {

LoadSample::LoadSample( const std::string& procFolder ) : path_( procFolder + "/loadavg" ) {}

void LoadSample::take() {
   const Show::Descriptor file( open( path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK ) );
   char buffer[ 256 ];
   const ssize_t size = file.valid() ? read( file.get(), buffer, sizeof( buffer ) ) : -1;
   const auto load = size >= 0 ? parseLoadAverage( { buffer, static_cast<std::size_t>( size ) } )
                               : std::nullopt;
   if( !load ) {
      ++failed_;
      return;
   }
   last_ = *load;
   least_ = taken_ != 0 ? std::min( least_, *load ) : *load;
   most_ = std::max( most_, *load );
   ++taken_;
}

} // namespace HostAgent
