// The news about network interfaces: their bytes, what they mean, and the task that reads them.

#include "examples/agent/LinkMessages.h"
#include "examples/agent/LinkTable.h"
#include "examples/agent/LinkWatch.h"

#include <Quarn/LibeventFactoryCpp.h>
#include <Quarn/TaskSchedulerCpp.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

namespace HostAgent {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Bytes = std::vector<std::byte>;
using Kind = LinkMessage::Kind;

template<typename Record>
void append( Bytes& bytes, const Record& record ) {
   auto const* const first = reinterpret_cast<std::byte const*>( &record );
   bytes.insert( bytes.end(), first, first + sizeof( record ) );
}

void pad( Bytes& bytes ) { bytes.resize( ( bytes.size() + 3 ) / 4 * 4 ); }

Bytes attribute( unsigned short type, const std::string& value ) {
   Bytes bytes;
   rtattr header{};
   header.rta_type = type;
   header.rta_len = static_cast<unsigned short>( sizeof( header ) + value.size() );
   append( bytes, header );
   for( const char c : value ) {
      bytes.push_back( static_cast<std::byte>( c ) );
   }
   pad( bytes );
   return bytes;
}

Bytes message( unsigned type, const Bytes& payload, unsigned flags = 0 ) {
   Bytes bytes;
   nlmsghdr header{};
   header.nlmsg_type = static_cast<unsigned short>( type );
   header.nlmsg_flags = static_cast<unsigned short>( flags );
   header.nlmsg_len = static_cast<unsigned>( sizeof( header ) + payload.size() );
   append( bytes, header );
   bytes.insert( bytes.end(), payload.begin(), payload.end() );
   pad( bytes );
   return bytes;
}

Bytes link( int index, unsigned flags, const Bytes& attributes, unsigned char family = AF_UNSPEC ) {
   Bytes bytes;
   ifinfomsg info{};
   info.ifi_family = family;
   info.ifi_index = index;
   info.ifi_flags = flags;
   append( bytes, info );
   bytes.insert( bytes.end(), attributes.begin(), attributes.end() );
   return bytes;
}

Bytes joined( const std::vector<Bytes>& parts ) {
   Bytes bytes;
   for( const Bytes& part : parts ) {
      bytes.insert( bytes.end(), part.begin(), part.end() );
   }
   return bytes;
}

const std::string eth0( "eth0\0", 5 );
constexpr unsigned running = IFF_UP | IFF_RUNNING;

// Parsed from a block of exactly its size at an odd address, so that a sanitizer sees a read beyond
// either end.
LinkMessages parse( const Bytes& bytes ) {
   Bytes moved( bytes.size() + 1 );
   std::ranges::copy( bytes, moved.begin() + 1 );
   return parseLinkMessages( std::span( moved ).subspan( 1 ) );
}

TEST( LinkMessagesTest, KernelsMessagesAreTakenApart ) {
   const auto parsed = parse(
         joined( { message( RTM_NEWLINK, link( 2, running,
                                               joined( { attribute( IFLA_MTU, "abcd" ),
                                                         attribute( IFLA_IFNAME, eth0 ) } ) ) ),
                   message( RTM_NEWLINK, link( 3, IFF_UP, {} ), NLM_F_MULTI | NLM_F_DUMP_INTR ),
                   message( RTM_DELLINK, link( 4, running, attribute( IFLA_IFNAME, eth0 ) ) ),
                   message( RTM_NEWADDR, {} ), message( NLMSG_DONE, Bytes( 4 ), NLM_F_MULTI ) } ) );
   EXPECT_EQ( parsed.malformed, 0u );
   ASSERT_EQ( parsed.messages.size(), 4u );
   EXPECT_EQ( parsed.messages[ 0 ].kind, Kind::link );
   EXPECT_EQ( parsed.messages[ 0 ].index, 2 );
   EXPECT_EQ( parsed.messages[ 0 ].name, "eth0" );
   EXPECT_TRUE( parsed.messages[ 0 ].up );
   EXPECT_FALSE( parsed.messages[ 0 ].listed );
   // Switched on without a carrier.
   EXPECT_FALSE( parsed.messages[ 1 ].up );
   EXPECT_TRUE( parsed.messages[ 1 ].listed );
   EXPECT_TRUE( parsed.messages[ 1 ].listInterrupted );
   EXPECT_EQ( parsed.messages[ 1 ].name, "" );
   EXPECT_EQ( parsed.messages[ 2 ].kind, Kind::linkGone );
   EXPECT_EQ( parsed.messages[ 3 ].kind, Kind::listEnd );
}

TEST( LinkMessagesTest, PortThatLeavesItsBridgeIsNotALinkThatGoes ) {
   const auto parsed = parse(
         message( RTM_DELLINK, link( 2, running, attribute( IFLA_IFNAME, eth0 ), AF_BRIDGE ) ) );
   EXPECT_THAT( parsed.messages, IsEmpty() );
   EXPECT_EQ( parsed.malformed, 0u );
}

TEST( LinkMessagesTest, RefusalCarriesItsErrorAndAReceiptNone ) {
   const struct {
      int error;
      std::size_t messages;
      std::uint64_t malformed;
   } cases[] = { { -EBUSY, 1, 0 }, { 0, 0, 0 }, { 5, 0, 1 }, { INT_MIN, 0, 1 } };
   for( const auto& [ error, messages, malformed ] : cases ) {
      Bytes payload;
      append( payload, error );
      const auto parsed = parse( message( NLMSG_ERROR, payload ) );
      ASSERT_EQ( parsed.messages.size(), messages ) << error;
      EXPECT_EQ( parsed.malformed, malformed ) << error;
      if( messages != 0 ) {
         EXPECT_EQ( parsed.messages.front().kind, Kind::refused );
         EXPECT_EQ( parsed.messages.front().error, EBUSY );
      }
   }
}

// A good message, one whose attribute is broken by `change`, and a good one again.
LinkMessages parseAround( const Bytes& attributes ) {
   const Bytes good = message( RTM_NEWLINK, link( 1, running, attribute( IFLA_IFNAME, eth0 ) ) );
   return parse( joined( { good, message( RTM_NEWLINK, link( 2, running, attributes ) ), good } ) );
}

TEST( LinkMessagesTest, AttributeThatLiesCostsItsMessageOnly ) {
   const auto withLength = []( unsigned short length ) {
      Bytes bytes = attribute( IFLA_IFNAME, eth0 );
      std::memcpy( bytes.data(), &length, sizeof( length ) );
      return bytes;
   };
   for( const Bytes& attributes :
        { withLength( 0 ), withLength( 3 ), withLength( 13 ), withLength( 0xFFFF ), Bytes( 1 ),
          Bytes( 3 ), attribute( IFLA_IFNAME, "" ),
          attribute( IFLA_IFNAME, std::string( 1, '\0' ) ),
          attribute( IFLA_IFNAME, std::string( IFNAMSIZ, 'x' ) ) } ) {
      const auto parsed = parseAround( attributes );
      EXPECT_EQ( parsed.malformed, 1u );
      ASSERT_EQ( parsed.messages.size(), 2u );
      EXPECT_EQ( parsed.messages.back().index, 1 );
   }
   // The name ends with its attribute when it lacks the NUL, and the last length need not be
   // aligned.
   for( const std::string name : { "eth", "eth0", "eth01" } ) {
      Bytes attributes = attribute( IFLA_IFNAME, name );
      attributes.resize( sizeof( rtattr ) + name.size() );
      const auto parsed = parseAround( attributes );
      EXPECT_EQ( parsed.malformed, 0u ) << name;
      EXPECT_EQ( parsed.messages.at( 1 ).name, name );
   }
}

TEST( LinkMessagesTest, MessageThatLiesEndsTheParsing ) {
   const Bytes good = message( RTM_NEWLINK, link( 1, running, attribute( IFLA_IFNAME, eth0 ) ) );
   for( const unsigned length : { 0u, 1u, 15u, static_cast<unsigned>( 2 * good.size() + 1 ),
                                  0x7FFFFFFFu, 0xFFFFFFFDu, 0xFFFFFFFFu } ) {
      Bytes bad = good;
      std::memcpy( bad.data(), &length, sizeof( length ) );
      const auto parsed = parse( joined( { good, bad, good } ) );
      EXPECT_EQ( parsed.messages.size(), 1u ) << length;
      EXPECT_EQ( parsed.malformed, 1u ) << length;
   }
}

TEST( LinkMessagesTest, CutAnywhereGivesWhatIsWholeAndOneComplaint ) {
   const Bytes good = message( RTM_NEWLINK, link( 1, running, attribute( IFLA_IFNAME, eth0 ) ) );
   const Bytes both = joined( { good, good } );
   for( std::size_t size = 0; size <= both.size(); ++size ) {
      const auto parsed = parse( Bytes( both.begin(), both.begin() + static_cast<long>( size ) ) );
      EXPECT_EQ( parsed.messages.size(), size / good.size() ) << size;
      EXPECT_EQ( parsed.malformed, size % good.size() != 0 ? 1u : 0u ) << size;
   }
}

TEST( LinkMessagesTest, AnyBytesGiveNoMoreThanTheyCanHold ) {
   const Bytes good =
         joined( { message( RTM_NEWLINK, link( 1, running, attribute( IFLA_IFNAME, eth0 ) ) ),
                   message( RTM_DELLINK, link( 1, 0, attribute( IFLA_IFNAME, eth0 ) ) ),
                   message( NLMSG_ERROR, Bytes( 4 ) ), message( NLMSG_DONE, {} ) } );
   std::mt19937 random( 1 );
   for( int round = 0; round < 20000; ++round ) {
      Bytes bytes = good;
      for( unsigned changes = random() % 4; changes != 0; --changes ) {
         bytes[ random() % bytes.size() ] = static_cast<std::byte>( random() );
      }
      bytes.resize( random() % ( bytes.size() + 1 ) );
      const auto parsed = parse( bytes );
      ASSERT_LE( parsed.messages.size() + parsed.malformed, bytes.size() / sizeof( nlmsghdr ) + 1 )
            << round;
      for( const LinkMessage& one : parsed.messages ) {
         ASSERT_LT( one.name.size(), std::size_t{ IFNAMSIZ } ) << round;
      }
   }
}

class LinkTableTest : public ::testing::Test {
 protected:
   void linkIs( int index, bool up, const std::string& name = "a" ) {
      LinkMessage news;
      news.index = index;
      news.up = up;
      news.name = name;
      table_.messageIs( news );
   }
   void linkDel( int index ) {
      LinkMessage news;
      news.kind = Kind::linkGone;
      news.index = index;
      table_.messageIs( news );
   }

