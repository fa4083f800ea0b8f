#include <Quarn/UtilCpp.h>

#include <gtest/gtest.h>

namespace {

TEST( HexTest, BlankAfterEachFourthByteButTheLast ) {
   unsigned char const bytes[] = { 0x00, 0x0f, 0xf0, 0xff, 0x80, 0x7f, 0x0a, 0xa0, 0x01, 0xfe };
   char const* const all = "000ff0ff 807f0aa0 01fe";
   // The lengths of the text with 0 to 10 bytes.
   std::size_t const lengths[] = { 0, 2, 4, 6, 8, 11, 13, 15, 17, 20, 22 };
   for( int length = 0; length <= 10; ++length ) {
      EXPECT_EQ( Quarn::dumpHex( bytes, length ), std::string( all, lengths[ length ] ) );
   }
   EXPECT_EQ( Quarn::dumpHex( bytes, -1 ), "" );
}

} // namespace
