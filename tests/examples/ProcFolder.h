// A made-up /proc folder in a temporary place.

#pragma once

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include <stdlib.h>
#include <sys/types.h>

namespace HostAgent {

class ProcFolder {
 public:
   ProcFolder() {
      std::string name = std::filesystem::temp_directory_path() / "proc-XXXXXX";
      if( !mkdtemp( name.data() ) ) {
         throw std::runtime_error( "cannot make " + name );
      }
      path_ = name;
   }
   ~ProcFolder() {
      std::error_code ignored;
      std::filesystem::remove_all( path_, ignored );
   }
   ProcFolder( const ProcFolder& ) = delete;
   ProcFolder& operator=( const ProcFolder& ) = delete;

   std::string path() const { return path_; }

   // A process with these ticks of user time, or one whose stat file has any given text.
   void processIs( pid_t pid, unsigned cpuTicks ) const {
      textIs( pid, std::to_string( pid ) + " (p) S 1 1 1 0 -1 0 0 0 0 0 " +
                         std::to_string( cpuTicks ) + " 0 0 0 20 0 1 0 5 8192 3\n" );
   }
   void textIs( pid_t pid, const std::string& text ) const {
      folderIs( pid );
      std::ofstream( _folder( pid ) / "stat" ) << text;
   }
   // A process without files, as one that ends between being listed and being read.
   void folderIs( pid_t pid ) const { std::filesystem::create_directory( _folder( pid ) ); }
   void processDel( pid_t pid ) const { std::filesystem::remove_all( _folder( pid ) ); }

 private:
   std::filesystem::path _folder( pid_t pid ) const { return path_ / std::to_string( pid ); }

   std::filesystem::path path_;
};

} // namespace HostAgent
