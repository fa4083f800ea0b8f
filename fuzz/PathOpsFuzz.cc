// Operations on paths and locks in a scratch folder: an input is a list of steps, a letter each
// with what stands behind it here. P is a path and T a text, up to the next NUL; in a path a few
// low bytes stand for long pieces, and one that begins with a slash begins in the scratch folder. N
// is a byte, I a byte that chooses among what there is. Other bytes are passed over.
//
//     kP mP        mkpath with mode 0777, 0700
//     xNP          trimpath of the last N + 1 bytes
//     tP           touch
//     wPT fPT      fileWrite of T that throws, or does not
//     rP eP zP uP  fileRead, fileExists, fileSize, fileRemove
//     TNI          truncates a file to 17 N bytes
//     dPT          all of DirNode, with the extension T
//     g            getCwd
//     LIPT         makes one of three locks anew: directory P, file T
//     lI yI RI     takes a lock, without and with re-entry allowed; releases it
//     PI           readLockPid, once
//     sITP pIT     a link T in a directory that leads to P, a FIFO
//     nIIT vI cI   renames, removes, goes to a directory
//
// The second reader is a tree in memory, with names, kinds, contents, modes and owners of locks,
// that follows paths by the rules of path_resolution(7). It goes first and says what each call is
// to return, throw and leave in `errno`; after each step the folder is read and must look like the
// tree. A step whose path would lead out of the folder is passed over.

#include "fuzz/Draws.h"
#include "fuzz/Fuzz.h"

#include <Quarn/Debug.h>
#include <Quarn/base/Exception.h>
#include <Quarn/base/FileControl.h>
#include <Quarn/util/DirNode.h>
#include <Quarn/util/FileLock.h>
#include <Quarn/util/Files.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace Quarn;

constexpr int stepsMax = 100;
constexpr std::size_t nodesMax = 150;
constexpr std::size_t componentsMax = 40;
constexpr std::size_t locks = 3;
constexpr std::size_t nameMax = 255;
constexpr std::size_t pathMax = 4096;
constexpr int linksMax = 40;

// ---------------------------------------------------------------------------------------- the tree

struct Node {
   enum Kind { directory, file, link, fifo };

   Kind kind = directory;
   unsigned mode = 0;
   // Of a file; of a link, where it leads.
   std::string content{};
   std::map<std::string, Node*> entries{};
   // Of a directory, also one that is gone.
   Node* parent = nullptr;
   bool gone = false;
   // The lock that holds it.
   std::optional<std::size_t> owner{};
};

// The path leads out of the folder.
struct Escapes {};

// Where a path leads.
struct Place {
   enum Last { name, dot, dotDot, nothing };

   // What holds the last component, and what that is; null when there is nothing.
   Node* parent = nullptr;
   std::string last{};
   Last kind = nothing;
   bool slash = false;
   Node* node = nullptr;
};

class Tree {
 public:
   explicit Tree( std::string top ) : top_( std::move( top ) ) { cwd_ = root_ = _make( {} ); }

   // What calls return in `errno`, 0 when they work.
   int makeDirectory( const std::string& path, unsigned mode );
   // Not of what a link leads to.
   void modeIs( const std::string& path, unsigned mode );
   int removeDirectory( const std::string& path );
   int unlink( const std::string& path );
   int open( const std::string& path, Node*& found );
   int openFile( const std::string& path, Node*& found );
   int openOrMake( const std::string& path, Node*& found );

   // By what a path means, not how it is written.
   Node& add( Node& directory, const std::string& name, Node node );
   void detach( Node& node );
   std::string pathOf( const Node& node ) const;
   std::vector<Node*> all() const;

   // Whether the path stays inside, also once what is missing on it was made.
   bool staysInside( const std::string& path );

   Node& root() { return *root_; }
   Node& cwd() { return *cwd_; }
   void cwdIs( Node& directory ) { cwd_ = &directory; }

 private:
   enum class Want { parent, target, made };

   Node* _make( Node node ) {
      nodes_.push_back( std::make_unique<Node>( std::move( node ) ) );
      return nodes_.back().get();
   }
   int _walk( Node* at, std::string_view path, Want want, bool slash, int& links, Place& place );
   int _find( const std::string& path, Want want, Place& place );
   static std::string const* _nameOf( const Node& node, const Node& directory );

   std::string top_;
   std::vector<std::unique_ptr<Node>> nodes_;
   Node* root_;
   Node* cwd_;
   bool makesMissing_ = false;
};

