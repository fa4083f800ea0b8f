#include <Quarn/util/Hash.h>

#include <Quarn/base/HashMix.h>

namespace Quarn::Util {

namespace {

constexpr unsigned int seed32 = 0x811c9dc5;
constexpr unsigned long seed64 = 0xcbf29ce484222325;

} // namespace

unsigned int hash( void const* data, unsigned int size ) {
   return Impl::HashMix<unsigned int>( seed32 ).mix( data, size ).value();
}

unsigned int hash( const String& text ) {
   return Impl::HashMix<unsigned int>( seed32 ).mix( text.data(), text.size() ).value();
}

unsigned long hash64( void const* data, unsigned int size ) {
   return Impl::HashMix<unsigned long>( seed64 ).mix( data, size ).value();
}

unsigned long hash64( const String& text ) {
   return Impl::HashMix<unsigned long>( seed64 ).mix( text.data(), text.size() ).value();
}

String base64Encode( unsigned int value ) {
   static constexpr char alphabet[] =
         "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_=";
   static_assert( sizeof( alphabet ) == 64 + 1 );
   char text[ 6 ];
   for( char& c : text ) {
      c = alphabet[ value & 63 ];
      value >>= 6;
   }
   return String( text, sizeof( text ) );
}

} // namespace Quarn::Util
