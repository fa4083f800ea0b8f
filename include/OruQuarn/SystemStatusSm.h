// Keeps the base library's thread-safe-pointer mode equal to the framework's system status.

#pragma once

#include <Quarn/Export.h>

#include <Oru/Allocator.h>
#include <Oru/Ptr.h>
#include <Oru/SystemStatus.h>

namespace OruQuarn {

// While one lives, and its notifications are active, each change of the status's flag
// `threadSafePointers` goes to `Quarn::ThreadControl::threadSafePointerIs`, which tells the
// framework's pointers. The library makes one for the status of the process when it is loaded and
// keeps it to the end:
//
//     Oru::Entity::singletonIs<Oru::System>()->status()->threadSafePointersIs( false );
//
// Ownership: holds the status.
// Thread:    that of the status; the flag changes while one thread uses the libraries.
class ORUQUARN_API SystemStatusSm final : public Oru::PtrInterface,
                                          public Oru::Allocated<SystemStatusSm> {
 public:
   // Applies the flag as it is. Changes of it are heard already.
   //
   // Errors: a null status is traced at level 0 and ends the process.
   explicit SystemStatusSm( const Oru::Ptr<Oru::SystemStatus const>& status );
   ~SystemStatusSm() override;

   // Switches this and its notifiee; what changes while they are off is not applied later.
   void hasNotificationActiveIs( bool on ) override;

   // The type "SystemStatusSm" of the module of that name.
   Oru::FwkType const* fwkType() const override;

   void oruDoZombieReactors( bool on ) override;

 private:
   class OruSystemStatus;

   Oru::Ptr<OruSystemStatus> notifiee_;
};

// Hears the status. Knows its owner until that is destroyed.
class SystemStatusSm::OruSystemStatus final : public Oru::PtrInterface::NotifieeConst,
                                              public Oru::Allocated<OruSystemStatus> {
 public:
   explicit OruSystemStatus( SystemStatusSm& owner ) : owner_( &owner ) {}
   ~OruSystemStatus() override;

   void onAttribute( Oru::AttributeId id, void const* value ) override;
   void oruDoZombieReactors( bool on ) override;

   void handleThreadSafePointers();

 private:
   friend class SystemStatusSm;

   SystemStatusSm* owner_;
};

// A SystemStatusSm for that status, with its notifications active.
ORUQUARN_API Oru::Ptr<SystemStatusSm>
SystemStatusSmIs( const Oru::Ptr<Oru::SystemStatus const>& status );

} // namespace OruQuarn
