// Runs a fuzz target over files, without the fuzzer: for compilers that have none, and as a test.
//
//     fuzz_NAME FOLDER...
//
// Each file of the folders is one input. They are run in the order of their names and then
// backwards, so that an input that leaves something behind meets different ones after it. The name
// of an input is printed before it is run; exits 2 when there is none.

#include "fuzz/Fuzz.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

std::vector<std::filesystem::path> filesOf( char const* folder ) {
   std::vector<std::filesystem::path> files;
   for( const auto& entry : std::filesystem::directory_iterator( folder ) ) {
      if( entry.is_regular_file() ) {
         files.push_back( entry.path() );
      }
   }
   std::ranges::sort( files );
   return files;
}

std::string contentOf( const std::filesystem::path& file ) {
   std::ifstream in( file, std::ios::binary );
   std::string content( std::istreambuf_iterator<char>( in ), {} );
   if( !in.is_open() || in.bad() ) {
      throw std::runtime_error( "cannot read " + file.string() );
   }
   return content;
}

void run( const std::filesystem::path& file ) {
   std::printf( "%s\n", file.c_str() );
   std::fflush( stdout );
   const std::string content = contentOf( file );
   // In a block of its exact size, so that the address sanitizer sees one byte too many.
   const auto block = std::make_unique<std::uint8_t[]>( content.size() );
   std::ranges::copy( content, block.get() );
   LLVMFuzzerTestOneInput( block.get(), content.size() );
}

} // namespace

int main( int argc, char** argv ) {
   try {
      std::vector<std::filesystem::path> files;
      for( int i = 1; i < argc; ++i ) {
         const auto more = filesOf( argv[ i ] );
         files.insert( files.end(), more.begin(), more.end() );
      }
      if( files.empty() ) {
         std::fprintf( stderr, "usage: %s FOLDER..., with files in them\n", argv[ 0 ] );
         return 2;
      }
      std::ranges::for_each( files, run );
      std::for_each( files.rbegin(), files.rend(), run );
   } catch( const std::exception& e ) {
      std::fprintf( stderr, "%s: %s\n", argv[ 0 ], e.what() );
      return 2;
   }
   return 0;
}
