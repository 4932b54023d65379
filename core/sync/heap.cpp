#include "core/sync/heap.h"

#include <cstdlib>  // defines __GLIBC__ where the C library is glibc

#if defined(__GLIBC__)
#include <malloc.h>
#elif defined(__APPLE__)
#include <malloc/malloc.h>
#endif

namespace corvane::Heap {

void configureForResident() {
#if defined(__GLIBC__)
  // Setting the thresholds also stops glibc raising them after each large
  // free, which would move later large blocks into the arenas for good.
  mallopt(M_MMAP_THRESHOLD, 64 * 1024);
  mallopt(M_TRIM_THRESHOLD, 128 * 1024);
  // An arena per thread that ever ran a cycle would each keep its own free
  // memory; the agent's threads rarely allocate at the same time.
  mallopt(M_ARENA_MAX, 2);
#endif
}

void releaseFree() {
#if defined(__GLIBC__)
  malloc_trim(0);
#elif defined(__APPLE__)
  // A null zone means every zone, a goal of 0 as much as it can
  // (malloc_zone_pressure_relief in <malloc/malloc.h>, Apple's libmalloc).
  malloc_zone_pressure_relief(nullptr, 0);
#endif
}

}  // namespace corvane::Heap
