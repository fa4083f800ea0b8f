#include <Quarn/base/String.h>

#include "StringPool.h"

#include <cstdint>
#include <limits>
#include <new>
#include <ostream>
#include <stdexcept>

namespace Quarn {

namespace {

// What the standard library takes for the most that one object can hold, less the block's head
// and the final NUL.
constexpr std::size_t maxSize =
      std::numeric_limits<std::ptrdiff_t>::max() - sizeof( Impl::StringBlock ) - 1;

bool isUpper( char c ) { return c >= 'A' && c <= 'Z'; }

char lower( char c ) { return isUpper( c ) ? static_cast<char>( c - 'A' + 'a' ) : c; }

void copyBytes( char* to, std::string_view from ) {
   // An empty view may have a null pointer, which memcpy() must not see.
   if( !from.empty() ) {
      std::memcpy( to, from.data(), from.size() );
   }
}

} // namespace

Impl::StringBlock* String::_newBlock( std::string_view head, std::string_view tail ) {
   if( head.size() > maxSize || tail.size() > maxSize - head.size() ) {
      throw std::length_error( "Quarn::String is too long" );
   }
   std::size_t const size = head.size() + tail.size();
   void* const storage = ::operator new( sizeof( Impl::StringBlock ) + size + 1 );
   char* const text = static_cast<char*>( storage ) + sizeof( Impl::StringBlock );
   copyBytes( text, head );
   copyBytes( text + head.size(), tail );
   text[ size ] = '\0';
   return ::new( storage ) Impl::StringBlock( size );
}

void String::_releaseLast( Impl::StringBlock* block ) noexcept {
   // The count was seen at 1, so nobody else can copy this string: only the pool can still find a
   // pooled one.
   if( block->pooled.load( std::memory_order_relaxed ) &&
       !Impl::StringPool::instance().dropLast( block ) ) {
      return;
   }
   block->~StringBlock();
   ::operator delete( block );
}

bool String::_blocksEqual( Impl::StringBlock const& a, Impl::StringBlock const& b ) noexcept {
   // Two pooled blocks that live at the same time never have the same text.
   if( a.size != b.size || ( a.pooled.load( std::memory_order_relaxed ) &&
                             b.pooled.load( std::memory_order_relaxed ) ) ) {
      return false;
   }
   return std::memcmp( a.characters(), b.characters(), a.size ) == 0;
}

std::size_t String::_blockHash( Impl::StringBlock& block ) noexcept {
   std::size_t hash = block.hash.load( std::memory_order_relaxed );
   if( hash == 0 ) {
      // Threads that get here together store the same value; a text whose hash is 0 pays each time.
      hash = std::hash<std::string_view>()( { block.characters(), block.size } );
      block.hash.store( hash, std::memory_order_relaxed );
   }
   return hash;
}

String String::_joined( std::string_view a, std::string_view b ) {
   String joined;
   if( a.size() <= inPlaceMax && b.size() <= inPlaceMax - a.size() ) {
      copyBytes( joined.bytes_, a );
      copyBytes( joined.bytes_ + a.size(), b );
      joined.bytes_[ inPlaceMax ] = static_cast<char>( inPlaceMax - a.size() - b.size() );
   } else {
      joined._blockIs( _newBlock( a, b ) );
   }
   return joined;
}

String String::_pooled() const {
   String pooled;
   pooled._blockIs( Impl::StringPool::instance().pooled( _block(), hash() ) );
   return pooled;
}

String String::toLower() const {
   std::size_t const length = size();
   char const* const text = data();
   std::size_t first = 0;
   while( first < length && !isUpper( text[ first ] ) ) {
      ++first;
   }
   if( first == length ) {
      return *this;
   }
   // The result is written before anyone else can see it, its hash included.
   String result( text, length );
   char* const to =
         result.isInPlace() ? result.bytes_ : reinterpret_cast<char*>( result._block() + 1 );
   for( std::size_t i = first; i < length; ++i ) {
      to[ i ] = lower( to[ i ] );
   }
   return result;
}

String String::substr( std::size_t pos, std::size_t n ) const {
   std::string_view const part = std::string_view( *this ).substr( pos, n );
   return part.size() == size() ? *this : String( part );
}

std::ostream& operator<<( std::ostream& stream, String const& text ) {
   return stream << std::string_view( text );
}

} // namespace Quarn
