#include <Quarn/DirNodeCpp.h>

#include "support/TempDir.h"
#include "support/TraceCapture.h"

#include <Quarn/base/Exception.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <vector>

#include <dlfcn.h>

namespace {

bool hideTypes = false;
bool failToRead = false;
unsigned typesHidden = 0;

} // namespace

// The library's calls come here first.
extern "C" __attribute__( ( visibility( "default" ) ) ) dirent* readdir( DIR* stream ) {
   static const auto real = reinterpret_cast<dirent* (*)( DIR* )>( dlsym( RTLD_NEXT, "readdir" ) );
   if( failToRead ) {
      errno = EIO;
      return nullptr;
   }
   dirent* const entry = real( stream );
   if( entry && hideTypes ) {
      entry->d_type = DT_UNKNOWN;
      ++typesHidden;
   }
   return entry;
}

namespace {

using Quarn::DirNode;
using testing::UnorderedElementsAre;
using testing_support::openDescriptors;
using testing_support::TempDir;
using testing_support::TraceCapture;

class DirNodeTest : public testing::Test {
 protected:
   template<typename Body>
   static std::string thrown( Body body ) {
      try {
         body();
      } catch( const Quarn::RuntimeException& e ) {
         return e.what();
      }
      return "nothing was thrown";
   }

   const std::shared_ptr<Quarn::Platform::DebugHandler> handler =
         Quarn::Platform::getDebugHandler( "DirNodeTest", false );
   TempDir dir;
};

TEST_F( DirNodeTest, FindsFilesAndLinksByTheEndOfTheirNames ) {
   for( char const* name : { "x.log", "x.log.1", ".log", "catalog", "log", "og", "LOG" } ) {
      dir.fileIs( name, "" );
   }
   std::filesystem::create_directory( dir.path( "d.log" ) );
   std::filesystem::create_symlink( "nowhere", dir.path( "link.log" ) );
   const DirNode node( *handler, dir.path(), nullptr );
   for( const bool hidden : { false, true } ) {
      hideTypes = hidden;
      EXPECT_THAT( node.findFiles( ".log" ), UnorderedElementsAre( "x.log", ".log", "link.log" ) );
      EXPECT_THAT( node.findFiles( "log" ),
                   UnorderedElementsAre( "x.log", ".log", "link.log", "catalog", "log" ) );
      EXPECT_EQ( node.findFiles( "" ).size(), 8u );
   }
   hideTypes = false;
   // Three times the eight above, the folder, "." and "..".
   EXPECT_EQ( typesHidden, 33u );
   EXPECT_EQ( node.readEntry(), nullptr );
   node.rewind();
   EXPECT_NE( node.readEntry(), nullptr );
}

TEST_F( DirNodeTest, TracesExpectedAbsencesAtLevelNine ) {
   dir.fileIs( "file", "" );
   TraceCapture trace;
   handler->enabledIs( 1, true );
   DirNode node( *handler, dir.path( "gone" ), nullptr );
   EXPECT_EQ( errno, ENOENT );
   node.pathIs( dir.path( "file" ) );
   EXPECT_FALSE( node.isOpen() );
   EXPECT_EQ( trace.text(), "" );

   const std::string tooLong( 300, 'x' );
   node.pathIs( tooLong );
   EXPECT_EQ( errno, ENAMETOOLONG );
   EXPECT_EQ( trace.count( "DirNode::openDir() failed to open " + tooLong +
                           " errno: File name too long" ),
              1u );
   handler->enabledIs( 9, true );
   node.pathIs( dir.path( "gone" ) );
   EXPECT_EQ( trace.count( "DirNode::pathIs() path: " + dir.path( "gone" ) + "\n" ), 1u );
   EXPECT_EQ( trace.count( "failed to open " + dir.path( "gone" ) + " errno: No such file" ), 1u );
   handler->enabledIs( 1, false );
   handler->enabledIs( 9, false );
}

TEST_F( DirNodeTest, ThrowsOnlyWhereTheCallerCannotGoOn ) {
   DirNode node( *handler );
   EXPECT_EQ( node.readEntry(), nullptr );
   node.pathIs( "/gone" );
   EXPECT_EQ( thrown( [ & ] { node.rewind(); } ),
              "DirNode::rewind() cannot rewind /gone because the directory is not open" );
   EXPECT_EQ( thrown( [ & ] { node.findFiles( "log" ); } ),
              "DirNode::findFiles() cannot find log files in /gone because the directory is not "
              "open" );
   node.pathIs( "/" );
   failToRead = true;
   EXPECT_EQ( thrown( [ & ] { node.readEntry(); } ),
              "DirNode::readEntry() failed to read / errno: Input/output error" );
   failToRead = false;
}

TEST_F( DirNodeTest, ClosesEachStreamOnceAndKeepsTheParent ) {
   const std::ptrdiff_t before = openDescriptors();
   auto parent = std::make_shared<DirNode>( *handler, "/", nullptr );
   const std::weak_ptr<DirNode> watched = parent;
   {
      std::vector<DirNode> nodes;
      nodes.reserve( 20 );
      for( int i = 0; i < 20; ++i ) {
         nodes.emplace_back( *handler, dir.path(), parent );
      }
      nodes.reserve( 40 ); // which moves them
      parent = nullptr;
      EXPECT_EQ( openDescriptors(), before + 21 );
      for( DirNode& node : nodes ) {
         ASSERT_TRUE( node.isOpen() );
         node.openDir();
         EXPECT_NE( node.readEntry(), nullptr );
      }
      EXPECT_EQ( openDescriptors(), before + 21 );
      const DirNode taken( std::move( nodes.front() ) );
      EXPECT_TRUE( taken.isOpen() );
      nodes.clear();
      EXPECT_EQ( openDescriptors(), before + 2 );
      EXPECT_FALSE( watched.expired() );
   }
   EXPECT_TRUE( watched.expired() );
   EXPECT_EQ( openDescriptors(), before );
}

} // namespace
