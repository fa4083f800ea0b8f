// What ties the framework and the base library together when the library is loaded.

#include "support/Fatal.h"

#include <OruQuarn/BacktraceTracker.h>
#include <OruQuarn/SystemStatusSm.h>
#include <OruQuarn/TaskWalkCollectionProgress.h>

#include <Quarn/UtilCpp.h>
#include <Quarn/base/BacktraceTracker.h>
#include <Quarn/base/Exception.h>
#include <Quarn/base/ThreadControl.h>
#include <Quarn/base/Time.h>
#include <Quarn/debug/Loco.h>

#include <Oru/Entity.h>
#include <Oru/FwkType.h>
#include <Oru/System.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <thread>
#include <variant>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

// Counts the changes of the mode, in place of the library's function.
class ModeChanges {
 public:
   ModeChanges() {
      changes = {};
      Quarn::Impl::threadSafePointerIsFnIs( []( bool on ) { changes.push_back( on ); } );
   }
   ~ModeChanges() {
      Quarn::Impl::threadSafePointerIsFnIs( &Oru::VFPtrInterface::threadSafePointersIs );
   }
   static inline std::vector<bool> changes;
};

TEST( SystemStatusSmTest, LibraryKeepsTheModesEqual ) {
   const auto status = Oru::Entity::singletonExists<Oru::System>()->status();
   ASSERT_TRUE( status->threadSafePointers() );
   ASSERT_TRUE( Quarn::ThreadControl::threadSafePointer() );
   status->threadSafePointersIs( false );
   EXPECT_FALSE( Quarn::ThreadControl::threadSafePointer() );
   EXPECT_FALSE( Oru::VFPtrInterface::threadSafePointers() ) << "pointers follow the mode";
   status->threadSafePointersIs( true );
   EXPECT_TRUE( Quarn::ThreadControl::threadSafePointer() );
   EXPECT_TRUE( Oru::VFPtrInterface::threadSafePointers() );
   // The other way round the status is not written, so nothing goes in circles.
   Quarn::ThreadControl::threadSafePointerIs( false );
   EXPECT_FALSE( Oru::VFPtrInterface::threadSafePointers() );
   EXPECT_TRUE( status->threadSafePointers() );
   Quarn::ThreadControl::threadSafePointerIs( true );
}

TEST( SystemStatusSmTest, RelaysEachChangeOfItsFlagOnceAndNoOther ) {
   const Oru::Ptr<Oru::SystemStatus> status = new Oru::SystemStatus;
   auto sm = OruQuarn::SystemStatusSmIs( status );
   EXPECT_TRUE( sm->hasNotificationActive() );
   EXPECT_EQ( sm->fwkType(), Oru::oruFwkType( "SystemStatusSm" ) );
   EXPECT_TRUE( Oru::oruModule( "SystemStatusSm" ) );
   EXPECT_TRUE( Oru::oruModule( "BacktraceTracker" ) );
   {
      const ModeChanges hook;
      status->initializedIs( true );
      EXPECT_THAT( hook.changes, ElementsAre() );
      status->threadSafePointersIs( false );
      status->threadSafePointersIs( false );
      EXPECT_THAT( hook.changes, ElementsAre( false ) );
      sm->hasNotificationActiveIs( false );
      status->threadSafePointersIs( true );
      EXPECT_THAT( hook.changes, ElementsAre( false ) ) << "switched off";
      sm->hasNotificationActiveIs( true );
      status->threadSafePointersIs( false );
      status->threadSafePointersIs( true );
      EXPECT_THAT( hook.changes, ElementsAre( false, true ) ) << "false is what the mode is";
      sm = nullptr;
      status->threadSafePointersIs( false );
      EXPECT_THAT( hook.changes, ElementsAre( false, true ) );
   }
   // A new one applies what it finds.
   sm = OruQuarn::SystemStatusSmIs( status );
   EXPECT_FALSE( Quarn::ThreadControl::threadSafePointer() );
   status->threadSafePointersIs( true );
   EXPECT_TRUE( Quarn::ThreadControl::threadSafePointer() );
}

TEST( SystemStatusSmDeathTest, NullStatusEndsTheProcess ) {
   EXPECT_DEATH( OruQuarn::SystemStatusSmIs( nullptr ), "Assert/0 .*status is null" );
}

