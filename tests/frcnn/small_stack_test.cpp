// Small stacks: every entry point and operator at the largest sizes of its
// contract, called from a thread with a 128 KiB stack, while the pool's
// workers run the stages on their fixed 128 KiB stacks. A stack overflow
// ends the program, so passing means everything fit.
#include <pthread.h>

#include <functional>

#include "common/alloc.h"
#include "frcnn/robust_frame.h"
#include "thread_pool/thread_pool.h"

namespace {

using ol_test::frame_arrays;

constexpr size_t kCallerStack = 128 * 1024;

// Runs fn on a new thread with a 128 KiB stack and waits for it.
void on_small_stack(const std::function<void()>& fn) {
  pthread_attr_t attr;
  ASSERT_EQ(pthread_attr_init(&attr), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&attr, kCallerStack), 0);
  pthread_t t;
  auto tramp = [](void* arg) -> void* {
    (*static_cast<const std::function<void()>*>(arg))();
    return nullptr;
  };
  ASSERT_EQ(pthread_create(&t, &attr, tramp, const_cast<std::function<void()>*>(&fn)), 0);
  pthread_join(t, nullptr);
  pthread_attr_destroy(&attr);
}

// The stack size a thread of this process actually got.
size_t own_stack_size() {
  pthread_attr_t attr;
  size_t size = 0;
  if (pthread_getattr_np(pthread_self(), &attr) == 0) {
    pthread_attr_getstacksize(&attr, &size);
    pthread_attr_destroy(&attr);
  }
  return size;
}

TEST(small_stack, pool_workers_run_on_the_fixed_stack) {
  ol::thread_pool* pool = ol::thread_pool_create(2);
  ASSERT_NE(pool, nullptr);
  size_t sizes[2] = {0, 0};
  struct rec {
    ol::thread_task task;
    size_t* out;
  } recs[2];
  for (int i = 0; i < 2; ++i) {
    recs[i].out = &sizes[i];
    recs[i].task.func = [](void* a) -> int32_t {
      *static_cast<rec*>(a)->out = own_stack_size();
      return 0;
    };
    recs[i].task.arg = &recs[i];
  }
  ol::dispatch_tasks(pool, recs, 2, ol::on_refused::skip);
  ol::thread_pool_destroy(pool);
  EXPECT_EQ(sizes[0], ol::k_worker_stack_bytes);
  EXPECT_EQ(sizes[1], ol::k_worker_stack_bytes);
}

// The pipeline at pre_nms_num and post_nms_num 32767 with 81 classes: 36,864
// positions, every proposal kept by the proposal stage, then a head stage
// over 32767 ROIs (more than post_nms_num given, so clamped).
TEST(small_stack, pipeline_at_the_largest_counts) {
  std::vector<float> anchors = ol_test::base_anchors_9();
  for (bool qsort : {true, false}) {
    SCOPED_TRACE(qsort);
    frcnn_desc d = ol_test::vgg16_desc(2, qsort);
    d.fmap_h = 64;
    d.fmap_w = 64;
    d.fmap_pitch = d.rpn_cls_pitch = 64;
    d.img_h = d.img_w = 1024;
    d.min_size = 0;
    d.pre_nms_num = 32767;
    d.post_nms_num = 32767;
    d.class_num = 81;
    d.rcnn_cls_pitch = 81;
    d.rcnn_bbox_pitch = 4 * 81;
    d.fmap_d = 16;
    d.cls_prob = 0.099f;
    d.pre_nms_iou = 0.3f;
    void* h = opt_layers_instance_frcnn_init(&d, anchors.data());
    ASSERT_NE(h, nullptr);
    frame_arrays a(d, d.post_nms_num);
    a.fill(11);
    // Head probabilities mostly below cls_prob, so that the class
    // suppressions stay short.
    ol_test::rng g(3);
    for (size_t i = 0; i < a.rcnn_cls.n; ++i) a.rcnn_cls[i] = ol_test::h(g.uniform(0.0f, 0.1f));
    int k = 0, r2 = 0, post = -2;
    on_small_stack([&] {
      half_float::half* props = nullptr;
      k = opt_layers_instance_frcnn_prenms(h, a.cls.half(), a.bbox.half(), &props);
      r2 = opt_layers_instance_frcnn_pre_nms_roi(h, a.cls.half(), a.bbox.half(), a.fmap.data(),
                                                 a.roi_result.data(), a.nms_out.half());
      // The head stage over all 32767 rows (NMS wrote the first r).
      ol_test::stdout_capture cap;
      post = opt_layers_instance_frcnn_post_nms(h, a.rcnn_cls.half(), a.rcnn_bbox.half(),
                                                a.nms_out.half(), a.rcnn_result.half(), 40000);
      cap.end();
    });
    EXPECT_EQ(k, 32767);
    EXPECT_GT(r2, 0);
    EXPECT_EQ(post, 0);
    opt_layers_instance_frcnn_exit(h);
  }
}

