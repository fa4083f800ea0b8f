#include <Quarn/base/HashMix.h>

#include <gtest/gtest.h>
#include <string_view>

using Quarn::Impl::HashMix;

// Values published by the authors of the hash.
TEST( HashMixTest, AgreesWithThePublishedValues ) {
   struct Row {
      std::string_view text;
      unsigned int hash32;
      unsigned long hash64;
   };
   for( auto const& [ text, hash32, hash64 ] :
        { Row{ "", 0x811c9dc5U, 0xcbf29ce484222325UL },
          Row{ "a", 0xe40c292cU, 0xaf63dc4c8601ec8cUL },
          Row{ "foobar", 0xbf9cf968U, 0x85944171f73967e8UL } } ) {
      HashMix<unsigned int> mix32( 0x811c9dc5U );
      HashMix<unsigned long> mix64( 0xcbf29ce484222325UL );
      EXPECT_EQ( mix32.mix( text.data(), text.size() ).value(), hash32 ) << text;
      EXPECT_EQ( mix64.mix( text.data(), text.size() ).value(), hash64 ) << text;
   }
}

TEST( HashMixTest, PiecesHashLikeTheWholeAndBytesAreUnsigned ) {
   constexpr std::string_view text = "one\xff\x80two\0three";
   HashMix<unsigned int> whole( 7 );
   whole.mix( text.data(), text.size() );
   HashMix<unsigned int> pieces( 7 );
   pieces.mix( text.data(), 4 ).mix( nullptr, 0 ).mix( text.data() + 4, text.size() - 4 );
   EXPECT_EQ( pieces.value(), whole.value() );

   // One byte by hand: ( seed ^ byte ) * prime.
   char const high = '\xff';
   EXPECT_EQ( HashMix<unsigned int>( 0 ).mix( &high, 1 ).value(), 0xffU * 0x01000193U );
}
