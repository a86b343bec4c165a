// Entry points of the benchmarked systems: each runs the shared workload
// (Workload.h) against one system at one size and returns what it measured.
//
// Owned by bench/lumen. Called from the parent process only, one at a time.
#pragma once

#include "bench/lumen/Harness.h"

#include <string>

namespace Bench {

// `dir` is a fresh private directory under the shm parent that the system
// may fill; the caller removes it afterwards.
Metrics benchBoost( const Config& cfg, uint64_t n, const std::string& dir );
Metrics benchLmdb( const Config& cfg, uint64_t n, const std::string& dir );
Metrics benchLmdbWriteMap( const Config& cfg, uint64_t n, const std::string& dir );
#ifdef ORBEVPN_BENCH_HAVE_LUMEN
Metrics benchLumen( const Config& cfg, uint64_t n, const std::string& dir );
#endif

}  // namespace Bench
