#include "tools/agent/RootCheck.h"

#include <fmt/format.h>

#include <sys/stat.h>
#include <unistd.h>

namespace Agent {

std::string unsafeRootReason( const std::string& root ) {
   struct stat st {};
   if ( ::stat( root.c_str(), &st ) != 0 || !S_ISDIR( st.st_mode ) ) {
      return {};   // nothing to swap: the tables' own open says what is wrong
   }
   const unsigned mode = unsigned( st.st_mode & 07777 );
   if ( st.st_uid != ::geteuid() && st.st_uid != 0 ) {
      return fmt::format( "Lumen root {} belongs to uid {}, who could replace the tables in it; use a folder "
                          "of this user or of root",
                          root, st.st_uid );
   }
   // The group counts as other users: nothing says who is in it.
   if ( ( st.st_mode & ( S_IWGRP | S_IWOTH ) ) && !( st.st_mode & S_ISVTX ) ) {
      return fmt::format( "Lumen root {} (mode {:04o}) is writable by other users and not sticky, so they "
                          "could replace the tables in it; make it sticky (chmod +t) or use a folder only "
                          "this user may write",
                          root, mode );
   }
   return {};
}

}  // namespace Agent
