#include "support/Fatal.h"

#include <Oru/FwkType.h>

#include <Quarn/base/Exception.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using Oru::AttributeKind;
using Oru::AttributeValue;
using Oru::AttributeValueKind;
using Oru::FwkType;
using Oru::FwkTypeOf;
using Oru::String;
using testing::HasSubstr;

std::string runtimeText( std::function<void()> const& body ) {
   try {
      body();
   } catch( Quarn::RuntimeException const& e ) {
      return e.what();
   }
   ADD_FAILURE() << "no exception was thrown";
   return {};
}

// A counted object whose PtrInterface is not where the object begins.
struct Name {
   virtual ~Name() = default;
   String name;
};

class Peer : public Name, public Oru::PtrInterface {
 public:
   std::uint32_t mtu() const { return mtu_; }
   void mtuIs( std::uint32_t mtu ) {
      if( mtu == 0 ) {
         throw std::invalid_argument( "mtu" );
      }
      mtu_ = mtu;
   }
   void reset() { mtu_ = 1500; }

   FwkType const* fwkType() const override {
      static FwkType const& type =
            FwkTypeOf<Peer>( "Peer" )
                  .action( "reset", &Peer::reset )
                  .read<std::uint32_t>( "mtu", &Peer::mtu )
                  .write<std::uint32_t>( "mtuIs", &Peer::mtuIs )
                  .read<String>( "name", []( Peer const& peer ) { return peer.name; } )
                  .write<String>( "nameIs", []( Peer& peer, String const& to ) { peer.name = to; } )
                  .read<bool>( "jumbo", []( Peer const& peer ) { return peer.mtu_ > 1500; } )
                  .text( []( Peer const& peer ) { return "peer " + peer.name.stdString(); } )
                  .made();
      return &type;
   }

 private:
   std::uint32_t mtu_ = 1500;
};

struct NearPeer : Peer {};
struct Stranger : Oru::PtrInterface {};

// A value without data, by which operations of the process are reached.
struct Switch {
   static inline bool on = false;
   static inline std::vector<String> labels;

   static void clear() { labels.clear(); }
   static bool enabled() { return on; }
   static void enabledIs( bool enable ) { on = enable; }

   static FwkType const& type() {
      static FwkType const& theType =
            FwkTypeOf<Switch>( "Switch" )
                  .action( "clear", Switch::clear )
                  .read<bool>( "enabled", Switch::enabled )
                  .write<bool>( "enabledIs", Switch::enabledIs )
                  .write<String>( "labelIs",
                                  []( String const& label ) { labels.push_back( label ); } )
                  .text( []( Switch const& ) { return ""; },
                         []( String const& ) { return std::optional( Switch() ); } )
                  .made();
      return theType;
   }
};

// A value that not every text stands for.
struct Port {
   std::uint32_t number = 0;

   static std::optional<Port> ofText( String const& text ) {
      if( text.empty() ||
          text.stdString().find_first_not_of( "0123456789" ) != std::string::npos ) {
         return {};
      }
      return Port{ static_cast<std::uint32_t>( std::stoul( text.stdString() ) ) };
   }
   static FwkType const& type() {
      static FwkType const& theType =
            FwkTypeOf<Port>( "Port" )
                  .text( []( Port const& port ) { return std::to_string( port.number ); }, ofText )
                  .made();
      return theType;
   }
};

TEST( FwkTypeTest, TableKeepsTheOrderOfItsDeclaration ) {
   Oru::Ptr<Peer> const peer = new Peer;
   std::vector<std::string> seen;
   for( FwkType::Attribute const& attribute : peer->fwkType()->attributes() ) {
      EXPECT_EQ( peer->fwkType()->attribute( attribute.name() ), &attribute );
      seen.push_back( fmt::format( "{} {} {}", attribute.name(),
                                   static_cast<int>( attribute.kind() ),
                                   static_cast<int>( attribute.valueKind() ) ) );
   }
   auto const line = []( char const* name, AttributeKind kind, AttributeValueKind value ) {
      return fmt::format( "{} {} {}", name, static_cast<int>( kind ), static_cast<int>( value ) );
   };
   using Kind = AttributeKind;
   using Value = AttributeValueKind;
   EXPECT_THAT( seen, testing::ElementsAre( line( "reset", Kind::action, Value::none ),
                                            line( "mtu", Kind::read, Value::u32 ),
                                            line( "mtuIs", Kind::write, Value::u32 ),
                                            line( "name", Kind::read, Value::string ),
                                            line( "nameIs", Kind::write, Value::string ),
                                            line( "jumbo", Kind::read, Value::boolean ) ) );
   EXPECT_EQ( peer->fwkType()->attribute( "mt" ), nullptr );
}

