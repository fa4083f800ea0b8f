// The terminal's other screen, as full-screen programs use it.

#pragma once

#include <string_view>

namespace OruQuarnShow {

// While one lives the terminal of standard output shows the other screen, without a cursor and with
// lines cut at its edge. What was there before comes back with the destructor, with a signal that
// ends the process, and for as long as SIGTSTP stops it.
//
// At most one lives at a time. The control sequences are those of ECMA-48 and of xterm.
class Screen {
 public:
   Screen();
   ~Screen();

   Screen( const Screen& ) = delete;
   Screen& operator=( const Screen& ) = delete;

   // Shows the title and as many lines of the text as there is room for, over what was there.
   // False, with errno set, when the terminal cannot be written.
   bool draw( std::string_view title, std::string_view text ) const;
};

} // namespace OruQuarnShow
