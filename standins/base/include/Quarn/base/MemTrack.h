// Counts of the memory that each kind of object takes, for the reports of a running process.
//
// A tracker counts units (objects, as a rule) of one kind. It has static storage duration, is ready
// before any constructor runs, and links itself into a process-wide list when something is first
// allocated; it is never unlinked. The allocator below keeps a tracker for containers and
// std::allocate_shared:
//
//     auto task = std::allocate_shared<Task>( Quarn::Allocator<Task>(), name );
//     Quarn::MemTrack::of<Task>().inUse();   // 1
//
// Thread: any. Counters are relaxed, so a reader sees each of them at some recent moment.

#pragma once

#include <Quarn/base/Export.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>
#include <type_traits>

namespace Quarn {

struct QUARN_BASE_API MemTrack {
   // A tracker of units of `unitSize` bytes. `unitName` is not copied and must live as long as the
   // process.
   constexpr MemTrack( char const* unitName, std::size_t unitSize ) noexcept
         : unitName_( unitName ),
           unitSize_( unitSize ) {}

   MemTrack( MemTrack const& ) = delete;
   MemTrack& operator=( MemTrack const& ) = delete;

   // Counts `units` as allocated. The first call makes the tracker visible to forEach().
   void allocated( std::size_t units ) noexcept {
      total_.fetch_add( units, std::memory_order_relaxed );
      if( !linked_.load( std::memory_order_relaxed ) ) {
         _link();
      }
   }

   // Counts `units`, allocated before, as given back.
   void freed( std::size_t units ) noexcept {
      freed_.fetch_add( units, std::memory_order_relaxed );
   }

   // Units allocated and not yet given back; never below 0, also while other threads count.
   std::uint64_t inUse() const noexcept {
      std::uint64_t const freedUnits = freed_.load( std::memory_order_relaxed );
      std::uint64_t const totalUnits = total_.load( std::memory_order_relaxed );
      return totalUnits > freedUnits ? totalUnits - freedUnits : 0;
   }

   // Units allocated since the start of the process.
   std::uint64_t total() const noexcept { return total_.load( std::memory_order_relaxed ); }

   // What a unit is called, and its size in bytes, as given to the constructor.
   char const* unitName() const noexcept { return unitName_; }
   std::size_t unitSize() const noexcept { return unitSize_; }

   // Calls `visit` for each tracker that has counted an allocation, the latest to start first.
   // `visit` may allocate and may use trackers; one that starts meanwhile is not visited.
   static void forEach( std::function<void( MemTrack const& )> visit );

   // The tracker of type `T`, named after it. There is one in the process, or one in each library
   // that uses it when the visibility of `T` is hidden.
   template<class T>
   static MemTrack& of() noexcept;

 private:
   void _link() noexcept;

   char const* const unitName_;
   std::size_t const unitSize_;
   std::atomic<std::uint64_t> total_{ 0 };
   std::atomic<std::uint64_t> freed_{ 0 };
   std::atomic<bool> linked_{ false };
   // Set once, before the tracker is published in the list.
   MemTrack* next_ = nullptr;
};

namespace Impl {

// The text that names `T` in the compiler's description of this function: "... [with T = Name]".
template<class T>
constexpr auto prettyTypeName() noexcept {
   constexpr std::string_view text = __PRETTY_FUNCTION__;
   constexpr std::string_view mark = "T = ";
   constexpr std::size_t start = text.find( mark ) + mark.size();
   constexpr std::size_t size = text.rfind( ']' ) - start;
   std::array<char, size + 1> name{};
   for( std::size_t i = 0; i < size; ++i ) {
      name[ i ] = text[ start + i ];
   }
   return name;
}

template<class T>
inline constexpr auto typeName = prettyTypeName<T>();

// Constant initialisation: the tracker counts allocations of static constructors as well.
template<class T>
QUARN_BASE_API inline constinit MemTrack typeTracker{ typeName<T>.data(), sizeof( T ) };

} // namespace Impl

template<class T>
MemTrack& MemTrack::of() noexcept {
   return Impl::typeTracker<T>;
}

// A stateless standard allocator that counts what it hands out with the tracker of `Unit`.
//
// Rebinding keeps `Unit`, so a container that is given Allocator<Task> counts its nodes as tasks.
// A unit is counted for each object of an allocation. Arrays of pointers that a container keeps
// beside its elements (the buckets of a hash table) are not units and are left out.
//
// Errors: std::bad_array_new_length when the size overflows, std::bad_alloc; neither is counted.
template<class T, class Unit = T>
struct Allocator {
   using value_type = T;
   using is_always_equal = std::true_type;
   using propagate_on_container_move_assignment = std::true_type;

   template<class U>
   struct rebind {
      using other = Allocator<U, Unit>;
   };

   constexpr Allocator() noexcept = default;
   template<class U>
   constexpr Allocator( Allocator<U, Unit> const& ) noexcept {}

   // Storage for `n` objects, aligned for `T` also when `T` asks for more than usual.
   [[nodiscard]] T* allocate( std::size_t n ) {
      T* const storage = std::allocator<T>().allocate( n );
      if constexpr( countsUnits ) {
         MemTrack::of<Unit>().allocated( n );
      }
      return storage;
   }

   // Gives back what allocate( n ) returned.
   void deallocate( T* storage, std::size_t n ) noexcept {
      if constexpr( countsUnits ) {
         MemTrack::of<Unit>().freed( n );
      }
      std::allocator<T>().deallocate( storage, n );
   }

 private:
   static constexpr bool countsUnits = std::is_same_v<T, Unit> || !std::is_pointer_v<T>;
};

// Any two can free what the other allocated.
template<class T, class U, class Unit>
constexpr bool operator==( Allocator<T, Unit> const&, Allocator<U, Unit> const& ) noexcept {
   return true;
}

} // namespace Quarn
