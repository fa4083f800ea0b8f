// Descriptions of classes, for code that reads and changes objects by the names of attributes, and
// the registry of the modules they belong to.
//
// A record, FwkType, holds the name of a class, a table of attributes and, for classes of values,
// their form as text. An attribute is read, written or, an action, done; its value is one of a few
// types. Records are made with FwkTypeOf and are there until the process ends:
//
//     Oru::FwkType const* Peer::fwkType() const {
//        static Oru::FwkType const& type = Oru::FwkTypeOf<Peer>( "Peer" )
//              .action( "reset", &Peer::reset )
//              .read<std::uint32_t>( "mtu", &Peer::mtu )
//              .write<std::uint32_t>( "mtuIs", &Peer::mtuIs )
//              .read<bool>( "stopping", [] { return stopping.load(); } )   // of the process
//              .made();
//        return &type;
//     }
//
//     peer->fwkType()->write( peer.get(), "mtuIs", 9000u );
//     auto mtu = std::get<std::uint32_t>( peer->fwkType()->read( peer.get(), "mtu" ) );
//
// Thread: records and the registry may be used by any; an operation on an object runs on the thread
//         that asks for it and is bound by what the object's class says.

#pragma once

#include <Oru/Export.h>
#include <Oru/Ptr.h>

#include <Quarn/base/String.h>

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace Oru {

// What an attribute is read as, or set to. A number is given as an unsigned one: `64u`.
using AttributeValue = std::variant<bool, std::uint32_t, String>;

// The type of a value, in the order of AttributeValue; none for actions.
enum class AttributeValueKind { boolean, u32, string, none };

enum class AttributeKind { read, write, action };

template<class V>
concept AttributeValueType =
      std::same_as<V, bool> || std::same_as<V, std::uint32_t> || std::same_as<V, String>;

class ORU_API FwkType {
 public:
   class Attribute {
    public:
      String const& name() const { return name_; }
      AttributeKind kind() const { return static_cast<AttributeKind>( operation_.index() ); }
      AttributeValueKind valueKind() const { return valueKind_; }

    private:
      friend class FwkType;
      template<class T>
      friend class FwkTypeOf;
      using Read = std::function<AttributeValue( void const* )>;
      using Write = std::function<void( void*, AttributeValue const& )>;
      using Action = std::function<void( void* )>;

      String name_;
      AttributeValueKind valueKind_ = AttributeValueKind::none;
      std::variant<Read, Write, Action> operation_; // in the order of AttributeKind
   };

   FwkType& operator=( FwkType const& ) = delete;

   String const& name() const { return name_; }

   // The attributes, in the order in which they were declared.
   std::vector<Attribute> const& attributes() const { return attributes_; }

   // The attribute of that name, null when there is none. Lives as long as the record.
   Attribute const* attribute( std::string_view name ) const;

   // The operations on an object. There are two forms of each: `object` is either the address of an
   // object of the very class described, or any counted object, which is looked at and must be of
   // that class or derived from it.
   //
   // Errors: Quarn::RuntimeException, with the object untouched, for an attribute that does not
   //         exist or is of another kind, a value of another type, a null object and a counted
   //         object of another class. What the operation itself throws goes on to the caller.
   AttributeValue read( void const* object, std::string_view attribute ) const;
   AttributeValue read( PtrInterface const* object, std::string_view attribute ) const;
   void write( void* object, std::string_view attribute, AttributeValue const& value ) const;
   void write( PtrInterface* object, std::string_view attribute,
               AttributeValue const& value ) const;
   void action( void* object, std::string_view attribute ) const;
   void action( PtrInterface* object, std::string_view attribute ) const;

   // The value as text.
   //
   // Errors: Quarn::RuntimeException when the class has no such form, or the object is as above.
   String text( void const* object ) const;
   String text( PtrInterface const* object ) const;

   // Sets the object to the value that the text stands for.
   //
   // Errors: Quarn::RuntimeException, with the object untouched, for a text that stands for none, a
   //         class that is not read from text, and a null object.
   void textIs( void* object, String const& text ) const;

 private:
   template<class T>
   friend class FwkTypeOf;

   explicit FwkType( String const& name ) : name_( name ) {}
   FwkType( FwkType const& ) = default;

   void _attributeIs( Attribute const& attribute );
   FwkType const& _made() const;
   Attribute const& _attribute( std::string_view name, AttributeKind kind ) const;
   void const* _address( PtrInterface const* object ) const;
   void _checkObject( void const* object ) const;
   [[noreturn]] void _fail( std::string_view text ) const;

   String name_;
   std::vector<Attribute> attributes_;
   std::function<String( void const* )> text_;
   std::function<bool( void*, String const& )> textIs_;
   // The address of the whole object, null when it is of another class; unset for a class that is
   // not counted.
   void const* ( *addressOf_ )( PtrInterface const* ) = nullptr;
};

// Declares the record of class T, step by step.
//
// What is called for an attribute is given as a member function or a function of the object, or as
// one without it, for what the objects have in common. It is called as long as the process lives.
//
// Errors: Quarn::AssertException for a second attribute of one name, and for an empty name.
template<class T>
class FwkTypeOf {
 public:
   explicit FwkTypeOf( String const& name ) : type_( name ) {
      if constexpr( std::is_base_of_v<PtrInterface, T> ) {
         type_.addressOf_ = []( PtrInterface const* object ) -> void const* {
            return dynamic_cast<T const*>( object );
         };
      }
   }

   // An attribute that is read, by `fn( T const& )` or `fn()`. A result that V may not hold does
   // not compile.
   template<AttributeValueType V, class Fn>
   FwkTypeOf& read( String const& name, Fn fn ) {
      return _attributeIs(
            name, valueKindOf<V>, Attribute::Read( [ fn = std::move( fn ) ]( void const* object ) {
               return AttributeValue( V{ _call( fn, *static_cast<T const*>( object ) ) } );
            } ) );
   }

   // An attribute that is written, by `fn( T&, V )` or `fn( V )`.
   template<AttributeValueType V, class Fn>
   FwkTypeOf& write( String const& name, Fn fn ) {
      return _attributeIs( name, valueKindOf<V>,
                           Attribute::Write( [ fn = std::move( fn ) ](
                                                   void* object, AttributeValue const& value ) {
                              _call( fn, *static_cast<T*>( object ), std::get<V>( value ) );
                           } ) );
   }

   // An action, `fn( T& )` or `fn()`.
   template<class Fn>
   FwkTypeOf& action( String const& name, Fn fn ) {
      return _attributeIs( name, AttributeValueKind::none,
                           Attribute::Action( [ fn = std::move( fn ) ]( void* object ) {
                              _call( fn, *static_cast<T*>( object ) );
                           } ) );
   }

   // The text of a value, by `toText( T const& )`.
   template<class ToText>
   FwkTypeOf& text( ToText toText ) {
      type_.text_ = [ toText = std::move( toText ) ]( void const* object ) {
         return String( std::invoke( toText, *static_cast<T const*>( object ) ) );
      };
      return *this;
   }

   // And the value of a text, by `fromText( String const& )`, which gives an optional T, empty for
   // a text that stands for none. A class of which all values are alike:
   //
   //     .text( []( Mark const& ) { return ""; },
   //            []( String const& ) { return std::optional( Mark() ); } )
   template<class ToText, class FromText>
   FwkTypeOf& text( ToText toText, FromText fromText ) {
      type_.textIs_ = [ fromText = std::move( fromText ) ]( void* object, String const& from ) {
         std::optional<T> value = std::invoke( fromText, from );
         if( value ) {
            *static_cast<T*>( object ) = std::move( *value );
         }
         return value.has_value();
      };
      return text( std::move( toText ) );
   }

   // The record. It is never destroyed; keep it in a static reference, as each call makes one.
   FwkType const& made() const { return type_._made(); }

 private:
   using Attribute = FwkType::Attribute;

   template<AttributeValueType V>
   static constexpr AttributeValueKind valueKindOf =
         std::same_as<V, bool>            ? AttributeValueKind::boolean
         : std::same_as<V, std::uint32_t> ? AttributeValueKind::u32
                                          : AttributeValueKind::string;

   template<class Fn, class Object, class... Value>
   static decltype( auto ) _call( Fn const& fn, Object& object, Value const&... value ) {
      if constexpr( std::is_invocable_v<Fn const&, Object&, Value const&...> ) {
         return std::invoke( fn, object, value... );
      } else {
         return std::invoke( fn, value... );
      }
   }

   template<class Operation>
   FwkTypeOf& _attributeIs( String const& name, AttributeValueKind kind, Operation operation ) {
      Attribute attribute;
      attribute.name_ = name;
      attribute.valueKind_ = kind;
      attribute.operation_ = std::move( operation );
      type_._attributeIs( attribute );
      return *this;
   }

   FwkType type_;
};

// A part of a program: a name and the classes that belong to it.
struct Module {
   String name;
   std::vector<FwkType const*> types;

   friend bool operator==( Module const&, Module const& ) = default;
};

// Adds a copy of the module to the registry, for ever. Does nothing when it is there already, with
// the same name and the same records in the same order.
//
// Errors: Quarn::AssertException, with nothing changed, for another module of that name, a null
//         record, and a type whose name a type of the module or of the registry has already.
ORU_API void oruModuleIs( Module const& module );

// The module of that name, null when there is none.
ORU_API Module const* oruModule( std::string_view name );

// The record of that name among the types of all modules, null when there is none.
ORU_API FwkType const* oruFwkType( std::string_view name );

} // namespace Oru
