// Lifecycle of the pipeline context: init and exit in both forms, their
// messages and the descriptor dump, allocation failures at every step,
// repeated cycles that leave nothing behind, frames in steady state that
// allocate nothing, and many threads driving many contexts at once with the
// results of one thread. Heap traffic is counted both through the library's
// allocation hook and by interposing the C library's allocator in this
// program (which also sees what the C library, the thread pool's queues or
// qsort would allocate on the library's behalf). The descriptor's field
// offsets are fixed by static_asserts in the public header.
// ctest-labels: threaded
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <set>
#include <sstream>
#include <string>
#include <thread>

#include "common/alloc.h"
#include "common/frame_gen.h"
#include "common/test_util.h"
#include "frcnn/context.h"

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

using ol_test::frame_arrays;
using ol_test::frame_result;
using ol_test::run_frame;
using ol_test::settled_threads;
using ol_test::stdout_capture;

// The version record (poisoned first), then init and exit out of turn.
TEST(global_context, init_twice_exit_without_init_and_reinit) {
  std::vector<float> anchors = ol_test::base_anchors_9();
  frcnn_desc d = ol_test::mobile_desc(2, false);
  opt_layers_version v;
  memset(&v, 0xA5, sizeof v);
  EXPECT_EQ(opt_layers_get_version(&v), 0);
  EXPECT_EQ(ol_test::format("%u.%u.%u %x %s", v.major, v.minor, v.patch, v.build_date, v.description),
            "1.1.2 20191230 Norvantix Faster RCNN Library");
  ol::frcnn_context unset;  // exit of a context never initialised frees nothing
  memset(&unset, 0, sizeof unset);
  EXPECT_EQ(ol_test::printed([&] {
              EXPECT_EQ(opt_layers_get_version(nullptr), -1);
              opt_layers_frcnn_exit();
              opt_layers_instance_frcnn_exit(&unset);
              opt_layers_instance_frcnn_exit(nullptr);
            }),
            "Version pointer is NULL\nfrcnn handle is NULL for exit\nopt_layers library is not inited\n"
            "frcnn handle is NULL for exit\n");
  ASSERT_EQ(opt_layers_frcnn_init(&d, anchors.data()), 0);
  ol::frcnn_context* first = ol::global_context();
  EXPECT_EQ(ol_test::printed([&] { EXPECT_EQ(opt_layers_frcnn_init(&d, anchors.data()), -1); }),
            "opt_layers_frcnn_init call already, do not init agarin\n");
  EXPECT_EQ(ol::global_context(), first);
  // The first context keeps working; a new init takes the new configuration.
  ol_test::rpn_frame f = ol_test::make_rpn_frame(d, 1);
  half_float::half* props = nullptr;
  EXPECT_GT(opt_layers_frcnn_prenms(ol_test::hp(f.cls), ol_test::hp(f.bbox), &props), 7);
  opt_layers_frcnn_exit();
  EXPECT_EQ(ol::global_context(), nullptr);
  d = ol_test::mobile_desc(1, true);
  d.pre_nms_num = 7;
  d.is_debug = 1;  // init dumps the configuration first
  const std::string out = ol_test::printed([&] { ASSERT_EQ(opt_layers_frcnn_init(&d, anchors.data()), 0); });
  EXPECT_EQ(out.rfind("[FRCNN_DESC] ThreadN: 1, AnchorN: 9, PreNMS: 7, ", 0), 0u) << out;
  ol_test::printed(  // with its per-frame counts
      [&] { EXPECT_EQ(opt_layers_frcnn_prenms(ol_test::hp(f.cls), ol_test::hp(f.bbox), &props), 7); });
  opt_layers_frcnn_exit();
}

const char k_desc_text[] =
    "[FRCNN_DESC] ThreadN: %u, AnchorN: %u, PreNMS: %u, PostNMS: %u, ClassN: %u, MinSize: %u \n"
    "Img(H, W): %ux%u, FMap_Scale: %u, FMap(D, H, W): %ux%ux%u, pitch: %u, Pool(H, W): %ux%u, "
    "pitch: %u \nRPN_CLS_P: %u, RPN_BBox_P: %u, RCNN_CLS_P: %u, RCNN_BBox_P: %u \n"
    "Threshold: PreIOU: %f, PostIOU: %f, CLS_Prob: %f, RPN_ClS_threshold: %f \nBBox type: %u\n";
const char k_flag_text[] =
    "[FRCNN_FLAG] fmap_sign: %u, rcnn_bbox_share_location: %u \nis_anchor_bbox_suppress: %u, "
    "is_rpn_cls_fg_minus_bg: %u, is_rpn_cls_fg_only: %u \nis_filter_rpn_cls: %u, "
    "is_apply_bbox_scale_factor: %u, is_no_rcnn_bg_bbox: %u \nis_use_qsort: %u\n";
