// What the library asks of the C library, held against the table of pairs.

#pragma once

#include <set>
#include <string>

namespace prove {

// Whether the file is this library or one of its stand-ins.
bool isLibrary( char const* file );

// The functions of the C library that this library and its stand-ins import, as their dynamic
// symbol tables have them; a name without what the compiler puts around it ("__isoc99_fscanf" is
// "fscanf").
//
// Errors: std::runtime_error when one of the libraries is not loaded.
std::set<std::string> importsOfLibrary();

// Those of `imports` that neither a pair makes fail nor the list in the source file excuses.
std::set<std::string> importsWithoutPair( const std::set<std::string>& imports );

} // namespace prove
