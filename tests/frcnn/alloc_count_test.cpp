// Leaks and heap traffic: thousands of init/exit cycles leave nothing
// behind, and a frame in steady state allocates nothing, counted both
// through the library's allocation hook and by interposing the C library's
// allocator in this program (which also sees what the C library, the thread
// pool's queues or qsort would allocate on the library's behalf).
#include <stdlib.h>

#include <algorithm>
#include <atomic>

#include "common/alloc.h"
#include "common/frame_gen.h"

// The sanitizers bring their own allocator: interposing it there would mix
// two heaps. Those builds count through the library's hook only (and
// LeakSanitizer checks the cycles at exit).
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define OL_INTERPOSE_MALLOC 0
#else
#define OL_INTERPOSE_MALLOC 1
#endif

namespace {
std::atomic<bool> g_counting{false};
std::atomic<long> g_calls{0};        // allocating calls while counting
std::atomic<long> g_outstanding{0};  // blocks allocated and not freed, always
}  // namespace

#if OL_INTERPOSE_MALLOC
static void* note_alloc(void* p) {
  if (p == nullptr) return p;
  g_outstanding.fetch_add(1, std::memory_order_relaxed);
  if (g_counting.load(std::memory_order_relaxed)) g_calls.fetch_add(1, std::memory_order_relaxed);
  return p;
}

extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
void __libc_free(void*);

void* malloc(size_t n) { return note_alloc(__libc_malloc(n)); }
void* calloc(size_t n, size_t s) { return note_alloc(__libc_calloc(n, s)); }
void* aligned_alloc(size_t align, size_t n) { return note_alloc(__libc_memalign(align, n)); }
void* memalign(size_t align, size_t n) { return note_alloc(__libc_memalign(align, n)); }
int posix_memalign(void** out, size_t align, size_t n) {
  void* p = note_alloc(__libc_memalign(align, n));
  if (p != nullptr) *out = p;
  return p ? 0 : 12;  // ENOMEM
}
void* realloc(void* old, size_t n) {
  if (g_counting.load(std::memory_order_relaxed)) g_calls.fetch_add(1, std::memory_order_relaxed);
  void* p = __libc_realloc(old, n);
  if (old == nullptr && p != nullptr) g_outstanding.fetch_add(1, std::memory_order_relaxed);
  if (old != nullptr && n == 0 && p == nullptr) g_outstanding.fetch_sub(1, std::memory_order_relaxed);
  return p;
}
void free(void* p) {
  if (p != nullptr) g_outstanding.fetch_sub(1, std::memory_order_relaxed);
  __libc_free(p);
}
}
#endif

namespace {

std::atomic<long> g_hook_calls{0};

// 10,000 cycles (OL_CYCLES overrides): the comparison path for most, the
// histogram path (its 64 Ki-bucket tables set up per init) for one in a
// hundred, global and instance forms alternating. The number of live heap
// blocks after them is what it was after the first hundred (glibc keeps
// per-thread caches bounded), and no thread is left.
TEST(alloc_count, init_exit_cycles_leave_nothing_behind) {
  std::vector<float> anchors = ol_test::base_anchors_9();
  const char* env = getenv("OL_CYCLES");
  const int cycles = env ? atoi(env) : 10000;
  const int threads = ol_test::quiet_threads();
  long warm = 0;
  for (int i = 0; i < cycles; ++i) {
    if (i == 100) warm = g_outstanding.load();
    frcnn_desc d = ol_test::mobile_desc(1, i % 100 != 99);
    d.anchor_num = 3;
    d.fmap_h = d.fmap_w = d.fmap_pitch = d.rpn_cls_pitch = 8;
    if (i & 1) {
      void* h = opt_layers_instance_frcnn_init(&d, anchors.data());
      ASSERT_NE(h, nullptr);
      opt_layers_instance_frcnn_exit(h);
    } else {
      ASSERT_EQ(opt_layers_frcnn_init(&d, anchors.data()), 0);
      opt_layers_frcnn_exit();
    }
  }
  if (cycles > 100) {
    EXPECT_EQ(g_outstanding.load(), warm);
  }
  EXPECT_EQ(ol_test::settled_threads(threads), threads);
}

// 200 frames through every entry point from the first one after init, on
// both sort paths and both forms: no allocating call at all (init sizes
// every buffer and queue a frame needs).
TEST(alloc_count, steady_state_frames_allocate_nothing) {
  std::vector<float> anchors = ol_test::base_anchors_9();
  static ol::alloc_hooks hooks{[](size_t, void*) {
                                 if (g_counting.load(std::memory_order_relaxed)) ++g_hook_calls;
                                 return true;
                               },
                               nullptr};
  for (int form = 0; form < 4; ++form) {
    const bool qsort = form < 2, global = form & 1;
    SCOPED_TRACE(testing::Message() << "qsort " << qsort << " global " << global);
    frcnn_desc d = ol_test::mobile_desc(3, qsort);
    d.fmap_d = 32;
    d.is_filter_rpn_cls = 1;  // the parallel filter over runs of anchors
    d.is_rpn_cls_fg_only = 1;
    d.rpn_cls_threshold = 0.05f;
    void* h = global ? nullptr : opt_layers_instance_frcnn_init(&d, anchors.data());
    ASSERT_TRUE(global ? opt_layers_frcnn_init(&d, anchors.data()) == 0 : h != nullptr);
    std::vector<ol_test::frame_arrays> frames;
    for (int f = 0; f < 4; ++f) {
      frames.emplace_back(d);
      frames.back().fill(100 + f);
    }
    // Identical scores pile up in one bucket beyond its inline slots: the
    // histogram path needs overflow nodes.
    for (size_t i = 0; i < frames[3].cls.n; i += 2) frames[3].cls[i] = ol_test::h(0.75f);
    int rois = 0, failed = 0;
    ol::set_alloc_hooks(&hooks);
    g_calls = g_hook_calls = 0;
    g_counting = true;
    for (int f = 0; f < 200; ++f) {
      const ol_test::frame_result r = ol_test::run_frame(h, frames[f % 4], ol_test::step_all, 0, false);
      rois += r.r2;
      failed += r.k < 0 || r.r < 0 || r.r2 != r.r || r.post != 0;
    }
    g_counting = false;
    ol::set_alloc_hooks(nullptr);
    EXPECT_EQ(failed, 0);
    EXPECT_GT(rois, 200);
    EXPECT_EQ(g_hook_calls.load(), 0);
    EXPECT_EQ(g_calls.load(), 0) << "allocating C library calls during 200 frames";
    global ? opt_layers_frcnn_exit() : opt_layers_instance_frcnn_exit(h);
  }
}

}  // namespace