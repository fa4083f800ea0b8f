#include "support/Fatal.h"

#include <Oru/NboAttrLog.h>

#include <Quarn/base/Exception.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <limits>
#include <random>
#include <string>

namespace {

using Oru::NboAttrLog;

// Writes one record.
bool write( NboAttrLog& log, std::string const& bytes ) {
   NboAttrLog::Out out( log );
   if( !out.sizeIsValid( bytes.size() ) ) {
      return false;
   }
   out.bytes( bytes.data(), bytes.size() );
   return true;
}

std::string read( NboAttrLog& log, std::size_t size ) {
   std::string bytes( size, '\0' );
   NboAttrLog::In( log ).bytes( bytes.data(), size );
   return bytes;
}

TEST( NboAttrLogTest, NumbersGoHighestByteFirst ) {
   NboAttrLog log( 16 );
   NboAttrLog::Out out( log );
   ASSERT_TRUE( out.sizeIsValid( 12 ) );
   for( std::uint32_t const value : { 0x01020304u, 0u, 0xfffefdfcu } ) {
      out.u32( value );
   }
   EXPECT_EQ( read( log, 4 ), "\x01\x02\x03\x04" );
   EXPECT_EQ( NboAttrLog::In( log ).u32(), 0u );
   EXPECT_EQ( NboAttrLog::In( log ).u32(), 0xfffefdfcu );
}

TEST( NboAttrLogTest, RecordsWrapAtEachPlaceOfTheRing ) {
   // A record of 7 in a ring of 11 begins at each place in turn; the size is a number of its own.
   NboAttrLog log( 11 );
   for( int round = 0; round < 23; ++round ) {
      std::string const sent{ static_cast<char>( round ), 'a', 'b' };
      NboAttrLog::Out out( log );
      ASSERT_TRUE( out.sizeIsValid( 7 ) );
      out.u32( 0x80000003u );
      out.bytes( sent.data(), sent.size() );
      NboAttrLog::In in( log );
      ASSERT_EQ( in.u32(), 0x80000003u );
      ASSERT_EQ( read( log, 3 ), sent );
   }
   EXPECT_EQ( log.capacity(), 11u );
}

TEST( NboAttrLogTest, BehavesLikeAQueueOfBytes ) {
   unsigned const seed = std::random_device()();
   SCOPED_TRACE( seed );
   std::mt19937 random( seed );
   NboAttrLog log( 37 );
   std::deque<char> model;
   for( int step = 0; step < 20000; ++step ) {
      std::size_t const size = random() % 45;
      if( random() % 2 == 0 ) {
         std::string bytes( size, '\0' );
         for( char& byte : bytes ) {
            byte = static_cast<char>( random() );
         }
         bool const fits = model.size() + size <= 37;
         ASSERT_EQ( write( log, bytes ), fits );
         if( fits ) {
            model.insert( model.end(), bytes.begin(), bytes.end() );
         } else {
            ASSERT_TRUE( log.full() );
         }
      } else if( size <= model.size() ) {
         auto const end = model.begin() + static_cast<std::ptrdiff_t>( size );
         ASSERT_EQ( read( log, size ), std::string( model.begin(), end ) );
         model.erase( model.begin(), end );
      } else {
         ASSERT_THROW( read( log, size ), Quarn::RuntimeException );
      }
      ASSERT_EQ( log.size(), model.size() );
   }
}

TEST( NboAttrLogTest, IsFullFromTheFirstRefusalUntilBytesAreTaken ) {
   NboAttrLog log( 8 );
   EXPECT_TRUE( write( log, "12345678" ) );
   EXPECT_FALSE( log.full() );
   EXPECT_TRUE( write( log, "" ) );
   EXPECT_FALSE( log.full() );
   EXPECT_FALSE( write( log, "9" ) );
   EXPECT_TRUE( log.full() );
   EXPECT_EQ( log.droppedBytes(), 0u );
   EXPECT_EQ( read( log, 0 ), "" );
   EXPECT_TRUE( log.full() );
   EXPECT_EQ( read( log, 1 ), "1" );
   EXPECT_FALSE( log.full() );
   EXPECT_TRUE( write( log, "9" ) );
   EXPECT_EQ( read( log, 8 ), "23456789" );

   // Sizes that no address space holds.
   NboAttrLog::Out out( log );
   EXPECT_FALSE( out.sizeIsValid( std::numeric_limits<std::uint64_t>::max() ) );
   EXPECT_THROW( NboAttrLog::In( log ).validateSize( std::numeric_limits<std::uint64_t>::max() ),
                 Quarn::RuntimeException );
}

TEST( NboAttrLogTest, DroppingCountsRecordsInsteadOfWritingThem ) {
   NboAttrLog log( 8 );
   EXPECT_TRUE( write( log, "abc" ) );
   log.droppingIs( true );
   EXPECT_FALSE( write( log, "de" ) );
   EXPECT_FALSE( write( log, "more than there is room for" ) );
   EXPECT_EQ( log.droppedBytes(), 29u );
   EXPECT_FALSE( log.full() );
   log.droppingIs( false );
   EXPECT_TRUE( write( log, "f" ) );
   EXPECT_EQ( read( log, 4 ), "abcf" );
   EXPECT_EQ( log.droppedBytes(), 29u );
}

TEST( NboAttrLogTest, PartsOfARecordAreValidatedWithinIt ) {
   NboAttrLog log( 8 );
   NboAttrLog::Out out( log );
   ASSERT_TRUE( out.sizeIsValid( 8 ) );
   out.u32( 1 );
   // Neither the room, which the record took, nor dropping mode counts for its second half.
   log.droppingIs( true );
   EXPECT_TRUE( out.sizeIsValid( 4 ) );
   EXPECT_EQ( log.size(), 0u );
   out.u32( 2 );
   EXPECT_EQ( log.size(), 8u );
   EXPECT_EQ( log.droppedBytes(), 0u );
   EXPECT_FALSE( out.sizeIsValid( 4 ) );
   EXPECT_EQ( log.droppedBytes(), 4u );
}

TEST( NboAttrLogTest, WritingBeyondTheRecordIsFatalAndWritesNothing ) {
   NboAttrLog log( 16 );
   NboAttrLog::Out out( log );
   EXPECT_FATAL( out.u32( 1 ), "4 bytes written to a record with 0 bytes left" );
   ASSERT_TRUE( out.sizeIsValid( 6 ) );
   out.u32( 0x61626364 );
   EXPECT_FATAL( out.u32( 2 ), "4 bytes written to a record with 2 bytes left" );
   EXPECT_FATAL( out.sizeIsValid( 3 ), "3 bytes validated inside of a record with 2 bytes left" );
   NboAttrLog::Out other( log );
   EXPECT_FATAL( other.sizeIsValid( 1 ), "another writer's record" );
   EXPECT_FATAL( other.bytes( "x", 1 ), "with 0 bytes left" );
   out.bytes( "ef", 2 );
   EXPECT_TRUE( other.sizeIsValid( 1 ) );
   EXPECT_EQ( read( log, 6 ), "abcdef" );
}

TEST( NboAttrLogTest, UnfinishedRecordIsNeverSeen ) {
   NboAttrLog log( 8 );
   ASSERT_TRUE( write( log, "abc" ) );
   {
      NboAttrLog::Out out( log );
      ASSERT_TRUE( out.sizeIsValid( 5 ) );
      out.u32( 0xffffffff );
      NboAttrLog::In in( log );
      EXPECT_EQ( in.bytesLeft(), 3u );
      EXPECT_EQ( read( log, 1 ), "a" );
      EXPECT_THROW( in.u32(), Quarn::RuntimeException );
      EXPECT_EQ( log.room(), 1u );
   }
   EXPECT_EQ( log.room(), 6u );
   EXPECT_TRUE( write( log, "defghi" ) );
   EXPECT_EQ( read( log, 8 ), "bcdefghi" );
}

TEST( NboAttrLogTest, AskingForMoreThanIsLeftTakesNothing ) {
   NboAttrLog log( 8 );
   ASSERT_TRUE( write( log, "abc" ) );
   NboAttrLog::In in( log );
   EXPECT_NO_THROW( in.validateSize( 3 ) );
   for( int round = 0; round < 2; ++round ) {
      EXPECT_THROW( in.u32(), Quarn::RuntimeException );
      EXPECT_THROW( in.validateSize( 4 ), Quarn::RuntimeException );
      EXPECT_EQ( in.bytesLeft(), 3u );
   }
   EXPECT_EQ( read( log, 3 ), "abc" );
}

} // namespace