TEST( FwkTypeTest, CountedObjectIsReachedThroughItsBase ) {
   Oru::Ptr<Peer> const peer = new NearPeer;
   Oru::PtrInterface* const object = peer.get();
   ASSERT_NE( static_cast<void*>( object ), static_cast<void*>( peer.get() ) );
   FwkType const& type = *object->fwkType();

   type.write( object, "mtuIs", 9000u );
   type.write( object, "nameIs", "leaf" );
   EXPECT_EQ( type.read( object, "mtu" ), AttributeValue( 9000u ) );
   EXPECT_EQ( type.read( object, "jumbo" ), AttributeValue( true ) );
   EXPECT_EQ( type.read( peer.get(), "name" ), AttributeValue( "leaf" ) );
   EXPECT_EQ( type.text( object ), "peer leaf" );
   type.action( object, "reset" );
   EXPECT_EQ( peer->mtu(), 1500u );
}

TEST( FwkTypeTest, OperationsOfTheProcessNeedNoData ) {
   FwkType const& type = Switch::type();
   Switch value;
   type.write( &value, "enabledIs", true );
   EXPECT_EQ( type.read( &value, "enabled" ), AttributeValue( true ) );
   type.write( &value, "labelIs", "first" );
   type.write( &value, "labelIs", "second" );
   EXPECT_THAT( Switch::labels, testing::ElementsAre( "first", "second" ) );
   type.action( &value, "clear" );
   EXPECT_THAT( Switch::labels, testing::IsEmpty() );
}

TEST( FwkTypeTest, WrongRequestSaysWhyAndLeavesTheObject ) {
   Oru::Ptr<Peer> const peer = new Peer;
   Oru::Ptr<Stranger> const stranger = new Stranger;
   peer->mtuIs( 9000 );
   FwkType const& type = *peer->fwkType();
   Peer* const none = nullptr;
   struct {
      char const* text;
      std::function<void()> request;
   } const table[] = {
         { "type Peer: no attribute \"speed\"", [ & ] { type.read( peer.get(), "speed" ); } },
         { "attribute \"mtuIs\" is for write, not read",
           [ & ] { type.read( peer.get(), "mtuIs" ); } },
         { "attribute \"mtu\" is for read, not write",
           [ & ] { type.write( peer.get(), "mtu", 1u ); } },
         { "attribute \"mtu\" is for read, not action",
           [ & ] { type.action( peer.get(), "mtu" ); } },
         { "attribute \"reset\" is for action, not write",
           [ & ] { type.write( peer.get(), "reset", true ); } },
         { "attribute \"mtuIs\" takes u32, not string",
           [ & ] { type.write( peer.get(), "mtuIs", "1" ); } },
         { "attribute \"mtuIs\" takes u32, not bool",
           [ & ] { type.write( peer.get(), "mtuIs", true ); } },
         { "attribute \"nameIs\" takes string, not u32",
           [ & ] { type.write( peer.get(), "nameIs", 1u ); } },
         { "the object is of another type", [ & ] { type.action( stranger.get(), "reset" ); } },
         { "no object", [ & ] { type.read( none, "mtu" ); } },
         { "no object", [ & ] { type.action( static_cast<void*>( nullptr ), "reset" ); } },
         { "type Switch: objects are not counted",
           [ & ] { Switch::type().read( stranger.get(), "enabled" ); } },
   };
   for( auto const& [ text, request ] : table ) {
      EXPECT_THAT( runtimeText( request ), HasSubstr( text ) );
      EXPECT_EQ( peer->mtu(), 9000u );
      EXPECT_EQ( peer->name, "" );
   }
}

TEST( FwkTypeTest, ErrorsOfTheOperationGoOnToTheCaller ) {
   Oru::Ptr<Peer> const peer = new Peer;
   EXPECT_THROW( peer->fwkType()->write( peer.get(), "mtuIs", 0u ), std::invalid_argument );
   EXPECT_EQ( peer->mtu(), 1500u );
}

TEST( FwkTypeTest, TextIsReadBackOrRefused ) {
   Port port{ 80 };
   Port::type().textIs( &port, "8080" );
   EXPECT_EQ( Port::type().text( &port ), "8080" );
   EXPECT_THAT( runtimeText( [ & ] { Port::type().textIs( &port, "http" ); } ),
                HasSubstr( "type Port: no value has the text \"http\"" ) );
   EXPECT_EQ( port.number, 8080u );

   // Any text stands for a value that has no data.
   Switch value;
   EXPECT_EQ( Switch::type().text( &value ), "" );
   for( char const* text : { "", "anything" } ) {
      EXPECT_NO_THROW( Switch::type().textIs( &value, text ) );
   }

   Oru::Ptr<Peer> const peer = new Peer;
   EXPECT_THAT( runtimeText( [ & ] { peer->fwkType()->textIs( peer.get(), "peer spine" ); } ),
                HasSubstr( "type Peer: is not read from text" ) );
   static FwkType const& bare = FwkTypeOf<Stranger>( "Stranger" ).made();
   Oru::Ptr<Stranger> const stranger = new Stranger;
   EXPECT_THAT( runtimeText( [ & ] { bare.text( stranger.get() ); } ),
                HasSubstr( "type Stranger: has no form as text" ) );
}

