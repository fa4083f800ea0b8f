#include <Quarn/base/String.h>

#include <compare>
#include <cstdint>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <iomanip>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <unordered_map>
#include <utility>
#include <vector>

using Quarn::String;
using namespace std::string_view_literals;

namespace {

// Sizes around the border between the two forms, and a long one.
std::vector<std::size_t> const sizes{ 0, 1, 14, 15, 16, 17, 31, 1000 };

std::string textOf( std::size_t size, char first = 'a' ) {
   std::string text;
   for( std::size_t i = 0; i < size; ++i ) {
      text += static_cast<char>( first + static_cast<char>( i % 26 ) );
   }
   return text;
}

} // namespace

TEST( StringTest, TextsUpToFifteenBytesLiveInPlaceHoweverTheyAreMade ) {
   for( std::size_t const size : sizes ) {
      SCOPED_TRACE( size );
      std::string const text = textOf( size );
      std::size_t const half = size / 2;
      String appended( text.substr( 0, half ) );
      appended += text.substr( half );
      std::vector<String> const made{
            String( text.c_str() ),
            String( text.data(), size ),
            String( std::string_view( text ) ),
            String( text ),
            appended,
            String( text.substr( 0, half ) ) + String( text.substr( half ) ),
            String( text + "tail of many bytes" ).substr( 0, size ),
            String( text ).toLower(),
            String( text ).deduped(),
      };
      for( String const& string : made ) {
         EXPECT_EQ( string.isInPlace(), size <= 15 );
         EXPECT_EQ( string.size(), size );
         EXPECT_EQ( string.length(), size );
         EXPECT_EQ( string.empty(), size == 0 );
         EXPECT_EQ( string.stdString(), text );
         EXPECT_EQ( string.c_str()[ size ], '\0' );
         EXPECT_EQ( std::string( string.begin(), string.end() ), text );
         EXPECT_EQ( string, made.front() );
      }
   }
}

TEST( StringTest, NullPointerIsTheEmptyText ) {
   char const* const none = nullptr;
   EXPECT_TRUE( String( none ).empty() );
   EXPECT_TRUE( String( none, 0 ).empty() );
   EXPECT_TRUE( String( std::string_view() ).empty() );
   EXPECT_EQ( String( none ), String() );
   EXPECT_EQ( String(), none );
   String const a( "a" );
   EXPECT_EQ( a + none, a );
   EXPECT_EQ( none + a, a );
   EXPECT_EQ( String() + std::string_view(), "" );
   EXPECT_STREQ( String().c_str(), "" );
}

TEST( StringTest, NulBytesArePartOfTheText ) {
   for( std::string_view const text :
        { "\0"sv, "a\0b"sv, "123456789012345"sv, "\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0"sv,
          "a long text with\0a zero\0"sv } ) {
      String const string( text );
      EXPECT_EQ( string.size(), text.size() );
      EXPECT_EQ( string, text );
      EXPECT_EQ( std::hash<String>()( string ), std::hash<std::string_view>()( text ) );
      EXPECT_NE( string, String( text.substr( 0, text.size() - 1 ) ) );
      EXPECT_EQ( fmt::format( "{}", string ), text );
   }
   EXPECT_EQ( String( "a\0b"sv ).find( '\0' ), 1U );
   // Zeros that belong to the text are not the zeros of the unused bytes.
   EXPECT_NE( String( "ab"sv ), String( "ab\0"sv ) );
}

TEST( StringTest, CopiesShareLongTextsAndMovesLeaveTheSourceEmpty ) {
   for( std::size_t const size : sizes ) {
      SCOPED_TRACE( size );
      std::string const text = textOf( size );
      String first( text );
      String const copy( first );
      EXPECT_EQ( copy, text );
      EXPECT_EQ( copy.data() == first.data(), size > 15 );

      String moved( static_cast<String&&>( first ) );
      EXPECT_EQ( moved, text );
      EXPECT_TRUE( first.empty() );
      first = moved;
      EXPECT_EQ( first, text );

      String target( "some other text that is long" );
      target = static_cast<String&&>( first );
      EXPECT_EQ( target, text );
      EXPECT_EQ( first, "" );
      EXPECT_EQ( copy, text );
   }
}

