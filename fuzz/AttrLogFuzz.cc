// The attribute log: an input is the capacity and then a list of steps, compared with a queue of
// bytes after each. A step is a letter, often with a number behind it; other characters are passed
// over.
//
//     cN   an empty log of that capacity, and new writers
//     bN   validates a record of N bytes for the writer
//     nN   writes a number
//     wN   writes N bytes, which count up
//     "..." is a record of the bytes up to the next quote
//     x    ends the writer, which takes an unfinished record away
//     o    goes on with the other of two writers
//     d    turns dropping mode on or off
//     u    reads a number
//     rN   reads N bytes
//     sN   writes a secret of N bytes, which count up
//     e    reads a secret
//     vN   validates N bytes for a reader

#include "fuzz/Fuzz.h"

#include <Oru/NboAttrLog.h>
#include <Quarn/base/Exception.h>
#include <Quarn/util/Sensitive.h>

#include <deque>
#include <optional>
#include <string>

namespace {

using Oru::NboAttrLog;

constexpr std::uint64_t capacityMax = 4096;
constexpr std::size_t bytesMax = 8192;

enum class Outcome { done, refused, asserted, failed };

template<typename Step>
Outcome outcomeOf( Step&& step ) {
   try {
      return step() ? Outcome::done : Outcome::refused;
   } catch( const Quarn::AssertException& ) {
      return Outcome::asserted;
   } catch( const Quarn::RuntimeException& ) {
      return Outcome::failed;
   }
}

std::string bigEndian( std::uint32_t value ) {
   std::string bytes;
   for( int shift = 24; shift >= 0; shift -= 8 ) {
      bytes += static_cast<char>( value >> shift & 0xff );
   }
   return bytes;
}

std::string countingUp( std::size_t size ) {
   std::string bytes( size, '\0' );
   for( std::size_t i = 0; i < size; ++i ) {
      bytes[ i ] = static_cast<char>( i );
   }
   return bytes;
}

Quarn::Sensitive secretOf( const std::string& bytes ) {
   return Quarn::Sensitive( reinterpret_cast<unsigned char const*>( bytes.data() ),
                            static_cast<unsigned>( bytes.size() ) );
}

std::string bytesOf( const Quarn::Sensitive& secret ) {
   return std::string( secret.data(), secret.data() + secret.size() );
}

class Play {
 public:
   explicit Play( std::uint64_t capacity ) { _start( capacity ); }

   void run( std::string_view steps );

 private:
   void _start( std::uint64_t capacity );
   void _step( char letter, std::uint64_t number );
   void _begin( std::uint64_t size, Outcome outcome );
   void _write( const std::string& bytes, Outcome outcome );
   void _writeSecret( const std::string& bytes );
   void _endWriter();
   void _read( const std::string& bytes, std::size_t size, Outcome outcome );
   void _readSecret();
   void _requireSame() const;

   NboAttrLog::Out& _writer() { return *writers_[ at_ ]; }
   std::uint64_t _left() const { return recordOf_ == at_ ? missing_ : 0; }

   std::optional<NboAttrLog> log_;
   std::optional<NboAttrLog::Out> writers_[ 2 ];
   std::optional<NboAttrLog::In> reader_;
   std::size_t at_ = 0;

