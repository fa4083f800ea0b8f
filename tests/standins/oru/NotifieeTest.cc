#include <Oru/Ptr.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Oru::Ptr;
using testing::ElementsAre;

using Log = std::vector<std::string>;

struct Source : Oru::PtrInterface {
   explicit Source( Log* log = nullptr ) : log_( log ) {}
   ~Source() override {
      if( log_ ) {
         log_->push_back( "source destroyed" );
      }
   }
   void changed( Oru::AttributeId id = 1, void const* value = nullptr ) { notify( id, value ); }

 private:
   Log* log_;
};

struct Watch : Oru::PtrInterface::NotifieeConst {
   Watch( std::string name, Log& log, std::function<void()> action = {} )
         : name_( std::move( name ) ),
           log_( log ),
           action_( std::move( action ) ) {}
   ~Watch() override { log_.push_back( "~" + name_ ); }
   void onAttribute( Oru::AttributeId, void const* ) override {
      log_.push_back( name_ );
      // The action may destroy this watch, and itself with it.
      if( std::function<void()> const action = action_ ) {
         action();
      }
   }

 private:
   std::string name_;
   Log& log_;
   std::function<void()> action_;
};

class NotifieeTest : public testing::Test {
 protected:
   Ptr<Watch> watch( std::string name, std::function<void()> action = {} ) {
      Ptr<Watch> made = new Watch( std::move( name ), log, std::move( action ) );
      made->notifierIs( source );
      return made;
   }
   // What the notification wrote, once.
   Log logOf( std::function<void()> const& step ) {
      log.clear();
      step();
      return std::exchange( log, {} );
   }
   Log changed() {
      return logOf( [ this ] { source->changed(); } );
   }

   Log log;
   Ptr<Source> source = new Source( &log );
};

TEST_F( NotifieeTest, ValueReachesNotifieesInOrderOfRegistration ) {
   struct Values : Oru::PtrInterface::NotifieeConst {
      void onAttribute( Oru::AttributeId id, void const* value ) override {
         sum += static_cast<int>( id ) * *static_cast<int const*>( value );
      }
      int sum = 0;
   };
   auto const a = watch( "a" );
   auto const b = watch( "b" );
   Ptr<Values> const values = new Values;
   values->notifierIs( source );
   int const value = 7;
   source->changed( 3, &value );
   EXPECT_THAT( log, ElementsAre( "a", "b" ) );
   EXPECT_EQ( values->sum, 21 );
   EXPECT_EQ( values->notifier(), source );
}

TEST_F( NotifieeTest, RegistrationAndActivityAreSwitchedApart ) {
   auto const a = watch( "a" );
   auto const b = watch( "b" );
   a->hasNotificationActiveIs( false );
   EXPECT_TRUE( a->isRegisteredNotifiee() );
   EXPECT_THAT( changed(), ElementsAre( "b" ) );

   a->hasNotificationActiveIs( true );
   a->isRegisteredNotifieeIs( false );
   EXPECT_EQ( a->notifier(), source );
   EXPECT_THAT( changed(), ElementsAre( "b" ) );

   a->isRegisteredNotifieeIs( true ); // behind b now
   EXPECT_THAT( changed(), ElementsAre( "b", "a" ) );

   a->notifierIs( nullptr );
   a->isRegisteredNotifieeIs( true );
   EXPECT_FALSE( a->isRegisteredNotifiee() );
   EXPECT_THAT( changed(), ElementsAre( "b" ) );
}

TEST_F( NotifieeTest, HoldsItsNotifierAndIsNotHeldByIt ) {
   auto a = watch( "a" );
   EXPECT_EQ( source->references(), 2u );
   EXPECT_EQ( a->references(), 1u );
   source = nullptr;
   EXPECT_TRUE( log.empty() );
   EXPECT_FALSE( a->markedForDeletion() );
   a = nullptr;
   EXPECT_THAT( log, ElementsAre( "~a", "source destroyed" ) );
}

TEST_F( NotifieeTest, MovesToAnotherNotifierAndDropsTheOld ) {
   auto const a = watch( "a" );
   Ptr<Source> const second = new Source;
   source = nullptr;
   EXPECT_THAT( logOf( [ & ] { a->notifierIs( second ); } ), ElementsAre( "source destroyed" ) );
   EXPECT_THAT( logOf( [ & ] { second->changed(); } ), ElementsAre( "a" ) );
}

TEST_F( NotifieeTest, CallbackDestroysItsOwnNotifiee ) {
   Ptr<Watch> b;
   auto const a = watch( "a" );
   b = watch( "b", [ &b ] { b = nullptr; } );
   auto const c = watch( "c" );
   EXPECT_THAT( changed(), ElementsAre( "a", "b", "~b", "c" ) );
   EXPECT_THAT( changed(), ElementsAre( "a", "c" ) );
}

TEST_F( NotifieeTest, CallbackDestroysItsNeighbours ) {
   Ptr<Watch> a = watch( "a" );
   Ptr<Watch> c;
   auto const b = watch( "b", [ & ] {
      a = nullptr;
      c = nullptr;
   } );
   c = watch( "c" );
   auto const d = watch( "d" );
   EXPECT_THAT( changed(), ElementsAre( "a", "b", "~a", "~c", "d" ) );
   EXPECT_THAT( changed(), ElementsAre( "b", "d" ) );
}

