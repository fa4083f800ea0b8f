#include "SlowReader.h"

#include <array>
#include <chrono>
#include <cstdlib>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fmt/format.h>

namespace bench {

namespace {

// What the reader takes at a time, which is also what a pipe holds.
constexpr std::size_t portion = 64u << 10;
constexpr std::chrono::milliseconds rest{ 1 };

[[noreturn]] void fail( char const* what ) {
   fmt::print( stderr, "{} failed\n", what );
   std::abort();
}

} // namespace

// Spawned rather than forked: this process would have to copy each page that it then writes to.
SlowReader::SlowReader( std::size_t leastBytes ) {
   std::array<int, 2> ends{};
   if( pipe2( ends.data(), O_CLOEXEC ) != 0 ) {
      fail( "pipe2" );
   }
   pipe_ = ends[ 1 ];
   std::string self = "/proc/self/exe";
   std::string first = option;
   std::string second = fmt::to_string( leastBytes );
   const std::array<char*, 4> arguments{ self.data(), first.data(), second.data(), nullptr };
   posix_spawn_file_actions_t actions;
   if( posix_spawn_file_actions_init( &actions ) != 0 ||
       posix_spawn_file_actions_adddup2( &actions, ends[ 0 ], STDIN_FILENO ) != 0 ||
       posix_spawn( &child_, self.c_str(), &actions, nullptr, arguments.data(), environ ) != 0 ) {
      fail( "posix_spawn" );
   }
   posix_spawn_file_actions_destroy( &actions );
   close( ends[ 0 ] );
}

void SlowReader::finish() {
   int status = 0;
   if( waitpid( child_, &status, 0 ) != child_ || status != 0 ) {
      fail( "reading the document" );
   }
}

int SlowReader::read( const std::string& leastBytes ) {
   std::vector<char> bytes( portion );
   std::size_t total = 0;
   for( ;; ) {
      const ssize_t got = ::read( STDIN_FILENO, bytes.data(), bytes.size() );
      if( got < 0 ) {
         return EXIT_FAILURE;
      }
      if( got == 0 ) {
         return total >= std::stoull( leastBytes ) ? EXIT_SUCCESS : EXIT_FAILURE;
      }
      total += static_cast<std::size_t>( got );
      std::this_thread::sleep_for( rest );
   }
}

} // namespace bench
