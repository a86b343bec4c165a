// A table's files in a root other users can write: reversible names, modes,
// and no planted file ever used. The hostile user is a child run as nobody.
#include "tests/platform/lumen/LumenTestSupport.h"
#include "tests/support/OtherUser.h"

#include <gtest/gtest.h>

#include <sys/inotify.h>
#include <sys/stat.h>

#include <cctype>
#include <fstream>
#include <random>
#include <set>
#include <sstream>

using namespace LumenTest;

namespace {

#define SKIP_WITHOUT_OTHER_USER()                                   \
   if ( std::string why = OtherUser::skipReason(); !why.empty() ) { \
      GTEST_SKIP() << why;                                          \
   }

std::string contentOf( const std::string& name ) {
   std::ifstream in( name, std::ios::binary );
   std::ostringstream s;
   s << in.rdbuf();
   return s.str();
}

struct stat statOf( const std::string& name ) {
   struct stat st {};
   EXPECT_EQ( ::lstat( name.c_str(), &st ), 0 ) << name;
   return st;
}

mode_t modeOf( const std::string& name ) {
   return statOf( name ).st_mode & 07777;
}

// A file of the test's own (root's), which a planted link points at.
class Victim {
 public:
   explicit Victim( const LumenRoot& root ) : name_( root.file( "victim" ) ) {
      std::ofstream( name_ ) << text;
   }
   bool intact() const { return contentOf( name_ ) == text; }
   const std::string& name() const { return name_; }
   static constexpr const char* text = "a file of root's that no table may touch";

 private:
   std::string name_;
};

// The newest data file of the table whose control file is `stem`.
std::string newestDataFile( const LumenRoot& root, const std::string& stem ) {
   uint64_t newest = 0;
   for ( const auto& e : std::filesystem::directory_iterator( root.dir() ) ) {
      std::string name = e.path().filename();
      if ( name.starts_with( stem + "@" ) &&
           std::isdigit( static_cast< unsigned char >( name[ stem.size() + 1 ] ) ) ) {
         newest = std::max< uint64_t >( newest, std::stoull( name.substr( stem.size() + 1 ) ) );
      }
   }
   return root.file( fmt::format( "{}@{}", stem, newest ) );
}

// Creates, as nobody, `link` in the root pointing at `target`.
int plantLink( const std::string& target, const std::string& link ) {
   return OtherUser::nobody().run( [ & ] { return ::symlink( target.c_str(), link.c_str() ); } );
}

}  // namespace

// --------------------------------------------------------------- naming

// "/a/b" and "/a.b" once flattened to the same files. Every control file maps
// back to its table's path; no other file (data, wake, socket) passes for one.
TEST( LumenFiles, DistinctPathsHaveTheirOwnFilesEachListedByItsPath ) {
   LumenRoot root;
   const std::set< std::string > paths = {
      "/a/b", "/a.b", "/a/b.c", "/a%2Eb", "/a%2Fb", "/host@1", "/@wake", "/x y/z", "/-_/09AZaz",
      "/caf\xc3\xa9", "/..a/b..", "/%", "/%41",
   };
   std::vector< std::unique_ptr< Lumen::Writer< HostRec > > > writers;
   uint32_t n = 0;
   for ( const auto& path : paths ) {
      writers.push_back( std::make_unique< Lumen::Writer< HostRec > >() );
      writers.back()->attach( path );
      writers.back()->write( HostRec::of( n++, 1 ) );
   }
   n = 0;
   for ( const auto& path : paths ) {
      EXPECT_EQ( contentsOf( Lumen::Reader< HostRec >( path ) ),
                 ( std::map< MacKey, HostRec >{ { MacKey::of( n ), HostRec::of( n, 1 ) } } ) ) << path;
      ++n;
   }
   Lumen::Reader< HostRec > reader( "/a/b" );   // leaves a socket in the root
   std::set< std::string > listed;
   size_t files = 0;
   for ( const auto& e : std::filesystem::directory_iterator( root.dir() ) ) {
      ++files;
      if ( auto path = Lumen::tablePathOfFile( e.path().filename() ) ) {
         EXPECT_TRUE( listed.insert( *path ).second ) << *path << " listed twice";
      }
   }
   EXPECT_EQ( listed, paths );
   EXPECT_GE( files, 3 * paths.size() + 1 ) << "control, data and wake files, and a socket";
}