// Component by component, as the system does, which shows in which error comes first.
int Tree::_walk( Node* at, std::string_view path, Want want, bool slash, int& links,
                 Place& place ) {
   if( path.starts_with( '/' ) ) {
      path.remove_prefix( top_.size() );
      at = root_;
   }
   path.remove_prefix( std::min( path.find_first_not_of( '/' ), path.size() ) );
   place = { .parent = at, .slash = slash, .node = at };
   while( !path.empty() ) {
      const std::string name( path.substr( 0, path.find( '/' ) ) );
      path.remove_prefix( name.size() );
      const bool slashBehind = !path.empty();
      path.remove_prefix( std::min( path.find_first_not_of( '/' ), path.size() ) );
      const bool last = path.empty();
      place = { .parent = at,
                .last = name,
                .kind = name == "."    ? Place::dot
                        : name == ".." ? Place::dotDot
                                       : Place::name,
                .slash = last && ( slash || slashBehind ) };
      if( place.kind == Place::dot ) {
         place.node = at;
      } else if( place.kind == Place::dotDot ) {
         if( at == root_ ) {
            throw Escapes();
         }
         place.node = at->parent;
      } else {
         if( last && want == Want::made && place.slash ) {
            return EISDIR;
         }
         if( at->gone ) {
            return ENOENT;
         }
         if( name.size() > nameMax ) {
            return ENAMETOOLONG;
         }
         const auto entry = at->entries.find( name );
         place.node = entry == at->entries.end() ? nullptr : entry->second;
         if( last && want == Want::parent && !makesMissing_ ) {
            return 0;
         }
         if( place.node && place.node->kind == Node::link ) {
            if( ++links > linksMax ) {
               return ELOOP;
            }
            const std::string target = place.node->content;
            const bool slashAtEnd = place.slash;
            if( const int error =
                      _walk( at, target, last ? want : Want::target, slashAtEnd, links, place ) ) {
               return error;
            }
         }
         if( !place.node && makesMissing_ ) {
            place.node = _make( { .parent = at } );
         }
         if( last ) {
            return 0;
         }
         if( !place.node ) {
            return ENOENT;
         }
      }
      if( !last && place.node->kind != Node::directory ) {
         return ENOTDIR;
      }
      at = place.node;
   }
   return 0;
}

int Tree::_find( const std::string& path, Want want, Place& place ) {
   if( path.empty() ) {
      return ENOENT;
   }
   if( path.size() >= pathMax ) {
      return ENAMETOOLONG;
   }
   int links = 0;
   return _walk( cwd_, path, want, false, links, place );
}

bool Tree::staysInside( const std::string& path ) {
   const std::size_t before = nodes_.size();
   makesMissing_ = true;
   bool inside = true;
   try {
      Place place;
      static_cast<void>( _find( path, Want::target, place ) );
   } catch( const Escapes& ) {
      inside = false;
   }
   makesMissing_ = false;
   nodes_.resize( before );
   return inside;
}

int Tree::makeDirectory( const std::string& path, unsigned mode ) {
   Place place;
   if( const int error = _find( path, Want::parent, place ) ) {
      return error;
   }
   if( place.kind != Place::name || place.node ) {
      return EEXIST;
   }
   add( *place.parent, place.last, { .kind = Node::directory, .mode = mode } );
   return 0;
}

void Tree::modeIs( const std::string& path, unsigned mode ) {
   Place place;
   if( _find( path, Want::parent, place ) != 0 || !place.node ) {
      return;
   }
   if( place.node->kind == Node::link ) {
      if( !place.slash || _find( path, Want::target, place ) != 0 || !place.node ) {
         return;
      }
   }
   if( !place.slash || place.node->kind == Node::directory ) {
      place.node->mode = mode;
   }
}

int Tree::removeDirectory( const std::string& path ) {
   Place place;
   if( const int error = _find( path, Want::parent, place ) ) {
      return error;
   }
   if( place.kind != Place::name ) {
      return place.kind == Place::dot ? EINVAL : ENOTEMPTY;
   }
   if( !place.node || place.node->kind != Node::directory ) {
      return place.node ? ENOTDIR : ENOENT;
   }
   if( !place.node->entries.empty() ) {
      return ENOTEMPTY;
   }
   place.node->gone = true;
   place.parent->entries.erase( place.last );
   return 0;
}

int Tree::unlink( const std::string& path ) {
   Place place;
   if( const int error = _find( path, Want::parent, place ) ) {
      return error;
   }
   if( place.kind != Place::name ) {
      return EISDIR;
   }
   if( !place.node ) {
      return ENOENT;
   }
   if( place.node->kind == Node::directory ) {
      return EISDIR;
   }
   if( place.slash ) {
      return ENOTDIR;
   }
   place.parent->entries.erase( place.last );
   return 0;
}