TEST(small_stack, operators_at_large_sizes) {
  ol_test::rng g(9);
  // nms over 32767 boxes, with its heap scratch and without (refused).
  std::vector<uint16_t> boxes(5 * 32767), out(4 * 32767);
  for (size_t i = 0; i < boxes.size(); i += 5) {
    // Crowded boxes: most are suppressed early, which keeps the greedy
    // loop short; the scratch is sized by the count all the same.
    const float x = g.uniform(0, 300), y = g.uniform(0, 300);
    boxes[i] = ol_test::h(x);
    boxes[i + 1] = ol_test::h(y);
    boxes[i + 2] = ol_test::h(x + g.uniform(20, 60));
    boxes[i + 3] = ol_test::h(y + g.uniform(20, 60));
  }
  // Pooling inputs: long grids in each direction.
  std::vector<uint16_t> map16(4 * 64 * 64 * 16);
  for (uint16_t& v : map16) v = static_cast<uint16_t>(g.next());
  std::vector<uint16_t> hbox = {ol_test::h(0), ol_test::h(0), ol_test::h(1000), ol_test::h(1000)};
  std::vector<uint16_t> pooled(4 * 4096 * 16);
  std::vector<float> fbox = {2, 3, 500, 400, 10, 10, 300, 600};
  std::vector<short> smap(64 * 64 * 32);
  for (short& v : smap) v = static_cast<short>(g.next());
  std::vector<short> aligned(2 * 4096 * 2 * 32);
  // Position-sensitive pooling with 21 x 21 bins, both channel paths.
  const int group = 21;
  std::vector<float> psmap(static_cast<size_t>(group) * group * 8 * 8 * 24);
  for (float& v : psmap) v = g.uniform(-1, 1);
  std::vector<float> psout(2 * group * group * 24);
  std::vector<float> psbox = {0, 0, 100, 120, 30, 20, 90, 90};

  int kept = -1, kept_noheap = -1, rc = 0;
  on_small_stack([&] {
    kept = nms(ol_test::as_half(out.data()), ol_test::as_half(boxes.data()), 32767, 0.5f, 32767);
    ol::alloc_hooks refuse{[](size_t, void*) { return false; }, nullptr};
    ol::set_alloc_hooks(&refuse);
    kept_noheap = nms(ol_test::as_half(out.data()), ol_test::as_half(boxes.data()), 32767, 0.5f, 32767);
    ol::set_alloc_hooks(nullptr);
    for (auto fn : {roi_pooling, roi_pooling_sign}) {
      rc |= fn(ol_test::as_half(hbox.data()), map16.data(), pooled.data(), 1, 4096, 1, 0, 16, 0, 64, 64, 64);
      rc |= fn(ol_test::as_half(hbox.data()), map16.data(), pooled.data(), 1, 1, 4096, 0, 16, 0, 64, 64, 64);
    }
    rc |= roi_align_fmap_int16(smap.data(), 16, fbox.data(), 2, 64, 64, 4096, 2, 32, aligned.data());
    rc |= roi_align_fmap_int16(smap.data(), 16, fbox.data(), 2, 64, 64, 2, 4096, 32, aligned.data());
    short* maps[3] = {smap.data(), smap.data(), smap.data()};
    unsigned scales[3] = {16, 32, 64};
    rc |= roi_align_four_fmap_int16(maps, scales, fbox.data(), 2, 1024, 1024, 4096, 2, 32, aligned.data());
    rc |= crop_and_resize_fmap_int16(smap.data(), 0.1f, 0.1f, 0.0f, fbox.data(), 2, 64, 64, 4096, 2,
                                     32, aligned.data());
    rc |= crop_and_resize_fmap_int16(smap.data(), 0.1f, 0.1f, 0.0f, fbox.data(), 2, 64, 64, 2, 4096,
                                     32, aligned.data());
    for (int oc : {21, 10})
      rc |= ps_roi_pooling_scale(psmap.data(), 8, 8, group * group * oc, 24, psbox.data(), 2,
                                 psout.data(), group, group, oc, 24, 0.0625f, group, 1.2f, 1.0f, 1.0f);
  });
  EXPECT_GT(kept, 0);
  EXPECT_EQ(kept_noheap, kept);
  EXPECT_EQ(rc, 0);
}

}  // namespace
