// What the fuzz targets share: a property that fails stops the run the way
// a crash does, so that libFuzzer keeps the input that broke it.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace Fuzz {

[[noreturn]] inline void inconsistent( std::string_view what, std::string_view detail = {} ) {
   std::fprintf( stderr, "fuzz: inconsistency: %.*s %.*s\n", int( what.size() ), what.data(),
                 int( detail.size() ), detail.data() );
   std::abort();
}

inline void check( bool ok, std::string_view what, std::string_view detail = {} ) {
   if ( !ok ) {
      inconsistent( what, detail );
   }
}

}  // namespace Fuzz
