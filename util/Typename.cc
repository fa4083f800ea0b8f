#include <Quarn/base/PidMappings.h>
#include <Quarn/util/Process.h>

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <string_view>

#include <dlfcn.h>
#include <sys/auxv.h>
#include <unistd.h>

namespace Quarn::Util {

namespace {

// The table begins with the offset to the top of the object and the pointer to the type
// information; pointers to tables point behind those. Of the information, which is a
// std::type_info, the second word points to the name. (Itanium C++ ABI, 2.5.2 and 2.9.5.)
constexpr std::uint64_t word = sizeof( void* );
static_assert( word == sizeof( std::uint64_t ) );

template<typename T>
T const* at( std::uint64_t address ) {
   // As std::bit_cast does it, which clang-tidy 14 does not survive.
   T const* pointer = nullptr;
   std::memcpy( &pointer, &address, sizeof( pointer ) );
   return pointer;
}

// For functions that read what is mapped, wherever a sanitizer sees the bounds of objects in it.
// They read byte by byte, as the functions of the C library are checked.
#define RAW_READ __attribute__( ( no_sanitize( "address" ) ) )

// At any address, aligned or not.
RAW_READ std::uint64_t wordAt( std::uint64_t address ) {
   std::array<unsigned char, word> bytes;
   for( unsigned i = 0; i < word; ++i ) {
      bytes[ i ] = at<unsigned char>( address )[ i ];
   }
   return std::bit_cast<std::uint64_t>( bytes );
}

RAW_READ bool hasZeroByte( std::uint64_t address, std::uint64_t end ) {
   while( address != end && *at<char>( address ) != 0 ) {
      ++address;
   }
   return address != end;
}

// Whether the file of `other` is in this process, if need be by loading it, for good: the name that
// is found lives in it.
bool haveFile( MappingInfo const& other ) {
   // A program cannot be loaded like a library, and need not be.
   const MappingInfos mine = PidMappings::populate( ::getpid() );
   MappingInfo const* const program = mine.find( ::getauxval( AT_PHDR ) );
   if( program && program->sameFile( other ) ) {
      return true;
   }
   // The empty name would give the program.
   const std::string_view file = other.file;
   if( !file.starts_with( '/' ) || file.ends_with( " (deleted)" ) ) {
      return false;
   }
   return ::dlopen( other.file.c_str(), RTLD_LAZY | RTLD_NOLOAD ) ||
          ::dlopen( other.file.c_str(), RTLD_LAZY );
}

// The same stretch of the same file in this process. Where the first segments of a library meet
// within a page of the file there are two mappings with one offset, of which only one has been
// relocated: their order is the same in all processes.
MappingInfo const* counterpart( const MappingInfos& mine, const MappingInfos& others,
                                MappingInfo const& other ) {
   MappingInfo const* const found = mine.find( other.file, other.offset, others.ordinal( other ) );
   return found && found->sameFile( other ) && found->length() == other.length() &&
                      found->readable()
                ? found
                : nullptr;
}

// Whether a text that ends within its mapping is at `address`.
bool isText( const MappingInfos& mine, std::uint64_t address ) {
   MappingInfo const* const mapping = mine.find( address );
   return mapping && mapping->readable() && mapping->inode != 0 &&
          hasZeroByte( address, mapping->end );
}

} // namespace

char const* typenameFromVptr( int otherPid, void const* vptr, String& error ) {
   const auto failed = [ &error ]( std::string_view text ) {
      error = String( text );
      return nullptr;
   };
   const std::uint64_t otherTable = reinterpret_cast<std::uintptr_t>( vptr );

   const MappingInfos others = PidMappings::populate( otherPid );
   MappingInfo const* const other = others.find( otherTable );
   if( !other ) {
      return failed(
            fmt::format( "Could not find mapping for vptr:{} otherPid:{}", vptr, otherPid ) );
   }
   // A table has a word before the pointer to it, and one at it.
   if( otherTable % word != 0 || otherTable - other->start < word ||
       !other->holds( otherTable, word ) ) {
      return failed( fmt::format( "Bad vptr:{} otherPid:{} mapping:{}", vptr, otherPid, *other ) );
   }
   if( !haveFile( *other ) ) {
      return failed( fmt::format( "Failed to open library for vptr:{} otherPid:{} other mapping:{}",
                                  vptr, otherPid, *other ) );
   }

   const MappingInfos mine = PidMappings::populate( ::getpid() );
   MappingInfo const* const my = counterpart( mine, others, *other );
   if( !my ) {
      return failed( fmt::format( "No own mapping found for vptr:{} otherPid:{} other mapping:{}",
                                  vptr, otherPid, *other ) );
   }
   const std::uint64_t table = my->start + ( otherTable - other->start );

   const std::uint64_t typeInfo = wordAt( table - word );
   MappingInfo const* const found = mine.find( typeInfo );
   if( !found ) {
      return failed( fmt::format(
            "No typeInfo mapping found for vptr:{} otherPid:{} typeInfoPtr:{} myMapping:{}", vptr,
            otherPid, at<void>( typeInfo ), *my ) );
   }
   if( !found->holds( typeInfo, 2 * word ) ) {
      return failed( fmt::format(
            "TypeInfo ptr crosses mappings, vptr:{} otherPid:{} typeInfoPtr:{} myMapping:{}", vptr,
            otherPid, at<void>( typeInfo ), *my ) );
   }
   // Both are constants that the loader has relocated, so one mapping has them; code, which the
   // word before something else may point to, has its own.
   if( found != my ) {
      return failed( fmt::format(
            "TypeInfo is not stored in proper mapping. Expected:{} but found:{}", *my, *found ) );
   }
   const std::uint64_t name = wordAt( typeInfo + word );
   if( !isText( mine, name ) ) {
      return failed(
            fmt::format( "Bad type name:{} for vptr:{} otherPid:{} typeInfoPtr:{} myMapping:{}",
                         at<void>( name ), vptr, otherPid, at<void>( typeInfo ), *my ) );
   }
   // A "*" before a name says that the type is local to its library; it is no part of the name.
   char const* const text = at<char>( name );
   return *text == '*' ? text + 1 : text;
}

} // namespace Quarn::Util