const char k_scale_text[] =
    "[BBox Scale Factor] center_x: %f, center_y: %f, width: %f, hegith: %f\n";

// The record as raw bytes: 3 threads, no flags, every 32-bit field a
// different value so that a swapped argument shows.
struct raw_desc {
  uint8_t b[sizeof(frcnn_desc)] = {3};
  raw_desc() {
    for (size_t at = 4; at < sizeof b; at += 4) {
      const uint32_t u = 1000 + static_cast<uint32_t>(at);
      memcpy(b + at, &u, 4);
    }
    const float floats[2][4] = {{0.7f, 0.3f, 0.05f, -0.125f}, {10.5f, 11.25f, 5.75f, 6.125f}};
    memcpy(b + offsetof(frcnn_desc, pre_nms_iou), floats[0], 16);
    memcpy(b + offsetof(frcnn_desc, bbox_scale_factor), floats[1], 16);
  }
  std::string dump() const {
    frcnn_desc d;
    memcpy(&d, b, sizeof d);
    return ol_test::printed([&] { ol::frcnn_desc_dump(&d); });
  }
};

// The value raw_desc gives a 32-bit field.
#define U(field) (1000u + static_cast<unsigned>(offsetof(frcnn_desc, field)))

// The expected dump, in the text order; bit i of `flags` is the i-th flag
// shown (the seventh brings the scale factors).
std::string expected_dump(unsigned flags) {
  std::string s = ol_test::format(
      k_desc_text, 3u, U(anchor_num), U(pre_nms_num), U(post_nms_num), U(class_num), U(min_size),
      U(img_h), U(img_w), U(fmap_scale), U(fmap_d), U(fmap_h), U(fmap_w), U(fmap_pitch), U(pool_h),
      U(pool_w), U(pool_pitch), U(rpn_cls_pitch), U(rpn_bbox_pitch), U(rcnn_cls_pitch),
      U(rcnn_bbox_pitch), static_cast<double>(0.7f), static_cast<double>(0.3f),
      static_cast<double>(0.05f), -0.125, U(bbox_type));
  s += ol_test::format(k_flag_text, flags & 1, flags >> 1 & 1, flags >> 2 & 1, flags >> 3 & 1, flags >> 4 & 1,
                       flags >> 5 & 1, flags >> 6 & 1, flags >> 7 & 1, flags >> 8 & 1);
  if (flags >> 6 & 1) s += ol_test::format(k_scale_text, 10.5, 11.25, 5.75, 6.125);
  return s;
}

// Each flag bit alone (is_debug is not shown), then all of them with the
// reserved bits and byte set: every flag prints as 1, not as its bit value,
// and the reserved bits change nothing.
TEST(frcnn_desc, flag_bits_and_dump) {
  for (int bit = 0; bit < 10; ++bit) {  // bit 0 of byte 1 is is_debug (not shown); the rest in text order
    SCOPED_TRACE(bit);
    raw_desc r;
    r.b[1 + bit / 8] = static_cast<uint8_t>(1u << bit % 8);
    EXPECT_EQ(r.dump(), expected_dump(bit ? 1u << (bit - 1) : 0));
  }
  raw_desc reserved;
  reserved.b[2] = 0xFC;
  reserved.b[3] = 0xA5;
  EXPECT_EQ(reserved.dump(), expected_dump(0));
  reserved.b[1] = 0xFF;
  reserved.b[2] = 0xFF;
  EXPECT_EQ(reserved.dump(), expected_dump(0x1FF));
}


// Fails allocation number `countdown` (counted from 0) made through the
// library's allocator (-1: none), or every one once refuse_all is set.
// Counts them all and keeps the largest size asked.
struct failing_alloc {
  long countdown = -1, seen = 0;
  size_t largest = 0;
  bool refuse_all = false;
  static bool hook(size_t bytes, void* user) {
    auto* self = static_cast<failing_alloc*>(user);
    ++self->seen;
    self->largest = std::max(self->largest, bytes);
    return !self->refuse_all && (self->countdown < 0 || self->countdown-- != 0);
  }
};