   std::vector<std::string> changes_;
   LinkTable table_{ [ this ]( const std::string& name, bool up ) {
      changes_.push_back( name + ( up ? "+" : "-" ) );
   } };
};

TEST_F( LinkTableTest, FirstListIsKnownAndNotCounted ) {
   table_.listBegin();
   linkIs( 1, true, "lo" );
   linkIs( 2, false, "eth0" );
   table_.listEnd();
   EXPECT_THAT( changes_, IsEmpty() );
   // Other news about a link that stays up.
   linkIs( 1, true, "lo" );
   linkIs( 2, true, "eth0" );
   linkIs( 3, true, "new" );
   linkIs( 1, false, "lo" );
   EXPECT_THAT( changes_, ElementsAre( "eth0+", "new+", "lo-" ) );
   EXPECT_EQ( table_.ups(), 2u );
   EXPECT_EQ( table_.downs(), 1u );
   EXPECT_EQ( table_.links().at( 2 ).ups, 1u );
}

TEST_F( LinkTableTest, LinkThatIsRemovedGoesDownOnceAndItsCountsStay ) {
   table_.listEnd();
   linkIs( 7, true );
   linkDel( 7 );
   linkDel( 7 );
   linkIs( 8, false );
   linkDel( 8 );
   EXPECT_THAT( changes_, ElementsAre( "a+", "a-" ) );
   EXPECT_TRUE( table_.links().empty() );
   EXPECT_EQ( table_.ups(), 1u );
   EXPECT_EQ( table_.downs(), 1u );
}

TEST_F( LinkTableTest, LaterListCountsWhatWasMissed ) {
   table_.listBegin();
   linkIs( 1, true, "stays" );
   linkIs( 2, true, "goes" );
   linkIs( 3, false, "rises" );
   table_.listEnd();
   table_.listBegin();
   linkIs( 1, true, "stays" );
   linkIs( 3, true, "rises" );
   linkIs( 4, true, "comes" );
   table_.listEnd();
   EXPECT_THAT( changes_, ElementsAre( "rises+", "comes+", "goes-" ) );
   EXPECT_EQ( table_.links().size(), 3u );
}

TEST_F( LinkTableTest, NamesFollowTheNewsAndNumbersStandIn ) {
   linkIs( 1, false, "" );
   EXPECT_EQ( table_.links().at( 1 ).name, "#1" );
   linkIs( 1, false, "eth0" );
   linkIs( 1, false, "" );
   EXPECT_EQ( table_.links().at( 1 ).name, "eth0" );
   linkIs( 1, false, "wan" );
   EXPECT_EQ( table_.links().at( 1 ).name, "wan" );
}

TEST( LinkWatchTest, KnowsTheLinksOfThisHostOrSaysWhyNot ) {
   EventLog log;
   const auto watch = std::make_shared<LinkWatch>( Quarn::schedulerRootQuarn(), &log );
   if( watch->refusal().empty() ) {
      while( watch->links().links().empty() ) {
         Quarn::Platform::doEventLoop( 0.0 );
      }
      for( const auto& [ index, link ] : watch->links().links() ) {
         char name[ IF_NAMESIZE ];
         EXPECT_EQ( link.name, if_indextoname( static_cast<unsigned>( index ), name ) );
      }
      EXPECT_EQ( watch->malformed(), 0u );
   } else {
      EXPECT_EQ( watch->taskWatchFd(), -1 );
   }
   watch->stop();
   // Nothing is pending any more.
   Quarn::Platform::doEventLoop();
   EXPECT_THAT( log.events(), IsEmpty() );
}

} // namespace
} // namespace HostAgent
