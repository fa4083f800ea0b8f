#include <OruQuarn/SystemStatusSm.h>

#include <Quarn/base/ThreadControl.h>

#include "debug/Handlers.h"
#include "framework/Modules.h"

namespace OruQuarn {

namespace {

constexpr char sourceFile[] = "SystemStatusSm";

Oru::FwkType const& systemStatusSmType() {
   static Oru::FwkType const& type = Oru::FwkTypeOf<SystemStatusSm>( "SystemStatusSm" ).made();
   return type;
}

} // namespace

SystemStatusSm::SystemStatusSm( const Oru::Ptr<Oru::SystemStatus const>& status ) {
   if( !status ) {
      QUARN_DIE( "SystemStatusSm", "SystemStatusSm", "status is null" );
   }
   notifiee_ = new OruSystemStatus( *this );
   notifiee_->notifierIs( status );
   notifiee_->isRegisteredNotifieeIs( true );
   notifiee_->hasNotificationActiveIs( true );
   notifiee_->handleThreadSafePointers();
}

SystemStatusSm::~SystemStatusSm() { notifiee_->owner_ = nullptr; }

void SystemStatusSm::hasNotificationActiveIs( bool on ) {
   if( on == hasNotificationActive() ) {
      return;
   }
   PtrInterface::hasNotificationActiveIs( on );
   notifiee_->hasNotificationActiveIs( on );
}

Oru::FwkType const* SystemStatusSm::fwkType() const { return &systemStatusSmType(); }

void SystemStatusSm::oruDoZombieReactors( bool on ) { PtrInterface::oruDoZombieReactors( on ); }

// --------------------------------------------------------------------------------- the notifiee

SystemStatusSm::OruSystemStatus::~OruSystemStatus() = default;

void SystemStatusSm::OruSystemStatus::onAttribute( Oru::AttributeId id, void const* ) {
   if( id == Oru::SystemStatus::threadSafePointersAttribute && !markedForDeletion() && owner_ ) {
      handleThreadSafePointers();
   }
}

void SystemStatusSm::OruSystemStatus::handleThreadSafePointers() {
   const auto* const status = static_cast<Oru::SystemStatus const*>( notifier().get() );
   Quarn::ThreadControl::threadSafePointerIs( status->threadSafePointers() );
}

void SystemStatusSm::OruSystemStatus::oruDoZombieReactors( bool on ) {
   NotifieeConst::oruDoZombieReactors( on );
}

Oru::Ptr<SystemStatusSm> SystemStatusSmIs( const Oru::Ptr<Oru::SystemStatus const>& status ) {
   Oru::Ptr<SystemStatusSm> sm = new SystemStatusSm( status );
   sm->hasNotificationActiveIs( true );
   return sm;
}

Oru::Module systemStatusSmModule() { return { "SystemStatusSm", { &systemStatusSmType() } }; }

} // namespace OruQuarn