// Only names the mapping produces map back, else one table has two names.
TEST( LumenFiles, NamesTheMappingNeverProducesAreNoTables ) {
   EXPECT_EQ( Lumen::tablePathOfFile( "a.b%2Ec%25" ), "/a/b.c%" );
   EXPECT_EQ( Lumen::tablePathOfFile( "%C3%A9" ), "/\xc3\xa9" );
   EXPECT_EQ( Lumen::tablePathOfFile( "a%2E%2E" ), "/a.." );
   for ( const char* name : { "", ".", "..", "a.", ".a", "a..b", "a%2e", "a%41", "a%2F", "a%00",
                              "a%4", "a%", "a%G1", "a@1", "a@wake", "a@new.1.1", "@reader.1.1",
                              "a b", "%2E", "a.%2E%2E" } ) {
      EXPECT_EQ( Lumen::tablePathOfFile( name ), std::nullopt ) << name;
   }
}

// A path too long for its files once left readers waiting for ever; writer
// and reader refuse it alike.
TEST( LumenFiles, AnOverlongPathIsRefusedByWriterAndReaderAlike ) {
   LumenRoot root;
   // 229 bytes leave room for the longest suffix; "@" escapes to three.
   // Built by append: GCC 12 at -O3 mistakes "/" + std::string(n, c) for an
   // overlapping copy.
   auto under = []( std::string prefix, size_t n, char c ) { return prefix.append( n, c ); };
   for ( std::string path :
         { under( "/", 230, 'x' ), under( "/", 77, '@' ), under( "/lumen/", 250, 'y' ) } ) {
      Lumen::Writer< HostRec > writer;
      std::string writerError = whatOf< Mox::Exception >( [ & ] { writer.attach( path ); } );
      std::string readerError =
         whatOf< Mox::Exception >( [ & ] { Lumen::Reader< HostRec > reader( path ); } );
      EXPECT_NE( writerError.find( "is too long" ), std::string::npos ) << writerError;
      EXPECT_EQ( readerError, writerError );
   }
   std::string longest = under( "/", 229, 'x' );
   Lumen::Writer< HostRec > writer;
   writer.attach( longest );
   writer.write( HostRec::of( 1, 1 ) );
   EXPECT_TRUE( Lumen::Reader< HostRec >( longest ).contains( MacKey::of( 1 ) ) );
   // A root so deep that no table fits under it.
   std::string deep = root.dir();
   while ( deep.size() < PATH_MAX - 20 ) {
      deep = under( deep + "/", std::min< size_t >( 200, PATH_MAX - 21 - deep.size() ), 'd' );
      ASSERT_EQ( ::mkdir( deep.c_str(), 0700 ), 0 ) << deep.size();
   }
   Lumen::rootIs( deep );
   Lumen::Writer< HostRec > deepWriter;
   std::string writerError = whatOf< Mox::Exception >( [ & ] { deepWriter.attach( "/lumen/t" ); } );
   std::string readerError =
      whatOf< Mox::Exception >( [ & ] { Lumen::Reader< HostRec > r( "/lumen/t" ); } );
   EXPECT_NE( writerError.find( "is too long under root" ), std::string::npos ) << writerError;
   EXPECT_EQ( readerError, writerError );
}

// --------------------------------------------------------------- scratch files

