// A log of attribute values in network byte order: a ring of bytes of which one side writes the end
// and the other reads the start.
//
//     Oru::NboAttrLog log( 4096 );
//     Oru::NboAttrLog::Out out( log );
//     if( out.sizeIsValid( 4 + name.size() ) ) {
//        out.u32( static_cast<std::uint32_t>( name.size() ) );
//        out.bytes( name.data(), name.size() );
//     }
//     Oru::NboAttrLog::In in( log );
//     std::uint32_t size = in.u32();
//
// What a writer validates in one call is a record. Readers see it when its last byte is written,
// so there is never part of one in the log for them: it is written whole or not at all.
//
// Thread: a log, its writers and its readers belong to one thread at a time.

#pragma once

#include <Oru/Export.h>

#include <boost/circular_buffer.hpp>

#include <cstddef>
#include <cstdint>

namespace Oru {

class ORU_API NboAttrLog {
 public:
   class Out;
   class In;

   // An empty log for `capacity` bytes, which are allocated here and never again.
   explicit NboAttrLog( std::size_t capacity ) : bytes_( capacity ) {}
   NboAttrLog( NboAttrLog const& ) = delete;
   NboAttrLog& operator=( NboAttrLog const& ) = delete;

   std::size_t capacity() const { return bytes_.capacity(); }

   // The bytes of whole records that were not read yet.
   std::size_t size() const { return bytes_.size() - unfinished_; }

   // How many bytes a new record may have.
   std::size_t room() const { return bytes_.reserve() - missing_; }

   // Whether a record found no room since a reader last took bytes: a writer may try again when it
   // is off. A record above the capacity never fits.
   bool full() const { return full_; }

   // In dropping mode new records are counted and not written; off at the start. A record that is
   // being written is finished first.
   bool dropping() const { return dropping_; }
   void droppingIs( bool on ) { dropping_ = on; }

   // The bytes of all records that were not written because of dropping mode.
   std::uint64_t droppedBytes() const { return droppedBytes_; }

 private:
   boost::circular_buffer<unsigned char> bytes_;
   // The record that is being written: by whom, its bytes at the end of the ring, and those to
   // come.
   Out const* writer_ = nullptr;
   std::size_t unfinished_ = 0;
   std::size_t missing_ = 0;
   bool full_ = false;
   bool dropping_ = false;
   std::uint64_t droppedBytes_ = 0;
};

// Writes records.
class ORU_API NboAttrLog::Out {
 public:
   // The log outlives the writer.
   explicit Out( NboAttrLog& log ) : log_( log ) {}
   Out( Out const& ) = delete;
   Out& operator=( Out const& ) = delete;

   // Takes away a record that was not finished.
   ~Out();

   // Whether a record of `size` bytes may be written, which is begun then: exactly that many bytes
   // are to follow. False in dropping mode, where the bytes count as dropped, and when there is too
   // little room, which marks the log as full.
   //
   // Inside of a record it begins none and is true, so that the writer of a whole may validate the
   // sum and then call the writers of the parts, which validate theirs.
   //
   // Errors: Quarn::AssertException, with nothing changed, when the record has fewer bytes left
   // than
   //         the part asks for, and while another writer has a record to finish.
   bool sizeIsValid( std::uint64_t size );

   // Writes the next bytes of the record: a number, the highest byte first, or bytes as they are;
   // `data` may be null for none.
   //
   // Errors: Quarn::AssertException, with nothing written, when the record has fewer bytes left.
   void u32( std::uint32_t value );
   void bytes( void const* data, std::size_t size );

 private:
   NboAttrLog& log_;
};

// Takes bytes of whole records out of the log, in the order in which they were written.
class ORU_API NboAttrLog::In {
 public:
   // The log outlives the reader.
   explicit In( NboAttrLog& log ) : log_( log ) {}

   std::size_t bytesLeft() const { return log_.size(); }

   // Checks that there are that many bytes, and takes none.
   //
   // Errors: Quarn::RuntimeException when there are fewer.
   void validateSize( std::uint64_t size ) const;

   // Takes a number, or `size` bytes, which go to `data`; it may be null for none. What is taken
   // makes room for writers.
   //
   // Errors: Quarn::RuntimeException, with nothing taken, when there are fewer bytes.
   std::uint32_t u32();
   void bytes( void* data, std::size_t size );

 private:
   NboAttrLog& log_;
};

} // namespace Oru
