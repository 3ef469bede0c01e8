// Lifecycle of the pipeline context: init and exit in both forms, their
// messages, allocation failures at every step, and repeated cycles.
// ctest-labels: threaded
#include <dirent.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "common/alloc.h"
#include "common/frame_gen.h"
#include "common/test_util.h"
#include "frcnn/context.h"

namespace {

using ol_test::stdout_capture;

using ol_test::live_threads;

using ol_test::settled_threads;

frcnn_desc small_desc(uint8_t threads, bool qsort) {
  frcnn_desc d = ol_test::mobile_desc(threads, qsort);
  return d;
}

TEST(version, reports_the_library) {
  opt_layers_version v;
  memset(&v, 0xA5, sizeof v);
  EXPECT_EQ(opt_layers_get_version(&v), 0);
  EXPECT_EQ(v.major, 1u);
  EXPECT_EQ(v.minor, 1u);
  EXPECT_EQ(v.patch, 2u);
  EXPECT_EQ(v.build_date, 0x20191230u);
  EXPECT_STREQ(v.description, "Norvantix Faster RCNN Library");
  stdout_capture cap;
  EXPECT_EQ(opt_layers_get_version(nullptr), -1);
  EXPECT_EQ(cap.end(), "Version pointer is NULL\n");
}

TEST(global_context, init_twice_exit_without_init_and_reinit) {
  std::vector<float> anchors = ol_test::base_anchors_9();
  frcnn_desc d = small_desc(2, false);
  {
    stdout_capture cap;
    opt_layers_frcnn_exit();
    EXPECT_EQ(cap.end(), "frcnn handle is NULL for exit\n");
  }
  ASSERT_EQ(opt_layers_frcnn_init(&d, anchors.data()), 0);
  ol::frcnn_context* first = ol::global_context();
  {
    stdout_capture cap;
    EXPECT_EQ(opt_layers_frcnn_init(&d, anchors.data()), -1);
    EXPECT_EQ(cap.end(), "opt_layers_frcnn_init call already, do not init agarin\n");
  }
  EXPECT_EQ(ol::global_context(), first);
  // The first context keeps working.
  ol_test::rpn_frame f = ol_test::make_rpn_frame(d, 1);
  half_float::half* props = nullptr;
  EXPECT_GT(opt_layers_frcnn_prenms(ol_test::hp(f.cls), ol_test::hp(f.bbox), &props), 0);
  opt_layers_frcnn_exit();
  EXPECT_EQ(ol::global_context(), nullptr);

  // A new init takes the new configuration.
  frcnn_desc d2 = small_desc(1, true);
  d2.pre_nms_num = 7;
  ASSERT_EQ(opt_layers_frcnn_init(&d2, anchors.data()), 0);
  EXPECT_EQ(ol::global_context()->desc.pre_nms_num, 7u);
  EXPECT_EQ(opt_layers_frcnn_prenms(ol_test::hp(f.cls), ol_test::hp(f.bbox), &props), 7);
  opt_layers_frcnn_exit();
}

TEST(global_context, refused_configurations_print_their_reasons) {
  std::vector<float> anchors = ol_test::base_anchors_9();
  const int before = ol_test::quiet_threads();
  {
    stdout_capture cap;
    EXPECT_EQ(opt_layers_frcnn_init(nullptr, anchors.data()), -1);
    EXPECT_EQ(cap.end(), "Invalid frcnn desc pointer NULL\nfrcnn_init err\n");
  }
  frcnn_desc d = small_desc(0, false);
  {
    stdout_capture cap;
    EXPECT_EQ(opt_layers_frcnn_init(&d, anchors.data()), -1);
    EXPECT_EQ(cap.end(), "thread number 0 less than 1\ncreate thread pool err\nfrcnn_init err\n");
  }
  d.thread_num = 33;
  {
    stdout_capture cap;
    EXPECT_EQ(opt_layers_instance_frcnn_init(&d, anchors.data()), nullptr);
    EXPECT_EQ(cap.end(), "thread number 33 exceed max 32\ncreate thread pool err\n");
  }
  EXPECT_EQ(ol::global_context(), nullptr);
  EXPECT_EQ(settled_threads(before), before);
  d.thread_num = 32;
  void* h = opt_layers_instance_frcnn_init(&d, anchors.data());
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(live_threads(), before + 32);
  opt_layers_instance_frcnn_exit(h);
  EXPECT_EQ(settled_threads(before), before);
}

TEST(global_context, debug_flag_dumps_and_quiet_init_prints_nothing) {
  std::vector<float> anchors = ol_test::base_anchors_9();
  frcnn_desc d = small_desc(1, true);
  {
    stdout_capture cap;
    void* h = opt_layers_instance_frcnn_init(&d, anchors.data());
    ASSERT_NE(h, nullptr);
    opt_layers_instance_frcnn_exit(h);
    EXPECT_EQ(cap.end(), "");
  }
  d.is_debug = 1;
  {
    stdout_capture cap;
    void* h = opt_layers_instance_frcnn_init(&d, anchors.data());
    ASSERT_NE(h, nullptr);
    opt_layers_instance_frcnn_exit(h);
    EXPECT_EQ(cap.end().rfind("[FRCNN_DESC] ThreadN: 1, AnchorN: 9", 0), 0u);
  }
}

TEST(instance_context, exit_of_an_uninitialised_context_frees_nothing) {
  ol::frcnn_context ctx;
  memset(&ctx, 0, sizeof ctx);
  stdout_capture cap;
  opt_layers_instance_frcnn_exit(&ctx);
  opt_layers_instance_frcnn_exit(nullptr);
  EXPECT_EQ(cap.end(), "opt_layers library is not inited\nfrcnn handle is NULL for exit\n");
}

TEST(instance_context, qsort_configuration_has_no_histogram_tables) {
  std::vector<float> anchors = ol_test::base_anchors_9();
  frcnn_desc d = small_desc(1, true);
  auto* q = static_cast<ol::frcnn_context*>(opt_layers_instance_frcnn_init(&d, anchors.data()));
  ASSERT_NE(q, nullptr);
  EXPECT_EQ(q->hist.map, nullptr);
  EXPECT_EQ(q->hist.list, nullptr);
  EXPECT_EQ(q->hist.free_nodes, nullptr);
  opt_layers_instance_frcnn_exit(q);

  // N = 100: N * 20 < 2048, so no row node is kept in advance.
  d = small_desc(1, false);
  d.anchor_num = 1;
  d.fmap_h = 10;
  d.fmap_w = 10;
  auto* h = static_cast<ol::frcnn_context*>(opt_layers_instance_frcnn_init(&d, anchors.data()));
  ASSERT_NE(h, nullptr);
  EXPECT_NE(h->hist.map, nullptr);
  EXPECT_EQ(h->hist.free_nodes, nullptr);
  opt_layers_instance_frcnn_exit(h);
}

TEST(instance_context, row_nodes_kept_in_advance) {
  std::vector<float> anchors = ol_test::base_anchors_9();
  frcnn_desc d = small_desc(1, false);
  auto* h = static_cast<ol::frcnn_context*>(opt_layers_instance_frcnn_init(&d, anchors.data()));
  ASSERT_NE(h, nullptr);
  size_t nodes = 0;
  for (ol::hist_row_node* n = h->hist.free_nodes; n; n = n->next) ++nodes;
  EXPECT_EQ(nodes, 9u * 19 * 32 * 20 / 2048);
  opt_layers_instance_frcnn_exit(h);
}

// Fails the k-th allocation made through the library's allocator.
struct failing_alloc {
  long countdown = -1;  // allocations left before the failing one; -1: never
  long seen = 0;
  static bool hook(size_t, void* user) {
    auto* self = static_cast<failing_alloc*>(user);
    ++self->seen;
    if (self->countdown < 0) return true;
    return self->countdown-- != 0;
  }
};

// Every allocation of init, failed in turn: init either fails with the
// message of the step concerned and leaves nothing behind, or (for a task
// node of the anchor bands or a row node kept in advance) tolerates it.
TEST(instance_context, every_allocation_failure_is_clean) {
  std::vector<float> anchors = ol_test::base_anchors_9();
  for (bool qsort : {true, false}) {
    frcnn_desc d = small_desc(3, qsort);
    failing_alloc fa;
    ol::alloc_hooks hooks{failing_alloc::hook, &fa};
    ol::set_alloc_hooks(&hooks);
    void* h = opt_layers_instance_frcnn_init(&d, anchors.data());
    ol::set_alloc_hooks(nullptr);
    ASSERT_NE(h, nullptr);
    opt_layers_instance_frcnn_exit(h);
    const long total = fa.seen;
    ASSERT_GT(total, 8);

    const char* step_messages[] = {
        "malloc frcnn err\n",          "fatal: no memory\n",
        "create thread pool err\n",    "malloc for anchors err\n",
        "malloc for rpn cls nopitch err\n", "malloc for detections err\n",
        "malloc for order_buf err\n",  "malloc for order_rpn_index \n",
        "malloc for histgram map err\n", "malloc for histgram list err\n",
        "malloc for histgram num err\n", "malloc for histgram sort err\n",
        "fatal: add task fail\n",      "fatal: no memory for simple node\n"};
    const int threads_before = ol_test::quiet_threads();
    int failures = 0;
    for (long k = 0; k < total; ++k) {
      failing_alloc f2;
      f2.countdown = k;
      ol::alloc_hooks h2{failing_alloc::hook, &f2};
      stdout_capture cap;
      ol::set_alloc_hooks(&h2);
      void* ctx = opt_layers_instance_frcnn_init(&d, anchors.data());
      ol::set_alloc_hooks(nullptr);
      const std::string out = cap.end();
      if (ctx == nullptr) {
        ++failures;
        bool known = false;
        for (const char* m : step_messages) known = known || out.find(m) != std::string::npos;
        EXPECT_TRUE(known) << "allocation " << k << " printed: " << out;
      } else {
        opt_layers_instance_frcnn_exit(ctx);
      }
      EXPECT_EQ(settled_threads(threads_before), threads_before) << "allocation " << k;
    }
    EXPECT_GT(failures, 8);
  }
}

TEST(instance_context, repeated_cycles_leave_nothing_behind) {
  std::vector<float> anchors = ol_test::base_anchors_9();
  const int threads_before = ol_test::quiet_threads();
  for (bool qsort : {true, false}) {
    frcnn_desc d = small_desc(2, qsort);
    d.anchor_num = 3;
    d.fmap_h = 8;
    d.fmap_w = 8;
    // 1000 cycles per sort path, half global and half instance. OL_CYCLES
    // lowers it for slow runners (valgrind).
    const char* env = getenv("OL_CYCLES");
#ifdef __SANITIZE_THREAD__
    const int default_cycles = 25;  // the race checks need few cycles, and each is slow here
#else
    const int default_cycles = 500;
#endif
    const int cycles = env ? atoi(env) : default_cycles;
    for (int i = 0; i < cycles; ++i) {
      void* h = opt_layers_instance_frcnn_init(&d, anchors.data());
      ASSERT_NE(h, nullptr);
      opt_layers_instance_frcnn_exit(h);
      ASSERT_EQ(opt_layers_frcnn_init(&d, anchors.data()), 0);
      opt_layers_frcnn_exit();
    }
  }
  EXPECT_EQ(settled_threads(threads_before), threads_before);
}

TEST(instance_context, hostile_sizes_fail_cleanly) {
  std::vector<float> anchors(4 * 255, 0.0f);
  frcnn_desc d = small_desc(1, true);
  // 65536 * 65536 * 255 positions: the 32-bit products would wrap.
  d.anchor_num = 255;
  d.fmap_h = 65536;
  d.fmap_w = 65536;
  {
    stdout_capture cap;
    EXPECT_EQ(opt_layers_instance_frcnn_init(&d, anchors.data()), nullptr);
    EXPECT_EQ(cap.end(), "malloc for anchors err\n");
  }
  d = small_desc(1, true);
  d.post_nms_num = 0x10000;
  d.class_num = 0x10000;
  {
    stdout_capture cap;
    EXPECT_EQ(opt_layers_instance_frcnn_init(&d, anchors.data()), nullptr);
    EXPECT_EQ(cap.end(), "malloc for anchors err\n");
  }
}

}  // namespace
