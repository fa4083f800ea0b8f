// The stream onto a descriptor, on pipes and files.

#include "support/Fatal.h"

#include <Quarn/TaskSchedulerCpp.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <new>
#include <thread>

#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

// Which allocation from now on fails; 0 for none.
unsigned failingAllocation = 0;

void* allocate( std::size_t size ) {
   if( failingAllocation != 0 && --failingAllocation == 0 ) {
      return nullptr;
   }
   return std::malloc( size != 0 ? size : 1 );
}

} // namespace

// Out of line, or the compiler takes the pairs of callers and bodies for mismatched ones.
[[gnu::noinline]] void* operator new( std::size_t size ) {
   if( void* storage = allocate( size ) ) {
      return storage;
   }
   throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new( std::size_t size, const std::nothrow_t& ) noexcept {
   return allocate( size );
}
[[gnu::noinline]] void operator delete( void* storage ) noexcept { std::free( storage ); }
[[gnu::noinline]] void operator delete( void* storage, std::size_t ) noexcept {
   std::free( storage );
}
[[gnu::noinline]] void operator delete( void* storage, const std::nothrow_t& ) noexcept {
   std::free( storage );
}

namespace {

using namespace Quarn;

std::string longText( std::size_t size ) {
   std::string text;
   for( std::size_t i = 0; i < size; ++i ) {
      text.push_back( static_cast<char>( 'a' + i * 7 % 23 ) );
   }
   return text;
}

bool isOpen( int fd ) { return fcntl( fd, F_GETFD ) != -1; }

class FdToStreamTest : public testing::Test {
 protected:
   FdToStreamTest() { EXPECT_EQ( pipe( fds ), 0 ); }
   ~FdToStreamTest() override {
      close( fds[ 0 ] );
      close( fds[ 1 ] );
   }

   int waiting() const {
      int bytes = 0;
      EXPECT_EQ( ioctl( fds[ 0 ], FIONREAD, &bytes ), 0 );
      return bytes;
   }

   int fds[ 2 ];
};

TEST_F( FdToStreamTest, TextIsBufferedByFourKibibytes ) {
   {
      FdToStream out( fds[ 1 ], false );
      out << longText( 4096 );
      EXPECT_EQ( waiting(), 0 );
      out << 'x';
      EXPECT_EQ( waiting(), 4096 );
      EXPECT_TRUE( out.flush() );
      EXPECT_EQ( waiting(), 4097 );
      out << "end";
   }
   EXPECT_EQ( waiting(), 4100 );
   EXPECT_TRUE( isOpen( fds[ 1 ] ) );
   { FdToStream( fds[ 1 ], true ) << "more"; }
   EXPECT_EQ( waiting(), 4104 );
   EXPECT_FALSE( isOpen( fds[ 1 ] ) );
}

TEST_F( FdToStreamTest, NonBlockingDescriptorIsRefused ) {
   fcntl( fds[ 1 ], F_SETFL, O_NONBLOCK );
   const std::string refusal =
         fmt::format( "FileDescriptor {} flags 0x{:x} is non-blocking, not supported", fds[ 1 ],
                      fcntl( fds[ 1 ], F_GETFL ) );
   EXPECT_FATAL( FdToStream( fds[ 1 ], false ), refusal );
   EXPECT_FATAL( FdToStream( fds[ 1 ], false ), "TaskSchedulerCpp:FdToStream:" );
   EXPECT_TRUE( isOpen( fds[ 1 ] ) );
   EXPECT_FATAL( FdToStream( fds[ 1 ], true ), refusal );
   EXPECT_FALSE( isOpen( fds[ 1 ] ) );
   EXPECT_FATAL( FdToStream( -1, true ),
                 "FileDescriptor -1 flags 0xffffffff is non-blocking, not supported" );
}

TEST_F( FdToStreamTest, DescriptorThatPassesIsClosedWhateverFails ) {
   const std::function<void( int )> table[] = {
         []( int fd ) { FdToStream( fd, true ); },
         []( int fd ) { TaskSchedulerPrintContext( fd, true ); },
         []( int fd ) { TaskScheduler::PrintContextIs( fd, true ); },
   };
   for( const auto& make : table ) {
      unsigned failures = 0;
      for( bool failed = true; failed; failures += failed ) {
         const int fd = dup( fds[ 1 ] );
         failingAllocation = failures + 1;
         try {
            make( fd );
            failed = failingAllocation == 0;
         } catch( const std::bad_alloc& ) {
            failed = true;
         }
         failingAllocation = 0;
         EXPECT_FALSE( isOpen( fd ) ) << "allocation " << failures;
      }
      EXPECT_GE( failures, 4u );
   }
}

TEST_F( FdToStreamTest, SignalsOfAThreadAndSlowReadersLoseNothing ) {
   struct sigaction action = {};
   action.sa_handler = []( int ) {};
   sigaction( SIGUSR1, &action, nullptr ); // without SA_RESTART
   const std::string text = longText( 300'000 );
   std::string got;
   std::thread reader( [ &, writer = pthread_self() ] {
      char bytes[ 1500 ];
      while( got.size() < text.size() ) {
         pthread_kill( writer, SIGUSR1 );
         const ssize_t n = read( fds[ 0 ], bytes, sizeof( bytes ) );
         if( n <= 0 ) {
            break;
         }
         got.append( bytes, static_cast<std::size_t>( n ) );
      }
   } );
   {
      FdToStream out( fds[ 1 ], true );
      out << text;
      EXPECT_TRUE( out.flush() );
   }
   reader.join();
   EXPECT_TRUE( got == text );
}

TEST_F( FdToStreamTest, GoneReaderMakesTheStreamBad ) {
   signal( SIGPIPE, SIG_DFL );
   close( fds[ 0 ] );
   FdToStream out( fds[ 1 ], false );
   out << "text";
   EXPECT_TRUE( out.good() );
   out.flush();
   EXPECT_TRUE( out.bad() );
}

TEST_F( FdToStreamTest, WriteThatFailedHalfWayGoesOnWhereItStopped ) {
   signal( SIGXFSZ, SIG_IGN );
   std::FILE* const file = std::tmpfile();
   rlimit limit;
   ASSERT_EQ( getrlimit( RLIMIT_FSIZE, &limit ), 0 );
   const rlim_t unlimited = limit.rlim_cur;
   limit.rlim_cur = 3000;
   ASSERT_EQ( setrlimit( RLIMIT_FSIZE, &limit ), 0 );
   const std::string text = longText( 4000 );
   {
      FdToStream out( fileno( file ), false );
      out << text;
      EXPECT_FALSE( out.flush() );
      limit.rlim_cur = unlimited;
      ASSERT_EQ( setrlimit( RLIMIT_FSIZE, &limit ), 0 );
      out.clear();
      out << "end";
      EXPECT_TRUE( out.flush() );
   }
   std::string got( 5000, '?' );
   std::rewind( file );
   got.resize( std::fread( got.data(), 1, got.size(), file ) );
   EXPECT_EQ( got, text + "end" );
   std::fclose( file );
}

} // namespace
