#include <Quarn/TaskSchedulerCpp.h>

#include "support/AllocationCount.h"

#include <gtest/gtest.h>

#include <functional>
#include <locale>
#include <string>
#include <vector>

#include <pthread.h>

// GCC 12 under the address sanitizer does not see that only states that have a matcher move it.
#if defined( __GNUC__ ) && !defined( __clang__ )
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <regex>
#pragma GCC diagnostic pop
#else
#include <regex>
#endif

namespace {

using namespace Quarn;
using namespace std::string_literals;

std::string repeated( const std::string& text, int times ) {
   std::string all;
   while( times-- > 0 ) {
      all += text;
   }
   return all;
}

// Whether a filter of its own passes the text.
bool passes( const String& pattern, const String& text ) {
   return TaskNameRegex( pattern ).match<0>( text );
}

// What the compiler says of an invalid pattern.
std::string compilerError( const std::string& pattern ) {
   try {
      std::regex compiled( pattern );
   } catch( const std::regex_error& e ) {
      return e.what();
   }
   return "";
}

void expectInvalid( const String& pattern, const std::string& error ) {
   testing::internal::CaptureStderr();
   const TaskNameRegex filter( pattern );
   EXPECT_EQ( testing::internal::GetCapturedStderr(),
              "'show agent task scheduler match REGEX' supplied with invalid regular expression '" +
                    pattern.stdString() + "' raised exception: " + error + "\n" );
   EXPECT_FALSE( filter.valid() );
   EXPECT_EQ( filter.error(), error );
   EXPECT_EQ( filter.pattern(), pattern );
   for( const String& text : { String(), String( "a" ), pattern } ) {
      EXPECT_FALSE( filter.match<0>( text ) );
      EXPECT_FALSE( filter.match<2>( text ) );
   }
}

// A pattern that recurses through all its groups for every byte.
std::string manyGroups( int count ) {
   return repeated( "(", count ) + "." + repeated( ")", count ) + "*\\1";
}

// Runs `body` on a thread with a stack of 256 KiB.
void onSmallStack( const std::function<void()>& body ) {
   pthread_attr_t attributes;
   ASSERT_EQ( pthread_attr_init( &attributes ), 0 );
   ASSERT_EQ( pthread_attr_setstacksize( &attributes, std::size_t{ 256 } * 1024 ), 0 );
   const auto run = []( void* argument ) -> void* {
      ( *static_cast<const std::function<void()>*>( argument ) )();
      return nullptr;
   };
   std::function<void()> copy = body;
   pthread_t thread;
   ASSERT_EQ( pthread_create( &thread, &attributes, run, &copy ), 0 );
   ASSERT_EQ( pthread_join( thread, nullptr ), 0 );
   pthread_attr_destroy( &attributes );
}

TEST( TaskNameRegexTest, WholeNamesPassOnBytes ) {
   const struct {
      String pattern;
      String text;
      bool passes;
   } cases[] = {
         { "Bgp", "Bgp", true },
         { "Bgp", "BgpIn", false },
         { "Bgp", "InBgp", false },
         { "Bgp", "bgp", false },
         { "Bgp.*", "BgpIn", true },
         { "Bgp|Isis", "BgpIsis", false },
         { "Bgp|Isis", "Isis", true },
         { "", "", true },
         { "", "a", false },
         { ".*", "", true },
         { ".*", "a\nb", false },
         { ".\\n.", "a\nb", true },
         { "[^a]*", "\r\n\x1b\x7f", true },
         { "a.b", String( "a\0b", 3 ), true },
         { "a..b",
           "a\xed\xa0"
           "b",
           true },
         { "[\x80-\xff]+", "\xff\x80\xc0", true },
         { "\\w+", "\xe4", false },
         { "(?=.*7)Task.*", "Task 17", true },
         { "(?=.*7)Task.*", "Task 18", false },
         { "(\\w+)-\\1", "ab-ab", true },
         { "(\\w+)-\\1", "ab-abc", false },
   };
   for( const auto& c : cases ) {
      EXPECT_EQ( passes( c.pattern, c.text ), c.passes ) << c.pattern << " on " << c.text;
   }
}

TEST( TaskNameRegexTest, InvalidPatternIsReportedOnceAndPassesNothing ) {
   for( std::string pattern : { "(", ")", "[a", "*", "a{2,1}", "\\1", "(?<a>b)", "[b-a]", "\\" } ) {
      const std::string error = compilerError( pattern );
      ASSERT_NE( error, "" ) << pattern;
      expectInvalid( pattern, error );
   }
   testing::internal::CaptureStderr();
   const TaskNameRegex good( "a+" );
   EXPECT_EQ( testing::internal::GetCapturedStderr(), "" );
   EXPECT_TRUE( good.valid() );
   EXPECT_EQ( good.error(), "" );
   EXPECT_EQ( good.pattern(), "a+" );
}

TEST( TaskNameRegexTest, HugePatternsAreRefused ) {
   const std::string refusal = "Regular expression is too long or too deeply nested.";
   const std::string longest( 2048, 'a' );
   EXPECT_TRUE( passes( longest, longest ) );
   expectInvalid( longest + "a", refusal );
   expectInvalid( std::string( 90'000, 'a' ), refusal );
   const auto nested = []( int depth ) {
      return repeated( "(", depth ) + "a" + repeated( ")", depth );
   };
   EXPECT_TRUE( passes( nested( 256 ), "a" ) );
   expectInvalid( nested( 257 ), refusal );
   expectInvalid( repeated( "(", 50'000 ), refusal );

   // Short, but huge once the repeats are written out.
   EXPECT_TRUE( passes( "[a-z]{1,1000}", longest.substr( 1048 ) ) );
   for( std::string pattern : { "(a?){9999}", "((a?){99}){99}", "a{2147483647}" } ) {
      testing::internal::CaptureStderr();
      const TaskNameRegex filter( pattern );
      EXPECT_NE( testing::internal::GetCapturedStderr(), "" );
      EXPECT_FALSE( filter.valid() ) << pattern;
      EXPECT_FALSE( filter.error().empty() ) << pattern;
   }
}

TEST( TaskNameRegexTest, NumbersThatDoNotFitAreRefused ) {
   // In 32 bits the first is 1 and the second negative; the third overflows 64.
   for( std::string number : { "4294967297", "2147483648", "99999999999999999999" } ) {
      for( std::string before : { "a{", "a{1,", "(a)\\", "\\\\{" } ) {
         expectInvalid( before + number + "}",
                        "Regular expression has a number that is too large." );
      }
      EXPECT_TRUE( passes( number, number ) );
      EXPECT_TRUE( passes( "\\{" + number + "\\}", "{" + number + "}" ) );
      EXPECT_TRUE( passes( "\\0" + number, std::string( 1, '\0' ) + number ) );
   }
}

TEST( TaskNameRegexTest, HostileInputEndsOnASmallStack ) {
   onSmallStack( [] {
      const std::string name( 100'000, 'a' );
      EXPECT_TRUE( passes( ".*", name ) );
      EXPECT_TRUE( passes( "(a|[a-c])*", name ) );
      EXPECT_FALSE( passes( ".*Task.*7.*", name ) );
      EXPECT_FALSE( passes( "(a+)+b", name.substr( 0, 200 ) ) );
      EXPECT_TRUE( passes( "(a+)+b", name.substr( 0, 200 ) + "b" ) );
      // Looks through the rest of the name at every position.
      EXPECT_TRUE( passes( "(?:.(?!.*b))*", name.substr( 0, 1000 ) ) );
      EXPECT_FALSE( passes( manyGroups( 100 ), name.substr( 0, 512 ) ) );
      EXPECT_TRUE( passes( manyGroups( 50 ), "aa" ) );
      // The pattern alone would overflow the stack.
      expectInvalid( name.substr( 0, 2048 ),
                     "Regular expression is too long or too deeply nested." );
   } );
}

TEST( TaskNameRegexTest, WorkBetweenComparisonsCountsToo ) {
   const auto nested = []( int depth ) {
      std::string pattern = "(?:(?=.).)*";
      while( depth-- > 0 ) {
         pattern.insert( 0, "(?:(?=" ).append( ").)*" );
      }
      return pattern;
   };
   const std::string name( 37, 'a' );
   EXPECT_TRUE( passes( nested( 1 ), name ) );
   EXPECT_TRUE( passes( nested( 1 ) + "|b{6000}", "aaaa" ) );
   // A large table for each lookahead.
   EXPECT_FALSE( passes( nested( 6 ) + "|b{6000}", name ) );
   // Thousands of states that take no character, each time one is taken.
   const std::string blanks = "(?:(?=(?:(?:|){1000}a)*)a)*";
   EXPECT_TRUE( passes( blanks, name ) );
   EXPECT_FALSE( passes( blanks, std::string( 1000, 'a' ) ) );
   EXPECT_TRUE( passes( "(?=.*7)(?=.*8).*[0-9]+x?", std::string( 100'000, 'a' ) + "78" ) );
}

TEST( TaskNameRegexTest, BackReferencesMatchUpTo512Bytes ) {
   const TaskNameRegex filter( "(a+)\\1" );
   EXPECT_TRUE( filter.match<0>( std::string( 512, 'a' ) ) );
   EXPECT_FALSE( filter.match<0>( std::string( 511, 'a' ) ) );
   EXPECT_FALSE( filter.match<0>( std::string( 514, 'a' ) ) );
   EXPECT_TRUE( filter.match<2>( "N " + std::string( 512, 'a' ) ) );
   EXPECT_FALSE( filter.match<0>( std::string( 100'000, 'a' ) ) );
   // The matcher gives up: too deep, too long.
   EXPECT_FALSE( passes( manyGroups( 200 ), std::string( 512, 'a' ) ) );
   EXPECT_FALSE( passes( "((a+)+)b\\1", std::string( 200, 'a' ) ) );
}

TEST( TaskNameRegexTest, NamesAndIdentifiersAreRememberedApart ) {
   const TaskNameRegex filter( "[a-z]*" );
   const String identifier( "N a task with a name that is not in place" );
   const String name( "N task" );
   for( int round = 0; round < 2; ++round ) {
      EXPECT_FALSE( filter.match<0>( name ) );
      EXPECT_TRUE( filter.match<2>( name ) );
      EXPECT_TRUE( filter.match<2>( "XXtask" ) );
      EXPECT_FALSE( filter.match<0>( "XXtask" ) );
      EXPECT_FALSE( filter.match<2>( identifier ) );
      EXPECT_FALSE( filter.match<0>( identifier ) );
   }
   // A match allocates; a remembered answer does not.
   EXPECT_EQ( testing_support::allocationsOf( [ & ] {
                 EXPECT_TRUE( filter.match<2>( name ) );
                 EXPECT_FALSE( filter.match<0>( name ) );
                 EXPECT_FALSE( filter.match<0>( identifier ) );
              } ),
              0u );
   EXPECT_NE( testing_support::allocationsOf( [ & ] { filter.match<2>( "N other" ); } ), 0u );
}

TEST( TaskNameRegexTest, IdentifierShorterThanItsTagIsEmpty ) {
   const TaskNameRegex all( ".*" );
   const TaskNameRegex some( ".+" );
   for( const String& text : { String(), String( "N" ), String( "N " ) } ) {
      EXPECT_TRUE( all.match<2>( text ) );
      EXPECT_FALSE( some.match<2>( text ) );
   }
   EXPECT_TRUE( some.match<2>( "N x" ) );
}

TEST( TaskNameRegexTest, GlobalLocaleMakesNoDifference ) {
   struct LettersAreDigits : std::ctype<char> {
      LettersAreDigits() : std::ctype<char>( table(), false, 0 ) {}
      static mask const* table() {
         static const std::vector<mask> all( table_size, digit );
         return all.data();
      }
   };
   const std::locale before =
         std::locale::global( std::locale( std::locale::classic(), new LettersAreDigits ) );
   const TaskNameRegex filter( "\\d+" );
   EXPECT_FALSE( filter.match<0>( "abc" ) );
   EXPECT_TRUE( filter.match<0>( "123" ) );
   std::locale::global( before );
}

} // namespace
