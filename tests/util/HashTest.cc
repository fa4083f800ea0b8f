#include <Quarn/UtilCpp.h>

#include <gtest/gtest.h>

namespace {

using namespace Quarn::Util;

TEST( HashTest, KnownValues ) {
   // Published values of FNV-1a.
   EXPECT_EQ( hash( "" ), 0x811c9dc5u );
   EXPECT_EQ( hash( "a" ), 0xe40c292cu );
   EXPECT_EQ( hash( "foobar" ), 0xbf9cf968u );
   EXPECT_EQ( hash( "foobarX", 6 ), 0xbf9cf968u );
   EXPECT_EQ( hash64( "" ), 0xcbf29ce484222325ul );
   EXPECT_EQ( hash64( "a" ), 0xaf63dc4c8601ec8cul );
   EXPECT_EQ( hash64( "foobarX", 6 ), 0x85944171f73967e8ul );
}

TEST( HashTest, ShortTextOfANumber ) {
   EXPECT_EQ( base64Encode( 0 ), "AAAAAA" );
   EXPECT_EQ( base64Encode( 1 ), "BAAAAA" );
   EXPECT_EQ( base64Encode( 63 ), "=AAAAA" );
   EXPECT_EQ( base64Encode( 64 ), "ABAAAA" );
   EXPECT_EQ( base64Encode( 0xffffffff ), "=====D" );
   EXPECT_EQ( base64Encode( 0x811c9dc5 ), "F3JHBC" );
}

TEST( HashTest, FacilityNamesOfPaths ) {
   EXPECT_EQ( traceHandleName( "P", "/a/b//", false ), "PMwPo=D-b" );
   EXPECT_EQ( traceHandleName( "P", "/a/b", false ), "PMwPo=D-b" );
   EXPECT_EQ( traceHandleName( "Lock", "/var/run/x/", true ), "LockTemp-e4bHdB-x" );
   EXPECT_EQ( traceHandleName( "P", "/", false ), "PF3JHBC-" );
   EXPECT_EQ( traceHandleName( "P", "", false ), "PF3JHBC-" );
   EXPECT_EQ( traceHandleName( "P", "plain", false ).substr( 7 ), "-plain" );
}

} // namespace