// A scratch file per attach, even of an existing table, piled up behind
// writers killed while attaching.
TEST( LumenFiles, AttachingAnExistingTableBuildsNoScratchFile ) {
   LumenRoot root;
   {
      Lumen::Writer< HostRec > writer;
      writer.attach( "/lumen/scratch" );
   }
   int watch = ::inotify_init1( IN_NONBLOCK | IN_CLOEXEC );
   ASSERT_GE( watch, 0 );
   ASSERT_GE( ::inotify_add_watch( watch, root.dir().c_str(), IN_CREATE ), 0 );
   {
      Lumen::Writer< HostRec > writer;
      writer.attach( "/lumen/scratch" );
   }
   std::vector< std::string > created;
   alignas( inotify_event ) char buf[ 8192 ];
   for ( ssize_t n; ( n = ::read( watch, buf, sizeof( buf ) ) ) > 0; ) {
      for ( char* p = buf; p < buf + n; ) {
         auto* e = reinterpret_cast< inotify_event* >( p );
         created.emplace_back( e->len ? e->name : "" );
         p += sizeof( inotify_event ) + e->len;
      }
   }
   ::close( watch );
   for ( const auto& name : created ) {
      EXPECT_EQ( name.find( "@new." ), std::string::npos ) << name << " built for an existing table";
   }
   EXPECT_FALSE( created.empty() ) << "the attach created no data file: nothing was watched";
}

TEST( LumenFiles, AWriterRemovesTheScratchFilesOfDeadWriters ) {
   LumenRoot root;
   pid_t dead = startChild( [] { return 0; } );
   waitChild( dead );
   auto scratch = [ & ]( const std::string& table, pid_t pid ) {
      std::string name = root.file( fmt::format( "{}@new.{}.{}", table, pid, pid ) );
      std::ofstream( name ) << std::string( 4096, 's' );
      return name;
   };
   std::string deadOne = scratch( "lumen.scratch", dead );
   std::string liveOne = scratch( "lumen.scratch", ::getppid() );   // may be creating right now
   std::string otherTable = scratch( "lumen.scratch2", dead );
   Lumen::Writer< HostRec > writer;
   writer.attach( "/lumen/scratch" );
   EXPECT_FALSE( std::filesystem::exists( deadOne ) );
   EXPECT_TRUE( std::filesystem::exists( liveOne ) );
   EXPECT_TRUE( std::filesystem::exists( otherTable ) ) << "another table's is for its own writer";
}

// Writers killed anywhere in attach(), half creating the table: the next
// writer leaves no scratch file.
TEST( LumenFiles, WritersKilledWhileAttachingLeaveNoScratchFiles ) {
   LumenRoot root;
   std::mt19937 random( 7 );
   Lumen::Options options;
   options.feedCapacity = 1u << 18;   // a 6 MB control file: a while to build
   for ( int kill = 0; kill < 60; ++kill ) {
      if ( kill % 2 == 0 ) {
         std::filesystem::remove( root.file( "lumen.killed" ) );
      }
      Pipe started;
      pid_t child = startChild( [ & ] {
         started.signal();
         Lumen::Writer< HostRec > writer( HostRec{}, options );
         writer.attach( "/lumen/killed" );
         ::pause();
         return 0;
      } );
      started.wait();
      ::usleep( std::uniform_int_distribution< useconds_t >( 0, 3000 )( random ) );
      ::kill( child, SIGKILL );
      waitChild( child );
   }
   Lumen::Writer< HostRec > writer( HostRec{}, options );
   writer.attach( "/lumen/killed" );
   for ( const auto& e : std::filesystem::directory_iterator( root.dir() ) ) {
      EXPECT_EQ( e.path().filename().string().find( "@new." ), std::string::npos ) << e.path();
   }
}

// --------------------------------------------------------------- modes

