// How snapshots become JSON text.

#pragma once

#include <Quarn/fdtask/FdToStream.h>
#include <Quarn/stats/TaskSchedulerPrintContext.h>

#include <rapidjson/ostreamwrapper.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cstddef>
#include <exception>
#include <memory>
#include <new>
#include <optional>
#include <ostream>
#include <streambuf>
#include <string>
#include <string_view>
#include <utility>

#include <unistd.h>

namespace Quarn::Json {

// Where the writer gets its memory, which it takes for granted: what is out of it must throw.
struct Memory {
   static constexpr bool kNeedFree = true; // a name of the writer's

   void* Malloc( std::size_t size ) { return Realloc( nullptr, 0, size ); }
   void* Realloc( void* old, std::size_t oldSize, std::size_t size );
   static void Free( void* block );
};

template<typename Stream>
using Writer = rapidjson::Writer<Stream, rapidjson::UTF8<>, rapidjson::UTF8<>, Memory>;

using Buffer = rapidjson::GenericStringBuffer<rapidjson::UTF8<>, Memory>;

// A member's value under way, behind whatever the buffer holds already: what fails half-way can be
// dropped.
struct Value {
   explicit Value( Buffer& where ) : text( where ) {}

   Buffer& text;
   Writer<Buffer> writer{ text };
};

// The text with each byte that is not part of valid UTF-8 replaced by U+FFFD. `storage` holds it
// when there is one.
std::string_view validUtf8( std::string_view text, std::string& storage );

template<typename Stream>
void string( Writer<Stream>& writer, std::string_view text ) {
   std::string storage;
   const std::string_view valid = validUtf8( text, storage );
   writer.String( valid.data(), static_cast<rapidjson::SizeType>( valid.size() ) );
}

template<typename Stream>
void key( Writer<Stream>& writer, std::string_view text ) {
   string( writer, text );
}

// A stream's buffer in memory, which is emptied by taking the text away.
class TextBuffer final : public std::streambuf {
 public:
   std::string_view text() const { return { text_.GetString(), text_.GetSize() }; }
   // Gives the memory back, too.
   void clear() { text_ = Buffer(); }
   // For large values, which need not go through the stream.
   Buffer& buffer() { return text_; }

 private:
   int_type overflow( int_type c ) override;

   Buffer text_;
};

} // namespace Quarn::Json

namespace Quarn {

// Closes a descriptor in the end; -1 is none.
class OwnedDescriptor {
 public:
   explicit OwnedDescriptor( int fd = -1 ) : fd_( fd ) {}
   OwnedDescriptor( OwnedDescriptor&& other ) noexcept : fd_( std::exchange( other.fd_, -1 ) ) {}
   OwnedDescriptor& operator=( OwnedDescriptor&& other ) noexcept {
      std::swap( fd_, other.fd_ );
      return *this;
   }
   ~OwnedDescriptor() {
      if( fd_ >= 0 ) {
         close( fd_ );
      }
   }

 private:
   int fd_;
};

struct TaskSchedulerPrintContext::Impl {
   explicit Impl( std::ostream& stream );

   // Writes a member whose value `render` appends to the `Json::Value` it is given: some `room`
   // bytes. When it fails with a standard exception, the value is an object with the one member
   // "generalError" instead; any other ends the process. With no memory for that either, the
   // document ends here, as on a stream that fails.
   template<typename Render>
   void member( std::string_view name, std::size_t room, const Render& render ) noexcept;
   template<typename Render>
   void tryMember( std::string_view name, std::size_t room, const Render& render );

   // Closed behind the stream.
   OwnedDescriptor descriptor;
   // Set for the form that writes to a descriptor.
   std::unique_ptr<FdToStream> fdStream;
   std::ostream& target;
   // Writes to the target's buffer. The target may be set to throw, in the midst of a function that
   // must not.
   std::ostream out;
   // Null unless the target is in memory.
   Json::TextBuffer* memory;
   rapidjson::OStreamWrapper wrapper{ out };
   Json::Writer<rapidjson::OStreamWrapper> writer{ wrapper };
   std::optional<Json::Value> value;
   bool closed = false;
};

template<typename Render>
void TaskSchedulerPrintContext::Impl::member( std::string_view name, std::size_t room,
                                              const Render& render ) noexcept {
   try {
      tryMember( name, room, render );
   } catch( const std::exception& ) {
      value.reset();
      out.setstate( std::ios_base::badbit );
   }
}

template<typename Render>
void TaskSchedulerPrintContext::Impl::tryMember( std::string_view name, std::size_t room,
                                                 const Render& render ) {
   Json::key( writer, name );
   // Writes what separates the value from what was before it; the value goes past the writer.
   writer.RawValue( "", 0, rapidjson::kObjectType );
   if( !out ) {
      // The document has ended here.
      return;
   }
   Json::Buffer apart;
   Json::Buffer& text = memory ? memory->buffer() : apart;
   const std::size_t before = text.GetSize();
   try {
      text.Reserve( room );
      render( value.emplace( text ) );
      // Looked at where it may still fail: a final NUL wants room.
      text.GetString();
   } catch( const std::exception& e ) {
      // Gives the memory back first, of which there may be none left.
      value.reset();
      text.Pop( text.GetSize() - before );
      text.ShrinkToFit();
      Json::Writer<Json::Buffer>& error = value.emplace( text ).writer;
      error.StartObject();
      Json::key( error, "generalError" );
      Json::string( error, e.what() );
      error.EndObject();
   }
   value.reset();
   if( !memory ) {
      out.write( apart.GetString(), static_cast<std::streamsize>( apart.GetSize() ) );
   }
}

} // namespace Quarn
