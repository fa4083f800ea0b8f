// Tasks whose body is a function.

#pragma once

#include <Quarn/Task.h>
#include <Quarn/TaskSchedulerCpp.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace testing_support {

class FunctionTask : public Quarn::Task {
 public:
   using Body = std::function<void( FunctionTask& )>;

   FunctionTask( std::shared_ptr<Quarn::TaskScheduler> scheduler, Quarn::TaskPriority priority,
                 Quarn::String name, Body body = {} )
         : Task( std::move( scheduler ), priority, std::move( name ) ),
           body_( std::move( body ) ) {}

   void bodyIs( Body body ) { body_ = std::move( body ); }

 private:
   void taskExecute() override {
      if( body_ ) {
         // The body may replace itself, or drop this task.
         const Body body = body_;
         body( *this );
      }
   }

   Body body_;
};

inline std::shared_ptr<FunctionTask> makeTask( std::shared_ptr<Quarn::TaskScheduler> scheduler,
                                               Quarn::TaskPriority priority, Quarn::String name,
                                               FunctionTask::Body body = {} ) {
   return std::make_shared<FunctionTask>( std::move( scheduler ), priority, std::move( name ),
                                          std::move( body ) );
}

// The identifiers and events of a root's history, oldest first, as "display identifier".
inline std::vector<std::string> historyOf( const Quarn::TaskSchedulerRoot& root ) {
   std::vector<std::string> lines;
   std::string text = root.historyRenderTextForDebugToString().stdString();
   std::size_t begin = text.find( '\n', text.find( '\n' ) + 1 ) + 1;
   while( begin < text.size() ) {
      const std::size_t end = text.find( '\n', begin );
      std::string line = text.substr( begin, end - begin );
      line = line.substr( line.find( " us " ) + 4 );
      // Display texts are padded to 12 columns.
      while( line.find( "  " ) != std::string::npos ) {
         line.erase( line.find( "  " ), 1 );
      }
      lines.insert( lines.begin(), line );
      begin = end + 1;
   }
   return lines;
}

} // namespace testing_support