// To look at it, or to read it.
int Tree::open( const std::string& path, Node*& found ) {
   Place place;
   if( const int error = _find( path, Want::target, place ) ) {
      return error;
   }
   found = place.node;
   if( !found ) {
      return ENOENT;
   }
   return place.slash && found->kind != Node::directory ? ENOTDIR : 0;
}

// To write to it.
int Tree::openFile( const std::string& path, Node*& found ) {
   const int error = open( path, found );
   return error == 0 && found->kind == Node::directory ? EISDIR : error;
}

int Tree::openOrMake( const std::string& path, Node*& found ) {
   if( const int error = openFile( path, found ); error != ENOENT ) {
      return error;
   }
   Place place;
   if( const int error = _find( path, Want::made, place ) ) {
      return error;
   }
   found = &add( *place.parent, place.last, { .kind = Node::file, .mode = 0666 } );
   return 0;
}

Node& Tree::add( Node& directory, const std::string& name, Node node ) {
   node.parent = &directory;
   return *( directory.entries[ name ] = _make( std::move( node ) ) );
}

std::string const* Tree::_nameOf( const Node& node, const Node& directory ) {
   for( const auto& [ name, entry ] : directory.entries ) {
      if( entry == &node ) {
         return &name;
      }
   }
   return nullptr;
}

void Tree::detach( Node& node ) {
   if( std::string const* name = _nameOf( node, *node.parent ) ) {
      node.parent->entries.erase( *name );
   }
}

std::string Tree::pathOf( const Node& node ) const {
   return &node == root_ ? top_ : pathOf( *node.parent ) + "/" + *_nameOf( node, *node.parent );
}

std::vector<Node*> Tree::all() const {
   std::vector<Node*> found{ root_ };
   for( std::size_t n = 0; n < found.size(); ++n ) {
      for( const auto& entry : found[ n ]->entries ) {
         found.push_back( entry.second );
      }
   }
   return found;
}

// --------------------------------------------------------------------------------------- the
// folder

// In memory, where there is such a place.
std::string scratchFolder() {
   constexpr char inMemory[] = "/dev/shm";
   std::string name =
         ( access( inMemory, W_OK ) == 0
                 ? std::filesystem::path( inMemory )
                 : std::filesystem::canonical( std::filesystem::temp_directory_path() ) ) /
         "fuzz-XXXXXX";
   FUZZ_REQUIRE( mkdtemp( name.data() ) );
   return name;
}

struct Descriptor {
   explicit Descriptor( int which ) : fd( which ) { FUZZ_REQUIRE( fd >= 0 ); }
   ~Descriptor() { close( fd ); }
   Descriptor( const Descriptor& ) = delete;
   Descriptor& operator=( const Descriptor& ) = delete;

   int fd;
};

class Play {
 public:
   explicit Play( std::string_view bytes );
   ~Play();
   void run();

 private:
   struct Lock {
      std::unique_ptr<FileLock> lock{};
      std::string directory{};
      std::string file{};
      // What it holds.
      Node* node = nullptr;
   };
   struct Outcome {
      int error = 0;
      bool asserted = false;
      std::string what{};
   };

   // Of the input.
   std::string _text();
   std::string _path();
   std::string _name();
   Node& _anyOf( Node::Kind kind );
   Node& _any();

   void _step( char letter );
   void _mkpath( const std::string& path, unsigned mode );
   int _modelMkpath( const std::string& path, unsigned mode );
   void _trimpath( std::string path, std::size_t size );
   void _write( const std::string& path, const std::string& data, bool noThrow );
   void _read( const std::string& path );
   void _directory( const std::string& path, const std::string& extension );
   void _truncate( std::size_t length );
   void _getCwd();
   void _makeLock( Lock& slot );
   void _lock( std::size_t which, bool allowReentry );
   void _release( Lock& slot );
   void _letGo( Lock& slot );
   void _readLockPid();
   void _addOther( char letter );
   void _rename();
   void _remove();

   void _require( bool so, int line, char const* what );
   template<typename Call>
   Outcome _outcomeOf( Call&& call );
   void _compare( int fd, const Node& directory );

   Fuzz::Draws input_;
   std::string top_;
   Tree tree_;
   std::shared_ptr<Platform::DebugHandler> handler_;
   std::array<Lock, locks> locks_;
   // So that the open of one does not wait.
   std::vector<std::unique_ptr<Descriptor>> fifos_;
   int cwdBefore_;
   mode_t umaskBefore_;
   int lowestFd_;
   bool askedForPid_ = false;
   std::string doing_;
};

// Tells of the step, and leaves no folder behind.
#define PLAY_REQUIRE( condition ) _require( condition, __LINE__, #condition )

