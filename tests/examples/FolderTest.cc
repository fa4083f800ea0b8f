// The news about a watched folder: their bytes, and the task that reads them.

#include "examples/agent/FolderEvents.h"
#include "examples/agent/FolderWatch.h"

#include "examples/ProcFolder.h"

#include <Quarn/LibeventFactoryCpp.h>
#include <Quarn/TaskSchedulerCpp.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <system_error>
#include <vector>

#include <sys/inotify.h>

namespace HostAgent {
namespace {

using Bytes = std::vector<std::byte>;
using Kind = FolderEvent::Kind;

// An event with any length written into it, whatever follows.
Bytes event( std::uint32_t mask, std::uint32_t length, const std::string& follows ) {
   inotify_event header{};
   header.mask = mask;
   header.len = length;
   auto const* const first = reinterpret_cast<std::byte const*>( &header );
   Bytes bytes( first, first + sizeof( header ) );
   for( const char c : follows ) {
      bytes.push_back( static_cast<std::byte>( c ) );
   }
   return bytes;
}

Bytes event( std::uint32_t mask, const std::string& name ) {
   return event( mask, static_cast<std::uint32_t>( name.size() ), name );
}

TEST( FolderEventsTest, KernelsEventsAreTakenApart ) {
   const struct {
      std::uint32_t mask;
      std::string name;
      std::optional<Kind> kind;
      std::string shown;
   } cases[] = {
         { IN_CREATE | IN_ISDIR, std::string( "new\0\0\0\0", 7 ), Kind::created, "new" },
         { IN_MOVED_TO, "unaligned and not ended", Kind::created, "unaligned and not ended" },
         { IN_DELETE, "x", Kind::removed, "x" },
         { IN_MOVED_FROM, std::string( 255, 'y' ), Kind::removed, std::string( 255, 'y' ) },
         { IN_CLOSE_WRITE, "a\nb", Kind::written, "a\nb" },
         { IN_Q_OVERFLOW, "", Kind::overrun, "" },
         { IN_IGNORED, "", Kind::ended, "" },
         { IN_ACCESS, "x", std::nullopt, "" },
         { 0, "", std::nullopt, "" },
   };
   Bytes all;
   std::size_t known = 0;
   for( const auto& [ mask, name, kind, shown ] : cases ) {
      const Bytes bytes = event( mask, name );
      const auto parsed = parseFolderEvents( bytes );
      EXPECT_FALSE( parsed.malformed );
      ASSERT_EQ( parsed.events.size(), kind ? 1u : 0u ) << mask;
      if( kind ) {
         ++known;
         EXPECT_EQ( parsed.events.front().kind, *kind ) << mask;
         EXPECT_EQ( parsed.events.front().name, shown );
      }
      all.insert( all.end(), bytes.begin(), bytes.end() );
   }
   EXPECT_EQ( parseFolderEvents( all ).events.size(), known );
}

TEST( FolderEventsTest, LengthThatLiesOrACutEndsTheParsing ) {
   const Bytes good = event( IN_CREATE, "abc" );
   for( const std::uint32_t length : { 4u, 0x7FFFFFFFu, 0xFFFFFFF0u, 0xFFFFFFFFu } ) {
      Bytes bytes = good;
      const Bytes bad = event( IN_CREATE, length, "abc" );
      bytes.insert( bytes.end(), bad.begin(), bad.end() );
      const auto parsed = parseFolderEvents( bytes );
      EXPECT_TRUE( parsed.malformed ) << length;
      EXPECT_EQ( parsed.events.size(), 1u ) << length;
   }
   for( std::size_t size = 0; size <= good.size(); ++size ) {
      const Bytes cut( good.begin(), good.begin() + static_cast<long>( size ) );
      const auto parsed = parseFolderEvents( cut );
      EXPECT_EQ( parsed.malformed, size != 0 && size != good.size() ) << size;
      EXPECT_EQ( parsed.events.size(), size == good.size() ? 1u : 0u ) << size;
   }
}

TEST( FolderEventsTest, AnyBytesGiveNamesThatLieWithinThem ) {
   std::mt19937 random( 1 );
   for( int round = 0; round < 20000; ++round ) {
      Bytes bytes = event( IN_CREATE, "abcdefgh" );
      const Bytes second = event( IN_DELETE, "ijkl" );
      bytes.insert( bytes.end(), second.begin(), second.end() );
      for( unsigned changes = random() % 4; changes != 0; --changes ) {
         bytes[ random() % bytes.size() ] = static_cast<std::byte>( random() );
      }
      bytes.resize( random() % ( bytes.size() + 1 ) );
      bytes.shrink_to_fit();
      auto const* const first = reinterpret_cast<char const*>( bytes.data() );
      for( const FolderEvent& one : parseFolderEvents( bytes ).events ) {
         ASSERT_GE( one.name.data(), first ) << round;
         ASSERT_LE( one.name.data() + one.name.size(), first + bytes.size() ) << round;
      }
   }
}

class FolderWatchTest : public ::testing::Test {
 protected:
   // The descriptor is readable the moment something has happened.
   void runLoop() const { Quarn::Platform::doEventLoop( 0.0 ); }

   ProcFolder folder_;
   EventLog log_;
   std::shared_ptr<FolderWatch> watch_ =
         std::make_shared<FolderWatch>( Quarn::schedulerRootQuarn(), folder_.path(), &log_ );
};

TEST_F( FolderWatchTest, CountsWhatHappensToEntries ) {
   std::ofstream( folder_.path() + "/one" ) << 1;
   std::filesystem::rename( folder_.path() + "/one", folder_.path() + "/two" );
   std::filesystem::remove( folder_.path() + "/two" );
   while( watch_->removed() < 2 ) {
      runLoop();
   }
   EXPECT_EQ( watch_->created(), 2u );
   EXPECT_EQ( watch_->removed(), 2u );
   EXPECT_EQ( watch_->written(), 1u );
   EXPECT_FALSE( watch_->ended() );
   EXPECT_EQ( log_.events().size(), 5u );
   EXPECT_EQ( log_.events().back().name, "two" );
}

TEST_F( FolderWatchTest, KeepsTheNewestEventsOnly ) {
   for( std::size_t i = 0; i <= EventLog::capacity; ++i ) {
      folder_.folderIs( static_cast<pid_t>( i + 1 ) );
   }
   while( watch_->created() <= EventLog::capacity ) {
      runLoop();
   }
   ASSERT_EQ( log_.events().size(), EventLog::capacity );
   EXPECT_EQ( log_.events().front().name, "2" );
}

TEST_F( FolderWatchTest, FolderThatGoesEndsTheWatchAndLeavesTheLoopIdle ) {
   std::filesystem::remove( folder_.path() );
   Quarn::Platform::doEventLoop();
   EXPECT_TRUE( watch_->ended() );
   EXPECT_EQ( watch_->taskWatchFd(), -1 );
}

TEST_F( FolderWatchTest, WhatIsNoFolderIsAnError ) {
   for( char const* name : { "/none", "/../none", "" } ) {
      const std::string path = *name ? folder_.path() + name : std::string();
      EXPECT_THROW( FolderWatch( Quarn::schedulerRootQuarn(), path, &log_ ), std::system_error );
   }
}

} // namespace
} // namespace HostAgent
