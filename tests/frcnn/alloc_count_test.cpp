// Leaks and heap traffic: thousands of init/exit cycles leave nothing
// behind, and a frame in steady state allocates nothing, counted both
// through the library's allocation hook and by interposing the C library's
// allocator in this program (which also sees what the C library, the thread
// pool's queues or qsort would allocate on the library's behalf).
#include <algorithm>
#include <dirent.h>
#include <stdlib.h>

#include <atomic>

#include "common/alloc.h"
#include "frcnn/context.h"
#include "frcnn/hist_sort.h"
#include "frcnn/robust_frame.h"

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
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
void __libc_free(void*);

static inline void note_alloc(void* p) {
  if (p == nullptr) return;
  g_outstanding.fetch_add(1, std::memory_order_relaxed);
  if (g_counting.load(std::memory_order_relaxed)) g_calls.fetch_add(1, std::memory_order_relaxed);
}

void* malloc(size_t n) {
  void* p = __libc_malloc(n);
  note_alloc(p);
  return p;
}
void* calloc(size_t n, size_t s) {
  void* p = __libc_calloc(n, s);
  note_alloc(p);
  return p;
}
void* realloc(void* old, size_t n) {
  if (g_counting.load(std::memory_order_relaxed)) g_calls.fetch_add(1, std::memory_order_relaxed);
  void* p = __libc_realloc(old, n);
  if (old == nullptr && p != nullptr) g_outstanding.fetch_add(1, std::memory_order_relaxed);
  if (old != nullptr && n == 0 && p == nullptr) g_outstanding.fetch_sub(1, std::memory_order_relaxed);
  return p;
}
int posix_memalign(void** out, size_t align, size_t n) {
  void* p = __libc_memalign(align, n);
  if (p == nullptr) return 12;  // ENOMEM
  note_alloc(p);
  *out = p;
  return 0;
}
void* aligned_alloc(size_t align, size_t n) {
  void* p = __libc_memalign(align, n);
  note_alloc(p);
  return p;
}
void* memalign(size_t align, size_t n) {
  void* p = __libc_memalign(align, n);
  note_alloc(p);
  return p;
}
void free(void* p) {
  if (p != nullptr) g_outstanding.fetch_sub(1, std::memory_order_relaxed);
  __libc_free(p);
}
}
#endif