void Play::_require( bool so, int line, char const* what ) {
   if( !so ) {
      std::fprintf( stderr, "%s\n", doing_.c_str() );
      // The fuzzer writes the input to where it was.
      static_cast<void>( fchdir( cwdBefore_ ) );
      std::error_code ignored;
      std::filesystem::remove_all( top_, ignored );
      Fuzz::finding( __FILE__, line, what );
   }
}

int lowestFreeDescriptor() {
   const Descriptor any( ::open( "/dev/null", O_RDONLY | O_CLOEXEC ) );
   return any.fd;
}

Play::Play( std::string_view bytes )
      : input_( bytes ),
        top_( scratchFolder() ),
        tree_( top_ ),
        handler_( Platform::getDebugHandler( "FuzzPathOps", false ) ),
        cwdBefore_( ::open( ".", O_PATH | O_DIRECTORY | O_CLOEXEC ) ),
        umaskBefore_( umask( 077 ) ) {
   handler_->enabledIs( 0, false );
   PLAY_REQUIRE( chdir( top_.c_str() ) == 0 );
   lowestFd_ = lowestFreeDescriptor();
}

Play::~Play() {
   for( Lock& slot : locks_ ) {
      slot.lock.reset();
   }
   fifos_.clear();
   PLAY_REQUIRE( lowestFreeDescriptor() == lowestFd_ );
   PLAY_REQUIRE( cwdBefore_ < 0 || fchdir( cwdBefore_ ) == 0 );
   close( cwdBefore_ );
   umask( umaskBefore_ );
   std::error_code error;
   std::filesystem::remove_all( top_, error );
   FUZZ_REQUIRE( !error );
}

// Up to the next NUL.
std::string Play::_text() {
   std::string text;
   while( !input_.ended() ) {
      const char c = static_cast<char>( input_.byte() );
      if( c == '\0' ) {
         break;
      }
      text += c;
   }
   return text;
}

std::string Play::_path() {
   std::string path;
   for( const char c : _text() ) {
      switch( c ) {
      case 1:
         path.append( nameMax, 'x' );
         break;
      case 2:
         path.append( nameMax + 1, 'y' );
         break;
      case 3:
         for( int n = 0; n < 10; ++n ) {
            path += "d/";
         }
         break;
      case 4:
         path.append( 1000, '/' );
         break;
      case 5:
         for( int n = 0; n < 500; ++n ) {
            path += "./";
         }
         break;
      default:
         path += c;
      }
   }
   path.resize( std::min( path.size(), pathMax + 10 ) );
   // Fewer than a run can be done with.
   std::size_t components = 0;
   for( std::size_t at = 0; at < path.size(); ++at ) {
      const bool begins = path[ at ] != '/' && ( at == 0 || path[ at - 1 ] == '/' );
      const bool isDot = path[ at ] == '.' && ( at + 1 == path.size() || path[ at + 1 ] == '/' );
      components += begins && !isDot ? 1 : 0;
      if( components > componentsMax ) {
         path.resize( at );
      }
   }
   return path.starts_with( '/' ) ? top_ + path : path;
}

// One component, of something that is made by other means.
std::string Play::_name() {
   std::string name = _text().substr( 0, nameMax );
   std::erase( name, '/' );
   return name == "." || name == ".." || name.empty() ? "n" : name;
}

Node& Play::_any() {
   const std::vector<Node*> all = tree_.all();
   Node* const chosen = all[ input_.byte() % all.size() ];
   return *chosen;
}

Node& Play::_anyOf( Node::Kind kind ) {
   std::vector<Node*> all = tree_.all();
   std::erase_if( all, [ & ]( Node const* node ) { return node->kind != kind; } );
   const unsigned which = input_.byte();
   return all.empty() ? tree_.root() : *all[ which % all.size() ];
}

template<typename Call>
Play::Outcome Play::_outcomeOf( Call&& call ) {
   errno = 0;
   try {
      const bool good = call();
      // A failure without a reason is none that the model knows.
      return { .error = good ? 0 : errno != 0 ? errno : -1 };
   } catch( const AssertException& e ) {
      return { .error = errno, .asserted = true, .what = e.what() };
   } catch( const RuntimeException& e ) {
      return { .error = errno, .what = e.what() };
   }
}

