// One-shot deadlines on the framework's clock.
//
//     struct Alarm : Oru::Clock::NotifieeConst {
//        void onAttribute( Oru::AttributeId id, void const* ) override;   // id is timeAttribute
//     };
//     Oru::Ptr<Alarm> alarm = new Alarm;
//     alarm->notifierIs( Oru::ActivityManager::instance()->clock() );
//     alarm->timeMinIs( Oru::System::currentTime() + 1.5 );
//
// Times are those of System::currentTime(), in seconds. Everything here belongs to the thread that
// runs the activity loop, or to any one thread while no loop runs.

#pragma once

#include <Oru/Export.h>
#include <Oru/Ptr.h>

#include <boost/intrusive/list_hook.hpp>
#include <boost/intrusive/set_hook.hpp>

#include <cstdint>
#include <limits>
#include <memory>

namespace Oru {

class ORU_API Clock : public PtrInterface {
 public:
   // What a notifiee's onAttribute() hears when its deadline has come; the value is the time of the
   // turn, a double, which is the same for all that are called in it.
   static constexpr AttributeId timeAttribute = 258;

   class NotifieeConst;

   ~Clock() override;

 private:
   friend class ActivityManager;
   Clock();

   struct Queues;
   std::unique_ptr<Queues> const queues_;
};

// Hears its clock once for each deadline set.
//
// A deadline is armed while this notifiee has a clock; it is not heard when the notifiee is
// unregistered or switched off at that moment.
class ORU_API Clock::NotifieeConst : public PtrInterface::NotifieeConst {
 public:
   static constexpr double never = std::numeric_limits<double>::infinity();

   ~NotifieeConst() override;

   // The deadline; +infinity while none is set. It is +infinity again when onAttribute() is called.
   double timeMin() const { return timeMin_; }

   // Sets the deadline, in place of the one before; +infinity takes it away. A time in the past is
   // due in the next turn of the loop, never in the one that is under way. Due notifiees are called
   // by time, those of one time in the order in which they registered with the clock.
   //
   // Allocates nothing, and takes time logarithmic in the number of deadlines set.
   //
   // Errors: Quarn::AssertException for NaN, without a change.
   void timeMinIs( double seconds );

 private:
   friend class Clock;
   friend struct Clock::Queues;
   using Unlink = boost::intrusive::link_mode<boost::intrusive::auto_unlink>;
   using ArmedHook = boost::intrusive::set_member_hook<Unlink>;
   using DueHook = boost::intrusive::list_member_hook<Unlink>;

   void _notifierChanged() override;
   void _arm();

   double timeMin_ = never;
   // The clock's, while it is the notifier.
   Queues* queues_ = nullptr;
   std::uint64_t registration_ = 0; // grows from one registration with a clock to the next
   // At most one of the two is linked, and none without a deadline and a clock.
   ArmedHook armedHook_;
   DueHook dueHook_;
};

} // namespace Oru
