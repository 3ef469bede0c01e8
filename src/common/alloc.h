// Heap access of the library. Every allocation goes through these wrappers so
// that tests can fail a chosen allocation or count them (the hook is a hidden
// symbol: applications cannot reach it).
#ifndef OL_COMMON_ALLOC_H
#define OL_COMMON_ALLOC_H

#include <stddef.h>

namespace ol {

struct alloc_hooks {
  // Called before every allocation; returning false makes it fail.
  bool (*before_alloc)(size_t bytes, void* user);
  void* user;
};

// Installs hooks (NULL removes them). Not thread-safe: tests install them
// while no library call runs.
void set_alloc_hooks(const alloc_hooks* hooks);

void* ol_malloc(size_t bytes);
void* ol_calloc(size_t count, size_t size);
void ol_free(void* p);

}  // namespace ol

#endif
