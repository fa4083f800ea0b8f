// Hashes and the short text form of a 32-bit number.

#pragma once

#include <Quarn/Export.h>
#include <Quarn/base/String.h>

namespace Quarn::Util {

// 32-bit and 64-bit FNV-1a hashes (Fowler, Noll and Vo) of the bytes, from the usual offset basis.
ORUQUARN_API unsigned int hash( const String& text );
ORUQUARN_API unsigned int hash( void const* data, unsigned int size );
ORUQUARN_API unsigned long hash64( const String& text );
ORUQUARN_API unsigned long hash64( void const* data, unsigned int size );

// Six characters for the 32 bits of `value`, the low six bits first, from an alphabet that is safe
// in names ("_" and "=" close it). There is no padding, and the last character, which sees the top
// two bits only, is one of A to D.
ORUQUARN_API String base64Encode( unsigned int value );

} // namespace Quarn::Util
