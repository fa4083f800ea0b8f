#include "tools/oruquarn-show/Screen.h"

#include "tools/oruquarn-show/Write.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <string>

#include <sys/ioctl.h>
#include <unistd.h>

namespace OruQuarnShow {

namespace {

constexpr std::string_view enter = "\x1b[?1049h\x1b[?25l\x1b[?7l";
// Begins by cancelling a sequence that the signal may have cut.
constexpr std::string_view leave = "\x18\x1b[0m\x1b[?7h\x1b[?25h\x1b[?1049l";
constexpr std::string_view home = "\x1b[H";
constexpr std::string_view clearToLineEnd = "\x1b[K";
constexpr std::string_view clearToEnd = "\x1b[J";

constexpr int deadly[] = { SIGINT, SIGTERM, SIGPIPE, SIGHUP, SIGQUIT };

// Does not wait for a terminal that was made non-blocking: a signal must not hang there.
void put( std::string_view text ) {
   ssize_t size = 0;
   while( !text.empty() && ( size >= 0 || errno == EINTR ) ) {
      size = write( STDOUT_FILENO, text.data(), text.size() );
      text.remove_prefix( static_cast<std::size_t>( std::max<ssize_t>( size, 0 ) ) );
   }
}

// The handlers call nothing that a signal handler may not.
void die( int signal ) {
   put( leave );
   // The handling is the default one again.
   raise( signal );
}

void stopForAWhile( int ) {
   const int error = errno;
   put( leave );
   raise( SIGSTOP );
   put( enter );
   errno = error;
}

// Interrupts the wait for the next report, which draws the last one anew.
void windowChanged( int ) {}

void handle( int signal, void ( *handler )( int ), int flags ) {
   struct sigaction before {};
   sigaction( signal, nullptr, &before );
   // What the caller had ignored, as nohup does, stays so.
   if( before.sa_handler != SIG_IGN ) {
      struct sigaction action {};
      action.sa_handler = handler;
      action.sa_flags = flags;
      sigemptyset( &action.sa_mask );
      sigaction( signal, &action, nullptr );
   }
}

std::size_t rows() {
   winsize size{};
   return ioctl( STDOUT_FILENO, TIOCGWINSZ, &size ) == 0 && size.ws_row > 0 ? size.ws_row : 24;
}

} // namespace

Screen::Screen() {
   for( const int signal : deadly ) {
      handle( signal, die, static_cast<int>( SA_RESETHAND | SA_NODEFER ) );
   }
   handle( SIGTSTP, stopForAWhile, 0 );
   handle( SIGWINCH, windowChanged, 0 );
   writeAll( enter );
}

Screen::~Screen() {
   writeAll( leave );
   for( const int signal : deadly ) {
      handle( signal, SIG_DFL, 0 );
   }
   handle( SIGTSTP, SIG_DFL, 0 );
   handle( SIGWINCH, SIG_DFL, 0 );
}

bool Screen::draw( std::string_view title, std::string_view text ) const {
   std::string frame( home );
   frame += title;
   frame += clearToLineEnd;
   for( std::size_t row = 1; row < rows() && !text.empty(); ++row ) {
      const std::size_t end = std::min( text.find( '\n' ), text.size() );
      frame += '\n';
      frame += text.substr( 0, end );
      frame += clearToLineEnd;
      text.remove_prefix( std::min( end + 1, text.size() ) );
   }
   frame += clearToEnd;
   return writeAll( frame );
}

} // namespace OruQuarnShow
