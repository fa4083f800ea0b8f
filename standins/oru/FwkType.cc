#include <Oru/FwkType.h>

#include <Quarn/base/Exception.h>

#include <algorithm>
#include <array>

namespace Oru {

namespace {

constexpr std::array<std::string_view, 3> kindNames{ "read", "write", "action" };
constexpr std::array<std::string_view, 4> valueNames{ "bool", "u32", "string", "none" };

static_assert( std::variant_size_v<AttributeValue> + 1 == valueNames.size() );

} // namespace

FwkType::Attribute const* FwkType::attribute( std::string_view name ) const {
   auto const found =
         std::find_if( attributes_.begin(), attributes_.end(),
                       [ name ]( Attribute const& each ) { return each.name_ == name; } );
   return found == attributes_.end() ? nullptr : &*found;
}

AttributeValue FwkType::read( void const* object, std::string_view attribute ) const {
   Attribute const& found = _attribute( attribute, AttributeKind::read );
   _checkObject( object );
   return std::get<Attribute::Read>( found.operation_ )( object );
}

AttributeValue FwkType::read( PtrInterface const* object, std::string_view attribute ) const {
   return read( _address( object ), attribute );
}

void FwkType::write( void* object, std::string_view attribute, AttributeValue const& value ) const {
   Attribute const& found = _attribute( attribute, AttributeKind::write );
   if( static_cast<std::size_t>( found.valueKind_ ) != value.index() ) {
      _fail( fmt::format( "attribute \"{}\" takes {}, not {}", attribute,
                          valueNames[ static_cast<std::size_t>( found.valueKind_ ) ],
                          valueNames[ std::min( value.index(), valueNames.size() - 1 ) ] ) );
   }
   _checkObject( object );
   std::get<Attribute::Write>( found.operation_ )( object, value );
}

// The caller's object is not const, so its address may lose the const it got on the way.
void FwkType::write( PtrInterface* object, std::string_view attribute,
                     AttributeValue const& value ) const {
   write( const_cast<void*>( _address( object ) ), attribute, value );
}

void FwkType::action( void* object, std::string_view attribute ) const {
   Attribute const& found = _attribute( attribute, AttributeKind::action );
   _checkObject( object );
   std::get<Attribute::Action>( found.operation_ )( object );
}

void FwkType::action( PtrInterface* object, std::string_view attribute ) const {
   action( const_cast<void*>( _address( object ) ), attribute );
}

String FwkType::text( void const* object ) const {
   if( !text_ ) {
      _fail( "has no form as text" );
   }
   _checkObject( object );
   return text_( object );
}

String FwkType::text( PtrInterface const* object ) const { return text( _address( object ) ); }

void FwkType::textIs( void* object, String const& text ) const {
   if( !textIs_ ) {
      _fail( "is not read from text" );
   }
   _checkObject( object );
   if( !textIs_( object, text ) ) {
      _fail( fmt::format( "no value has the text \"{}\"", text ) );
   }
}

void FwkType::_attributeIs( Attribute const& attribute ) {
   if( attribute.name_.empty() ) {
      Quarn::AssertException::throwException(
            fmt::format( "type {}: attribute without a name", name_ ) );
   }
   if( this->attribute( attribute.name_ ) ) {
      Quarn::AssertException::throwException(
            fmt::format( "type {}: two attributes \"{}\"", name_, attribute.name_ ) );
   }
   attributes_.push_back( attribute );
}

FwkType const& FwkType::_made() const { return *new FwkType( *this ); }

FwkType::Attribute const& FwkType::_attribute( std::string_view name, AttributeKind kind ) const {
   Attribute const* const found = attribute( name );
   if( !found ) {
      _fail( fmt::format( "no attribute \"{}\"", name ) );
   }
   if( found->kind() != kind ) {
      _fail( fmt::format( "attribute \"{}\" is for {}, not {}", name,
                          kindNames[ found->operation_.index() ],
                          kindNames[ static_cast<std::size_t>( kind ) ] ) );
   }
   return *found;
}

void const* FwkType::_address( PtrInterface const* object ) const {
   if( !addressOf_ ) {
      _fail( "objects are not counted" );
   }
   void const* const address = object ? addressOf_( object ) : nullptr;
   if( object && !address ) {
      _fail( "the object is of another type" );
   }
   return address;
}

void FwkType::_checkObject( void const* object ) const {
   if( !object ) {
      _fail( "no object" );
   }
}

void FwkType::_fail( std::string_view text ) const {
   Quarn::RuntimeException::throwException( fmt::format( "type {}: {}", name_, text ) );
}

} // namespace Oru
