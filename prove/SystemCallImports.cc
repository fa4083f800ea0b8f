#include "prove/SystemCallImports.h"

#include "prove/SystemCallPairs.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <stdexcept>
#include <string_view>

#include <elf.h>
#include <link.h>

namespace prove {

namespace {

struct Excuse {
   char const* reason;
   std::set<std::string_view> functions;
};

const Excuse excuses[] = {
      { "they have nothing to fail by: memory, texts, numbers, time, what the process has at hand",
        { "ceil",         "div",          "explicit_bzero", "floor",     "llround",
          "memchr",       "memcmp",       "memcpy",         "memmove",   "memrchr",
          "memset",       "rand_r",       "snprintf",       "strchr",    "strcmp",
          "strcpy",       "strerror",     "strerror_r",     "strlen",    "strncmp",
          "strnlen",      "strrchr",      "strspn",         "strcspn",   "strstr",
          "strtod",       "strtol",       "strtoul",        "strtoull",  "tolower",
          "trunc",        "vsnprintf",    "getauxval",      "getenv",    "getpid",
          "gettid",       "pthread_self", "sched_yield",    "sigaddset", "sigemptyset",
          "sigismember",  "gettimeofday", "clock_gettime",  "umask",     "strerrordesc_np",
          "pthread_equal" } },
      { "parts of the language's run time, and data",
        { "assert_fail", "cxa_atexit", "cxa_finalize", "cxa_thread_atexit_impl", "errno_location",
          "libc_single_threaded", "progname", "program_invocation_short_name", "stack_chk_fail",
          "stderr", "stdout", "tls_get_addr", "abort" } },
      { "row 5 has memory fail", { "free", "malloc", "calloc", "realloc", "register_atfork" } },
      { "they fail for arguments that the library does not give",
        { "dirfd", "pthread_attr_destroy", "pthread_mutex_lock", "pthread_mutex_unlock",
          "pthread_setcancelstate", "pthread_sigmask", "sigpending", "sysconf" } },
      { "void, or the last of a thing that is let go: syslog(3) tells nothing, a position is set "
        "anew, a wait may be short",
        { "rewind", "rewinddir", "syslog", "usleep" } },
      { "the result goes unread: words on standard error that are lost change nothing",
        { "fflush", "fputc", "fputs", "fwrite", "putc", "vfprintf" } },
      { "the result goes unread: a name that is not told stays empty, and stands in texts only",
        { "pthread_getname_np" } },
      { "of a time beyond what a year can count, which the tests give it", { "localtime_r" } },
#ifdef PROVE_COVERAGE
      { "the counters of lines that are built in write their files at the end",
        { "access", "atexit", "execv", "execve", "execvp", "exit", "fdopen", "fork", "fread",
          "fseek", "pthread_mutex_init", "sprintf", "strcat" } },
#endif
      { "they tell of the last answer of the loader and set no errno; a missing symbol is tested",
        { "dlerror", "dlsym" } },
};

// Without the marks of a checked call, of a standard or of large files.
std::string plainName( std::string_view name ) {
   for( const std::string_view mark : { "__isoc99_", "__isoc23_", "__xpg_", "__" } ) {
      if( name.starts_with( mark ) ) {
         name.remove_prefix( mark.size() );
         break;
      }
   }
   for( const std::string_view mark : { "_chk", "64" } ) {
      if( name.ends_with( mark ) ) {
         name.remove_suffix( mark.size() );
      }
   }
   return std::string( name );
}

// The tables of a library that is loaded.
struct Tables {
   explicit Tables( const dl_phdr_info& info ) {
      for( int i = 0; i < info.dlpi_phnum; ++i ) {
         if( info.dlpi_phdr[ i ].p_type == PT_DYNAMIC ) {
            _read(
                  std::bit_cast<ElfW( Dyn ) const*>( info.dlpi_addr + info.dlpi_phdr[ i ].p_vaddr ),
                  info.dlpi_addr );
         }
      }
      if( !symbols || !strings || !hash || !versions || !needs ) {
         throw std::runtime_error( "a library without the tables of its symbols" );
      }
   }

   // The numbers of the versions that are the C library's.
   std::set<unsigned> versionsOfC() const {
      std::set<unsigned> numbers;
      for( auto const* need = needs;; need = _behind( need, need->vn_next ) ) {
         if( std::strncmp( strings + need->vn_file, "libc.so.", 8 ) == 0 ) {
            auto const* version = reinterpret_cast<ElfW( Vernaux ) const*>(
                  reinterpret_cast<char const*>( need ) + need->vn_aux );
            for( unsigned i = 0; i < need->vn_cnt; ++i ) {
               numbers.insert( version->vna_other );
               version = _behind( version, version->vna_next );
            }
         }
         if( need->vn_next == 0 ) {
            return numbers;
         }
      }
   }

