#include <Quarn/util/Sensitive.h>

#include <Quarn/base/Exception.h>

#include <Oru/FwkType.h>

#include <charconv>
#include <cstring>
#include <limits>
#include <optional>
#include <ostream>
#include <utility>

namespace Quarn {

namespace {

// Ends the life of a buffer.
struct Wipe {
   unsigned int size;

   void operator()( unsigned char* bytes ) const noexcept {
      Sensitive::memTracker_.freed( size );
      // The compiler drops a plain memset() of what is freed next.
      explicit_bzero( bytes, size );
      delete[] bytes;
   }
};

// A size that must fit into 32 bits.
unsigned int checkedSize( std::uint64_t size ) {
   if( size > std::numeric_limits<unsigned int>::max() ) {
      RuntimeException::throwException(
            fmt::format( "Sensitive: {} bytes are more than 32 bits can count", size ) );
   }
   return static_cast<unsigned int>( size );
}

void copy( unsigned char* to, unsigned char const* from, unsigned int size ) {
   if( size != 0 ) {
      std::memcpy( to, from, size );
   }
}

// Takes `prefix` away from the start of `text`, if it is there.
bool took( std::string_view& text, std::string_view prefix ) {
   if( !text.starts_with( prefix ) ) {
      return false;
   }
   text.remove_prefix( prefix.size() );
   return true;
}

// Takes a number away; none when there is no digit or it is too large.
template<typename Number>
std::optional<Number> tookNumber( std::string_view& text, int base ) {
   Number number;
   const auto [ end, error ] =
         std::from_chars( text.data(), text.data() + text.size(), number, base );
   if( error != std::errc() ) {
      return std::nullopt;
   }
   text.remove_prefix( static_cast<std::size_t>( end - text.data() ) );
   return number;
}

// The size in the text of a value. The address is that of a buffer which may be gone, so it only
// has to be one.
std::optional<unsigned int> sizeOfText( std::string_view text ) {
   if( !took( text, "sensitive(" ) ||
       !tookNumber<std::uint64_t>( text, took( text, "0x" ) ? 16 : 10 ) || !took( text, "," ) ) {
      return std::nullopt;
   }
   const auto size = tookNumber<unsigned int>( text, 10 );
   return text == ")" ? size : std::nullopt;
}

} // namespace

constinit MemTrack Sensitive::memTracker_{ "SensitiveByte", 1 };

std::shared_ptr<unsigned char[]> Sensitive::allocate( unsigned int size ) {
   if( size == 0 ) {
      return {};
   }
   auto* const bytes = new unsigned char[ size ]();
   memTracker_.allocated( size );
   // Hands the bytes to `Wipe` also when there is no memory for the reference count.
   return std::shared_ptr<unsigned char[]>( bytes, Wipe{ size } );
}

Sensitive::Sensitive( unsigned int size ) : size_( size ), data_( allocate( size ) ) {}

Sensitive::Sensitive( unsigned char const* data, unsigned int size ) : Sensitive( size ) {
   copy( data_.get(), data, size );
}

Sensitive::Sensitive( unsigned char const* a, unsigned int aSize, unsigned char const* b,
                      unsigned int bSize )
      : Sensitive( checkedSize( std::uint64_t{ aSize } + bSize ) ) {
   copy( data_.get(), a, aSize );
   copy( data_.get() + aSize, b, bSize );
}

Sensitive::Sensitive( Sensitive&& other ) noexcept
      : size_( std::exchange( other.size_, 0 ) ),
        data_( std::move( other.data_ ) ) {}

Sensitive& Sensitive::operator=( Sensitive&& other ) noexcept {
   Sensitive taken( std::move( other ) );
   std::swap( size_, taken.size_ );
   data_.swap( taken.data_ );
   return *this;
}

Oru::FwkType const& Sensitive::fwkType() {
   static Oru::FwkType const& type =
         Oru::FwkTypeOf<Sensitive>( "Sensitive" )
               .read<std::uint32_t>( "size", &Sensitive::size )
               .text( &valueToStrep,
                      []( const String& text ) {
                         const auto size = sizeOfText( text );
                         return size ? std::optional( Sensitive( *size ) ) : std::nullopt;
                      } )
               .made();
   return type;
}

std::ostream& operator<<( std::ostream& out, const Sensitive& value ) {
   return out << valueToStrep( value );
}

String valueToStrep( const Sensitive& value ) { return fmt::format( "{}", value ); }

void sequenceToValue( std::string_view text, Sensitive& value ) {
   Sensitive::fwkType().textIs( &value, text );
}

unsigned int attrLogSize( const Sensitive& value ) {
   return checkedSize( std::uint64_t{ value.size() } + sizeof( std::uint32_t ) );
}

bool attrLogSerialize( Oru::NboAttrLog::Out& out, const Sensitive& value ) {
   if( !out.sizeIsValid( attrLogSize( value ) ) ) {
      return false;
   }
   out.u32( value.size() );
   out.bytes( value.data(), value.size() );
   return true;
}

void attrLogDeserialize( Oru::NboAttrLog::In& in, Sensitive& value ) {
   const std::uint32_t size = in.u32();
   // The size is the writer's word, so it allocates nothing before it is checked.
   in.validateSize( size );
   Sensitive read( size );
   in.bytes( read.data_.get(), size );
   value = std::move( read );
}

} // namespace Quarn