// Refused configurations in both forms: init prints the reason (the global
// form adds its own line), never asks the heap for 64 MiB or more, leaves
// the caller's record alone and no thread behind. Buffers of 4 GiB or more,
// or whose 32-bit size products wrap, are refused with the message of that
// buffer. 32 threads, and huge counts that size no buffer (message NULL),
// are accepted: init and exit print nothing.
TEST(global_context, refused_configurations_print_their_reasons) {
  std::vector<float> anchors = ol_test::base_anchors_9();
  const int before = ol_test::quiet_threads();
  const struct {
    int threads;  // -1: no descriptor
    uint32_t anchor_num, fmap_h, fmap_w, pre_nms_num, post_nms_num, class_num;
    const char* message;
  } cases[] = {
      {-1, 3, 8, 10, 100, 30, 4, "Invalid frcnn desc pointer NULL\n"},
      {0, 3, 8, 10, 100, 30, 4, "thread number 0 less than 1\ncreate thread pool err\n"},
      {33, 3, 8, 10, 100, 30, 4, "thread number 33 exceed max 32\ncreate thread pool err\n"},
      {2, 0x10000, 0x10000, 1, 100, 30, 4, "malloc for anchors err\n"},  // positions wrap to 0
      {2, 1, 0x10000, 0x1000, 100, 30, 4, "malloc for anchors err\n"},   // exactly 4 GiB
      {2, ~0u, ~0u, ~0u, 100, 30, 4, "malloc for anchors err\n"},
      {2, 3, 8, 10, 0x1999999A, 30, 4, "malloc for detections err\n"},
      {2, 3, 8, 10, 100, 0x10000, 0x1000, "malloc for anchors err\n"},  // head boxes wrap
      {32, 3, 8, 10, 100, 30, 4, nullptr},  // accepted quietly
      {2, 0x40000000, 0, 10, 100, 30, 4, nullptr},
      {2, 3, 8, 10, 100, 0x7FFFFFFF, 0, nullptr},
  };
  for (bool qsort : {true, false})
    for (const auto& c : cases) {
      SCOPED_TRACE(testing::Message() << "row " << &c - cases << ", qsort " << qsort);
      frcnn_desc d = ol_test::robust_desc(static_cast<uint8_t>(c.threads), qsort);
      d.anchor_num = c.anchor_num;
      d.fmap_h = c.fmap_h;
      d.fmap_w = c.fmap_w;
      d.pre_nms_num = c.pre_nms_num;
      d.post_nms_num = c.post_nms_num;
      d.class_num = c.class_num;
      const frcnn_desc copy = d;
      frcnn_desc* p = c.threads < 0 ? nullptr : &d;
      failing_alloc fa;
      const ol::alloc_hooks hooks{failing_alloc::hook, &fa};
      void* hd = nullptr;
      const std::string out = ol_test::printed([&] {
        ol::set_alloc_hooks(&hooks);
        hd = opt_layers_instance_frcnn_init(p, anchors.data());
        ol::set_alloc_hooks(nullptr);
        if (hd) opt_layers_instance_frcnn_exit(hd);
      });
      EXPECT_EQ(out, c.message ? c.message : "");
      EXPECT_EQ(hd == nullptr, c.message != nullptr);
      EXPECT_LT(fa.largest, 64u << 20);
      EXPECT_EQ(memcmp(&d, &copy, sizeof d), 0);
      if (c.message) {
        EXPECT_EQ(ol_test::printed([&] { EXPECT_EQ(opt_layers_frcnn_init(p, anchors.data()), -1); }),
                  std::string(c.message) + "frcnn_init err\n");
      }
      EXPECT_EQ(ol::global_context(), nullptr);
      EXPECT_EQ(settled_threads(before), before);
    }
}