TEST( LumenFiles, FilesGetTheConfiguredModesAndGroup ) {
   LumenRoot root;
   mode_t umask = ::umask( 022 );   // the usual one: it must not narrow the modes
   {
      Lumen::Writer< HostRec > writer;
      writer.attach( "/lumen/modes" );
      EXPECT_EQ( modeOf( root.file( "lumen.modes" ) ), 0640u );
      EXPECT_EQ( modeOf( root.file( "lumen.modes@1" ) ), 0640u );
      EXPECT_EQ( modeOf( root.file( "lumen.modes@wake" ) ), 0660u );
      EXPECT_EQ( statOf( root.file( "lumen.modes" ) ).st_gid, ::getegid() );
   }
   {
      Lumen::Options options;
      options.tableMode = 0600;
      options.wakeMode = 0640;
      options.group = 4242;
      Lumen::Writer< HostRec > writer( HostRec{}, options );
      writer.attach( "/lumen/modes" );
      fill( writer, 5000 );   // grows: new generations get them too
      std::string data = newestDataFile( root, "lumen.modes" );
      EXPECT_NE( data, root.file( "lumen.modes@2" ) ) << "the table never grew";
      for ( const auto& [ name, mode ] : { std::pair{ root.file( "lumen.modes" ), 0600u },
                                           std::pair{ data, 0600u },
                                           std::pair{ root.file( "lumen.modes@wake" ), 0640u } } ) {
         EXPECT_EQ( modeOf( name ), mode ) << name;
         EXPECT_EQ( statOf( name ).st_gid, 4242u ) << name;
      }
   }
   ::umask( umask );
   // Write access for others would let them kill the writer with SIGBUS.
   for ( auto [ tableMode, wakeMode ] : { std::pair< mode_t, mode_t >{ 0660, 0660 }, { 0642, 0660 },
                                          { 0640, 0662 }, { 0440, 0660 }, { 0740, 0660 },
                                          { 04640, 0660 } } ) {
      Lumen::Options options;
      options.tableMode = tableMode;
      options.wakeMode = wakeMode;
      Lumen::Writer< HostRec > writer( HostRec{}, options );
      std::string error = whatOf< Mox::Exception >( [ & ] { writer.attach( "/lumen/badmode" ); } );
      EXPECT_NE( error.find( "is not supported" ), std::string::npos )
         << std::oct << tableMode << " " << wakeMode << ": " << error;
   }
   EXPECT_FALSE( std::filesystem::exists( root.file( "lumen.badmode" ) ) );
}

// Tables were readable by every local user. Now only the writer's user and
// the table's group read them; anyone else is told at mount.
TEST( LumenFiles, OnlyTheTableGroupReadsItAndOthersAreToldSo ) {
   SKIP_WITHOUT_OTHER_USER();
   LumenRoot root;
   ASSERT_EQ( ::chmod( root.dir().c_str(), 0755 ), 0 );
   constexpr gid_t tableGroup = 4242;
   Lumen::Options options;
   options.group = tableGroup;
   Lumen::Writer< HostRec > writer( HostRec{}, options );
   writer.attach( "/lumen/private" );
   writer.write( HostRec::of( 1, 1 ) );

   int outsider = OtherUser::nobody().run( [] {
      std::string error = whatOf< Lumen::TableAccessException >(
         [] { Lumen::Reader< HostRec > reader( "/lumen/private" ); } );
      bool clear = error.find( "lumen.private" ) != std::string::npos &&
                   error.find( "permission denied" ) != std::string::npos &&
                   error.find( "gid 4242" ) != std::string::npos &&
                   error.find( "mode 0640" ) != std::string::npos;
      return error.empty() ? 1 : clear ? 0 : 2;
   } );
   EXPECT_EQ( outsider, 0 ) << "1: no error (the outsider read the table, or waits); 2: the error does not say why";

   // A member reads, and is woken for changes through the wake file.
   Pipe ready;
   Pipe written;
   pid_t member = startChild( [ & ] {
      if ( !OtherUser::nobody( { tableGroup } ).become() ) {
         return OtherUser::switchFailed;
      }
      Lumen::Reader< HostRec > reader( "/lumen/private" );
      if ( reader.lookup( MacKey::of( 1 ) ) != HostRec::of( 1, 1 ) ) {
         return 1;
      }
      ready.signal();
      written.wait();
      return dispatchUntil( reader, [ & ] { return reader.contains( MacKey::of( 2 ) ); } ) ? 0 : 2;
   } );
   ready.wait();
   writer.write( HostRec::of( 2, 2 ) );
   written.signal();
   EXPECT_EQ( waitChild( member ), 0 ) << "1: the member could not read; 2: it saw no change";

   // An outsider started before the table is told at the dispatch() that finds it.
   Pipe waiting;
   Pipe created;
   pid_t early = startChild( [ & ] {
      if ( !OtherUser::nobody().become() ) {
         return OtherUser::switchFailed;
      }
      Lumen::Reader< HostRec > reader( "/lumen/later" );
      if ( reader.mountStatus() != Lumen::MountStatus::waitingForWriter ) {
         return 1;
      }
      waiting.signal();
      created.wait();
      std::string error = whatOf< Lumen::TableAccessException >( [ & ] {
         dispatchUntil( reader, [ & ] { return reader.contains( MacKey::of( 3 ) ); } );
      } );
      return error.find( "lumen.later" ) != std::string::npos ? 0 : 2;
   } );
   waiting.wait();
   Lumen::Writer< HostRec > later( HostRec{}, options );
   later.attach( "/lumen/later" );
   later.write( HostRec::of( 3, 3 ) );
   created.signal();
   EXPECT_EQ( waitChild( early ), 0 ) << "2: the outsider was not told";
}

