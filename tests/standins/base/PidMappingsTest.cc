#include <Quarn/base/PidMappings.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string>

#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

using Quarn::MappingInfo;
using Quarn::MappingInfos;
using Quarn::PidMappings;

char const map[] = "55a0-55b0 r--p 00000000 fe:00 247498                     /usr/bin/a program\n"
                   "6000-7000 rw-p 00000000 00:00 0 \n"
                   "7f0000001000-7f0000002000 r--p 00002000 fe:0a 17 /lib/libx.so\n"
                   "7f0000002000-7f0000003000 r--p 00002000 fe:0a 17 /lib/libx.so\n"
                   "7f0000003000-7f0000004000 rw-s 00003000 fe:0a 17 /lib/libx.so (deleted)\n"
                   "ffffffffff600000-ffffffffff601000 --xp 00000000 00:00 0          [vsyscall]";

TEST( PidMappingsTest, LinesAreTakenApart ) {
   MappingInfos const infos = MappingInfos::parse( map );
   ASSERT_EQ( infos.size(), 6u );
   EXPECT_EQ( infos.skippedLines(), 0u );
   EXPECT_EQ( infos.begin()->file, "/usr/bin/a program" );
   EXPECT_EQ( infos.begin()[ 1 ].file, "" );
   EXPECT_EQ( infos.begin()[ 4 ].file, "/lib/libx.so (deleted)" );
   EXPECT_EQ( infos.begin()[ 5 ].end, 0xffffffffff601000u );
   EXPECT_FALSE( infos.begin()[ 5 ].readable() );
   EXPECT_EQ( fmt::format( "{}", infos.begin()[ 4 ] ),
              "7f0000003000-7f0000004000 rw-s 00003000 fe:0a 17 /lib/libx.so (deleted)" );
}

TEST( PidMappingsTest, LookUpByAddressHasBothEdges ) {
   MappingInfos const infos = MappingInfos::parse( map );
   EXPECT_EQ( infos.find( 0x559f ), nullptr );
   EXPECT_EQ( infos.find( 0x55a0 ), &infos.begin()[ 0 ] );
   EXPECT_EQ( infos.find( 0x55af ), &infos.begin()[ 0 ] );
   EXPECT_EQ( infos.find( 0x55b0 ), nullptr );
   EXPECT_EQ( infos.find( 0x7f0000002000 ), &infos.begin()[ 3 ] );

   MappingInfo const& m = infos.begin()[ 0 ];
   EXPECT_TRUE( m.holds( 0x55a8, 8 ) );
   EXPECT_FALSE( m.holds( 0x55a9, 8 ) );
   EXPECT_FALSE( m.holds( 0x55a8, ~std::uint64_t{ 0 } ) );
   EXPECT_FALSE( m.holds( 0x5598, 16 ) );
}

TEST( PidMappingsTest, MappingsOfOneOffsetAreToldApartByOrdinal ) {
   MappingInfos const infos = MappingInfos::parse( map );
   for( int i : { 0, 1 } ) {
      auto const ordinal = static_cast<std::size_t>( i );
      MappingInfo const* const found = infos.find( "/lib/libx.so", 0x2000, ordinal );
      ASSERT_EQ( found, &infos.begin()[ 2 + i ] );
      EXPECT_EQ( infos.ordinal( *found ), ordinal );
   }
   EXPECT_EQ( infos.find( "/lib/libx.so", 0x2000, 2 ), nullptr );
   EXPECT_EQ( infos.find( "/lib/libx.so", 0x3000, 0 ), nullptr );
   EXPECT_TRUE( infos.begin()[ 2 ].sameFile( infos.begin()[ 3 ] ) );
   EXPECT_FALSE( infos.begin()[ 3 ].sameFile( infos.begin()[ 4 ] ) );
   EXPECT_FALSE( infos.begin()[ 1 ].sameFile( infos.begin()[ 1 ] ) );
}