   // What the hash table leaves out, which is what is not defined here.
   std::size_t undefined() const { return hash[ 1 ]; }

   ElfW( Sym ) const* symbols = nullptr;
   char const* strings = nullptr;
   std::uint32_t const* hash = nullptr;
   ElfW( Versym ) const* versions = nullptr;
   ElfW( Verneed ) const* needs = nullptr;

 private:
   template<typename Entry>
   static Entry const* _behind( Entry const* entry, std::size_t bytes ) {
      return reinterpret_cast<Entry const*>( reinterpret_cast<char const*>( entry ) + bytes );
   }

   // The loader of the GNU C library has turned some of the offsets into addresses.
   void _read( ElfW( Dyn ) const* entry, ElfW( Addr ) base ) {
      for( ; entry->d_tag != DT_NULL; ++entry ) {
         const ElfW( Addr ) value = entry->d_un.d_ptr;
         void const* const address =
               std::bit_cast<void const*>( value < base ? base + value : value );
         if( entry->d_tag == DT_SYMTAB ) {
            symbols = static_cast<ElfW( Sym ) const*>( address );
         } else if( entry->d_tag == DT_STRTAB ) {
            strings = static_cast<char const*>( address );
         } else if( entry->d_tag == DT_GNU_HASH ) {
            hash = static_cast<std::uint32_t const*>( address );
         } else if( entry->d_tag == DT_VERSYM ) {
            versions = static_cast<ElfW( Versym ) const*>( address );
         } else if( entry->d_tag == DT_VERNEED ) {
            needs = static_cast<ElfW( Verneed ) const*>( address );
         }
      }
   }
};

void addImports( std::set<std::string>& imports, const Tables& tables ) {
   const std::set<unsigned> versionsOfC = tables.versionsOfC();
   for( std::size_t i = 1; i < tables.undefined(); ++i ) {
      const ElfW( Sym )& symbol = tables.symbols[ i ];
      constexpr unsigned hidden = 0x8000;
      if( symbol.st_shndx == SHN_UNDEF && versionsOfC.contains( tables.versions[ i ] & ~hidden ) ) {
         imports.insert( plainName( tables.strings + symbol.st_name ) );
      }
   }
}

constexpr std::string_view libraries[] = { "libOruQuarn.so", "libQuarn.so", "liboru.so",
                                           "libnetns.so", "libtimeout.so" };

// Which of them the file is, empty for none.
std::string_view libraryOf( std::string_view file ) {
   file.remove_prefix( file.rfind( '/' ) + 1 );
   for( const std::string_view library : libraries ) {
      if( file.starts_with( library ) ) {
         return library;
      }
   }
   return {};
}

struct Walk {
   std::set<std::string> imports;
   std::set<std::string_view> seen;
};

int visit( dl_phdr_info* info, std::size_t /* its size */, void* data ) {
   Walk& walk = *static_cast<Walk*>( data );
   if( const std::string_view name = libraryOf( info->dlpi_name ); !name.empty() ) {
      walk.seen.insert( name );
      addImports( walk.imports, Tables( *info ) );
   }
   return 0;
}

} // namespace

bool isLibrary( char const* file ) { return !libraryOf( file ).empty(); }

std::set<std::string> importsOfLibrary() {
   Walk walk;
   dl_iterate_phdr( visit, &walk );
   for( const std::string_view library : libraries ) {
      if( !walk.seen.contains( library ) ) {
         throw std::runtime_error( std::string( library ) + " is not loaded" );
      }
   }
   return walk.imports;
}

std::set<std::string> importsWithoutPair( const std::set<std::string>& imports ) {
   std::set<std::string> rest = imports;
   for( const Excuse& excuse : excuses ) {
      for( const std::string_view function : excuse.functions ) {
         rest.erase( std::string( function ) );
      }
   }
   for( const Pair& pair : systemCallPairs() ) {
      std::string_view calls = pair.call;
      while( !calls.empty() ) {
         const std::string_view call = calls.substr( 0, calls.find( '|' ) );
         rest.erase( std::string( call.substr( 0, call.find( '(' ) ) ) );
         calls.remove_prefix( std::min( call.size() + 1, calls.size() ) );
      }
   }
   return rest;
}

} // namespace prove
