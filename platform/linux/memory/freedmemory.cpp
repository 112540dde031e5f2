#include "memory/freedmemory.h"

#include <malloc.h>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define LUMO_FOREIGN_HEAP 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define LUMO_FOREIGN_HEAP 1
#endif
#endif

namespace tarvex::itx::rtn::linux_platform {

// Under a sanitizer the sanitizer owns the heap and glibc's allocator never
// starts: trimming it from two threads at once races on its first setup.
void returnFreedMemory() {
#ifndef LUMO_FOREIGN_HEAP
  malloc_trim(0);
#endif
}

}  // namespace tarvex::itx::rtn::linux_platform
