#include <Quarn/UtilCpp.h>

#include <Oru/FwkType.h>

#include <Quarn/base/Exception.h>

#include "support/FreedBlock.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <new>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Oru::NboAttrLog;
using Quarn::Sensitive;

Sensitive sensitive( const std::string& bytes ) {
   return Sensitive( reinterpret_cast<unsigned char const*>( bytes.data() ),
                     static_cast<unsigned int>( bytes.size() ) );
}

std::string bytesOf( const Sensitive& value ) {
   return std::string( reinterpret_cast<char const*>( value.data() ), value.size() );
}

// What generic code of the framework does with a value of any type.
template<typename Value>
std::string wire( const Value& value ) {
   NboAttrLog log( attrLogSize( value ) );
   NboAttrLog::Out out( log );
   EXPECT_TRUE( attrLogSerialize( out, value ) );
   std::string bytes( log.size(), '\0' );
   NboAttrLog::In( log ).bytes( bytes.data(), bytes.size() );
   return bytes;
}

template<typename Value>
void expectTextOfItsOwnKind( const Value& value ) {
   Value copy;
   sequenceToValue( valueToStrep( value ), copy );
   EXPECT_EQ( copy.size(), value.size() );
}

TEST( SensitiveTest, CopiesShareAndEqualBytesDiffer ) {
   const Sensitive one = sensitive( "secret" );
   const Sensitive other = sensitive( "secret" );
   Sensitive copy;
   copy = one;
   EXPECT_TRUE( one == copy );
   EXPECT_FALSE( one != copy );
   EXPECT_TRUE( one != other );
   EXPECT_EQ( bytesOf( other ), "secret" );
   EXPECT_TRUE( Sensitive() == Sensitive( nullptr, 0 ) );
   EXPECT_EQ( Sensitive( nullptr, 0 ).data(), nullptr );
}

TEST( SensitiveTest, MovedFromIsEmpty ) {
   // Of locals the analyzer holds that nobody may ask them once they were moved from.
   struct {
      Sensitive source = sensitive( "secret" );
      unsigned char const* buffer = source.data();
      Sensitive target = static_cast<Sensitive&&>( source );
   } moved;
   auto& [ source, buffer, target ] = moved;
   EXPECT_EQ( source.size(), 0u );
   EXPECT_EQ( source.data(), nullptr );
   source = static_cast<Sensitive&&>( target );
   EXPECT_EQ( target.size(), 0u );
   EXPECT_EQ( target.data(), nullptr );
   EXPECT_EQ( source.data(), buffer );
   Sensitive& self = source;
   source = std::move( self );
   EXPECT_EQ( bytesOf( source ), "secret" );
}

TEST( SensitiveTest, JoinsTwoPartsOfWhichEitherMayBeEmpty ) {
   unsigned char const ab[] = { 'a', 'b' };
   unsigned char const c[] = { 'c' };
   EXPECT_EQ( bytesOf( Sensitive( ab, 2, c, 1 ) ), "abc" );
   EXPECT_EQ( bytesOf( Sensitive( nullptr, 0, c, 1 ) ), "c" );
   EXPECT_EQ( bytesOf( Sensitive( ab, 2, nullptr, 0 ) ), "ab" );
   EXPECT_EQ( Sensitive( nullptr, 0, nullptr, 0 ).data(), nullptr );
}

TEST( SensitiveTest, SumAbove32BitsIsRefusedBeforeAnythingIsRead ) {
   unsigned char const byte = 0;
   const auto before = Sensitive::memTracker_.total();
   constexpr auto most = std::numeric_limits<unsigned int>::max();
   EXPECT_THROW( Sensitive( &byte, most, &byte, 1 ), Quarn::RuntimeException );
   EXPECT_THROW( Sensitive( &byte, most, &byte, most ), Quarn::RuntimeException );
   EXPECT_EQ( Sensitive::memTracker_.total(), before );
}

TEST( SensitiveTest, LastUserWipesBeforeTheBlockIsFreed ) {
   const std::string secret = "correct horse battery staple, and something behind it";
   std::optional<Sensitive> value = sensitive( secret );
   std::optional<Sensitive> copy = value;
   const testing_support::FreedBlock block( value->data(), value->size() );
   value.reset();
   EXPECT_EQ( bytesOf( *copy ), secret );
   EXPECT_EQ( block.bytes(), "" );
   copy.reset();
   EXPECT_EQ( block.bytes(), std::string( secret.size(), '\0' ) );
}