TEST( StringTest, AssignmentToItselfKeepsTheText ) {
   for( std::size_t const size : sizes ) {
      std::string const text = textOf( size );
      String string( text );
      String& alias = string;
      string = alias;
      EXPECT_EQ( string, text );
      string = std::move( alias );
      EXPECT_EQ( string, text );
   }
}

TEST( StringTest, AssignmentCrossesBetweenTheFormsInAllPairs ) {
   for( std::size_t const from : sizes ) {
      for( std::size_t const to : sizes ) {
         String const source( textOf( from ) );
         String target( textOf( to, 'A' ) );
         String const before( target );
         target = source;
         EXPECT_EQ( target, textOf( from ) );
         EXPECT_EQ( source, textOf( from ) );
         EXPECT_EQ( before, textOf( to, 'A' ) );
      }
   }
}

TEST( StringTest, AppendTakesPartsOfTheStringItself ) {
   for( std::size_t const size : sizes ) {
      SCOPED_TRACE( size );
      std::string text = textOf( size );
      String string( text );
      String const before( string );
      string += string;
      text += std::string( text );
      EXPECT_EQ( string, text );
      string += std::string_view( string ).substr( text.size() / 3 );
      text += text.substr( text.size() / 3 );
      EXPECT_EQ( string, text );
      EXPECT_EQ( before, textOf( size ) );
   }
}

TEST( StringTest, JoinsWithEveryKindOfText ) {
   String const a( "left" );
   std::string const standard( "right" );
   std::string_view const view( standard );
   char buffer[] = "right";
   char const* const pointer = buffer;
   String const leftRight( "leftright" );
   String const rightLeft( "rightleft" );
   EXPECT_EQ( a + String( "right" ), leftRight );
   EXPECT_EQ( a + standard, leftRight );
   EXPECT_EQ( a + view, leftRight );
   EXPECT_EQ( a + "right", leftRight );
   EXPECT_EQ( a + buffer, leftRight );
   EXPECT_EQ( a + pointer, leftRight );
   EXPECT_EQ( standard + a, rightLeft );
   EXPECT_EQ( view + a, rightLeft );
   EXPECT_EQ( "right" + a, rightLeft );
   EXPECT_EQ( buffer + a, rightLeft );
   EXPECT_EQ( pointer + a + "/" + a, "rightleft/left" );
}

TEST( StringTest, ATextThatCannotBeAddressedIsRefused ) {
   // The size is checked before a byte is read, so the views need not be backed by memory.
   String string( "a text on the heap" );
   std::size_t const most = std::numeric_limits<std::ptrdiff_t>::max();
   EXPECT_THROW( string += std::string_view( string.data(), most ), std::length_error );
   EXPECT_THROW( String( string.data(), std::numeric_limits<std::size_t>::max() ),
                 std::length_error );
   EXPECT_EQ( string, "a text on the heap" );
}

TEST( StringTest, OrderAndHashAreThoseOfTheViewForAllKindsOfText ) {
   std::vector<std::string> texts{ "", "a", "b", "ab", "\x80", "\xff", std::string( "a\0", 2 ) };
   for( std::size_t const size : sizes ) {
      texts.push_back( textOf( size ) );
      texts.push_back( textOf( size ) + "\xc3" );
      texts.push_back( textOf( size, 'b' ) );
   }
   for( std::string const& x : texts ) {
      String const a( x );
      EXPECT_EQ( std::hash<String>()( a ), std::hash<std::string_view>()( x ) );
      // The second request comes from the block.
      EXPECT_EQ( a.hash(), std::hash<std::string_view>()( x ) );
      for( std::string const& y : texts ) {
         String const b( y );
         std::string_view const view( y );
         auto const order = std::string_view( x ) <=> view;
         EXPECT_EQ( a <=> b, order );
         EXPECT_EQ( a <=> view, order );
         EXPECT_EQ( view <=> a, view <=> std::string_view( x ) );
         EXPECT_EQ( a <=> y, order );
         EXPECT_EQ( a == b, order == 0 );
         EXPECT_EQ( a != y, order != 0 );
         EXPECT_EQ( view == a, order == 0 );
         EXPECT_EQ( a.deduped() == b.deduped(), order == 0 );
         EXPECT_EQ( a.deduped() == b, order == 0 );
      }
   }
   EXPECT_TRUE( "a" < String( "b" ) );
   EXPECT_TRUE( String( "b" ) >= "a" );
   EXPECT_TRUE( "a" == String( "a" ) );
}

