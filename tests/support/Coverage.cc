// A part of every program in coverage builds, and of no other.
//
// What a process has counted is written when its libraries are taken down. A process that ends
// without that, as children of tests do with _exit, and programs by a signal, writes it here first.

#include <csignal>
#include <cstdlib>
#include <string>
#include <vector>

#include <dlfcn.h>
#include <link.h>
#include <sys/syscall.h>
#include <unistd.h>

// Each library and program has one of its own, for its own counters. What the run time calls them
// is reserved.
extern "C" void dumpCounters() __asm__( "__gcov_dump" );
extern "C" void resetCounters() __asm__( "__gcov_reset" );

namespace {

int noteLibrary( dl_phdr_info* info, std::size_t, void* names ) {
   static_cast<std::vector<std::string>*>( names )->emplace_back( info->dlpi_name );
   return 0;
}

void callInLibraries( char const* function ) {
   std::vector<std::string> names;
   dl_iterate_phdr( noteLibrary, &names );
   for( const std::string& name : names ) {
      // The program itself has no name.
      void* const library =
            name.empty() ? nullptr : dlopen( name.c_str(), RTLD_LAZY | RTLD_NOLOAD );
      if( !library ) {
         continue;
      }
      if( void* const found = dlsym( library, function ) ) {
         reinterpret_cast<void ( * )()>( found )();
      }
      dlclose( library );
   }
}

void writeCounters() {
   dumpCounters();
   callInLibraries( "__gcov_dump" );
}

} // namespace

// Libraries call these, too.
#pragma GCC visibility push( default )

extern "C" {

void _exit( int status ) {
   writeCounters();
   for( ;; ) {
      syscall( SYS_exit_group, status );
   }
}

void abort() noexcept {
   writeCounters();
   reinterpret_cast<void ( * )()>( dlsym( RTLD_NEXT, "abort" ) )();
   __builtin_unreachable();
}

int raise( int signal ) noexcept {
   writeCounters();
   // What is counted from here on is added, if the process goes on.
   resetCounters();
   callInLibraries( "__gcov_reset" );
   return reinterpret_cast<int ( * )( int )>( dlsym( RTLD_NEXT, "raise" ) )( signal );
}

} // extern "C"

#pragma GCC visibility pop
