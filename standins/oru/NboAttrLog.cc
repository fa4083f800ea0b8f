#include <Oru/NboAttrLog.h>

#include <Quarn/base/Exception.h>
#include <Quarn/base/String.h>

#include <algorithm>
#include <cstring>

namespace Oru {

NboAttrLog::Out::~Out() {
   if( log_.writer_ == this ) {
      log_.bytes_.erase_end( log_.unfinished_ );
      log_.unfinished_ = 0;
      log_.missing_ = 0;
      log_.writer_ = nullptr;
   }
}

bool NboAttrLog::Out::sizeIsValid( std::uint64_t size ) {
   if( log_.writer_ ) {
      if( log_.writer_ != this || size > log_.missing_ ) {
         Quarn::AssertException::throwException( fmt::format(
               "attribute log: {} bytes validated inside of {} record with {} bytes left", size,
               log_.writer_ == this ? "a" : "another writer's", log_.missing_ ) );
      }
      return true;
   }
   if( log_.dropping_ ) {
      log_.droppedBytes_ += size;
      return false;
   }
   if( size > log_.room() ) {
      log_.full_ = true;
      return false;
   }
   if( size != 0 ) {
      log_.writer_ = this;
      log_.missing_ = static_cast<std::size_t>( size );
   }
   return true;
}

void NboAttrLog::Out::u32( std::uint32_t value ) {
   unsigned char const ordered[ 4 ] = {
         static_cast<unsigned char>( value >> 24 ), static_cast<unsigned char>( value >> 16 ),
         static_cast<unsigned char>( value >> 8 ), static_cast<unsigned char>( value ) };
   bytes( ordered, sizeof( ordered ) );
}

void NboAttrLog::Out::bytes( void const* data, std::size_t size ) {
   if( size == 0 ) {
      return;
   }
   std::size_t const left = log_.writer_ == this ? log_.missing_ : 0;
   if( size > left ) {
      Quarn::AssertException::throwException( fmt::format(
            "attribute log: {} bytes written to a record with {} bytes left", size, left ) );
   }
   auto const* const from = static_cast<unsigned char const*>( data );
   log_.bytes_.insert( log_.bytes_.end(), from, from + size );
   log_.unfinished_ += size;
   log_.missing_ -= size;
   if( log_.missing_ == 0 ) {
      log_.unfinished_ = 0;
      log_.writer_ = nullptr;
   }
}

void NboAttrLog::In::validateSize( std::uint64_t size ) const {
   if( size > bytesLeft() ) {
      Quarn::RuntimeException::throwException(
            fmt::format( "attribute log: {} bytes asked for, {} left", size, bytesLeft() ) );
   }
}

std::uint32_t NboAttrLog::In::u32() {
   unsigned char ordered[ 4 ];
   bytes( ordered, sizeof( ordered ) );
   return std::uint32_t{ ordered[ 0 ] } << 24 | std::uint32_t{ ordered[ 1 ] } << 16 |
          std::uint32_t{ ordered[ 2 ] } << 8 | std::uint32_t{ ordered[ 3 ] };
}

void NboAttrLog::In::bytes( void* data, std::size_t size ) {
   validateSize( size );
   if( size == 0 ) {
      return;
   }
   // The ring lies in one piece of memory or in two.
   auto const [ first, firstSize ] = log_.bytes_.array_one();
   std::size_t const ofFirst = std::min( size, firstSize );
   std::memcpy( data, first, ofFirst );
   if( size > ofFirst ) {
      std::memcpy( static_cast<unsigned char*>( data ) + ofFirst, log_.bytes_.array_two().first,
                   size - ofFirst );
   }
   log_.bytes_.erase_begin( size );
   log_.full_ = false;
}

} // namespace Oru
