// How snapshots become JSON text.

#pragma once

#include <Quarn/fdtask/FdToStream.h>
#include <Quarn/stats/TaskSchedulerPrintContext.h>

#include <rapidjson/ostreamwrapper.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cstddef>
#include <memory>
#include <new>
#include <optional>
#include <ostream>
#include <streambuf>
#include <string>
#include <string_view>

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

// A member's value under way, apart from the document: what fails half-way can be dropped.
struct Value {
   Buffer text;
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

 private:
   std::streamsize xsputn( char const* text, std::streamsize size ) override;
   int_type overflow( int_type c ) override;

   Buffer text_;
};

} // namespace Quarn::Json

namespace Quarn {

struct TaskSchedulerPrintContext::Impl {
   explicit Impl( std::ostream& stream );

   // Set for the form that writes to a descriptor.
   std::unique_ptr<FdToStream> fdStream;
   std::ostream& target;
   // Writes to the target's buffer. The target may be set to throw, in the midst of a function that
   // must not.
   std::ostream out;
   rapidjson::OStreamWrapper wrapper{ out };
   Json::Writer<rapidjson::OStreamWrapper> writer{ wrapper };
   std::optional<Json::Value> value;
   bool closed = false;
};

} // namespace Quarn