// Two unprivileged users sharing the table's group: the reader's socket was
// its user's alone, so the writer could not wake it.
TEST( LumenFiles, AGroupMemberIsWokenByAWriterOfAnotherUser ) {
   SKIP_WITHOUT_OTHER_USER();
   LumenRoot root;
   OtherUser::shareRoot( root.dir() );
   constexpr gid_t tableGroup = 4242;
   Pipe attached;
   Pipe armed;
   Pipe done;
   pid_t writer = startChild( [ & ] {
      ::alarm( 20 );   // should the reader never signal
      if ( !OtherUser::nobody( { tableGroup } ).become() ) {
         return OtherUser::switchFailed;
      }
      Lumen::Options options;
      options.group = tableGroup;
      Lumen::Writer< HostRec > table( HostRec{}, options );
      table.attach( "/lumen/shared" );
      attached.signal();
      armed.wait();
      table.write( HostRec::of( 1, 1 ) );
      done.wait();
      return 0;
   } );
   pid_t reader = startChild( [ & ] {
      ::alarm( 20 );
      if ( !OtherUser( OtherUser::nobodyUid - 1, OtherUser::nogroupGid - 1, { tableGroup } )
               .become() ) {
         return OtherUser::switchFailed;
      }
      attached.wait();
      Lumen::Reader< HostRec > table( "/lumen/shared" );
      table.dispatch();
      armed.signal();
      // Only the writer's poke makes fd() readable: no dispatch() meanwhile.
      bool woken = readable( table.fd(), 5000 );
      done.signal();
      return woken ? 0 : 1;
   } );
   EXPECT_EQ( waitChild( reader ), 0 ) << "1: the writer's change never woke the reader";
   EXPECT_EQ( waitChild( writer ), 0 );
}

// --------------------------------------------------------------- hostile files