TEST( FwkTypeTest, AttributeNamesAreUniqueAndNotEmpty ) {
   FwkTypeOf<Switch> builder( "Twice" );
   builder.read<bool>( "enabled", Switch::enabled );
   EXPECT_FATAL( builder.write<bool>( "enabled", Switch::enabledIs ),
                 "type Twice: two attributes \"enabled\"" );
   EXPECT_FATAL( builder.action( "", Switch::clear ), "type Twice: attribute without a name" );
}

TEST( ModuleTest, IsFoundByItsNameAndByThoseOfItsTypes ) {
   static FwkType const& first = FwkTypeOf<Switch>( "ModuleTest::First" ).made();
   static FwkType const& second = FwkTypeOf<Port>( "ModuleTest::Second" ).made();
   EXPECT_EQ( Oru::oruModule( "ModuleTest" ), nullptr );
   EXPECT_EQ( Oru::oruFwkType( "ModuleTest::First" ), nullptr );

   Oru::oruModuleIs( { "ModuleTest", { &first, &second } } );
   Oru::Module const* const module = Oru::oruModule( "ModuleTest" );
   ASSERT_NE( module, nullptr );
   EXPECT_THAT( module->types, testing::ElementsAre( &first, &second ) );
   EXPECT_EQ( Oru::oruFwkType( "ModuleTest::Second" ), &second );
   EXPECT_EQ( Oru::oruFwkType( "ModuleTest" ), nullptr );

   Oru::oruModuleIs( { "ModuleTest", { &first, &second } } );
   EXPECT_EQ( Oru::oruModule( "ModuleTest" ), module );
}

TEST( ModuleTest, NamesThatAreTakenAreRefused ) {
   static FwkType const& mine = FwkTypeOf<Switch>( "Taken" ).made();
   static FwkType const& other = FwkTypeOf<Port>( "Taken" ).made();
   static FwkType const& fresh = FwkTypeOf<Port>( "Fresh" ).made();
   Oru::oruModuleIs( { "Owner", { &mine } } );
   Oru::Module const* const owner = Oru::oruModule( "Owner" );

   EXPECT_FATAL( Oru::oruModuleIs( { "Owner", { &fresh } } ), "another module Owner" );
   EXPECT_FATAL( Oru::oruModuleIs( { "Owner", {} } ), "another module Owner" );
   EXPECT_FATAL( Oru::oruModuleIs( { "Late", { &fresh, &other } } ),
                 "module Late: another type Taken" );
   EXPECT_FATAL( Oru::oruModuleIs( { "Late", { &fresh, &fresh } } ),
                 "module Late: another type Fresh" );
   EXPECT_FATAL( Oru::oruModuleIs( { "Late", { &fresh, nullptr } } ), "a type without a record" );

   EXPECT_EQ( Oru::oruModule( "Owner" ), owner );
   EXPECT_THAT( owner->types, testing::ElementsAre( &mine ) );
   EXPECT_EQ( Oru::oruModule( "Late" ), nullptr );
   EXPECT_EQ( Oru::oruFwkType( "Fresh" ), nullptr );
}

TEST( ModuleTest, ThreadsMayRegisterAndLookUp ) {
   static FwkType const& type = FwkTypeOf<Port>( "ThreadsMayRegister" ).made();
   std::vector<std::jthread> threads;
   threads.reserve( 4 );
   for( int i = 0; i < 4; ++i ) {
      threads.emplace_back( [ i ] {
         Oru::oruModuleIs( { "Shared", { &type } } );
         for( int round = 0; round < 100; ++round ) {
            String const name = fmt::format( "Module {} {}", i, round );
            Oru::oruModuleIs( { name, {} } );
            EXPECT_EQ( Oru::oruModule( name )->name, name );
            EXPECT_EQ( Oru::oruFwkType( "ThreadsMayRegister" ), &type );
         }
      } );
   }
   threads.clear();
   EXPECT_THAT( Oru::oruModule( "Shared" )->types, testing::ElementsAre( &type ) );
}

} // namespace
