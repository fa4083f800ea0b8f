#include <Oru/Entity.h>

#include <Quarn/base/Exception.h>

#include <mutex>
#include <new>
#include <typeindex>
#include <unordered_map>

#include <pthread.h>

namespace Oru {

namespace {

struct Slot {
   Ptr<PtrInterface> object;
   bool beingMade = false;
};

struct Table {
   // Recursive: a singleton's constructor may ask for another one.
   std::recursive_mutex mutex;
   // References to slots stay valid while the constructors in between add others.
   std::unordered_map<std::type_index, Slot> slots;
};

// Never destroyed, as threads and destructors of statics may come late.
Table& table() {
   static Table& theTable = []() -> Table& {
      // A child that is forked while another thread holds the mutex has it free. It is made anew
      // there, since its holder goes by another number, for which the unlock does nothing but tell
      // a thread checker.
      pthread_atfork( [] { table().mutex.lock(); }, [] { table().mutex.unlock(); },
                      [] {
                         table().mutex.unlock();
                         new( &table().mutex ) std::recursive_mutex;
                      } );
      return *new Table;
   }();
   return theTable;
}

// Marks a slot while its object is made, also when the constructor throws.
class Making {
 public:
   explicit Making( Slot& slot ) : slot_( slot ) { slot_.beingMade = true; }
   ~Making() { slot_.beingMade = false; }
   Making( Making const& ) = delete;
   Making& operator=( Making const& ) = delete;

 private:
   Slot& slot_;
};

} // namespace

PtrInterface* Entity::_singletonExists( std::type_info const& type ) {
   std::lock_guard const guard( table().mutex );
   auto const found = table().slots.find( type );
   return found == table().slots.end() ? nullptr : found->second.object.get();
}

PtrInterface* Entity::_singletonIs( std::type_info const& type, PtrInterface* ( *make )() ) {
   std::lock_guard const guard( table().mutex );
   Slot& slot = table().slots[ type ];
   if( !slot.object ) {
      if( slot.beingMade ) {
         Quarn::AssertException::throwException(
               Quarn::String( "singleton asks for itself while it is made: " ) + type.name() );
      }
      Making const making( slot );
      slot.object = make();
   }
   return slot.object.get();
}

} // namespace Oru
