#include "util/ProcText.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace Quarn::ProcText;
using Outcome = StartTime::Outcome;

TEST( ProcTextTest, StartTimeStandsBehindTheLastParenthesis ) {
   const std::string upToStart = "7 (a\nb) S 1 (c) S 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18";
   const std::string line = upToStart + " 4711 0 0";
   EXPECT_EQ( startTime( line ).outcome, Outcome::found );
   EXPECT_EQ( startTime( line ).text, "4711" );
   EXPECT_EQ( startTime( upToStart + " 4711" ).text, "4711" );

   // Every line that ends before the field.
   const std::size_t nameEnd = upToStart.rfind( ')' );
   for( std::size_t size = nameEnd + 2; size <= upToStart.size() + 1; ++size ) {
      const StartTime cut = startTime( std::string_view( line ).substr( 0, size ) );
      EXPECT_EQ( cut.outcome, Outcome::noField ) << size;
      EXPECT_EQ( cut.text, "" );
      EXPECT_LE( cut.position, StartTime::fieldPosition );
   }
   EXPECT_EQ( startTime( std::string_view( line ).substr( 0, nameEnd + 1 ) ).outcome,
              Outcome::tooShort );
   for( char const* text :
        { "", "7", ")", "7 S 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19" } ) {
      EXPECT_EQ( startTime( text ).outcome, Outcome::tooShort ) << text;
   }
   // Two blanks have an empty field between them, which counts, and is no start time.
   EXPECT_EQ( startTime( ") S  2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19" ).text, "19" );
   EXPECT_EQ( startTime( ") S 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18  20" ).outcome,
              Outcome::noField );
}

TEST( ProcTextTest, InodeStandsBetweenTheLastTwoBlanks ) {
   EXPECT_EQ( unixInode( "00000000075e7430: 00000002 00000000 00010000 0001 01  1575 @name" ),
              "1575" );
   EXPECT_EQ( unixInode( "00000000075e7430: 00000003 00000000 00000000 0001 03  1575" ), "" );
   EXPECT_EQ( unixInode( "Num       RefCount Protocol Flags    Type St Inode Path" ), "Inode" );
   for( char const* line : { "", " ", "x", "x ", " x", "x y" } ) {
      EXPECT_EQ( unixInode( line ), "" ) << line;
   }
   EXPECT_EQ( unixInode( " x " ), "x" );
}

TEST( ProcTextTest, InodeNumbersKeepTheirLowHalf ) {
   EXPECT_EQ( inodeNumber( "1575" ), 1575u );
   EXPECT_EQ( inodeNumber( "\t+12x" ), 12u );
   EXPECT_EQ( inodeNumber( "Inode" ), 0u );
   EXPECT_EQ( inodeNumber( "" ), 0u );
   EXPECT_EQ( inodeNumber( "4294967295" ), 0xffffffffu );
   EXPECT_EQ( inodeNumber( "4294967296" ), 0u );
   EXPECT_EQ( inodeNumber( "4294967297" ), 1u );
   EXPECT_EQ( inodeNumber( "-1" ), 0xffffffffu );
   // Saturates before it is cut.
   EXPECT_EQ( inodeNumber( "99999999999999999999999" ), 0xffffffffu );
   // The view ends where it ends.
   EXPECT_EQ( inodeNumber( std::string_view( "12345" ).substr( 0, 2 ) ), 12u );
}

TEST( ProcTextTest, TitleIsWhatFollowsTheFirstLabel ) {
   EXPECT_EQ( title( "Name:\tagent\nUmask:\t0022\n" ), "agent" );
   EXPECT_EQ( title( "Umask:\t0022\nName: \t a b) \t\nName:\tother\n" ), "a b)" );
   EXPECT_EQ( title( "Name:\tName:" ), "Name:" );
   EXPECT_EQ( title( "xName:y" ), "y" );
   // The first line with the label decides, even if it holds no name.
   EXPECT_EQ( title( "Name:\t \nName:\tother\n" ), "" );
   EXPECT_EQ( title( "Name:" ), "" );
   EXPECT_EQ( title( "Nam\ne:x\n" ), "" );
   EXPECT_EQ( title( "" ), "" );
}

TEST( ProcTextTest, OnlyLocksOfOpenFilesNameNobody ) {
   EXPECT_TRUE( locksNameNobody( "1: POSIX  ADVISORY  WRITE 71 fe:00:24 0 EOF\n"
                                 "2: OFDLCK ADVISORY  WRITE -1 fe:00:24 0 EOF\n" ) );
   EXPECT_TRUE( locksNameNobody( "1: -> OFDLCK ADVISORY  READ -1 fe:00:24 0 EOF" ) );
   for( char const* text : {
              "",
              "OFDLCK",
              "OFDLCK ADVISORY WRITE",
              "1: OFDLCK ADVISORY  WRITE 71 fe:00:24 -1 EOF\n",
              "1: OFDLCK ADVISORY  WRITE -12 fe:00:24 0 EOF\n",
              "1: POSIX  ADVISORY  WRITE -1 fe:00:24 0 EOF\n",
              "1: OFDLCK ADVISORY\nWRITE -1 fe:00:24 0 EOF\n",
        } ) {
      EXPECT_FALSE( locksNameNobody( text ) ) << text;
   }
}

TEST( ProcTextTest, DigitsAnywhereNameAProcess ) {
   char const locks[] = "1: POSIX  ADVISORY  WRITE 714 fe:00:2409 0 EOF\n";
   EXPECT_TRUE( locksName( locks, "714" ) );
   EXPECT_TRUE( locksName( locks, "71" ) );
   EXPECT_TRUE( locksName( locks, "409" ) );
   EXPECT_FALSE( locksName( locks, "7140" ) );
}

TEST( ProcTextTest, ADescriptorIsLockedByEitherKind ) {
   EXPECT_TRUE( isLocked( "pos:\t0\nlock:\t1: OFDLCK ADVISORY  WRITE -1 fe:00:24 0 EOF\n" ) );
   EXPECT_TRUE( isLocked( "pos:\t0\nlock:\t1: POSIX  ADVISORY  WRITE 71 fe:00:24 0 EOF\n" ) );
   EXPECT_FALSE( isLocked( "pos:\t0\nlock:\t1: FLOCK  ADVISORY  WRITE 71 fe:00:24 0 EOF\n" ) );
}

TEST( ProcTextTest, ProcessesHaveNumbersForNames ) {
   EXPECT_EQ( pidOf( "714" ), 714 );
   EXPECT_EQ( pidOf( "2147483647" ), 2147483647 );
   for( char const* name : { "", "0", "-5", "+5", "5x", "self", "thread-self", "2147483648" } ) {
      EXPECT_EQ( pidOf( name ), 0 ) << name;
   }
}

} // namespace
