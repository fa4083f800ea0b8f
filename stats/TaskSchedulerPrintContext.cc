#include <Quarn/stats/TaskSchedulerPrintContext.h>

#include <Quarn/scheduler/TaskScheduler.h>

#include "debug/Handlers.h"
#include "stats/SnapshotJson.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

#include <sys/mman.h>

namespace Quarn {

namespace {

constexpr char sourceFile[] = "TaskSchedulerCpp";

} // namespace

namespace Json {

// A document of megabytes is written once, from front to back: with small pages a fourth of the
// time would go to their first touch. Asked for where the block is fresh, for moving a block of
// large pages is slower still.
void* Memory::Realloc( void* old, std::size_t oldSize, std::size_t size ) {
   if( size == 0 ) {
      std::free( old );
      return nullptr;
   }
   void* block = std::realloc( old, size );
   if( !block ) {
      throw std::bad_alloc();
   }
   constexpr std::uintptr_t page = 2 << 20;
   if( oldSize < page && size >= 4 * page ) {
      const auto begin = reinterpret_cast<std::uintptr_t>( block );
      const std::uintptr_t before = ( page - begin % page ) % page;
      const std::uintptr_t whole = ( size - before ) / page * page;
      // Advice, which may be refused.
      madvise( static_cast<char*>( block ) + before, whole, MADV_HUGEPAGE );
   }
   return block;
}

void Memory::Free( void* block ) { std::free( block ); }

TextBuffer::int_type TextBuffer::overflow( int_type c ) {
   if( !traits_type::eq_int_type( c, traits_type::eof() ) ) {
      text_.Put( traits_type::to_char_type( c ) );
   }
   return traits_type::not_eof( c );
}

} // namespace Json

TaskSchedulerPrintContext::Impl::Impl( std::ostream& stream )
      : target( stream ),
        out( stream.rdbuf() ),
        memory( dynamic_cast<Json::TextBuffer*>( stream.rdbuf() ) ) {
   out.setstate( stream.rdstate() );
   writer.StartObject();
   Json::key( writer, "schedulers" );
   writer.StartObject();
}

TaskSchedulerPrintContext::TaskSchedulerPrintContext( std::ostream& out )
      : impl_( std::make_unique<Impl>( out ) ) {}

TaskSchedulerPrintContext::TaskSchedulerPrintContext( int fd, bool closeOnDestroy ) {
   // First, so that it is closed whatever fails.
   OwnedDescriptor descriptor( closeOnDestroy ? fd : -1 );
   auto stream = std::make_unique<FdToStream>( fd, false );
   impl_ = std::make_unique<Impl>( *stream );
   impl_->fdStream = std::move( stream );
   impl_->descriptor = std::move( descriptor );
}

TaskSchedulerPrintContext::~TaskSchedulerPrintContext() = default;

void TaskSchedulerPrintContext::closeJson() {
   if( impl_->closed ) {
      QUARN_FAIL( "TaskSchedulerPrintContext", "JSON already closed" );
   }
   impl_->closed = true;
   impl_->writer.EndObject();
   // Also flushes the stream.
   impl_->writer.EndObject();
   if( !impl_->out ) {
      impl_->target.setstate( impl_->out.rdstate() );
   }
}

std::shared_ptr<TaskSchedulerPrintContext> TaskScheduler::PrintContextIs( std::ostream& out ) {
   return std::make_shared<TaskSchedulerPrintContext>( out );
}

std::shared_ptr<TaskSchedulerPrintContext> TaskScheduler::PrintContextIs( int fd,
                                                                          bool closeOnDestroy ) {
   // As above.
   OwnedDescriptor descriptor( closeOnDestroy ? fd : -1 );
   auto context = std::make_shared<TaskSchedulerPrintContext>( fd, false );
   context->impl_->descriptor = std::move( descriptor );
   return context;
}

} // namespace Quarn