   // The model: the bytes of whole records, the record that is being written, and by whom.
   std::deque<char> whole_;
   std::string part_;
   std::uint64_t missing_ = 0;
   std::optional<std::size_t> recordOf_;
   bool full_ = false;
   bool dropping_ = false;
   std::uint64_t dropped_ = 0;
};

void Play::_start( std::uint64_t capacity ) {
   for( auto& writer : writers_ ) {
      writer.reset();
   }
   log_.emplace( std::min( capacity, capacityMax ) );
   for( auto& writer : writers_ ) {
      writer.emplace( *log_ );
   }
   reader_.emplace( *log_ );
   whole_.clear();
   part_.clear();
   missing_ = 0;
   recordOf_.reset();
   full_ = dropping_ = false;
   dropped_ = 0;
}

void Play::_begin( std::uint64_t size, Outcome outcome ) {
   if( recordOf_ ) {
      FUZZ_REQUIRE( outcome ==
                    ( size <= _left() && recordOf_ == at_ ? Outcome::done : Outcome::asserted ) );
   } else if( dropping_ ) {
      FUZZ_REQUIRE( outcome == Outcome::refused );
      dropped_ += size;
   } else if( size > log_->capacity() - whole_.size() ) {
      FUZZ_REQUIRE( outcome == Outcome::refused );
      full_ = true;
   } else {
      FUZZ_REQUIRE( outcome == Outcome::done );
      if( size > 0 ) {
         recordOf_ = at_;
         missing_ = size;
      }
   }
}

void Play::_write( const std::string& bytes, Outcome outcome ) {
   FUZZ_REQUIRE( outcome == ( bytes.size() <= _left() ? Outcome::done : Outcome::asserted ) );
   if( outcome != Outcome::done || bytes.empty() ) {
      return;
   }
   part_ += bytes;
   missing_ -= bytes.size();
   if( missing_ == 0 ) {
      whole_.insert( whole_.end(), part_.begin(), part_.end() );
      part_.clear();
      recordOf_.reset();
   }
}

void Play::_endWriter() {
   writers_[ at_ ].emplace( *log_ );
   if( recordOf_ == at_ ) {
      part_.clear();
      missing_ = 0;
      recordOf_.reset();
   }
}

void Play::_read( const std::string& bytes, std::size_t size, Outcome outcome ) {
   FUZZ_REQUIRE( outcome == ( size <= whole_.size() ? Outcome::done : Outcome::failed ) );
   if( outcome != Outcome::done || size == 0 ) {
      return;
   }
   const auto end = whole_.begin() + static_cast<std::ptrdiff_t>( size );
   FUZZ_REQUIRE( bytes == std::string( whole_.begin(), end ) );
   whole_.erase( whole_.begin(), end );
   full_ = false;
}

void Play::_writeSecret( const std::string& bytes ) {
   const Quarn::Sensitive secret = secretOf( bytes );
   FUZZ_REQUIRE( Quarn::attrLogSize( secret ) == bytes.size() + 4 );
   const Outcome outcome =
         outcomeOf( [ & ] { return Quarn::attrLogSerialize( _writer(), secret ); } );
   _begin( bytes.size() + 4, outcome );
   if( outcome == Outcome::done ) {
      _write( bigEndian( secret.size() ) + bytes, outcome );
   }
}

// The size is taken even where fewer bytes follow.
void Play::_readSecret() {
   const std::string before = "before";
   Quarn::Sensitive secret = secretOf( before );
   const Outcome outcome =
         outcomeOf( [ & ] { return Quarn::attrLogDeserialize( *reader_, secret ), true; } );
   std::uint64_t size = 0;
   for( std::size_t i = 0; i < 4 && whole_.size() >= 4; ++i ) {
      size = size << 8 | static_cast<unsigned char>( whole_[ i ] );
   }
   if( whole_.size() < 4 || size > whole_.size() - 4 ) {
      FUZZ_REQUIRE( outcome == Outcome::failed );
      FUZZ_REQUIRE( bytesOf( secret ) == before );
      if( whole_.size() >= 4 ) {
         _read( std::string( whole_.begin(), whole_.begin() + 4 ), 4, Outcome::done );
      }
      return;
   }
   _read( bigEndian( secret.size() ) + bytesOf( secret ), size + 4, outcome );
}

void Play::_step( char letter, std::uint64_t number ) {
   const std::size_t size = std::min<std::uint64_t>( number, bytesMax );
   switch( letter ) {
   case 'c':
      _start( number );
      break;
   case 'b':
      _begin( number, outcomeOf( [ & ] { return _writer().sizeIsValid( number ); } ) );
      break;
   case 'n': {
      const auto value = static_cast<std::uint32_t>( number );
      _write( bigEndian( value ), outcomeOf( [ & ] { return _writer().u32( value ), true; } ) );
      break;
   }
   case 'w': {
      const std::string bytes = countingUp( size );
      _write( bytes, outcomeOf( [ & ] { return _writer().bytes( bytes.data(), size ), true; } ) );
      break;
   }
   case 'x':
      _endWriter();
      break;
   case 'o':
      at_ = 1 - at_;
      break;
   case 'd':
      dropping_ = !dropping_;
      log_->droppingIs( dropping_ );
      break;
   case 'u': {
      std::uint32_t value = 0;
      const Outcome outcome = outcomeOf( [ & ] { return value = reader_->u32(), true; } );
      _read( bigEndian( value ), sizeof( value ), outcome );
      break;
   }
   case 'r': {
      std::string bytes( size, '\0' );
      _read( bytes, size, outcomeOf( [ & ] {
                reader_->bytes( size == 0 ? nullptr : bytes.data(), size );
                return true;
             } ) );
      break;
   }
   case 's':
      _writeSecret( countingUp( size ) );
      break;
   case 'e':
      _readSecret();
      break;
   case 'v':
      FUZZ_REQUIRE( outcomeOf( [ & ] { return reader_->validateSize( number ), true; } ) ==
                    ( number <= whole_.size() ? Outcome::done : Outcome::failed ) );
      break;
   default:
      break;
   }
}

void Play::_requireSame() const {
   const std::uint64_t room = log_->capacity() - whole_.size() - part_.size() - missing_;
   FUZZ_REQUIRE( log_->size() == whole_.size() );
   FUZZ_REQUIRE( reader_->bytesLeft() == whole_.size() );
   FUZZ_REQUIRE( log_->room() == room );
   FUZZ_REQUIRE( log_->full() == full_ );
   FUZZ_REQUIRE( log_->dropping() == dropping_ );
   FUZZ_REQUIRE( log_->droppedBytes() == dropped_ );
}

void Play::run( std::string_view steps ) {
   while( !steps.empty() ) {
      const char letter = steps.front();
      steps.remove_prefix( 1 );
      if( letter == '"' ) {
         const std::string bytes( steps.substr( 0, steps.find( '"' ) ) );
         steps.remove_prefix( std::min( bytes.size() + 1, steps.size() ) );
         _begin( bytes.size(),
                 outcomeOf( [ & ] { return _writer().sizeIsValid( bytes.size() ); } ) );
         _write( bytes, outcomeOf( [ & ] {
                    return _writer().bytes( bytes.data(), bytes.size() ), true;
                 } ) );
      } else {
         std::uint64_t number = 0;
         while( !steps.empty() && steps.front() >= '0' && steps.front() <= '9' ) {
            number = number * 10 + static_cast<std::uint64_t>( steps.front() - '0' );
            steps.remove_prefix( 1 );
         }
         _step( letter, number );
      }
      _requireSame();
   }
   // A record that ends with its writer is gone, and whole ones are read as they were written.
   _endWriter();
   _step( 'r', whole_.size() );
   FUZZ_REQUIRE( whole_.empty() );
}

} // namespace

int LLVMFuzzerTestOneInput( const std::uint8_t* data, std::size_t size ) {
   const std::uint64_t secrets = Quarn::Sensitive::memTracker_.inUse();
   Play( 64 ).run( Fuzz::asText( data, size ) );
   FUZZ_REQUIRE( Quarn::Sensitive::memTracker_.inUse() == secrets );
   return 0;
}