namespace {

using ol_test::frame_arrays;
using ol_test::run_frame;

std::atomic<long> g_hook_calls{0};
bool count_hook(size_t, void*) {
  if (g_counting.load(std::memory_order_relaxed)) g_hook_calls.fetch_add(1);
  return true;
}

struct counting_scope {
  counting_scope() {
    static ol::alloc_hooks hooks{count_hook, nullptr};
    ol::set_alloc_hooks(&hooks);
    g_calls = 0;
    g_hook_calls = 0;
    g_counting = true;
  }
  ~counting_scope() {
    g_counting = false;
    ol::set_alloc_hooks(nullptr);
  }
};

using ol_test::live_threads;

frcnn_desc cycle_desc(bool qsort) {
  frcnn_desc d = ol_test::mobile_desc(1, qsort);
  d.anchor_num = 3;
  d.fmap_h = 8;
  d.fmap_w = 8;
  d.fmap_pitch = d.rpn_cls_pitch = 8;
  return d;
}

// 10,000 cycles (OL_CYCLES overrides): the comparison path for most, the
// histogram path (its 64 Ki-bucket tables set up per init) for one in a hundred, global and
// instance forms alternating. The number of live heap blocks after them is
// what it was after the first few (glibc keeps per-thread caches bounded),
// and no thread is left.
TEST(alloc_count, init_exit_cycles_leave_nothing_behind) {
  std::vector<float> anchors = ol_test::base_anchors_9();
  const char* env = getenv("OL_CYCLES");
  const int cycles = env ? atoi(env) : 10000;
  const int threads = ol_test::quiet_threads();
  auto cycle = [&](int i) {
    frcnn_desc d = cycle_desc(i % 100 != 99);
    if (i & 1) {
      void* h = opt_layers_instance_frcnn_init(&d, anchors.data());
      ASSERT_NE(h, nullptr);
      opt_layers_instance_frcnn_exit(h);
    } else {
      ASSERT_EQ(opt_layers_frcnn_init(&d, anchors.data()), 0);
      opt_layers_frcnn_exit();
    }
  };
  for (int i = 0; i < 100 && i < cycles; ++i) cycle(i);
  const long warm = g_outstanding.load();
  for (int i = 100; i < cycles; ++i) cycle(i);
  EXPECT_EQ(g_outstanding.load(), warm);
  EXPECT_EQ(ol_test::settled_threads(threads), threads);
}

// Warm-up frames, then a few hundred counted frames through every entry
// point, on both sort paths and both forms: no allocating call at all.
TEST(alloc_count, steady_state_frames_allocate_nothing) {
  std::vector<float> anchors = ol_test::base_anchors_9();
  for (bool qsort : {true, false}) {
    for (bool global : {false, true}) {
      SCOPED_TRACE(testing::Message() << "qsort " << qsort << " global " << global);
      frcnn_desc d = ol_test::mobile_desc(3, qsort);
      d.fmap_d = 32;
      d.is_filter_rpn_cls = 1;  // the parallel filter, one task per anchor
      d.is_rpn_cls_fg_only = 1;
      d.rpn_cls_threshold = 0.05f;
      void* h = nullptr;
      if (global) {
        ASSERT_EQ(opt_layers_frcnn_init(&d, anchors.data()), 0);
      } else {
        h = opt_layers_instance_frcnn_init(&d, anchors.data());
        ASSERT_NE(h, nullptr);
      }
      const int kFrames = 4;
      std::vector<frame_arrays> frames;
      for (int f = 0; f < kFrames; ++f) {
        frames.emplace_back(d);
        frames.back().fill(100 + f);
      }
      // Identical scores pile up in one bucket beyond its inline slots: the
      // histogram path needs overflow nodes (taken from the free list once
      // the warm-up frames have returned them).
      for (size_t i = 0; i < frames[3].cls.n; i += 2) frames[3].cls[i] = ol_test::h(0.75f);
      for (int f = 0; f < 3 * kFrames; ++f) run_frame(h, frames[f % kFrames]);
      int rois = 0, failed = 0;
      {
        counting_scope scope;
        for (int f = 0; f < 200; ++f) {
          const int r = ol_test::run_frame_lean(h, frames[f % kFrames]);
          rois += r;
          failed += r < 0;
        }
      }
      EXPECT_EQ(failed, 0);
      EXPECT_GT(rois, 200);
      EXPECT_EQ(g_hook_calls.load(), 0);
      EXPECT_EQ(g_calls.load(), 0) << "allocating C library calls during 200 frames";
      if (global)
        opt_layers_frcnn_exit();
      else
        opt_layers_instance_frcnn_exit(h);
    }
  }
}

// The comparison sort of the proposal stage runs on context scratch: it
// orders as a stable sort by descending score (+0 and -0 equal), and with
// NaN scores present still yields a permutation.
TEST(alloc_count, comparison_sort_is_stable_on_context_scratch) {
  ol_test::rng g(5);
  for (int round = 0; round < 300; ++round) {
    const uint32_t n = g.range(1, round < 100 ? 40 : 3000);
    const bool with_nan = round % 3 == 0;
    std::vector<uint16_t> scores(n);
    const int spread = g.range(1, 60);
    for (uint16_t& s : scores) {
      const uint32_t k = g.next() % 64;
      if (k == 0 && with_nan)
        s = 0x7E00;
      else if (k == 1)
        s = 0x8000;
      else if (k == 2)
        s = 0xFC00;
      else
        s = ol_test::h(static_cast<float>(g.range(-spread, spread)) / 8.0f);
    }
    std::vector<uint32_t> got(n), scratch(n), want(n);
    ol::rpn_sort(nullptr, scores.data(), n, got.data(), n, true, scratch.data());
    for (uint32_t i = 0; i < n; ++i) want[i] = i;
    if (with_nan) {
      std::vector<uint32_t> sorted = got;
      std::sort(sorted.begin(), sorted.end());
      ASSERT_EQ(sorted, want) << "round " << round;
      continue;
    }
    std::stable_sort(want.begin(), want.end(), [&](uint32_t x, uint32_t y) {
      return ol_test::f(scores[x]) > ol_test::f(scores[y]);
    });
    ASSERT_EQ(got, want) << "round " << round << " n " << n;
  }
}

}  // namespace