// Every allocation of init, failed in turn: init either fails with the
// messages of the step concerned and leaves nothing behind, or (for a task
// node of the anchor bands or a row node kept in advance) tolerates it. The
// exit of a context needs no memory (the workers' stop items have their
// nodes). A successful init sets up the histogram tables and keeps row nodes
// in advance on the histogram path only.
TEST(instance_context, every_allocation_failure_is_clean) {
  std::vector<float> anchors = ol_test::base_anchors_9();
  const std::set<std::string> step_messages = {
      "malloc frcnn err", "fatal: no memory", "create thread pool err", "malloc for anchors err",
      "malloc for rpn cls nopitch err", "malloc for detections err", "malloc for order_buf err",
      "malloc for order_rpn_index ", "malloc for histgram map err", "malloc for histgram list err",
      "malloc for histgram num err", "malloc for histgram sort err", "fatal: add task fail",
      "fatal: no memory for simple node"};
  for (bool qsort : {true, false}) {
    frcnn_desc d = ol_test::mobile_desc(3, qsort);
    const int threads_before = ol_test::quiet_threads();
    long total = 1, failures = 0;  // allocations of a successful init, counted at k = -1
    for (long k = -1; k < total; ++k) {
      failing_alloc fa{k};
      ol::alloc_hooks hooks{failing_alloc::hook, &fa};
      stdout_capture cap;
      ol::set_alloc_hooks(&hooks);
      void* ctx = opt_layers_instance_frcnn_init(&d, anchors.data());
      const long seen = fa.seen;
      if (k < 0) {  // the histogram tables only on that path, N * 20 / 2048 row nodes for N positions
        ASSERT_NE(ctx, nullptr);
        total = seen;
        const ol::hist_tables& t = static_cast<ol::frcnn_context*>(ctx)->hist;
        size_t nodes = 0;
        for (ol::hist_row_node* n = t.free_nodes; n; n = n->next) ++nodes;
        EXPECT_EQ(nodes, qsort ? 0 : 9 * 19 * 32 * 20 / 2048);
        EXPECT_EQ(t.map == nullptr && t.list == nullptr, qsort);
      }
      fa.refuse_all = true;
      if (ctx) opt_layers_instance_frcnn_exit(ctx);
      ol::set_alloc_hooks(nullptr);
      const std::string text = cap.end();
      failures += ctx == nullptr;
      EXPECT_TRUE(ctx || !text.empty()) << "allocation " << k << " failed init silently";
      std::istringstream out(text);
      EXPECT_EQ(fa.seen, seen) << "exit allocated, allocation " << k;
      for (std::string line; std::getline(out, line);)
        EXPECT_EQ(step_messages.count(line), 1u) << "allocation " << k << " printed: " << line;
      EXPECT_EQ(settled_threads(threads_before), threads_before) << "allocation " << k;
    }
    EXPECT_TRUE(total > 8 && failures > 8) << total << " allocations, " << failures << " failures";
  }
}

// Init/exit cycles (OL_CYCLES sets the count, for slow runners such as
// valgrind; by default 10,000 where the allocator is interposed): global and
// instance forms alternating, the histogram path (its 64 Ki-bucket tables set
// up per init) on two workers for the first two of every hundred, the
// comparison path on one for the rest. The number of live heap blocks after them is what it was after
// the first hundred (glibc keeps per-thread caches bounded), and no thread
// is left.
TEST(instance_context, repeated_cycles_leave_nothing_behind) {
  std::vector<float> anchors = ol_test::base_anchors_9();
  const char* env = getenv("OL_CYCLES");
  const int cycles = env ? atoi(env) : (OL_INTERPOSE_MALLOC ? 10000 : 25);
  const int threads = ol_test::quiet_threads();
  long warm = 0;
  for (int i = 0; i < cycles; ++i) {
    if (i == 100) warm = g_outstanding.load();
    frcnn_desc d = ol_test::robust_desc(i % 100 < 2 ? 2 : 1, i % 100 >= 2);
    void* h = i & 1 ? opt_layers_instance_frcnn_init(&d, anchors.data()) : nullptr;
    ASSERT_TRUE(i & 1 ? h != nullptr : opt_layers_frcnn_init(&d, anchors.data()) == 0) << i;
    h ? opt_layers_instance_frcnn_exit(h) : opt_layers_frcnn_exit();
  }
  EXPECT_TRUE(cycles <= 100 || g_outstanding.load() == warm) << g_outstanding.load() << " blocks, not " << warm;
  EXPECT_EQ(settled_threads(threads), threads);
}

constexpr int kHandles = 9;  // the last one is the process-wide context
constexpr int kFrames = 3;   // distinct input frames per handle
const unsigned kSteps[] = {ol_test::step_prenms, ol_test::step_prenms_nms,
                           ol_test::step_pre_nms_roi | ol_test::step_post_nms, ol_test::step_all};

// Handles in threes, on 1, 2 and 3 workers each: the robustness frame on
// map heights 10, 11 and 12 with 100 proposals kept (the head decode's
// largest batch of tasks), the comparison sort on the first three, and
// foreground-only filtered scores (the parallel filter over runs of
// anchors) on the second.
frcnn_desc handle_desc(int i) {
  frcnn_desc d = ol_test::robust_desc(static_cast<uint8_t>(1 + i % 3), i / 3 == 0);
  d.fmap_h = 10 + i / 3;
  d.is_rpn_cls_fg_only = d.is_filter_rpn_cls = i / 3 == 1;
  d.rpn_cls_threshold = 0.2f;
  d.pre_nms_num = 300;
  d.post_nms_num = 100;
  d.pre_nms_iou = 0.9f;
  return d;
}

