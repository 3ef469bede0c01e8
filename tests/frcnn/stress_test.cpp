// Concurrency stress: eight handles and the process-wide context driven by
// nine threads, every entry point and both sort paths mixed, while another
// thread keeps creating, using and destroying handles. Every frame must give
// exactly what the same frame gave on one thread. OL_STRESS_FRAMES sets the
// frames per thread (default 1000).
// ctest-labels: threaded
#include <stdlib.h>

#include <atomic>
#include <thread>

#include "common/frame_gen.h"

namespace {

using ol_test::frame_arrays;
using ol_test::frame_result;
using ol_test::run_frame;

constexpr int kHandles = 9;  // the last one is the process-wide context
constexpr int kFrames = 3;   // distinct input frames per handle
const unsigned kSteps[] = {ol_test::step_prenms, ol_test::step_prenms_nms,
                           ol_test::step_pre_nms_roi | ol_test::step_post_nms, ol_test::step_all};

// The robustness frame on 1 to 3 threads, both sort paths, three map
// heights, and foreground-only filtered scores on every fourth handle.
frcnn_desc handle_desc(int i) {
  frcnn_desc d = ol_test::robust_desc(static_cast<uint8_t>(1 + i % 3), i % 2 == 0);
  d.fmap_h = 10 + i % 3;
  d.is_rpn_cls_fg_only = d.is_filter_rpn_cls = i % 4 == 1;
  d.rpn_cls_threshold = 0.2f;
  return d;
}

TEST(stress, handles_on_many_threads_match_one_thread) {
  const char* env = getenv("OL_STRESS_FRAMES");
  const int per_thread = env ? atoi(env) : 1000;
  std::vector<float> anchors = ol_test::base_anchors_9();
  std::vector<frcnn_desc> descs;
  std::vector<void*> handles;
  std::vector<std::vector<frame_arrays>> frames(kHandles);
  for (int i = 0; i < kHandles; ++i) {
    descs.push_back(handle_desc(i));
    if (i + 1 < kHandles) {
      handles.push_back(opt_layers_instance_frcnn_init(&descs[i], anchors.data()));
      ASSERT_NE(handles[i], nullptr);
    } else {
      ASSERT_EQ(opt_layers_frcnn_init(&descs[i], anchors.data()), 0);
      handles.push_back(nullptr);
    }
    for (int f = 0; f < kFrames; ++f) frames[i].emplace_back(descs[i]);
  }
  // Reference: every frame and step mix on one thread. fill() poisons the
  // outputs, so what a frame leaves unwritten compares too.
  std::vector<frame_result> expect(kHandles * kFrames * 4);
  for (int k = 0; k < kHandles * kFrames * 4; ++k) {
    frames[k / 12][k / 4 % 3].fill(k / 4);
    expect[k] = run_frame(handles[k / 12], frames[k / 12][k / 4 % 3], kSteps[k % 4]);
  }
  std::atomic<int> mismatches{0}, churn{0};
  std::atomic<bool> stop{false};
  std::vector<std::thread> workers;
  for (int i = 0; i < kHandles; ++i)
    workers.emplace_back([&, i] {
      for (int n = 0; n < per_thread; ++n) {
        const int f = (n * 7 + i) % kFrames, s = (n + n / kFrames) % 4, k = (i * kFrames + f) * 4 + s;
        frames[i][f].fill(k / 4);
        if (!(run_frame(handles[i], frames[i][f], kSteps[s]) == expect[k])) ++mismatches;
      }
    });
  // Handles come and go beside the busy ones, each running frame 0 of handle 3.
  std::thread churner([&] {
    frcnn_desc d = handle_desc(3);
    frame_arrays a(d);
    do {
      void* h = opt_layers_instance_frcnn_init(&d, anchors.data());
      a.fill(3 * kFrames);
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