TEST( PidMappingsTest, LinesThatAreNotUnderstoodAreCountedAndLeftOut ) {
   std::string const good = "1000-2000 r-xp 00000000 fe:00 17 /x";
   // Every line that is cut within the numbers is refused; the rest is the path.
   for( std::size_t n = 1; n < good.size(); ++n ) {
      MappingInfos const infos = MappingInfos::parse( good.substr( 0, n ) + "\n" + good );
      EXPECT_EQ( infos.skippedLines(), n < good.find( "17 " ) + 1 ? 1u : 0u ) << n;
      EXPECT_EQ( infos.size() + infos.skippedLines(), 2u ) << n;
   }
   char const* const refused[] = {
         "\n",
         "2000-1000 r-xp 00000000 fe:00 17 /x",
         "1000-1000 r-xp 00000000 fe:00 17 /x",
         "1000-10000000000000000 r-xp 00000000 fe:00 17 /x",
         "1000-2000 rwxq 00000000 fe:00 17 /x",
         "1000-2000 r-xp -0000000 fe:00 17 /x",
         "1000-2000 r-xp 00000000 100000000:00 17 /x",
         "1000-2000 r-xp 00000000 fe:00 17/x",
         " 1000-2000 r-xp 00000000 fe:00 17 /x",
   };
   for( char const* line : refused ) {
      MappingInfos const infos = MappingInfos::parse( line );
      EXPECT_EQ( infos.size(), 0u ) << line;
      EXPECT_EQ( infos.skippedLines(), 1u ) << line;
   }
   EXPECT_EQ( MappingInfos::parse( "" ).skippedLines(), 0u );
}

// The loader knows where it put the segments of each object.
TEST( PidMappingsTest, OwnMapAgreesWithTheLoader ) {
   MappingInfos const infos = PidMappings::populate( ::getpid() );
   EXPECT_EQ( infos.skippedLines(), 0u );

   unsigned segments = 0;
   auto const check = [ & ]( dl_phdr_info const& object ) {
      for( int i = 0; i < object.dlpi_phnum; ++i ) {
         ElfW( Phdr ) const& segment = object.dlpi_phdr[ i ];
         // The vdso is no file.
         if( segment.p_type != PT_LOAD || object.dlpi_name[ 0 ] != '/' ) {
            continue;
         }
         ++segments;
         MappingInfo const* const mapping = infos.find( object.dlpi_addr + segment.p_vaddr );
         ASSERT_NE( mapping, nullptr ) << object.dlpi_name;
         char real[ PATH_MAX ];
         ASSERT_NE( ::realpath( object.dlpi_name, real ), nullptr );
         EXPECT_EQ( mapping->file, real );
         EXPECT_EQ( object.dlpi_addr + segment.p_vaddr - mapping->start + mapping->offset,
                    segment.p_offset );
         EXPECT_EQ( mapping->permissions[ 2 ] == 'x', ( segment.p_flags & PF_X ) != 0 );
         EXPECT_EQ( mapping, infos.find( mapping->file.c_str(), mapping->offset,
                                         infos.ordinal( *mapping ) ) );
      }
   };
   ::dl_iterate_phdr(
         []( dl_phdr_info* object, std::size_t, void* arg ) {
            ( *static_cast<decltype( check )*>( arg ) )( *object );
            return 0;
         },
         const_cast<void*>( static_cast<void const*>( &check ) ) );
   EXPECT_GT( segments, 8u );
}

TEST( PidMappingsTest, AMapOfManyPagesIsReadWhole ) {
   // Neighbours differ in what they allow, or the kernel would make one mapping of them.
   constexpr std::size_t pages = 600;
   std::size_t const page = static_cast<std::size_t>( ::sysconf( _SC_PAGESIZE ) );
   char* const area = static_cast<char*>( ::mmap( nullptr, pages * page, PROT_READ | PROT_WRITE,
                                                  MAP_PRIVATE | MAP_ANONYMOUS, -1, 0 ) );
   ASSERT_NE( static_cast<void*>( area ), MAP_FAILED );
   for( std::size_t i = 0; i < pages; i += 2 ) {
      ASSERT_EQ( ::mprotect( area + i * page, page, PROT_NONE ), 0 );
   }
   MappingInfos const infos = PidMappings::populate( ::getpid() );
   for( std::size_t i = 1; i + 1 < pages; ++i ) {
      MappingInfo const* const mapping =
            infos.find( reinterpret_cast<std::uintptr_t>( area + i * page ) );
      ASSERT_NE( mapping, nullptr );
      EXPECT_EQ( mapping->length(), page );
      EXPECT_EQ( mapping->readable(), i % 2 == 1 );
   }
   ::munmap( area, pages * page );
}

TEST( PidMappingsTest, NoSuchProcessHasNoMappings ) {
   errno = 0;
   EXPECT_TRUE( PidMappings::populate( -1 ).empty() );
   EXPECT_EQ( errno, 0 );
}

} // namespace
