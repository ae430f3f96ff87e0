#pragma once
#include <stddef.h>

// Makes the heap that a large parse is about to fill resident in one call, for as long as the
// object lives. A policy with a thousand applications grows the heap by megabytes in small
// pieces, one page fault per fresh page; on a virtual machine a fault costs microseconds, and
// one populate call ahead of the parse costs a small part of that. Only glibc's allocator lets
// us place the block; elsewhere this does nothing and pages fault in as they come.
class OrvHeapReserve {
  public:
    explicit OrvHeapReserve(size_t bytes);
    ~OrvHeapReserve();

  private:
    bool mActive = false;
};
