// An immutable text value of sixteen bytes that is cheap to copy.
//
// Up to fifteen bytes live inside the object; a longer text is shared by all copies through a
// counted block on the heap. Copies of either form neither allocate nor throw. Assignment and `+=`
// give the variable another value; the text behind other copies never changes.
//
// Names that occur many times are worth deduping: deduped() returns the one copy that the process
// keeps of a long text, so that equal names share storage and compare by address first. The pool
// does not hold a reference: the last user of a pooled text frees it.
//
// Bytes are taken as they are: NUL bytes inside the text are kept, and order and hash are those of
// std::string_view. Unless a function says otherwise, allocation can fail with std::bad_alloc, and
// a text that cannot be addressed throws std::length_error.
//
// Thread: different objects may be used by different threads at the same time, also when they share
//         a block; one object follows the rules of a plain variable. Sharing across threads needs
//         the thread-safe-pointer mode, which is on by default.
//
//     Quarn::String name = Quarn::String( "interface/" ) + port;
//     names.insert( name.deduped() );
//     fmt::print( "{:>20}", name );

#pragma once

#include <Quarn/base/Export.h>
#include <Quarn/base/RefCount.h>

#include <atomic>
#include <compare>
#include <concepts>
#include <cstddef>
#include <cstring>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

// GCC 12 at -O3 takes the bounded copy of a fill character in {fmt} 9 for an overflow; the warning
// is told by the line in that header, so this holds when it is included here first.
#if defined( __GNUC__ ) && !defined( __clang__ )
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wstringop-overflow"
#include <fmt/format.h>
#pragma GCC diagnostic pop
#else
#include <fmt/format.h>
#endif

namespace Quarn {

class String;

namespace Impl {

// The shared part of a long string; `size` characters and a NUL follow it in the same allocation.
struct StringBlock {
   explicit StringBlock( std::size_t length ) noexcept : count( 1 ), size( length ) {}

   char const* characters() const noexcept { return reinterpret_cast<char const*>( this + 1 ); }

   RefCount count;
   // Whether the pool knows this block. Set once, under the lock of the block's shard, by a thread
   // that holds a reference; whoever sees the count at 1 therefore sees the final value.
   std::atomic<bool> pooled{ false };
   std::size_t const size;
   // Hash of the text, 0 until someone asks for it.
   std::atomic<std::size_t> hash{ 0 };
};

// What can be joined to or compared with a String without becoming one first.
template<class T>
concept StringArgument =
      !std::is_base_of_v<String, T> && std::is_convertible_v<T const&, std::string_view>;

// The characters of such an argument; a null pointer counts as the empty text.
template<StringArgument T>
std::string_view viewOf( T const& text ) {
   if constexpr( std::is_convertible_v<T const&, char const*> ) {
      char const* const characters = text;
      return characters ? std::string_view( characters ) : std::string_view();
   } else {
      return text;
   }
}

// Number of texts in the pool of deduped strings, of the whole process.
QUARN_BASE_API std::size_t stringPoolSizeForTest();

} // namespace Impl

class QUARN_BASE_API String {
 public:
   using value_type = char;
   using size_type = std::size_t;
   // There is no `iterator` beside it: test frameworks take a class with both for a list of values.
   using const_iterator = char const*;

   // "No position" of the find functions, and "all the rest" of substr().
   static constexpr std::size_t npos = std::string_view::npos;

   // The empty text; a constant expression, so it needs no initialiser at load time.
   constexpr String() noexcept = default;

   // Copies a NUL-terminated text; null gives the empty one.
   String( char const* text ) : String( text, text ? std::strlen( text ) : 0 ) {}

   // Copies `size` bytes, NUL bytes included; `text` may be null when `size` is 0.
   String( char const* text, std::size_t size ) {
      if( size <= inPlaceMax ) {
         if( size != 0 ) {
            std::memcpy( bytes_, text, size );
         }
         bytes_[ inPlaceMax ] = static_cast<char>( inPlaceMax - size );
      } else {
         _blockIs( _newBlock( { text, size }, {} ) );
      }
   }

   String( std::string_view text ) : String( text.data(), text.size() ) {}
   String( std::string const& text ) : String( text.data(), text.size() ) {}

   // Never allocates: sixteen bytes, and an increment when the text is on the heap.
   String( String const& other ) noexcept {
      std::memcpy( bytes_, other.bytes_, sizeof( bytes_ ) );
      if( !isInPlace() ) {
         _block()->count.increment();
      }
   }

   // Leaves `other` empty.
   String( String&& other ) noexcept {
      std::memcpy( bytes_, other.bytes_, sizeof( bytes_ ) );
      other._emptyIs();
   }