TEST( StringTest, SubstringsFollowTheStandardStringAtTheEdges ) {
   for( std::size_t const size : sizes ) {
      std::string const text = textOf( size );
      String const string( text );
      for( std::size_t const pos : { std::size_t{ 0 }, size / 2, size } ) {
         for( std::size_t const n : { std::size_t{ 0 }, std::size_t{ 1 }, size, String::npos } ) {
            EXPECT_EQ( string.substr( pos, n ), text.substr( pos, n ) );
         }
      }
      EXPECT_THROW( string.substr( size + 1 ), std::out_of_range );
      EXPECT_THROW( string.substr( String::npos, 0 ), std::out_of_range );
   }
   String const whole( textOf( 40 ) );
   EXPECT_EQ( whole.substr( 0, 40 ).data(), whole.data() );
}

TEST( StringTest, FindFollowsTheStandardStringAtTheEdges ) {
   std::string const text = "abcabc, and once more abcabc";
   String const string( text );
   for( std::size_t const pos : { std::size_t{ 0 }, std::size_t{ 1 }, std::size_t{ 3 }, text.size(),
                                  text.size() + 1, String::npos } ) {
      SCOPED_TRACE( pos );
      EXPECT_EQ( string.find( "abc", pos ), text.find( "abc", pos ) );
      EXPECT_EQ( string.find( "", pos ), text.find( "", pos ) );
      EXPECT_EQ( string.find( String( "once" ), pos ), text.find( "once", pos ) );
      EXPECT_EQ( string.find( "absent", pos ), String::npos );
      EXPECT_EQ( string.find( 'c', pos ), text.find( 'c', pos ) );
      EXPECT_EQ( string.rfind( 'b', pos ), text.rfind( 'b', pos ) );
   }
   EXPECT_EQ( string.rfind( 'z' ), String::npos );
   EXPECT_EQ( String().rfind( 'a' ), String::npos );
}

TEST( StringTest, LowerCaseChangesAsciiLettersOnly ) {
   EXPECT_EQ( String( "@AZ[`az{\xc3\x84" ).toLower(), "@az[`az{\xc3\x84" );
   String const mixed( "Ethernet1/1 And More Of It" );
   EXPECT_EQ( mixed.toLower(), "ethernet1/1 and more of it" );
   EXPECT_EQ( mixed, "Ethernet1/1 And More Of It" );
   String const lower( "a long text without capitals" );
   EXPECT_EQ( lower.toLower().data(), lower.data() );
}

TEST( StringTest, FormattingHonoursWidthFillAndPrecision ) {
   String const text( "name" );
   EXPECT_EQ( fmt::format( "{}|{:s}", text, text ), "name|name" );
   EXPECT_EQ( fmt::format( "{:>8}|{:<8s}|{:*^8}|{:.2}", text, text, text, text ),
              "    name|name    |**name**|na" );
   EXPECT_EQ( fmt::format( "{:{}}|", String( "a text of the heap" ), 20 ),
              "a text of the heap  |" );
}

TEST( StringTest, StreamingHonoursWidthAndFill ) {
   std::ostringstream stream;
   stream << std::setw( 8 ) << String( "name" ) << '|' << std::left << std::setfill( '.' )
          << std::setw( 20 ) << String( "a text of the heap" ) << '|' << String( "x" );
   EXPECT_EQ( stream.str(), "    name|a text of the heap..|x" );
}

TEST( StringTest, ServesAsKeyOfMaps ) {
   std::unordered_map<String, int> numbers;
   for( int i = 0; i < 100; ++i ) {
      numbers[ String( "key number " ) + std::to_string( i * 1000 ) ] = i;
   }
   EXPECT_EQ( numbers.at( "key number 0" ), 0 );
   EXPECT_EQ( numbers.at( String( "key number 99000" ).deduped() ), 99 );
   EXPECT_FALSE( numbers.contains( "key number 1" ) );
}
