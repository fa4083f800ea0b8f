// Texts of maps files. A second reader splits the lines into fields; look-ups and the printed form
// are tried on all mappings that were found.

#include "fuzz/Fuzz.h"

#include <Quarn/base/PidMappings.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <limits>
#include <optional>
#include <sstream>
#include <string>

namespace {

using namespace Quarn;

constexpr std::uint64_t max = std::numeric_limits<std::uint64_t>::max();

std::optional<std::uint64_t> numberOf( const std::string& text, int base,
                                       std::uint64_t limit = max ) {
   for( const char c : text ) {
      const auto byte = static_cast<unsigned char>( c );
      if( !( base == 16 ? std::isxdigit( byte ) : std::isdigit( byte ) ) ) {
         return std::nullopt;
      }
   }
   errno = 0;
   const std::uint64_t number = std::strtoull( text.c_str(), nullptr, base );
   return text.empty() || errno != 0 || number > limit ? std::nullopt : std::optional( number );
}

// The two numbers that `separator` parts.
struct Pair {
   std::optional<std::uint64_t> first;
   std::optional<std::uint64_t> second;
};

Pair pairOf( const std::string& text, char separator, std::uint64_t limit ) {
   const std::size_t at = text.find( separator );
   if( at == text.npos ) {
      return {};
   }
   return { numberOf( text.substr( 0, at ), 16, limit ),
            numberOf( text.substr( at + 1 ), 16, limit ) };
}

std::optional<MappingInfo> mappingOf( const std::string& line ) {
   std::string fields[ 5 ];
   std::size_t at = 0;
   for( std::string& field : fields ) {
      field = line.substr( at, line.find( ' ', at ) - at );
      at = std::min( at + field.size() + 1, line.size() );
   }
   const Pair range = pairOf( fields[ 0 ], '-', max );
   const Pair device = pairOf( fields[ 3 ], ':', std::numeric_limits<std::uint32_t>::max() );
   const auto offset = numberOf( fields[ 2 ], 16 );
   const auto inode = numberOf( fields[ 4 ], 10 );
   const std::string& may = fields[ 1 ];
   if( !range.first || !range.second || *range.first >= *range.second || !device.first ||
       !device.second || !offset || !inode || may.size() != 4 ||
       ( may[ 0 ] != 'r' && may[ 0 ] != '-' ) || ( may[ 1 ] != 'w' && may[ 1 ] != '-' ) ||
       ( may[ 2 ] != 'x' && may[ 2 ] != '-' ) || ( may[ 3 ] != 'p' && may[ 3 ] != 's' ) ) {
      return std::nullopt;
   }
   MappingInfo mapping;
   mapping.start = *range.first;
   mapping.end = *range.second;
   mapping.offset = *offset;
   mapping.inode = *inode;
   mapping.deviceMajor = static_cast<std::uint32_t>( *device.first );
   mapping.deviceMinor = static_cast<std::uint32_t>( *device.second );
   std::ranges::copy( may, mapping.permissions );
   std::string file = line.substr( at );
   file.erase( 0, file.find_first_not_of( ' ' ) );
   mapping.file = file;
   return mapping;
}

void requireSame( const MappingInfo& a, const MappingInfo& b ) {
   FUZZ_REQUIRE( a.start == b.start && a.end == b.end );
   FUZZ_REQUIRE( a.offset == b.offset && a.inode == b.inode );
   FUZZ_REQUIRE( a.deviceMajor == b.deviceMajor && a.deviceMinor == b.deviceMinor );
   FUZZ_REQUIRE( std::ranges::equal( a.permissions, b.permissions ) );
   FUZZ_REQUIRE( a.file == b.file );
}

void requireReadsBack( const MappingInfo& mapping ) {
   const MappingInfos again = MappingInfos::parse( mapping.text() );
   FUZZ_REQUIRE( again.size() == 1 && again.skippedLines() == 0 );
   requireSame( *again.begin(), mapping );
}

void requireFound( const MappingInfos& mappings, const MappingInfo& mapping ) {
   for( const std::uint64_t address : { mapping.start, mapping.end - 1 } ) {
      MappingInfo const* const found = mappings.find( address );
      FUZZ_REQUIRE( found && found <= &mapping );
      FUZZ_REQUIRE( found->start <= address && address < found->end );
   }
   const std::size_t ordinal = mappings.ordinal( mapping );
   FUZZ_REQUIRE( mappings.find( mapping.file, mapping.offset, ordinal ) == &mapping );

   FUZZ_REQUIRE( mapping.holds( mapping.start, mapping.length() ) );
   // Past the longest of all there is no size to ask for.
   FUZZ_REQUIRE( mapping.length() == max || !mapping.holds( mapping.start, mapping.length() + 1 ) );
   FUZZ_REQUIRE( !mapping.holds( mapping.end - 1, 2 ) );
   FUZZ_REQUIRE( mapping.length() == max || !mapping.holds( mapping.end - 1, max ) );
   FUZZ_REQUIRE( !mapping.holds( mapping.end, 0 ) );
}

} // namespace

int LLVMFuzzerTestOneInput( const std::uint8_t* data, std::size_t size ) {
   const std::string_view text = Fuzz::asText( data, size );
   const MappingInfos mappings = MappingInfos::parse( text );
   auto mapping = mappings.begin();
   std::size_t skipped = 0;
   std::istringstream lines{ std::string( text ) };
   for( std::string line; std::getline( lines, line ); ) {
      const auto expected = mappingOf( line );
      if( !expected ) {
         ++skipped;
         continue;
      }
      FUZZ_REQUIRE( mapping != mappings.end() );
      requireSame( *mapping, *expected );
      requireReadsBack( *mapping );
      requireFound( mappings, *mapping );
      ++mapping;
   }
   FUZZ_REQUIRE( mapping == mappings.end() );
   FUZZ_REQUIRE( skipped == mappings.skippedLines() );
   return 0;
}
