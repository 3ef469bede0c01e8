#include "common/alloc.h"

#include <stdlib.h>

namespace ol {

namespace {
alloc_hooks g_hooks = {nullptr, nullptr};

bool allowed(size_t bytes) {
  return g_hooks.before_alloc == nullptr || g_hooks.before_alloc(bytes, g_hooks.user);
}
}  // namespace

void set_alloc_hooks(const alloc_hooks* hooks) {
  g_hooks = hooks ? *hooks : alloc_hooks{nullptr, nullptr};
}

void* ol_malloc(size_t bytes) { return allowed(bytes) ? malloc(bytes) : nullptr; }

void* ol_calloc(size_t count, size_t size) {
  return allowed(count * size) ? calloc(count, size) : nullptr;
}

void ol_free(void* p) { free(p); }

}  // namespace ol