   // Touches no count when both already share a block, as a string does with itself.
   String& operator=( String const& other ) noexcept {
      if( other.isInPlace() ) {
         if( this != &other ) {
            _replace( other );
         }
      } else if( isInPlace() || _block() != other._block() ) {
         other._block()->count.increment();
         _replace( other );
      }
      return *this;
   }

   // Leaves `other` empty, except that moving a string onto itself keeps it.
   String& operator=( String&& other ) noexcept {
      String taken( std::move( other ) );
      _swap( taken );
      return *this;
   }

   ~String() { _release(); }

   // The characters, followed by a NUL. Valid until this object changes or dies; the in-place form
   // moves with the object, so the pointer of a temporary dies with the temporary.
   char const* data() const noexcept { return isInPlace() ? bytes_ : _block()->characters(); }
   // The same as data().
   char const* c_str() const noexcept { return data(); }

   // Number of bytes, without the final NUL.
   std::size_t size() const noexcept {
      return isInPlace() ? inPlaceMax - static_cast<unsigned char>( bytes_[ inPlaceMax ] )
                         : _block()->size;
   }
   // The same as size().
   std::size_t length() const noexcept { return size(); }

   // Whether size() is 0.
   bool empty() const noexcept { return bytes_[ inPlaceMax ] == static_cast<char>( inPlaceMax ); }

   // The byte at `index`; at size() the final NUL. Not checked.
   char const& operator[]( std::size_t index ) const noexcept { return data()[ index ]; }

   // The bytes as a range. Valid as long as data().
   char const* begin() const noexcept { return data(); }
   char const* end() const noexcept { return data() + size(); }

   // A view of the characters. Valid as long as data().
   operator std::string_view() const noexcept { return { data(), size() }; }

   // A copy as a standard string.
   std::string stdString() const { return std::string( data(), size() ); }

   // Whether the text lives inside the object; so it does whenever it fits.
   bool isInPlace() const noexcept {
      return static_cast<unsigned char>( bytes_[ inPlaceMax ] ) <= inPlaceMax;
   }

   // Whether deduped() would return this very storage: the text is in place or is the pooled one.
   // Deduping one of several copies makes all of them deduped when the pool had no such text.
   bool isDeduped() const noexcept {
      return isInPlace() || _block()->pooled.load( std::memory_order_relaxed );
   }

   // The form that all deduped strings of this text share. An in-place string returns itself.
   //
   // Cost:   a copy when isDeduped(); otherwise a look-up under one lock of sixteen.
   // Thread: any, also in static constructors and destructors, and in a forked child.
   // Errors: std::bad_alloc, with nothing changed.
   String deduped() const { return isDeduped() ? *this : _pooled(); }

   // The text with the letters A to Z in lower case, whatever the locale. Shares the block of this
   // string when there is nothing to change.
   String toLower() const;

   // The part of at most `n` bytes that starts at `pos`.
   //
   // Errors: std::out_of_range when `pos` is beyond size(); at size() the result is empty.
   String substr( std::size_t pos, std::size_t n = npos ) const;

   // First position at or after `pos` where `text` starts, npos if there is none. The empty text is
   // found at every position up to size().
   std::size_t find( std::string_view text, std::size_t pos = 0 ) const noexcept {
      return std::string_view( *this ).find( text, pos );
   }
   // First position of the byte `c` at or after `pos`, npos if there is none.
   std::size_t find( char c, std::size_t pos = 0 ) const noexcept {
      return std::string_view( *this ).find( c, pos );
   }
   // Last position of the byte `c` at or before `pos`, npos if there is none.
   std::size_t rfind( char c, std::size_t pos = npos ) const noexcept {
      return std::string_view( *this ).rfind( c, pos );
   }

   // Makes this the text followed by `tail`, which may point into this very string. Every call
   // copies the whole of a long text; build long texts in a buffer.
   //
   // Errors: std::bad_alloc or std::length_error, with nothing changed.
   String& operator+=( std::string_view tail ) {
      *this = _joined( *this, tail );
      return *this;
   }

   // Joins two texts with one allocation at most.
   friend String operator+( String const& a, String const& b ) { return _joined( a, b ); }
   template<Impl::StringArgument T>
   friend String operator+( String const& a, T const& b ) {
      return _joined( a, Impl::viewOf( b ) );
   }
   template<Impl::StringArgument T>
   friend String operator+( T const& a, String const& b ) {
      return _joined( Impl::viewOf( a ), b );
   }

