// Bytes as hexadecimal text.

#pragma once

#include <Quarn/Export.h>
#include <Quarn/base/String.h>

namespace Quarn {

// Two lower-case digits for each byte, in groups of four bytes with a blank between them; empty
// when `length` is 0 or less.
//
//     dumpHex( "ABCDEF", 6 )   // "41424344 4546"
ORUQUARN_API String dumpHex( void const* data, int length );

} // namespace Quarn
