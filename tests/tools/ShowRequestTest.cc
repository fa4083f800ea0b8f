// The grammar of show requests and answers.

#include "tools/show/ShowRequest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <variant>

using namespace std::string_literals;

namespace Show {
namespace {

using State = Answer::State;

bool isRequest( std::string_view record ) {
   return std::holds_alternative<Request>( parseRequest( record ) );
}

TEST( ShowRequestTest, ExpressionIsTheRestOfTheRecord ) {
   const struct {
      std::string record;
      Request request;
   } cases[] = {
         { "text", {} },
         { "json all", { Kind::json, true, false, "" } },
         { "history all completed match x", { Kind::history, true, true, "x" } },
         { "text match  all completed ", { Kind::text, false, false, " all completed " } },
         { "text completed match match a\n\xFF\x1b",
           { Kind::text, false, true, "match a\n\xFF\x1b" } },
   };
   for( const auto& [ record, request ] : cases ) {
      const auto parsed = parseRequest( record );
      ASSERT_TRUE( std::holds_alternative<Request>( parsed ) ) << record;
      EXPECT_EQ( std::get<Request>( parsed ), request ) << record;
      EXPECT_EQ( formatRequest( request ), record );
   }
   EXPECT_EQ( std::get<Request>( parseRequest( "text completed all" ) ),
              ( Request{ Kind::text, true, true, "" } ) );
   EXPECT_TRUE( isRequest( "text match " + std::string( requestSizeMax - 11, 'a' ) ) );
}

TEST( ShowRequestTest, WhatIsNoRequestIsRefused ) {
   for( const std::string& record :
        { ""s, " "s, "text "s, " text"s, "text  all"s, "Text"s, "texts"s, "text all all"s,
          "text allx"s, "text match"s, "text match "s, "textmatch x"s, "text\0"s,
          "text match a\0b"s, "text\nall"s, "all"s,
          "text match "s + std::string( requestSizeMax - 10, 'a' ) } ) {
      EXPECT_FALSE( isRequest( record ) ) << record;
   }
}

TEST( ShowAnswerTest, TextIsWholeWhenItHasTheSizeThatWasToldBefore ) {
   const std::string text = "error: a\nb\0c"s;
   const std::string bytes = answerHead( text.size() ) + text;
   for( std::size_t size = 0; size < bytes.size(); ++size ) {
      EXPECT_EQ( parseAnswer( Kind::text, bytes.substr( 0, size ) ).state, State::brokenOff );
   }
   EXPECT_EQ( parseAnswer( Kind::history, bytes ).state, State::whole );
   EXPECT_EQ( parseAnswer( Kind::text, bytes ).text, text );
   EXPECT_EQ( parseAnswer( Kind::text, "ok 0\n" ).state, State::whole );
   for( const std::string& bad :
        { bytes + "x", "ok -1\n"s, "ok 1x\na"s, "ok 99999999999999999999\na"s, "ok\n"s, "{}"s } ) {
      EXPECT_EQ( parseAnswer( Kind::text, bad ).state, State::brokenOff ) << bad;
   }
}

TEST( ShowAnswerTest, JsonIsWholeWhenItsBracesAreClosedWhereItEnds ) {
   const std::string document = R"({"a":{"}\"{":[{}]},"b\\":"\u0000"})";
   for( std::size_t size = 0; size < document.size(); ++size ) {
      EXPECT_EQ( parseAnswer( Kind::json, document.substr( 0, size ) ).state, State::brokenOff );
   }
   EXPECT_EQ( parseAnswer( Kind::json, document ).text, document );
   for( char const* bad : { "{}x", "}", "}{", "[{}]", "x{}", "{\"\\", "ok 2\n{}" } ) {
      EXPECT_EQ( parseAnswer( Kind::json, bad ).state, State::brokenOff ) << bad;
   }
}

TEST( ShowAnswerTest, RefusalIsOneHarmlessLine ) {
   const std::string line = answerError( "no\n\x1b[2J\xFF" );
   EXPECT_EQ( line, "error: no??[2J?\n" );
   EXPECT_EQ( parseAnswer( Kind::json, line ).state, State::refused );
   EXPECT_EQ( parseAnswer( Kind::text, line ).text, "no??[2J?" );
   EXPECT_EQ( parseAnswer( Kind::text, line.substr( 0, 9 ) ).state, State::brokenOff );
   EXPECT_EQ( answerError( std::string( 9999, 'x' ) ).size(), 512u );
}

} // namespace
} // namespace Show
