// A folder of the test's own, removed with all that is in it.

#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

#include <stdlib.h>

namespace testing_support {

class TempDir {
 public:
   TempDir() {
      // Without symbolic links, as /proc shows paths.
      std::string name =
            std::filesystem::canonical( std::filesystem::temp_directory_path() ) / "test-XXXXXX";
      if( !mkdtemp( name.data() ) ) {
         throw std::runtime_error( "cannot make " + name );
      }
      path_ = name;
   }
   ~TempDir() {
      std::error_code ignored;
      std::filesystem::remove_all( path_, ignored );
   }
   TempDir( const TempDir& ) = delete;
   TempDir& operator=( const TempDir& ) = delete;

   // The folder, or the path of something in it.
   std::string path() const { return path_; }
   std::string path( const std::string& name ) const { return path_ + "/" + name; }

   void fileIs( const std::string& name, const std::string& content ) const {
      std::ofstream( path( name ), std::ios::binary ) << content;
   }

 private:
   std::string path_;
};

// How many descriptors this process has open.
inline std::ptrdiff_t openDescriptors() {
   return std::distance( std::filesystem::directory_iterator( "/proc/self/fd" ),
                         std::filesystem::directory_iterator() );
}

} // namespace testing_support