// What had to wait for its parents gets its mode once more, also when a ".." behind them leads to
// what was there.
int Play::_modelMkpath( const std::string& path, unsigned mode ) {
   int error = tree_.makeDirectory( path, mode );
   if( error != ENOENT ) {
      return error == EEXIST ? 0 : error;
   }
   const std::size_t slash = path.rfind( '/' );
   if( slash == std::string::npos || slash == 0 ) {
      return ENOENT;
   }
   if( ( error = _modelMkpath( path.substr( 0, slash ), mode ) ) != 0 ) {
      return error;
   }
   error = tree_.makeDirectory( path, mode );
   if( error != 0 && error != EEXIST ) {
      return error;
   }
   tree_.modeIs( path, mode );
   return 0;
}

void Play::_mkpath( const std::string& path, unsigned mode ) {
   const int expected = _modelMkpath( path, mode );
   const Outcome found = _outcomeOf( [ & ] { return Util::mkpath( path.c_str(), mode ) == 0; } );
   PLAY_REQUIRE( found.error == expected );
}

// Each text that ends before a slash of what is trailing, the longest first.
void Play::_trimpath( std::string path, std::size_t size ) {
   path.erase( 0, path.find_first_not_of( '/', path.starts_with( '/' ) ? top_.size() : 0 ) );
   if( path.empty() ) {
      return;
   }
   const std::string whole = top_ + "/" + path;
   const std::string trailing = path.substr( path.size() - 1 - size % path.size() );
   std::vector<std::string> texts{ whole };
   for( std::size_t at = whole.size() - 1; at > whole.size() - trailing.size(); --at ) {
      if( whole[ at ] == '/' ) {
         texts.push_back( whole.substr( 0, at ) );
      }
   }
   for( const std::string& text : texts ) {
      if( !tree_.staysInside( text ) ) {
         return;
      }
   }
   int expected = 0;
   for( const std::string& text : texts ) {
      expected = tree_.removeDirectory( text );
      if( expected == ENOENT ) {
         expected = 0;
      }
      if( expected != 0 ) {
         break;
      }
   }
   const Outcome found =
         _outcomeOf( [ & ] { return Util::trimpath( whole.c_str(), trailing ) == 0; } );
   PLAY_REQUIRE( found.error == expected );
}

void Play::_write( const std::string& path, const std::string& data, bool noThrow ) {
   Node* node = nullptr;
   const int expected = tree_.openOrMake( path, node );
   if( expected == 0 && node->kind == Node::file ) {
      node->content = data;
   }
   const Outcome found = _outcomeOf( [ & ] {
      Util::fileWrite( *handler_, path.c_str(), data, noThrow );
      return noThrow && expected != 0 ? false : true;
   } );
   PLAY_REQUIRE( found.error == expected );
   PLAY_REQUIRE( !found.asserted );
   PLAY_REQUIRE( found.what == ( expected != 0 && !noThrow ? data : "" ) );
}

void Play::_read( const std::string& path ) {
   Node* node = nullptr;
   int expected = tree_.open( path, node );
   if( expected == 0 && node->kind == Node::fifo ) {
      return; // would wait for its end
   }
   std::string content;
   const Outcome found = _outcomeOf( [ & ] {
      content = Util::fileRead( *handler_, path.c_str(), true ).stdString();
      return expected == 0;
   } );
   PLAY_REQUIRE( found.error == expected );
   PLAY_REQUIRE( content ==
                 ( expected == 0 ? node->content.substr( 0, node->content.find( '\0' ) ) : "" ) );
}

void Play::_directory( const std::string& path, const std::string& extension ) {
   Node* node = nullptr;
   int expected = tree_.open( path, node );
   if( expected == 0 && node->kind != Node::directory ) {
      expected = ENOTDIR;
   }
   DirNode directory( *handler_ );
   PLAY_REQUIRE( !directory.isOpen() && !directory.readEntry() );
   errno = 0;
   directory.pathIs( path );
   PLAY_REQUIRE( directory.path() == path );
   PLAY_REQUIRE( directory.isOpen() == ( expected == 0 ) );
   if( expected != 0 ) {
      PLAY_REQUIRE( errno == expected );
      PLAY_REQUIRE( !directory.readEntry() );
      for( char const* what : { "cannot rewind ", "cannot find " } ) {
         const Outcome found = _outcomeOf( [ & ] {
            if( what[ 7 ] == 'r' ) {
               directory.rewind();
            } else {
               static_cast<void>( directory.findFiles( extension ) );
            }
            return true;
         } );
         PLAY_REQUIRE( !found.asserted && found.what.find( what ) != std::string::npos );
         PLAY_REQUIRE( found.what.ends_with( path + " because the directory is not open" ) );
      }
      return;
   }
   std::multiset<std::string> names;
   std::multiset<std::string> withExtension;
   if( !node->gone ) {
      names = { ".", ".." };
   }
   for( const auto& [ name, entry ] : node->entries ) {
      names.insert( name );
      if( ( entry->kind == Node::file || entry->kind == Node::link ) &&
          name.ends_with( extension ) ) {
         withExtension.insert( name );
      }
   }
   for( int turn = 0; turn < 2; ++turn ) {
      std::multiset<std::string> found;
      while( dirent const* const entry = directory.readEntry() ) {
         found.insert( entry->d_name );
      }
      PLAY_REQUIRE( found == names );
      const std::vector<String> files = directory.findFiles( extension );
      std::multiset<std::string> foundFiles;
      for( const String& name : files ) {
         foundFiles.insert( name.stdString() );
      }
      PLAY_REQUIRE( foundFiles == withExtension );
      PLAY_REQUIRE( !directory.readEntry() );
      directory.rewind();
   }
}

