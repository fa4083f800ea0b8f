// The deadlines of one clock: those set, and those that are due in the turn under way.

#pragma once

#include <Oru/Clock.h>

#include <boost/intrusive/list.hpp>
#include <boost/intrusive/set.hpp>

#include <cstdint>

namespace Oru {

// Notifiees leave by their hooks, whichever of the two they are in.
//
// Thread: that of the activity loop.
struct Clock::Queues {
   using Notifiee = Clock::NotifieeConst;

   // The notifiee has a deadline and is in neither of the two.
   void arm( Notifiee& notifiee ) noexcept { armed_.insert( notifiee ); }

   std::uint64_t newRegistration() noexcept { return ++registrations_; }

   // The earliest deadline of those set; never without one.
   double next() const noexcept;

   // Makes those due that have come by `now`. They keep their deadline until they are called.
   void collect( double now ) noexcept;

   // Takes the deadline of the first that is due away and calls it; false when none is.
   bool serveOne( double now );

   // What is still due is set again.
   void putBack() noexcept;

 private:
   struct Earlier {
      bool operator()( Notifiee const& left, Notifiee const& right ) const noexcept {
         return left.timeMin_ != right.timeMin_ ? left.timeMin_ < right.timeMin_
                                                : left.registration_ < right.registration_;
      }
   };
   using Armed = boost::intrusive::multiset<
         Notifiee,
         boost::intrusive::member_hook<Notifiee, Notifiee::ArmedHook, &Notifiee::armedHook_>,
         boost::intrusive::compare<Earlier>, boost::intrusive::constant_time_size<false>>;
   using Due = boost::intrusive::list<
         Notifiee, boost::intrusive::member_hook<Notifiee, Notifiee::DueHook, &Notifiee::dueHook_>,
         boost::intrusive::constant_time_size<false>>;

   Armed armed_;
   Due due_;
   std::uint64_t registrations_ = 0;
};

} // namespace Oru
