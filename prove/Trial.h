// One attempt at a scenario whose memory runs out at a chosen point.
//
// A scenario is a function that makes calls of the library through `call()`. In one of them an
// allocation fails; the call has to end as it promises, leave what was there in order, and succeed
// when it is made again.

#pragma once

#include "support/FailingMemory.h"

#include <exception>
#include <functional>
#include <new>
#include <stdexcept>
#include <string>

namespace prove {

namespace memory = testing_support::memory;

// What a scenario found wrong.
class Fault : public std::runtime_error {
 public:
   explicit Fault( const std::string& what );

   // The text of the last one, for when its way out ends the process; empty without any.
   static char const* last();
};

// How an allocation that failed in a call was answered.
enum class Answer {
   none,      // no allocation failed
   badAlloc,  // std::bad_alloc left the call
   fatal,     // a fatal assertion with the text that the headers name for it left the call
   absorbed,  // the call returned, with the result that the headers name for it
   terminate, // the process ended, as the headers name it
};

// What a call may do besides letting std::bad_alloc out, each with the words of the header that
// say so; null for what it may not.
struct May {
   // Return.
   char const* absorb = nullptr;
   // End in a fatal assertion whose text holds this, or one of these between bars.
   char const* fatal = nullptr;
   // End the process.
   char const* terminate = nullptr;
   // Keep memory that it has got; why.
   char const* keep = nullptr;
   // The same, and only with a fatal assertion.
   char const* keepWhenFatal = nullptr;
};

class Trial {
 public:
   // Where the trial has come to, for whoever finds the process dead.
   struct Place {
      char call[ 120 ];
      // The call that the failure was met in.
      char failedCall[ 120 ];
      // What the header says of the way in which the failure was answered, unless by
      // std::bad_alloc; and of the end of the process, which the present call may be.
      char answered[ 200 ];
      char promise[ 200 ];
      bool mayTerminate;
      bool mayKeep;
      bool terminated;
   };

   explicit Trial( Place& place ) : place_( place ) {}

   // Makes the call, and once more when an allocation failed in it.
   //
   // Errors: `Fault`.
   template<typename Body>
   void call( char const* name, const Body& body, const May& may = {} ) {
      _enters( name, may );
      const bool before = memory::hasFailed();
      const Answer answer = _attempt( body, may );
      if( before || !memory::hasFailed() ) {
         if( answer != Answer::none ) {
            throw Fault( "leaves by an exception although no allocation failed" );
         }
         return;
      }
      // One failure is what a trial is about.
      memory::failNoMore();
      _failed( answer, may );
      answer_ = answer;
      failedHere_ = true;
      if( invariants_ ) {
         invariants_();
      }
      _again( body );
      if( invariants_ ) {
         invariants_();
      }
   }

   // Whether the last `call()` met the failure, and how any call answered it.
   bool failedInLastCall() const { return failedHere_; }
   Answer answer() const { return answer_; }

   // Called after a failure, and after the call that followed it; throws `Fault`.
   void invariantsAre( std::function<void()> check ) { invariants_ = std::move( check ); }

   static void require( bool condition, char const* what ) {
      if( !condition ) {
         throw Fault( what );
      }
   }

 private:
   void _enters( char const* name, const May& may );
   void _failed( Answer answer, const May& may );
   Answer _judge( const std::exception& e, const May& may ) const;

   template<typename Body>
   Answer _attempt( const Body& body, const May& may ) {
      const bool before = memory::hasFailed();
      try {
         const memory::Armed armed;
         body();
      } catch( const std::bad_alloc& ) {
         return Answer::badAlloc;
      } catch( const Fault& ) {
         throw;
      } catch( const std::exception& e ) {
         return _judge( e, may );
      }
      if( before || !memory::hasFailed() ) {
         return Answer::none;
      }
      if( !may.absorb ) {
         throw Fault( "returns although an allocation failed" );
      }
      return Answer::absorbed;
   }

   template<typename Body>
   static void _again( const Body& body ) {
      try {
         body();
      } catch( const Fault& ) {
         throw;
      } catch( const std::exception& e ) {
         throw Fault( std::string( "the same call fails again: " ) + e.what() );
      }
   }

   Place& place_;
   std::function<void()> invariants_;
   Answer answer_ = Answer::none;
   bool failedHere_ = false;
};

// A scenario, and the words for it in reports.
struct Scenario {
   char const* name;
   void ( *run )( Trial& );
};

} // namespace prove