void Play::_truncate( std::size_t length ) {
   Node& node = _anyOf( Node::file );
   const std::string path = tree_.pathOf( node );
   if( node.kind != Node::file || path.size() >= pathMax ) {
      return;
   }
   const Descriptor file( ::open( path.c_str(), O_RDWR | O_CLOEXEC ) );
   PLAY_REQUIRE( Util::fileSize( *handler_, file.fd ) == node.content.size() );
   const unsigned long tooLarge = 1ul << 63 | length;
   Outcome found = _outcomeOf(
         [ & ] { return Util::truncate( *handler_, path.c_str(), file.fd, tooLarge ) == 0; } );
   PLAY_REQUIRE( found.error == EINVAL );
   found = _outcomeOf(
         [ & ] { return Util::truncate( *handler_, path.c_str(), file.fd, length ) == 0; } );
   PLAY_REQUIRE( found.error == 0 );
   node.content.resize( length );
   PLAY_REQUIRE( Util::fileSize( *handler_, file.fd ) == length );
}

void Play::_getCwd() {
   std::string path;
   const Outcome found = _outcomeOf( [ & ] {
      path = Util::getCwd( *handler_ ).stdString();
      return true;
   } );
   if( tree_.cwd().gone ) {
      PLAY_REQUIRE( found.error == ENOENT && !found.asserted );
      PLAY_REQUIRE( found.what.ends_with( "getcwd() failed:No such file or directory" ) );
   } else if( const std::string expected = tree_.pathOf( tree_.cwd() );
              expected.size() < pathMax ) {
      PLAY_REQUIRE( path == expected );
   } else {
      PLAY_REQUIRE( found.error == ERANGE && !found.asserted );
   }
}

// ------------------------------------------------------------------------------------------- locks

void Play::_letGo( Lock& slot ) {
   if( slot.node ) {
      slot.node->owner.reset();
      slot.node = nullptr;
   }
}

void Play::_makeLock( Lock& slot ) {
   const std::string directory = _path();
   const std::string file = _text();
   _letGo( slot );
   slot = {};
   const Outcome found = _outcomeOf( [ & ] {
      slot.lock = std::make_unique<FileLock>( *handler_, directory, file );
      return true;
   } );
   PLAY_REQUIRE( found.asserted == ( file.find( '/' ) != file.npos ) );
   if( found.asserted ) {
      PLAY_REQUIRE( found.what.ends_with( "unexpected '/' in filename: " + file ) );
      return;
   }
   slot.directory = directory;
   slot.file = directory.empty() ? file : directory + "/" + file;
   PLAY_REQUIRE( slot.lock->file() == slot.file );
}

void Play::_lock( std::size_t which, bool allowReentry ) {
   Lock& slot = locks_[ which ];
   if( !slot.lock || !tree_.staysInside( slot.directory ) || !tree_.staysInside( slot.file ) ) {
      return;
   }
   const auto lock = [ & ] { return slot.lock->lock( allowReentry ); };
   if( slot.node && allowReentry ) {
      PLAY_REQUIRE( _outcomeOf( lock ).error == 0 );
      return;
   }
   if( !slot.directory.empty() ) {
      if( const int error = _modelMkpath( slot.directory, 0777 ) ) {
         const Outcome found = _outcomeOf( lock );
         PLAY_REQUIRE( found.asserted );
         PLAY_REQUIRE( found.what.ends_with( "unexpected mkpath() error " + slot.directory + ": " +
                                             Quarn::strerror( error ).stdString() ) );
         return;
      }
   }
   Node* node = nullptr;
   int expected = tree_.openOrMake( slot.file, node );
   if( expected == 0 && node->owner ) {
      expected = EAGAIN;
   }
   if( expected == 0 ) {
      _letGo( slot );
      slot.node = node;
      node->owner = which;
   }
   const Outcome found = _outcomeOf( lock );
   PLAY_REQUIRE( found.error == expected && found.what.empty() );
}

