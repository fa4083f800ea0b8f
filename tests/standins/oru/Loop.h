// What the tests of the activity loop have in common: a clock that only virtual time moves, and
// notifiees that write down what they hear.

#pragma once

#include <Oru/ActivityManager.h>
#include <Oru/FileDescriptor.h>
#include <Oru/System.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

using Log = std::vector<std::string>;

// Writes its name when its deadline comes, then does what it was made for.
struct Alarm : Oru::Clock::NotifieeConst {
   Alarm( std::string name, Log& log, std::function<void()> action = {} )
         : name_( std::move( name ) ),
           log_( log ),
           action_( std::move( action ) ) {}

   void onAttribute( Oru::AttributeId id, void const* value ) override {
      EXPECT_EQ( id, Oru::Clock::timeAttribute );
      log_.push_back( name_ );
      heardAt = *static_cast<double const*>( value );
      // The action may destroy this alarm, and itself with it.
      if( std::function<void()> const action = action_ ) {
         action();
      }
   }

   double heardAt = 0;

 private:
   std::string name_;
   Log& log_;
   std::function<void()> action_;
};

// Writes its name, r or w and the count, then does what it was made for.
struct Watch : Oru::PtrInterface::NotifieeConst {
   Watch( std::string name, Log& log, std::function<void()> action = {} )
         : name_( std::move( name ) ),
           log_( log ),
           action_( std::move( action ) ) {}

   void onAttribute( Oru::AttributeId id, void const* value ) override {
      log_.push_back( name_ + ( id == Oru::FileDescriptor::readableAttribute ? "r" : "w" ) +
                      std::to_string( *static_cast<std::uint32_t const*>( value ) ) );
      if( std::function<void()> const action = action_ ) {
         action();
      }
   }

 private:
   std::string name_;
   Log& log_;
   std::function<void()> action_;
};

// A descriptor with somebody who hears it.
struct Watched {
   Oru::Ptr<Oru::FileDescriptor> object;
   Oru::Ptr<Watch> watch;
};

class Pipe {
 public:
   Pipe() {
      int ends[ 2 ];
      EXPECT_EQ( pipe( ends ), 0 );
      in = ends[ 0 ];
      out = ends[ 1 ];
   }
   ~Pipe() {
      closeIn();
      closeOut();
   }
   Pipe( Pipe const& ) = delete;
   Pipe& operator=( Pipe const& ) = delete;

   void write() const { EXPECT_EQ( ::write( out, "x", 1 ), 1 ); }
   void read() const {
      char byte;
      EXPECT_EQ( ::read( in, &byte, 1 ), 1 );
   }
   void closeIn() { close( std::exchange( in, -1 ) ); }
   void closeOut() { close( std::exchange( out, -1 ) ); }

   int in;
   int out;
};

class LoopTest : public testing::Test {
 protected:
   LoopTest() {
      Oru::System::clockFnIs( [] { return 1.7e9; } );
      Oru::ActivityManagerConfig::virtualTimeIs( true );
   }
   ~LoopTest() override {
      Oru::ActivityManagerConfig::virtualTimeIs( false );
      Oru::System::clockFnIs( nullptr );
   }

   static double now() { return Oru::System::currentTime(); }

   Oru::Ptr<Alarm> alarm( std::string name, std::function<void()> action = {} ) {
      Oru::Ptr<Alarm> made = new Alarm( std::move( name ), log, std::move( action ) );
      made->notifierIs( manager->clock() );
      return made;
   }
   Oru::Ptr<Alarm> alarmIn( double seconds, std::string name, std::function<void()> action = {} ) {
      Oru::Ptr<Alarm> made = alarm( std::move( name ), std::move( action ) );
      made->timeMinIs( now() + seconds );
      return made;
   }
   Watched watched( int fd, const std::string& name, std::function<void()> action = {} ) {
      Watched made{ new Oru::FileDescriptor( name ), new Watch( name, log, std::move( action ) ) };
      made.watch->notifierIs( made.object );
      made.object->descriptorIs( fd );
      return made;
   }

   // What one run writes.
   Log run( double seconds = std::numeric_limits<double>::infinity() ) {
      log.clear();
      manager->executionTimeIs( seconds );
      manager->doRun();
      return std::exchange( log, {} );
   }

   Oru::Ptr<Oru::ActivityManager> manager = Oru::ActivityManager::instance();
   Log log;
};