TEST( SensitiveTest, ReplacedBufferIsWiped ) {
   Sensitive value = sensitive( "first" );
   {
      const testing_support::FreedBlock block( value.data(), value.size() );
      value = sensitive( "second" );
      EXPECT_EQ( block.bytes(), std::string( 5, '\0' ) );
   }
   const testing_support::FreedBlock block( value.data(), value.size() );
   value = Sensitive();
   EXPECT_EQ( block.bytes(), std::string( 6, '\0' ) );
}

TEST( SensitiveTest, LastUserMayBeAnotherThread ) {
   const auto before = Sensitive::memTracker_.inUse();
   Sensitive value = sensitive( "shared" );
   std::thread( [ mine = value ] { EXPECT_EQ( bytesOf( mine ), "shared" ); } ).join();
   std::thread other( [ mine = value ] { EXPECT_EQ( bytesOf( mine ), "shared" ); } );
   value = Sensitive();
   other.join();
   EXPECT_EQ( Sensitive::memTracker_.inUse(), before );
}

TEST( SensitiveTest, TrackerCountsBytes ) {
   EXPECT_STREQ( Sensitive::memTracker_.unitName(), "SensitiveByte" );
   EXPECT_EQ( Sensitive::memTracker_.unitSize(), 1u );
   const auto before = Sensitive::memTracker_.inUse();
   {
      const auto buffer = Sensitive::allocate( 1000 );
      EXPECT_EQ( Sensitive::memTracker_.inUse(), before + 1000 );
      EXPECT_EQ( std::string( reinterpret_cast<char const*>( buffer.get() ), 1000 ),
                 std::string( 1000, '\0' ) );
      const Sensitive value = sensitive( "seven b" );
      EXPECT_EQ( Sensitive::memTracker_.inUse(), before + 1007 );
   }
   EXPECT_EQ( Sensitive::memTracker_.inUse(), before );
   EXPECT_FALSE( Sensitive::allocate( 0 ) );
}

#ifndef OWN_ALLOCATOR
TEST( SensitiveTest, FailedAllocationsLeaveNothingBehind ) {
   // The buffer, and the count of its users.
   for( unsigned const after : { 0u, 1u } ) {
      const auto inUse = Sensitive::memTracker_.inUse();
      const auto total = Sensitive::memTracker_.total();
      testing_support::allocationFails( after );
      EXPECT_THROW( Sensitive::allocate( 24 ), std::bad_alloc );
      EXPECT_EQ( Sensitive::memTracker_.inUse(), inUse );
      EXPECT_EQ( Sensitive::memTracker_.total(), total + std::uint64_t{ after } * 24 );
   }
}
#endif

TEST( SensitiveTest, TextShowsAddressAndSizeOnly ) {
   const Sensitive value = sensitive( "secret" );
   const std::string text =
         fmt::format( "sensitive({},6)", static_cast<void const*>( value.data() ) );
   EXPECT_EQ( valueToStrep( value ), text );
   EXPECT_EQ( fmt::format( "{}", value ), text );
   std::ostringstream out;
   out << value << ' ' << Sensitive();
   EXPECT_EQ( out.str(), text + " sensitive(0x0,0)" );
   EXPECT_EQ( Sensitive::fwkType().text( &value ), text );
   EXPECT_EQ( Sensitive::fwkType().read( &value, "size" ), Oru::AttributeValue( 6u ) );
}

TEST( SensitiveTest, TextGivesTheSizeBackWithZeros ) {
   expectTextOfItsOwnKind( sensitive( "secret" ) );
   expectTextOfItsOwnKind( Sensitive() );
   Sensitive value;
   sequenceToValue( "sensitive(0x7ffe12345678,5)", value );
   EXPECT_EQ( bytesOf( value ), std::string( 5, '\0' ) );
   sequenceToValue( "sensitive(140732920755832,3)", value );
   EXPECT_EQ( value.size(), 3u );
   sequenceToValue( "sensitive(0,0)", value );
   EXPECT_EQ( value.data(), nullptr );
}

