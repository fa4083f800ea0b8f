#include <Quarn/util/Hex.h>

#include <string>

namespace Quarn {

String dumpHex( void const* data, int length ) {
   static constexpr char digits[] = "0123456789abcdef";
   if( length <= 0 ) {
      return String();
   }
   const auto size = static_cast<std::size_t>( length );
   auto const* const bytes = static_cast<unsigned char const*>( data );
   std::string text;
   text.reserve( size * 2 + size / 4 );
   for( std::size_t i = 0; i < size; ++i ) {
      if( i != 0 && i % 4 == 0 ) {
         text += ' ';
      }
      text += digits[ bytes[ i ] >> 4 ];
      text += digits[ bytes[ i ] & 15 ];
   }
   return text;
}

} // namespace Quarn