TEST_F( NotifieeTest, CallbackUnregistersItselfAndOthers ) {
   Ptr<Watch> a;
   Ptr<Watch> b;
   a = watch( "a", [ & ] {
      a->isRegisteredNotifieeIs( false );
      b->notifierIs( nullptr );
   } );
   b = watch( "b" );
   auto const c = watch( "c" );
   EXPECT_THAT( changed(), ElementsAre( "a", "c" ) );
   EXPECT_THAT( changed(), ElementsAre( "c" ) );
}

TEST_F( NotifieeTest, NotifieeAddedDuringAWalkWaitsForTheNext ) {
   std::vector<Ptr<Watch>> added;
   auto const a = watch( "a", [ & ] {
      // Many, so that the list moves in memory under the walk.
      for( int i = 0; i < 100 && added.size() < 100; ++i ) {
         added.push_back( watch( "new" ) );
      }
   } );
   auto const b = watch( "b" );
   EXPECT_THAT( changed(), ElementsAre( "a", "b" ) );
   EXPECT_EQ( changed().size(), 102u );
}

TEST_F( NotifieeTest, ReregisteringDuringAWalkDoesNotRepeatTheCall ) {
   Ptr<Watch> a;
   a = watch( "a", [ & ] {
      a->isRegisteredNotifieeIs( false );
      a->isRegisteredNotifieeIs( true );
   } );
   auto const b = watch( "b" );
   EXPECT_THAT( changed(), ElementsAre( "a", "b" ) );
   EXPECT_THAT( changed(), ElementsAre( "b", "a" ) );
}

TEST_F( NotifieeTest, NotifierDroppedInTheCallbackLivesToTheEndOfTheWalk ) {
   Ptr<Watch> a;
   Ptr<Watch> b;
   a = watch( "a", [ & ] {
      source = nullptr;
      a = nullptr;
      b = nullptr;
   } );
   b = watch( "b" );
   EXPECT_THAT( changed(), ElementsAre( "a", "~b", "~a", "source destroyed" ) );
}

TEST_F( NotifieeTest, NestedWalksSeeTheSameList ) {
   bool nested = false;
   Ptr<Watch> b;
   auto const a = watch( "a", [ & ] {
      if( !std::exchange( nested, true ) ) {
         source->changed();
         b = nullptr;
      }
   } );
   b = watch( "b" );
   auto const c = watch( "c" );
   EXPECT_THAT( changed(), ElementsAre( "a", "a", "b", "c", "~b", "c" ) );
}

TEST_F( NotifieeTest, ExceptionEndsTheWalkAndLeavesTheListInOrder ) {
   bool fail = true;
   auto const a = watch( "a", [ & ] {
      if( fail ) {
         throw std::runtime_error( "refused" );
      }
   } );
   auto b = watch( "b" );
   auto const c = watch( "c" );
   EXPECT_THROW( source->changed(), std::runtime_error );
   fail = false;
   EXPECT_EQ( source->references(), 4u );
   b = nullptr;
   EXPECT_THAT( changed(), ElementsAre( "a", "c" ) );
}

TEST_F( NotifieeTest, NotifieeNeedNotBeHeldByAPtr ) {
   {
      Watch onStack( "stack", log );
      onStack.notifierIs( source );
      EXPECT_THAT( changed(), ElementsAre( "stack" ) );
   }
   EXPECT_TRUE( changed() == Log{} );
}

// The model keeps the registered numbers in order; each callback does one random thing to the list.
TEST_F( NotifieeTest, RandomChangesDuringWalksAgreeWithAModel ) {
   unsigned const seed = std::random_device{}();
   SCOPED_TRACE( testing::Message() << "seed " << seed );
   std::mt19937 random( seed );
   struct Registered {
      int id;
      bool fromThisWalk;
   };
   std::vector<Registered> model;
   std::vector<std::pair<int, Ptr<Watch>>> alive;
   std::vector<int> called;
   int nextId = 0;
   bool walking = false;

   std::function<void()> const randomChange = [ & ] {
      auto const choice = random() % 3;
      if( choice == 0 || alive.empty() ) {
         int const id = nextId++;
         auto const onCall = [ &, id ] {
            called.push_back( id );
            randomChange();
         };
         model.push_back( { id, walking } );
         alive.emplace_back( id, watch( "", onCall ) );
         return;
      }
      auto const chosen = alive.begin() + static_cast<std::ptrdiff_t>( random() % alive.size() );
      int const id = chosen->first;
      auto const known = std::find_if( model.begin(), model.end(),
                                       [ id ]( auto const& r ) { return r.id == id; } );
      bool const wasRegistered = known != model.end();
      if( wasRegistered ) {
         model.erase( known );
      }
      if( choice == 1 ) {
         alive.erase( chosen );
      } else {
         chosen->second->isRegisteredNotifieeIs( !wasRegistered );
         if( !wasRegistered ) {
            model.push_back( { id, walking } );
         }
      }
   };

   for( int step = 0; step < 2000; ++step ) {
      randomChange();
      // What is called next is the first old one behind those called, as the model stands then.
      std::vector<Registered> const before = model;
      called.clear();
      walking = true;
      source->changed();
      walking = false;
      std::size_t place = 0;
      for( int const id : called ) {
         while( place < before.size() && before[ place ].id != id ) {
            ++place;
         }
         ASSERT_LT( place, before.size() ) << "called out of order, twice, or when new";
         ++place;
      }
      // Those that were there all along have all been called.
      for( Registered const& r : model ) {
         if( !r.fromThisWalk ) {
            ASSERT_EQ( std::count( called.begin(), called.end(), r.id ), 1 );
         }
      }
      for( Registered& r : model ) {
         r.fromThisWalk = false;
      }
   }
   alive.clear();
   EXPECT_EQ( source->references(), 1u );
}

} // namespace