TEST( SensitiveTest, TextOfNoValueIsRefused ) {
   const Sensitive kept = sensitive( "kept" );
   for( char const* text :
        { "", "sensitive", "sensitive(", "sensitive()", "sensitive(0x0)", "sensitive(0x0,)",
          "sensitive(,1)", "sensitive(0x,1)", "sensitive(0x0,1", "sensitive(0x0,1) ",
          "sensitive(0x0,-1)", "sensitive(0x0,+1)", "sensitive(0x0, 1)", "sensitive(0x0,0x1)",
          "sensitive(0x0,4294967296)", "sensitive(0x10000000000000000,1)", "sensitive(ff,1)",
          " sensitive(0x0,1)", "Sensitive(0x0,1)" } ) {
      Sensitive value = kept;
      EXPECT_THROW( sequenceToValue( text, value ), Quarn::RuntimeException ) << text;
      EXPECT_TRUE( value == kept ) << text;
   }
}

TEST( SensitiveTest, WireIsTheSizeAndTheBytes ) {
   EXPECT_EQ( wire( Sensitive() ), std::string( 4, '\0' ) );
   EXPECT_EQ( wire( sensitive( "\x01\xff" ) ), std::string( "\0\0\0\x02\x01\xff", 6 ) );
   std::string long_( 0x010203, 'x' );
   EXPECT_EQ( wire( sensitive( long_ ) ), std::string( "\0\x01\x02\x03", 4 ) + long_ );
}

TEST( SensitiveTest, PassesThroughTheLogAtEachPlaceOfTheRing ) {
   NboAttrLog log( 13 );
   for( int round = 0; round < 2 * 13; ++round ) {
      const Sensitive sent = sensitive( { 's', static_cast<char>( round ), '\0', 't', 'u' } );
      NboAttrLog::Out out( log );
      ASSERT_EQ( attrLogSize( sent ), 9u );
      ASSERT_TRUE( attrLogSerialize( out, sent ) );
      ASSERT_EQ( log.size(), 9u );
      Sensitive got;
      NboAttrLog::In in( log );
      attrLogDeserialize( in, got );
      ASSERT_EQ( bytesOf( got ), bytesOf( sent ) );
      ASSERT_EQ( log.size(), 0u );
   }
}

TEST( SensitiveTest, RefusedRecordIsNotWrittenInPart ) {
   NboAttrLog log( 12 );
   NboAttrLog::Out out( log );
   ASSERT_TRUE( attrLogSerialize( out, sensitive( "abc" ) ) );
   // Room for the size and one byte.
   EXPECT_FALSE( attrLogSerialize( out, sensitive( "de" ) ) );
   EXPECT_TRUE( log.full() );
   EXPECT_EQ( log.size(), 7u );
   log.droppingIs( true );
   EXPECT_FALSE( attrLogSerialize( out, sensitive( "f" ) ) );
   EXPECT_FALSE( attrLogSerialize( out, Sensitive() ) );
   EXPECT_EQ( log.droppedBytes(), 5u + 4u );
   EXPECT_EQ( log.size(), 7u );
   log.droppingIs( false );
   EXPECT_TRUE( attrLogSerialize( out, sensitive( "f" ) ) );
}

TEST( SensitiveTest, SizeBeyondTheLogIsRefusedBeforeItIsAllocated ) {
   const Sensitive kept = sensitive( "kept" );
   for( std::uint32_t const size : { 4u, 0x7fffffffu, 0xffffffffu } ) {
      NboAttrLog log( 7 );
      NboAttrLog::Out out( log );
      ASSERT_TRUE( out.sizeIsValid( 7 ) );
      out.u32( size );
      out.bytes( "abc", 3 );
      Sensitive value = kept;
      NboAttrLog::In in( log );
      const auto total = Sensitive::memTracker_.total();
      EXPECT_THROW( attrLogDeserialize( in, value ), Quarn::RuntimeException );
      EXPECT_EQ( Sensitive::memTracker_.total(), total );
      EXPECT_TRUE( value == kept );
   }
   NboAttrLog empty( 7 );
   NboAttrLog::In in( empty );
   Sensitive value = kept;
   EXPECT_THROW( attrLogDeserialize( in, value ), Quarn::RuntimeException );
   EXPECT_TRUE( value == kept );
}

} // namespace