void Play::_release( Lock& slot ) {
   if( !slot.lock ) {
      return;
   }
   const Outcome found = _outcomeOf( [ & ] { return slot.lock->release(), true; } );
   PLAY_REQUIRE( found.asserted == !slot.node );
   if( found.asserted ) {
      PLAY_REQUIRE( found.what.ends_with(
            "attempting to release a lock that is not currently held. File:" + slot.file ) );
   }
   _letGo( slot );
}

// Looks at all processes, so once is enough.
void Play::_readLockPid() {
   const Node& node = _anyOf( Node::file );
   const std::string path = tree_.pathOf( node );
   if( node.kind == Node::file && path.size() < pathMax && !std::exchange( askedForPid_, true ) ) {
      PLAY_REQUIRE( Util::readLockPid( *handler_, path ) == ( node.owner ? getpid() : 0 ) );
   }
}

// -------------------------------------------------------------------------------- by other means

void Play::_addOther( char letter ) {
   Node& directory = _anyOf( Node::directory );
   const std::string name = _name();
   const std::string target = letter == 's' ? _path() : "";
   const std::string path = tree_.pathOf( directory ) + "/" + name;
   if( directory.entries.contains( name ) || path.size() >= pathMax ) {
      return;
   }
   if( letter == 'p' ) {
      PLAY_REQUIRE( mkfifo( path.c_str(), 0600 ) == 0 );
      tree_.add( directory, name, { .kind = Node::fifo, .mode = 0600 } );
      fifos_.push_back( std::make_unique<Descriptor>(
            ::open( path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC ) ) );
   } else if( !target.empty() && target.size() < pathMax ) {
      PLAY_REQUIRE( symlink( target.c_str(), path.c_str() ) == 0 );
      tree_.add( directory, name, { .kind = Node::link, .content = target } );
   }
}

void Play::_rename() {
   Node& node = _any();
   Node& directory = _anyOf( Node::directory );
   const std::string name = _name();
   const std::string from = tree_.pathOf( node );
   const std::string to = tree_.pathOf( directory ) + "/" + name;
   for( Node const* above = &directory; above; above = above->parent ) {
      if( above == &node ) {
         return;
      }
   }
   const auto there = directory.entries.find( name );
   Node* const replaced = there == directory.entries.end() ? nullptr : there->second;
   const bool fits =
         !replaced || ( ( replaced->kind == Node::directory ) == ( node.kind == Node::directory ) &&
                        replaced->entries.empty() );
   if( replaced == &node || !fits || from.size() >= pathMax || to.size() >= pathMax ) {
      return;
   }
   PLAY_REQUIRE( ::rename( from.c_str(), to.c_str() ) == 0 );
   if( replaced ) {
      replaced->gone = true;
   }
   tree_.detach( node );
   node.parent = &directory;
   directory.entries[ name ] = &node;
}

void Play::_remove() {
   Node& node = _any();
   const std::string path = tree_.pathOf( node );
   if( &node == &tree_.root() || !node.entries.empty() || path.size() >= pathMax ) {
      return;
   }
   PLAY_REQUIRE(
         ( node.kind == Node::directory ? rmdir( path.c_str() ) : ::unlink( path.c_str() ) ) == 0 );
   node.gone = true;
   tree_.detach( node );
}

// ------------------------------------------------------------------------------------------- steps

