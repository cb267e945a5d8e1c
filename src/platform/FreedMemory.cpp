#include "platform/FreedMemory.h"

#include <cstdlib>

#ifdef __GLIBC__
#include <malloc.h>
#endif

namespace tarn {

void giveBackFreedMemory() {
#ifdef __GLIBC__
  malloc_trim(0);
#endif
}

void giveBackLargeBlocks() {
#ifdef __GLIBC__
  constexpr int large = 1 << 20;
  mallopt(M_MMAP_THRESHOLD, large);
#endif
}

}  // namespace tarn
