// What the fuzz targets have in common.
//
// A target is one source file with LLVMFuzzerTestOneInput(). It takes any bytes, compares what the
// code under test makes of them with a second, plainer reading, and keeps nothing from one input
// to the next: the same input always does the same.

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

// The one function of a target. Returns 0; a finding ends the process.
extern "C" int LLVMFuzzerTestOneInput( const std::uint8_t* data, std::size_t size );

namespace Fuzz {

[[noreturn]] inline void finding( char const* file, int line, char const* what ) {
   std::fprintf( stderr, "%s:%d: not so: %s\n", file, line, what );
   std::abort();
}

inline std::string_view asText( const std::uint8_t* data, std::size_t size ) {
   // Of no input the address may be null, which some functions do not take.
   return size == 0 ? std::string_view( "" )
                    : std::string_view( reinterpret_cast<char const*>( data ), size );
}

// Takes the first line, without its newline, off the front of the text.
inline std::string_view takeLine( std::string_view& text ) {
   const std::size_t end = std::min( text.find( '\n' ), text.size() );
   const std::string_view line = text.substr( 0, end );
   text.remove_prefix( std::min( end + 1, text.size() ) );
   return line;
}

} // namespace Fuzz

// What must hold for every input.
#define FUZZ_REQUIRE( condition ) \
   ( ( condition ) ? void() : Fuzz::finding( __FILE__, __LINE__, #condition ) )