   // Equal bytes. Strings in place or deduped compare without a look at the heap.
   friend bool operator==( String const& a, String const& b ) noexcept {
      // Unused bytes are zero in both forms, so equal objects are equal texts; and since a text is
      // in place whenever it fits, different objects differ as soon as one of them is in place.
      if( std::memcmp( a.bytes_, b.bytes_, sizeof( bytes_ ) ) == 0 ) {
         return true;
      }
      return !a.isInPlace() && !b.isInPlace() && _blocksEqual( *a._block(), *b._block() );
   }
   template<Impl::StringArgument T>
   friend bool operator==( String const& a, T const& b ) {
      return std::string_view( a ) == Impl::viewOf( b );
   }

   // Order of the bytes as unsigned numbers, a prefix first.
   friend std::strong_ordering operator<=>( String const& a, String const& b ) noexcept {
      return std::string_view( a ) <=> std::string_view( b );
   }
   template<Impl::StringArgument T>
   friend std::strong_ordering operator<=>( String const& a, T const& b ) {
      return std::string_view( a ) <=> Impl::viewOf( b );
   }

   // Writes the text like a std::string: within the stream's width and fill, and resets the width.
   friend QUARN_BASE_API std::ostream& operator<<( std::ostream& stream, String const& text );

   // The hash of the text, equal to std::hash of its view. Computed once for each block.
   std::size_t hash() const noexcept {
      return isInPlace() ? std::hash<std::string_view>()( *this ) : _blockHash( *_block() );
   }

 private:
   // Most bytes that fit in place.
   static constexpr std::size_t inPlaceMax = 15;
   // Last byte of an object whose text is on the heap; in place it is at most `inPlaceMax`.
   static constexpr char onHeap = static_cast<char>( 0x80 );

   static Impl::StringBlock* _newBlock( std::string_view head, std::string_view tail );
   static void _releaseLast( Impl::StringBlock* block ) noexcept;
   static bool _blocksEqual( Impl::StringBlock const& a, Impl::StringBlock const& b ) noexcept;
   static std::size_t _blockHash( Impl::StringBlock& block ) noexcept;
   static String _joined( std::string_view a, std::string_view b );
   String _pooled() const;

   Impl::StringBlock* _block() const noexcept {
      void* block;
      std::memcpy( &block, bytes_, sizeof( block ) );
      return static_cast<Impl::StringBlock*>( block );
   }

   // For an object whose bytes are still those of the empty text.
   void _blockIs( void* block ) noexcept {
      std::memcpy( bytes_, &block, sizeof( block ) );
      bytes_[ inPlaceMax ] = onHeap;
   }

   void _emptyIs() noexcept {
      std::memset( bytes_, 0, sizeof( bytes_ ) );
      bytes_[ inPlaceMax ] = static_cast<char>( inPlaceMax );
   }

   void _swap( String& other ) noexcept {
      char mine[ sizeof( bytes_ ) ];
      std::memcpy( mine, bytes_, sizeof( bytes_ ) );
      std::memcpy( bytes_, other.bytes_, sizeof( bytes_ ) );
      std::memcpy( other.bytes_, mine, sizeof( bytes_ ) );
   }

   // Takes the bytes of `other`, another object, whose reference the caller has counted.
   void _replace( String const& other ) noexcept {
      _release();
      std::memcpy( bytes_, other.bytes_, sizeof( bytes_ ) );
   }

   void _release() noexcept {
      if( !isInPlace() && !_block()->count.decrementUnlessLast() ) {
         _releaseLast( _block() );
      }
   }

   // In place: the text, zeros, and 15 - size in the last byte, which is the terminator of a text
   // of fifteen. On the heap: the address of the block, zeros, and `onHeap` in the last byte.
   alignas( Impl::StringBlock* ) char bytes_[ inPlaceMax + 1 ] = {
         0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, inPlaceMax };
};

static_assert( sizeof( String ) == 16 );
static_assert( std::is_nothrow_copy_constructible_v<String> );
static_assert( std::is_nothrow_copy_assignable_v<String> );
static_assert( std::is_nothrow_move_constructible_v<String> );
static_assert( std::is_nothrow_move_assignable_v<String> );

} // namespace Quarn

// Formats like std::string_view: `{:s}`, width, precision, fill and alignment.
template<>
struct fmt::formatter<Quarn::String> : fmt::formatter<std::string_view> {
   template<class Context>
   auto format( Quarn::String const& text, Context& context ) const {
      return fmt::formatter<std::string_view>::format( std::string_view( text ), context );
   }
};

// Equal to the hash of the view, so a look-up by view finds an entry made with a String.
template<>
struct std::hash<Quarn::String> {
   std::size_t operator()( Quarn::String const& text ) const noexcept { return text.hash(); }
};