// A planted link once made a root writer (or reader) write the file it points at.
TEST( LumenFiles, PlantedLinksNeverLeadWriterOrReaderToAnotherFile ) {
   SKIP_WITHOUT_OTHER_USER();
   LumenRoot root;
   OtherUser::shareRoot( root.dir() );
   Victim victim( root );
   for ( const char* name : { "lumen.linked@wake", "lumen.linked" } ) {
      ASSERT_EQ( plantLink( victim.name(), root.file( name ) ), 0 );
      Lumen::Writer< HostRec > writer;
      std::string error =
         whatOf< Lumen::TableAccessException >( [ & ] { writer.attach( "/lumen/linked" ); } );
      EXPECT_NE( error.find( root.file( name ) + " is a symbolic link" ), std::string::npos )
         << name << ": " << error;
      EXPECT_TRUE( victim.intact() ) << name;
      ::unlink( root.file( name ).c_str() );
      std::filesystem::remove( root.file( "lumen.linked" ) );
   }

   ASSERT_EQ( plantLink( victim.name(), root.file( "lumen.read@wake" ) ), 0 );
   {
      Lumen::Reader< HostRec > reader( "/lumen/read" );
      EXPECT_EQ( reader.mountStatus(), Lumen::MountStatus::waitingForWriter );
   }
   EXPECT_TRUE( victim.intact() ) << "a reader wrote through the link";

   // A FIFO under the control file's name blocked a reader's open() for good.
   ASSERT_EQ( OtherUser::nobody().run( [ & ] {
                 return ::mkfifo( root.file( "lumen.fifo" ).c_str(), 0666 );
              } ),
              0 );
   pid_t child = startChild( [] {
      ::alarm( 10 );
      std::string error = whatOf< Lumen::TableAccessException >(
         [] { Lumen::Reader< HostRec > reader( "/lumen/fifo" ); } );
      return error.find( "is a FIFO" ) != std::string::npos ? 0 : 1;
   } );
   EXPECT_EQ( waitChild( child ), 0 ) << "128 + SIGALRM: the reader blocked opening the FIFO";
}

// A table another user made was adopted, letting them SIGBUS the writer by
// truncation. It is refused, by name and owner, and left alone.
TEST( LumenFiles, AWriterRefusesATableAnotherUserMade ) {
   SKIP_WITHOUT_OTHER_USER();
   LumenRoot root;
   OtherUser::shareRoot( root.dir() );
   ASSERT_EQ( OtherUser::nobody().run( [] {
                 Lumen::Writer< HostRec > squatter;
                 squatter.attach( "/lumen/squatted" );
                 squatter.write( HostRec::of( 1, 1 ) );
                 return 0;
              } ),
              0 );
   Lumen::Writer< HostRec > writer;
   std::string error =
      whatOf< Lumen::TableAccessException >( [ & ] { writer.attach( "/lumen/squatted" ); } );
   EXPECT_NE( error.find( root.file( "lumen.squatted" ) + " belongs to uid 65534" ),
              std::string::npos )
      << error;
   EXPECT_EQ( statOf( root.file( "lumen.squatted" ) ).st_uid, OtherUser::nobodyUid );

   // Only the wake file is another user's.
   ASSERT_EQ( OtherUser::nobody().run( [ & ] {
                 std::ofstream( root.file( "lumen.wakeonly@wake" ) ) << "planted";
                 return 0;
              } ),
              0 );
   error = whatOf< Lumen::TableAccessException >( [ & ] { writer.attach( "/lumen/wakeonly" ); } );
   EXPECT_NE( error.find( root.file( "lumen.wakeonly@wake" ) + " belongs to uid 65534" ),
              std::string::npos )
      << error;
   EXPECT_EQ( contentOf( root.file( "lumen.wakeonly@wake" ) ), "planted" );
}

// A data file not owned by the control file's owner is not the table's.
TEST( LumenFiles, DataFilesMustBeTheTableWritersOwn ) {
   LumenRoot root;
   {
      Lumen::Writer< HostRec > writer;
      writer.attach( "/lumen/swapped" );
      writer.write( HostRec::of( 1, 1 ) );
      ASSERT_EQ( ::chown( root.file( "lumen.swapped@1" ).c_str(), OtherUser::nobodyUid,
                          OtherUser::nogroupGid ),
                 0 );
      std::string error = whatOf< Lumen::TableAccessException >( [] {
         Lumen::Reader< HostRec > reader( "/lumen/swapped" );
         reader.contains( MacKey::of( 1 ) );
      } );
      EXPECT_NE( error.find( "lumen.swapped@1 belongs to uid 65534" ), std::string::npos ) << error;
   }
   Lumen::Writer< HostRec > next;
   std::string error =
      whatOf< Lumen::TableAccessException >( [ & ] { next.attach( "/lumen/swapped" ); } );
   EXPECT_NE( error.find( "lumen.swapped@1 belongs to uid 65534" ), std::string::npos ) << error;
}