TEST( BacktraceTrackerTypeTest, AttributesAreTheRecordersOperations ) {
   Oru::FwkType const& type = *Oru::oruFwkType( "BacktraceTracker" );
   EXPECT_EQ( &type, &OruQuarn::BacktraceTracker::fwkType() );
   std::vector<std::string> names;
   for( const auto& attribute : type.attributes() ) {
      names.push_back( attribute.name().stdString() );
   }
   EXPECT_THAT( names, ElementsAre( "clear", "capacity", "capacityIs", "printAll", "enabled",
                                    "enabledIs", "backtraceIs" ) );
   OruQuarn::BacktraceTracker tracker;
   const auto printed = [ & ] {
      return std::get<Oru::String>( type.read( &tracker, "printAll" ) ).stdString();
   };
   EXPECT_EQ( std::get<std::uint32_t>( type.read( &tracker, "capacity" ) ), 64u );
   EXPECT_FALSE( std::get<bool>( type.read( &tracker, "enabled" ) ) );
   type.write( &tracker, "backtraceIs", Oru::String( "too early" ) );
   type.write( &tracker, "enabledIs", true );
   type.write( &tracker, "capacityIs", 2u );
   EXPECT_TRUE( Quarn::BacktraceTracker::enabled() );
   EXPECT_EQ( Quarn::BacktraceTracker::capacity(), 2u );
   for( char const* const label : { "first", "second", "third" } ) {
      type.write( &tracker, "backtraceIs", Oru::String( label ) );
   }
   EXPECT_THAT( printed(), AllOf( HasSubstr( "\"second\"" ), HasSubstr( "\"third\"" ),
                                  Not( HasSubstr( "first" ) ), Not( HasSubstr( "early" ) ),
                                  HasSubstr( "main" ) ) );
   std::ostringstream direct;
   Quarn::BacktraceTracker::printAll( direct );
   EXPECT_EQ( printed(), direct.str() );
   type.action( &tracker, "clear" );
   EXPECT_EQ( printed(), "" );

   type.textIs( &tracker, "any text" );
   EXPECT_EQ( type.text( &tracker ), "" );
   EXPECT_EQ( tracker, OruQuarn::BacktraceTracker() );
   EXPECT_THROW( type.write( &tracker, "capacity", 3u ), Quarn::RuntimeException );
}

TEST( TaskWalkCollectionProgressTest, Texts ) {
   std::ostringstream text;
   text << OruQuarn::TaskWalkCollectionProgress{ false, true, 12 };
   EXPECT_EQ( text.str(), "yielding, processed 12" );
   EXPECT_EQ( ( OruQuarn::TaskWalkCollectionProgress{ true, true, 4294967295 }.toString() ),
              "onInit, processed 4294967295" );
   EXPECT_EQ( OruQuarn::TaskWalkCollectionProgress().toStdString(), "finished, processed 0" );
}

TEST( LoadTimeTest, BaseLibrarysClockIsTheFrameworks ) {
   Oru::System::clockFnIs( [] { return 1234.5; } );
   const double offset = Oru::System::currentTime() - 1234.5;
   EXPECT_EQ( Quarn::Impl::timeIndirect(), 1234.5 + offset );
   Oru::System::clockFnIs( nullptr );
}

TEST( IntrospectionMapTest, FirstFunctionOfANameStays ) {
   using Quarn::IntrospectionMap;
   using Quarn::String;
   EXPECT_EQ( IntrospectionMap::lookup( "int" ), nullptr );
   IntrospectionMap::insert( "int", []( void const* value ) {
      return String( std::to_string( *static_cast<int const*>( value ) ) );
   } );
   IntrospectionMap::insert( "int", []( void const* ) { return String( "second" ); } );
   const int value = 42;
   EXPECT_EQ( IntrospectionMap::lookup( "int" )( &value ), "42" );
   EXPECT_FATAL( IntrospectionMap::insert( "null", nullptr ), "render function of null is null" );
   EXPECT_EQ( IntrospectionMap::lookup( "null" ), nullptr );

   // Whoever has the activity lock may use it.
   const Quarn::Platform::Loco::Guard guard;
   IntrospectionMap::insert( "nested", []( void const* ) { return String(); } );
   EXPECT_NE( IntrospectionMap::lookup( "nested" ), nullptr );
}

TEST( IntrospectionMapTest, ConcurrentInsertsLoseNothing ) {
   using Quarn::IntrospectionMap;
   std::vector<std::thread> threads;
   const auto name = []( int thread, int n ) {
      return Quarn::String( std::to_string( thread ) + "-" + std::to_string( n ) );
   };
   constexpr int each = 1000;
   threads.reserve( 2 );
   for( int thread = 0; thread < 2; ++thread ) {
      threads.emplace_back( [ &name, thread ] {
         for( int n = 0; n < each; ++n ) {
            IntrospectionMap::insert( name( thread, n ),
                                      []( void const* ) { return Quarn::String(); } );
         }
      } );
   }
   for( std::thread& thread : threads ) {
      thread.join();
   }
   for( int n = 0; n < each; ++n ) {
      ASSERT_TRUE( IntrospectionMap::lookup( name( 0, n ) ) );
      ASSERT_TRUE( IntrospectionMap::lookup( name( 1, n ) ) );
   }
}

} // namespace