// Eight handles and the process-wide context. From the first frame after
// init, each runs its frames twice through every entry point with no
// allocating call at all (init sizes every buffer and queue a frame needs).
// Every frame gives the same on 1, 2 and 3 workers. Then nine threads drive
// the handles, every step mix of every frame, while another thread keeps
// creating, using and destroying handles: every frame must give exactly
// what it gave on one thread. OL_STRESS_FRAMES sets the frames per
// thread (default 1000).
TEST(frames, allocate_nothing_and_match_one_thread_on_many_threads) {
  const char* env = getenv("OL_STRESS_FRAMES");
  const int per_thread = env ? atoi(env) : 1000;
  std::vector<float> anchors = ol_test::base_anchors_9();
  std::vector<void*> handles;
  std::vector<std::vector<frame_arrays>> frames(kHandles);
  for (int i = 0; i < kHandles; ++i) {
    frcnn_desc d = handle_desc(i);
    const bool global = i + 1 == kHandles;
    handles.push_back(global ? nullptr : opt_layers_instance_frcnn_init(&d, anchors.data()));
    ASSERT_TRUE(global ? opt_layers_frcnn_init(&d, anchors.data()) == 0 : handles[i] != nullptr) << i;
    for (int f = 0; f < kFrames; ++f) frames[i].emplace_back(d);
  }
  // Frame f of handle i with its outputs poisoned (so that what a frame
  // leaves unwritten compares too); in the last one identical scores pile
  // up in one bucket beyond its inline slots (the histogram path needs
  // overflow nodes).
  auto load = [&](int i, int f) -> frame_arrays& {
    frames[i][f].fill(i / 3 * kFrames + f);
    for (size_t j = 0; f + 1 == kFrames && j < frames[i][f].cls.n; j += 2)
      frames[i][f].cls[j] = ol_test::h(0.75f);
    return frames[i][f];
  };
  // Allocations through the library's hook count as well.
  static ol::alloc_hooks hooks{[](size_t, void*) {
                                 if (g_counting.load(std::memory_order_relaxed)) ++g_calls;
                                 return true;
                               },
                               nullptr};
  ol::set_alloc_hooks(&hooks);
  g_calls = 0;
  g_counting = true;
  for (int n = 0; n < 2 * kHandles * kFrames; ++n)
    run_frame(handles[n % kHandles], load(n % kHandles, n / kHandles % kFrames), ol_test::step_all, 0, false);
  g_counting = false;
  ol::set_alloc_hooks(nullptr);
  EXPECT_EQ(g_calls.load(), 0) << "allocating calls";

  // Reference: every frame and step mix on one thread, the same for the
  // handle on one worker (k / 12 % 3 == 0) and its two siblings; every
  // whole frame finds ROIs and keeps them all through the head.
  std::vector<frame_result> expect(kHandles * kFrames * 4);
  for (int k = 0; k < kHandles * kFrames * 4; ++k) {
    const frame_result& e = expect[k] = run_frame(handles[k / 12], load(k / 12, k / 4 % 3), kSteps[k % 4]);
    EXPECT_TRUE(e == expect[k - k / 12 % 3 * 12]) << k;
    EXPECT_TRUE(k % 4 != 3 || (e.k > 0 && e.r > 0 && e.r2 == e.r && e.post == 0)) << k;
  }
  std::atomic<int> mismatches{0}, churn{0};
  std::atomic<bool> stop{false};
  std::vector<std::thread> workers;
  for (int i = 0; i < kHandles; ++i)
    workers.emplace_back([&, i] {
      for (int n = 0; n < per_thread; ++n) {
        const int f = (n * 7 + i) % kFrames, s = (n + n / kFrames) % 4;
        const frame_result r = run_frame(handles[i], load(i, f), kSteps[s]);
        if (!(r == expect[(i * kFrames + f) * 4 + s])) ++mismatches;
      }
    });
  // Handles come and go beside the busy ones, each running frame 0 of handle 3.
  std::thread churner([&] {
    frcnn_desc d = handle_desc(3);
    frame_arrays a(d);
    do {
      void* h = opt_layers_instance_frcnn_init(&d, anchors.data());
      a.fill(1 * kFrames);  // as load(3, 0)
      if (h == nullptr || !(run_frame(h, a) == expect[3 * kFrames * 4 + 3])) ++mismatches;
      opt_layers_instance_frcnn_exit(h);
      ++churn;
    } while (!stop.load());
  });
  for (std::thread& t : workers) t.join();
  stop = true;
  churner.join();
  EXPECT_EQ(mismatches.load(), 0);
  EXPECT_GT(churn.load(), 0);
  for (void* h : handles) h ? opt_layers_instance_frcnn_exit(h) : opt_layers_frcnn_exit();
}

}  // namespace
