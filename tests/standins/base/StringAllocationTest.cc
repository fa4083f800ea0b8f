// Which operations on strings allocate.

#include <Quarn/base/String.h>

#include "support/AllocationCount.h"

#include <gtest/gtest.h>

namespace {

using Quarn::String;
using testing_support::allocationsOf;

TEST( StringAllocationTest, OnlyANewLongTextAllocates ) {
   struct Case {
      char const* text;
      std::uint64_t expected;
   };
   for( auto const& [ text, expected ] :
        { Case{ "", 0 }, Case{ "123456789012345", 0 }, Case{ "1234567890123456", 1 } } ) {
      EXPECT_EQ( allocationsOf( [ t = text ] { String const string( t ); } ), expected ) << text;
   }
   String const left( "half of it" );
   EXPECT_EQ( allocationsOf( [ & ] { String const string = left + "and more"; } ), 1U );
   EXPECT_EQ( allocationsOf( [ & ] { String const string = left + "and"; } ), 0U );
}

TEST( StringAllocationTest, CopiesAndMovesOfBothFormsAllocateNothing ) {
   for( char const* const text : { "short", "a text that lives on the heap" } ) {
      String const source( text );
      EXPECT_EQ( allocationsOf( [ & ] {
                    String copy( source );
                    String assigned;
                    assigned = copy;
                    assigned = source;
                    String moved( std::move( copy ) );
                    copy = std::move( moved );
                    String const whole = copy.substr( 0 );
                    String const lower = copy.toLower();
                 } ),
                 0U )
            << text;
   }
}

TEST( StringAllocationTest, DedupingAgainAllocatesNothing ) {
   String const first = String( "a name that is used in many places" ).deduped();
   String const other( "a name that is used in many places" );
   EXPECT_EQ( allocationsOf( [ & ] {
                 String const again = first.deduped();
                 String const found = other.deduped();
                 String const inPlace = String( "short" ).deduped();
              } ),
              0U );
}

} // namespace
