// Large buffers without page faults. A feed reads, converts and compresses up to 4 MiB at a time,
// and the client takes such messages apart again. By default glibc maps each block that large
// anew, or gives the free top of its heap back at once, and the kernel then faults in every page
// of the next block again: in a virtual machine that cost more than compressing the data. Blocks
// up to 64 MiB come from the heap instead and stay there for reuse; GiveBack returns what is free.
#ifndef NORVANE_SRC_FWHEAP_H_
#define NORVANE_SRC_FWHEAP_H_

#include <malloc.h>

namespace FWHeap {

// Once, at the start of a program, before it allocates large blocks.
inline void KeepLargeBlocks() {
  mallopt(M_MMAP_THRESHOLD, 64 << 20);
  mallopt(M_TRIM_THRESHOLD, 64 << 20);
}

// Returns the free memory of the heap to the system (the daemon does so once a second).
inline void GiveBack() { malloc_trim(0); }

}  // namespace FWHeap

#endif  // NORVANE_SRC_FWHEAP_H_
