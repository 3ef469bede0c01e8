// Concurrency stress: eight instance handles driven by eight threads, every
// entry point and both sort paths mixed, while another thread keeps creating,
// using and destroying handles. Every frame must give exactly what the same
// frame gave on one thread. OL_STRESS_FRAMES sets the frames per thread
// (default 1000: 8,000 frames, about two seconds natively).
// ctest-labels: threaded
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "frcnn/robust_frame.h"

namespace {

using ol_test::frame_arrays;
using ol_test::frame_result;
using ol_test::run_frame;

constexpr int kHandles = 8;
constexpr int kFrames = 3;  // distinct input frames per handle
const unsigned kSteps[] = {ol_test::step_prenms, ol_test::step_prenms_nms,
                           ol_test::step_pre_nms_roi | ol_test::step_post_nms, ol_test::step_all};
constexpr int kStepKinds = 4;

// 1 to 3 threads, both sort paths, three map heights, and foreground-only
// filtered scores on every fourth handle. The frames are large enough that
// sorts and stages of different handles overlap in time.
frcnn_desc handle_desc(int i) {
  frcnn_desc d = ol_test::mobile_desc(static_cast<uint8_t>(1 + i % 3), i % 2 == 0);
  d.fmap_h = 10 + i % 3;
  d.fmap_w = 12;
  d.fmap_pitch = d.rpn_cls_pitch = 13;
  d.pre_nms_num = 300;
  d.post_nms_num = 40;
  d.class_num = d.rcnn_cls_pitch = 5;
  d.rcnn_bbox_pitch = 20;
  d.fmap_d = 16;
  d.pool_h = d.pool_w = 3;
  d.is_rpn_cls_fg_only = d.is_filter_rpn_cls = i % 4 == 1;
  d.rpn_cls_threshold = 0.2f;
  return d;
}

TEST(stress, eight_handles_on_eight_threads_match_one_thread) {
  const char* env = getenv("OL_STRESS_FRAMES");
  const int per_thread = env ? atoi(env) : 1000;
  std::vector<float> anchors = ol_test::base_anchors_9();
  std::vector<frcnn_desc> descs;
  std::vector<void*> handles;
  std::vector<std::vector<frame_arrays>> frames(kHandles);
  for (int i = 0; i < kHandles; ++i) {
    descs.push_back(handle_desc(i));
    handles.push_back(opt_layers_instance_frcnn_init(&descs[i], anchors.data()));
    ASSERT_NE(handles[i], nullptr);
    for (int f = 0; f < kFrames; ++f) frames[i].emplace_back(descs[i]);
  }
  // Reference: every frame and step mix on one thread. fill() poisons the
  // outputs before each frame so that what a frame leaves unwritten compares
  // too.
  std::vector<frame_result> expect(kHandles * kFrames * kStepKinds);
  auto expected = [&](int i, int f, int s) -> frame_result& {
    return expect[(i * kFrames + f) * kStepKinds + s];
  };
  for (int i = 0; i < kHandles; ++i)
    for (int f = 0; f < kFrames; ++f)
      for (int s = 0; s < kStepKinds; ++s) {
        frames[i][f].fill(1000 * i + f);
        expected(i, f, s) = run_frame(handles[i], frames[i][f], kSteps[s]);
      }

  std::atomic<int> mismatches{0};
  std::atomic<bool> stop{false};
  const auto t0 = std::chrono::steady_clock::now();
  std::vector<std::thread> workers;
  for (int i = 0; i < kHandles; ++i)
    workers.emplace_back([&, i] {
      for (int n = 0; n < per_thread; ++n) {
        const int f = (n * 7 + i) % kFrames, s = (n + n / kFrames) % kStepKinds;
        frames[i][f].fill(1000 * i + f);
        if (!(run_frame(handles[i], frames[i][f], kSteps[s]) == expected(i, f, s))) ++mismatches;
      }
    });
  // Handles come and go beside the busy ones (at least one), each running
  // frame 0 of handle 3.
  int churn = 0;
  std::thread churner([&] {
    frcnn_desc d = handle_desc(3);
    frame_arrays a(d);
    do {
      void* h = opt_layers_instance_frcnn_init(&d, anchors.data());
      if (h == nullptr) {
        ++mismatches;
        break;
      }
      a.fill(3000);
      if (!(run_frame(h, a, ol_test::step_all) == expected(3, 0, 3))) ++mismatches;
      opt_layers_instance_frcnn_exit(h);
      ++churn;
    } while (!stop.load());
  });
  for (std::thread& t : workers) t.join();
  stop = true;
  churner.join();
  printf("stress: %d frames on %d threads, %d handle cycles beside them, %.2f s\n",
         kHandles * per_thread, kHandles, churn,
         std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
  EXPECT_EQ(mismatches.load(), 0);
  EXPECT_GT(churn, 0);
  for (void* h : handles) opt_layers_instance_frcnn_exit(h);
}

}  // namespace
