// A buffer for secrets, whose bytes are wiped when it is freed and appear in no text.
//
//     Quarn::Sensitive key( bytes, size );
//     QUARN_FMTRACE( *handler, 2, "Session", "new key {}", key );   // sensitive(0x7f...,32)
//
// What is wiped is the buffer. Nothing locks it into memory or keeps it out of core dumps, and an
// attribute log that carries a value holds its bytes in the clear.
//
// Thread: values that share a buffer may be used, copied and destroyed by different threads. The
//         bytes of a buffer that a thread is still filling are not guarded.

#pragma once

#include <Quarn/Export.h>
#include <Quarn/base/MemTrack.h>
#include <Quarn/base/String.h>

#include <Oru/NboAttrLog.h>

#include <fmt/format.h>

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string_view>

namespace Oru {
class FwkType;
}

namespace Quarn {

// Copies share one buffer; a value of size 0 has none.
class ORUQUARN_API Sensitive {
 public:
   // A value of size 0.
   Sensitive() noexcept = default;

   // Copies the bytes; `data` may be null when `size` is 0.
   //
   // Errors: std::bad_alloc.
   Sensitive( unsigned char const* data, unsigned int size );

   // Copies the bytes of `a` and behind them those of `b`.
   //
   // Errors: RuntimeException when they are more than 4294967295 together; std::bad_alloc.
   Sensitive( unsigned char const* a, unsigned int aSize, unsigned char const* b,
              unsigned int bSize );

   Sensitive( const Sensitive& ) noexcept = default;
   Sensitive& operator=( const Sensitive& ) noexcept = default;

   // Take the buffer over; `other` becomes empty, except that moving a value onto itself keeps it.
   Sensitive( Sensitive&& other ) noexcept;
   Sensitive& operator=( Sensitive&& other ) noexcept;

   // A buffer of zeros, or none when `size` is 0. The last user of it wipes it before it is freed.
   //
   // Errors: std::bad_alloc.
   static std::shared_ptr<unsigned char[]> allocate( unsigned int size );

   unsigned int size() const noexcept { return size_; }
   // Null when there are none. Valid as long as a value with this buffer.
   unsigned char const* data() const noexcept { return data_.get(); }

   // Whether the two share one buffer, or have none. Bytes are never compared, so the time it takes
   // tells nothing about them: equal bytes in different buffers are different values.
   friend bool operator==( const Sensitive& a, const Sensitive& b ) noexcept {
      return a.data_ == b.data_;
   }

   // The type "Sensitive" of the framework, by which generic code gets at the text of a value and
   // at its "size". It belongs to no module.
   static Oru::FwkType const& fwkType();

   // Counts the bytes of all buffers as units "SensitiveByte".
   static MemTrack memTracker_;

 private:
   friend ORUQUARN_API void attrLogDeserialize( Oru::NboAttrLog::In& in, Sensitive& value );

   explicit Sensitive( unsigned int size );

   std::uint32_t size_ = 0;
   std::shared_ptr<unsigned char[]> data_;
};

// Writes what formatting with "{}" gives: "sensitive(ADDRESS,SIZE)", where the address is that of
// the buffer.
ORUQUARN_API std::ostream& operator<<( std::ostream& out, const Sensitive& value );

// The functions by which generic code of the framework handles a value.

// The text that formatting with "{}" gives.
ORUQUARN_API String valueToStrep( const Sensitive& value );

// Sets `value` to what the text stands for, which is its size: the bytes are zeros.
//
// Errors: RuntimeException, with nothing changed, for a text that is not that of a value. The size
//         is taken as it is, so a text of an outsider may ask for up to 4 GiB: std::bad_alloc.
ORUQUARN_API void sequenceToValue( std::string_view text, Sensitive& value );

// How many bytes a value has in an attribute log: its size as 4 bytes, the highest first, and the
// bytes themselves.
//
// Errors: RuntimeException when that is more than 4294967295.
ORUQUARN_API unsigned int attrLogSize( const Sensitive& value );

// Writes the value, and says whether it did: all of it is written or nothing. What is refused
// counts as dropped in a log in dropping mode, and marks the log as full when there is too little
// room.
//
// Errors: those of `attrLogSize`.
ORUQUARN_API bool attrLogSerialize( Oru::NboAttrLog::Out& out, const Sensitive& value );

// Reads a value.
//
// Errors: RuntimeException, with `value` unchanged, when the log does not hold it whole. Nothing is
//         allocated for a size above what the log holds; its 4 bytes are taken all the same.
ORUQUARN_API void attrLogDeserialize( Oru::NboAttrLog::In& in, Sensitive& value );

} // namespace Quarn

// Formats like std::string_view: width, fill and alignment.
template<>
struct fmt::formatter<Quarn::Sensitive> : fmt::formatter<std::string_view> {
   template<class Context>
   auto format( const Quarn::Sensitive& value, Context& context ) const {
      return fmt::formatter<std::string_view>::format(
            fmt::format( "sensitive({},{})", static_cast<void const*>( value.data() ),
                         value.size() ),
            context );
   }
};
