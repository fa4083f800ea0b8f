#include <Quarn/base/PidMappings.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <optional>
#include <string>

#include <fcntl.h>
#include <unistd.h>

namespace Quarn {

namespace {

// Takes a number in `base` off the front of `rest`; false when there is none or it does not fit.
template<typename Number>
bool takeNumber( std::string_view& rest, int base, Number& number ) {
   char const* const end = rest.data() + rest.size();
   auto const [ next, error ] = std::from_chars( rest.data(), end, number, base );
   if( error != std::errc() ) {
      return false;
   }
   rest.remove_prefix( static_cast<std::size_t>( next - rest.data() ) );
   return true;
}

bool take( std::string_view& rest, char expected ) {
   if( rest.empty() || rest.front() != expected ) {
      return false;
   }
   rest.remove_prefix( 1 );
   return true;
}

bool takePermissions( std::string_view& rest, char ( &permissions )[ 4 ] ) {
   static constexpr std::string_view allowed[] = { "r-", "w-", "x-", "ps" };
   if( rest.size() < std::size( allowed ) ) {
      return false;
   }
   for( std::size_t i = 0; i < std::size( allowed ); ++i ) {
      if( allowed[ i ].find( rest[ i ] ) == std::string_view::npos ) {
         return false;
      }
      permissions[ i ] = rest[ i ];
   }
   rest.remove_prefix( std::size( allowed ) );
   return true;
}

std::optional<MappingInfo> parseLine( std::string_view line ) {
   MappingInfo m;
   if( !takeNumber( line, 16, m.start ) || !take( line, '-' ) || !takeNumber( line, 16, m.end ) ||
       m.end <= m.start || !take( line, ' ' ) || !takePermissions( line, m.permissions ) ||
       !take( line, ' ' ) || !takeNumber( line, 16, m.offset ) || !take( line, ' ' ) ||
       !takeNumber( line, 16, m.deviceMajor ) || !take( line, ':' ) ||
       !takeNumber( line, 16, m.deviceMinor ) || !take( line, ' ' ) ||
       !takeNumber( line, 10, m.inode ) ) {
      return {};
   }
   // A path is set apart by blanks, and may hold and end in some; none begins with one.
   std::size_t const path = line.find_first_not_of( ' ' );
   if( path == 0 ) {
      return {};
   }
   if( path != std::string_view::npos ) {
      m.file = String( line.substr( path ) );
   }
   return m;
}

// The file's whole text; empty when it cannot be read to the end.
std::string contentOf( char const* path ) {
   std::string text;
   int const fd = ::open( path, O_RDONLY | O_CLOEXEC );
   if( fd < 0 ) {
      return text;
   }
   struct Closer {
      int fd;
      ~Closer() { ::close( fd ); }
   } const closer{ fd };
   // The kernel gives whole lines, a page of them at a time.
   char buffer[ 4096 ];
   for( ;; ) {
      ssize_t const got = ::read( fd, buffer, sizeof( buffer ) );
      if( got > 0 ) {
         text.append( buffer, static_cast<std::size_t>( got ) );
      } else if( got == 0 ) {
         return text;
      } else if( errno != EINTR ) {
         return {};
      }
   }
}

} // namespace

String MappingInfo::text() const {
   std::string line = fmt::format( "{:x}-{:x} {} {:08x} {:02x}:{:02x} {}", start, end,
                                   std::string_view( permissions, sizeof( permissions ) ), offset,
                                   deviceMajor, deviceMinor, inode );
   if( !file.empty() ) {
      fmt::format_to( std::back_inserter( line ), " {}", file );
   }
   return String( line );
}

MappingInfos MappingInfos::parse( std::string_view text ) {
   MappingInfos infos;
   while( !text.empty() ) {
      std::size_t const end = text.find( '\n' );
      if( auto mapping = parseLine( text.substr( 0, end ) ) ) {
         infos.mappings_.push_back( std::move( *mapping ) );
      } else {
         ++infos.skippedLines_;
      }
      text.remove_prefix( end == std::string_view::npos ? text.size() : end + 1 );
   }
   return infos;
}

MappingInfo const* MappingInfos::find( std::uint64_t address ) const {
   for( MappingInfo const& mapping : mappings_ ) {
      if( mapping.holds( address, 1 ) ) {
         return &mapping;
      }
   }
   return nullptr;
}

MappingInfo const* MappingInfos::find( std::string_view file, std::uint64_t offset,
                                       std::size_t ordinal ) const {
   for( MappingInfo const& mapping : mappings_ ) {
      if( mapping.offset == offset && mapping.file == file && ordinal-- == 0 ) {
         return &mapping;
      }
   }
   return nullptr;
}

std::size_t MappingInfos::ordinal( MappingInfo const& mapping ) const {
   std::size_t before = 0;
   for( MappingInfo const& other : mappings_ ) {
      if( &other == &mapping ) {
         break;
      }
      before += other.offset == mapping.offset && other.file == mapping.file;
   }
   return before;
}

MappingInfos PidMappings::populate( int pid ) {
   int const before = errno;
   MappingInfos infos =
         MappingInfos::parse( contentOf( fmt::format( "/proc/{}/maps", pid ).c_str() ) );
   errno = before;
   return infos;
}

} // namespace Quarn
