// What the full-scale benchmarks share: the bytes the process holds (live heap bytes counted by
// the program's own operator new/delete, plus the daemon's record pages and the collections'
// large blocks, which have mappings of their own; include this header in
// exactly one file of a benchmark program), process CPU and wall time, the pages the system has
// backed for it, and a run of the activity loop on the real clock that times every pass.
#pragma once

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <new>
#include <thread>

#include "fwk/daemon/big_table.h"
#include "fwk/daemon/rt_table.h"
#include "fwk/framework/ActivityManager.h"
#include "fwk/framework/BigBlock.h"

namespace BenchSupport {
inline std::atomic<long long> liveBytes{0};
}  // namespace BenchSupport

// Live heap bytes of the process: every allocation carries its size in a small header. The
// operators stay out of line: inlined into their callers, the compiler's bounds checks would
// see the header's offset as an access outside the caller's block.
[[gnu::noinline]] void* operator new(std::size_t n) {
  auto* p = static_cast<std::size_t*>(std::malloc(n + 16));
  if (!p) throw std::bad_alloc();
  *p = n;
  BenchSupport::liveBytes.fetch_add(static_cast<long long>(n), std::memory_order_relaxed);
  return reinterpret_cast<char*>(p) + 16;
}
[[gnu::noinline]] void operator delete(void* q) noexcept {
  if (!q) return;
  auto* p = reinterpret_cast<std::size_t*>(static_cast<char*>(q) - 16);
  BenchSupport::liveBytes.fetch_sub(static_cast<long long>(*p), std::memory_order_relaxed);
  std::free(p);
}
[[gnu::noinline]] void operator delete(void* q, std::size_t) noexcept { operator delete(q); }

namespace BenchSupport {

// What the process holds: live heap bytes plus the daemon's record pages and large tables and the
// collections' large blocks, which live outside the heap.
inline long long processBytes() {
  return liveBytes.load() +
         static_cast<long long>(rt_record_bytes() + bigTableMappedBytes() + Kel::bigBlockBytes());
}

// The whole process's resident memory, as the system counts it (what a peer daemon's figure
// per route is taken from): the heap with the allocator's own overhead and the memory it keeps,
// the record pages, code and stacks. Only the first run of a program starts from a clean heap.
inline long long residentBytes() {
  std::ifstream statm("/proc/self/statm");
  long long size = 0, resident = 0;
  statm >> size >> resident;
  return resident * static_cast<long long>(sysconf(_SC_PAGESIZE));
}

inline double cpuSeconds() {
  timespec ts{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}
// The process's minor faults so far: every page the system backed for it, on a trap at its first
// touch or ahead of it on request (a populated range counts its pages), a huge page as one.
// Backing a page takes microseconds on a virtual machine, and its price varies from hour to
// hour, so comparing this count between two runs tells whether they differ in the memory they
// touched or in what it cost.
inline long long minorFaults() {
  rusage ru{};
  getrusage(RUSAGE_SELF, &ru);
  return ru.ru_minflt;
}
inline double wallSeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// Runs the activity loop on real time until `done` holds (or nothing is armed); returns the
// longest single pass in seconds.
template <class Done>
double runUntil(Done done) {
  Kel::ActivityManager& am = *Kel::activityManager();
  double longest = 0;
  while (!done()) {
    const double next = am.nextTime();
    if (next == Kel::endOfTime) break;
    const double wait = next - am.currentTime();
    if (wait > 0) std::this_thread::sleep_for(std::chrono::duration<double>(wait));
    const double t0 = wallSeconds();
    am.runOnce();
    longest = std::max(longest, wallSeconds() - t0);
  }
  return longest;
}

}  // namespace BenchSupport
