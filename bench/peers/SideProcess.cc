#include "SideProcess.h"

#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>

#include <fcntl.h>
#include <spawn.h>
#include <sys/poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fmt/format.h>

namespace bench::peers {

namespace {

// Processor time for a step, and for making ready what a slice needs. The real time is for a side
// that waits for ever.
constexpr std::chrono::seconds budget{ 8 };
constexpr std::chrono::seconds longest{ 60 };
constexpr int patienceMs = 100;

enum class Event : std::int32_t { begins, ends, sliceDone };

struct News {
   Event event = Event::sliceDone;
   std::uint32_t step = 0;
   std::int64_t units = 0;
   double ns = 0;
   std::int64_t looks = 0;
};

class Speaker final : public Listener {
 public:
   void begins( std::size_t step, std::int64_t units ) override {
      tell( { Event::begins, static_cast<std::uint32_t>( step ), units, 0, 0 } );
   }
   void ends( std::size_t step, std::int64_t units, Time time, std::int64_t looks ) override {
      tell( { Event::ends, static_cast<std::uint32_t>( step ), units, time.count(), looks } );
   }
   void sliceDone() { tell( {} ); }

 private:
   static void tell( const News& news ) {
      if( write( STDOUT_FILENO, &news, sizeof news ) != sizeof news ) {
         std::_Exit( EXIT_FAILURE );
      }
   }
};

} // namespace

SideProcess::SideProcess( std::size_t row, std::size_t side, std::size_t steps )
      : row_( row ),
        side_( side ),
        steps_( steps ) {
   std::array<int, 2> commands{};
   std::array<int, 2> news{};
   if( pipe2( commands.data(), O_CLOEXEC ) != 0 || pipe2( news.data(), O_CLOEXEC ) != 0 ) {
      fail( "pipe2" );
   }
   commands_ = commands[ 1 ];
   news_ = news[ 0 ];
   std::string self = "/proc/self/exe";
   std::string first = option;
   std::string second = fmt::to_string( row );
   std::string third = fmt::to_string( side );
   const std::array<char*, 5> arguments{ self.data(), first.data(), second.data(), third.data(),
                                         nullptr };
   posix_spawn_file_actions_t actions;
   if( posix_spawn_file_actions_init( &actions ) != 0 ||
       posix_spawn_file_actions_adddup2( &actions, commands[ 0 ], STDIN_FILENO ) != 0 ||
       posix_spawn_file_actions_adddup2( &actions, news[ 1 ], STDOUT_FILENO ) != 0 ||
       posix_spawn( &child_, self.c_str(), &actions, nullptr, arguments.data(), environ ) != 0 ) {
      fail( "posix_spawn" );
   }
   posix_spawn_file_actions_destroy( &actions );
   close( commands[ 0 ] );
   close( news[ 1 ] );
}

SideProcess::~SideProcess() { end(); }

void SideProcess::end() {
   if( child_ > 0 ) {
      kill( child_, SIGKILL );
      waitpid( child_, nullptr, 0 );
      close( commands_ );
      close( news_ );
      child_ = -1;
   }
}

Time SideProcess::processorTime() const {
   clockid_t clock{};
   timespec time{};
   if( clock_getcpuclockid( child_, &clock ) != 0 || clock_gettime( clock, &time ) != 0 ) {
      fail( "clock_getcpuclockid" );
   }
   return Time( std::chrono::seconds( time.tv_sec ) ) + std::chrono::nanoseconds( time.tv_nsec );
}

std::vector<Taken> SideProcess::slice() {
   if( child_ < 0 ) {
      return {};
   }
   if( write( commands_, "x", 1 ) != 1 ) {
      fail( fmt::format( "side {} of row {}", side_, row_ ).c_str() );
   }
   std::vector<News> sums( steps_ );
   News last;
   Time since = processorTime();
   const auto began = std::chrono::steady_clock::now();
   for( ;; ) {
      pollfd readable{ news_, POLLIN, 0 };
      if( poll( &readable, 1, patienceMs ) == 0 ) {
         const Time spent = processorTime() - since;
         if( spent < budget && std::chrono::steady_clock::now() < began + longest ) {
            continue;
         }
         // What came before is as good as in a whole slice.
         const bool within = last.event == Event::begins;
         overrun_ = { last.step, within ? spent.count() / static_cast<double>( last.units ) : 0 };
         end();
         break;
      }
      if( read( news_, &last, sizeof last ) != sizeof last ) {
         fail( fmt::format( "side {} of row {}", side_, row_ ).c_str() );
      }
      if( last.event == Event::sliceDone ) {
         break;
      }
      if( last.event == Event::begins ) {
         since = processorTime();
         continue;
      }
      News& sum = sums[ last.step ];
      sum.units += last.units;
      sum.ns += last.ns;
      sum.looks += last.looks;
   }
   std::vector<Taken> taken;
   for( const News& sum : sums ) {
      if( sum.units == 0 ) {
         break;
      }
      const auto units = static_cast<double>( sum.units );
      taken.push_back( { sum.ns / units, static_cast<double>( sum.looks ) / units } );
   }
   return taken;
}

int SideProcess::serve( const Row& row, const Peer& side ) {
   const std::unique_ptr<Work> work = row.make( side );
   Speaker speaker;
   for( char command = 0; read( STDIN_FILENO, &command, 1 ) == 1; ) {
      work->slice( speaker );
      speaker.sliceDone();
   }
   // Taking down a million of something measures nothing.
   std::_Exit( EXIT_SUCCESS );
}

} // namespace bench::peers
