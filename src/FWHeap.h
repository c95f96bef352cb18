// Large buffers without page faults. A feed reads, converts and compresses up to 4 MiB at a time,
// and the client takes such messages apart again. By default glibc maps each block that large
// anew, or gives the free top of its heap back at once, and the kernel then faults in every page
// of the next block again: in a virtual machine that cost more than compressing the data. Blocks
// up to 64 MiB come from the heap instead and stay there for reuse; GiveBack returns what is free
// once there is much of it, so that the memory a second's reads and frames use again and again
// is not faulted in anew every second.
#ifndef NORVANE_SRC_FWHEAP_H_
#define NORVANE_SRC_FWHEAP_H_

#include <malloc.h>

#include <cstddef>

namespace FWHeap {

// Once, at the start of a program, before it allocates large blocks.
inline void KeepLargeBlocks() {
  mallopt(M_MMAP_THRESHOLD, 64 << 20);
  mallopt(M_TRIM_THRESHOLD, 64 << 20);
}

// Free memory the heap keeps rather than give back.
constexpr std::size_t kKeptFree = 4 << 20;

// Returns the free memory of the heap to the system when it holds more than kKeptFree (the daemon
// looks once a second).
inline void GiveBack() {
  if (mallinfo2().fordblks > kKeptFree) malloc_trim(0);
}

}  // namespace FWHeap

#endif  // NORVANE_SRC_FWHEAP_H_