void Play::_step( char letter ) {
   // Those with a path of any kind.
   constexpr std::string_view withPath = "kmtfwreuzd";
   std::string path;
   if( withPath.find( letter ) != withPath.npos ) {
      path = _path();
      doing_ = std::string{ letter, ' ' } + path;
      if( !tree_.staysInside( path ) ) {
         return;
      }
   } else {
      doing_ = letter;
   }
   Node* node = nullptr;
   switch( letter ) {
   case 'k':
      _mkpath( path, 0777 );
      break;
   case 'm':
      _mkpath( path, 0700 );
      break;
   case 't': {
      const int expected = tree_.openOrMake( path, node );
      PLAY_REQUIRE( _outcomeOf( [ & ] { return Util::touch( *handler_, path.c_str() ); } ).error ==
                    expected );
      break;
   }
   case 'w':
   case 'f':
      _write( path, _text(), letter == 'f' );
      break;
   case 'r':
      _read( path );
      break;
   case 'e': {
      const int expected = tree_.open( path, node );
      PLAY_REQUIRE( _outcomeOf( [ & ] {
                       return Util::fileExists( *handler_, path.c_str() );
                    } ).error == expected );
      break;
   }
   case 'u': {
      const int expected = tree_.unlink( path );
      PLAY_REQUIRE( _outcomeOf( [ & ] {
                       return Util::fileRemove( *handler_, path.c_str() );
                    } ).error == ( expected == ENOENT ? 0 : expected ) );
      break;
   }
   case 'z': {
      const int expected = tree_.open( path, node );
      errno = 0;
      const unsigned long size = Util::fileSize( *handler_, path.c_str() );
      PLAY_REQUIRE( errno == expected );
      PLAY_REQUIRE( ( expected == 0 && node->kind == Node::directory ) ||
                    size == ( expected == 0 ? node->content.size() : 0 ) );
      break;
   }
   case 'd':
      _directory( path, _text() );
      break;
   case 'x': {
      const std::size_t size = input_.byte();
      _trimpath( _path(), size );
      break;
   }
   case 'T':
      _truncate( std::size_t{ 17 } * input_.byte() );
      break;
   case 'g':
      _getCwd();
      break;
   case 'L':
      _makeLock( locks_[ input_.byte() % locks ] );
      break;
   case 'l':
   case 'y':
      _lock( input_.byte() % locks, letter == 'y' );
      break;
   case 'R':
      _release( locks_[ input_.byte() % locks ] );
      break;
   case 'P':
      _readLockPid();
      break;
   case 's':
   case 'p':
      _addOther( letter );
      break;
   case 'n':
      _rename();
      break;
   case 'v':
      _remove();
      break;
   case 'c': {
      Node& directory = _anyOf( Node::directory );
      const std::string to = tree_.pathOf( directory );
      if( to.size() < pathMax ) {
         PLAY_REQUIRE( chdir( to.c_str() ) == 0 );
         tree_.cwdIs( directory );
      }
      break;
   }
   default:
      break;
   }
}

// Whether the folder is as the tree is.
void Play::_compare( int fd, const Node& directory ) {
   const int copy = ::openat( fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC );
   PLAY_REQUIRE( copy >= 0 );
   DIR* const stream = fdopendir( copy );
   std::size_t count = 0;
   while( dirent const* const entry = readdir( stream ) ) {
      const std::string name = entry->d_name;
      if( name == "." || name == ".." ) {
         continue;
      }
      ++count;
      const auto expected = directory.entries.find( name );
      PLAY_REQUIRE( expected != directory.entries.end() );
      const Node& node = *expected->second;
      struct stat status = {};
      PLAY_REQUIRE( fstatat( copy, name.c_str(), &status, AT_SYMLINK_NOFOLLOW ) == 0 );
      constexpr mode_t kinds[] = { S_IFDIR, S_IFREG, S_IFLNK, S_IFIFO };
      PLAY_REQUIRE( ( status.st_mode & S_IFMT ) == kinds[ node.kind ] );
      if( node.kind == Node::link ) {
         std::string target( pathMax, '\0' );
         const ssize_t got = readlinkat( copy, name.c_str(), target.data(), target.size() );
         PLAY_REQUIRE( got >= 0 );
         target.resize( static_cast<std::size_t>( got ) );
         PLAY_REQUIRE( target == node.content );
         continue;
      }
      PLAY_REQUIRE( ( status.st_mode & 07777 ) == node.mode );
      if( node.kind == Node::fifo ) {
         continue;
      }
      const Descriptor open( ::openat( copy, name.c_str(), O_RDONLY | O_CLOEXEC ) );
      if( node.kind == Node::directory ) {
         _compare( open.fd, node );
         continue;
      }
      std::string content( node.content.size() + 1, '\0' );
      const ssize_t got = ::read( open.fd, content.data(), content.size() );
      PLAY_REQUIRE( got == static_cast<ssize_t>( node.content.size() ) );
      content.pop_back();
      PLAY_REQUIRE( content == node.content );
      struct flock lock = {};
      lock.l_type = F_RDLCK;
      PLAY_REQUIRE( fcntl( open.fd, F_OFD_GETLK, &lock ) == 0 );
      PLAY_REQUIRE( ( lock.l_type == F_WRLCK ) == node.owner.has_value() );
   }
   closedir( stream );
   PLAY_REQUIRE( count == directory.entries.size() );
}

void Play::run() {
   const Descriptor top( ::open( top_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC ) );
   for( int steps = 0; steps < stepsMax && !input_.ended() && tree_.all().size() < nodesMax;
        ++steps ) {
      _step( static_cast<char>( input_.byte() ) );
      _compare( top.fd, tree_.root() );
      const mode_t during = umask( 077 );
      PLAY_REQUIRE( during == 077 );
   }
}

} // namespace

int LLVMFuzzerTestOneInput( const std::uint8_t* data, std::size_t size ) {
   Play( Fuzz::asText( data, size ) ).run();
   return 0;
}
