#include "KELVOCore/Memory.h"

#include <malloc.h>

namespace kelvo {

void keepLineBuffersInHeap() {
  // Setting either fixes both: glibc's own adaptive thresholds stop moving.
  mallopt(M_MMAP_THRESHOLD, 16 << 20);
  mallopt(M_TRIM_THRESHOLD, 8 << 20);
}

}  // namespace kelvo
