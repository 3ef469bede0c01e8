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

// Runs fn on a new thread with a 128 KiB stack and waits for it.
void on_small_stack(const std::function<void()>& fn) {
  pthread_attr_t attr;
  ASSERT_EQ(pthread_attr_init(&attr), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&attr, 128 * 1024), 0);
  pthread_t t;
  auto tramp = [](void* arg) -> void* {
    (*static_cast<const std::function<void()>*>(arg))();
    return nullptr;
  };
  ASSERT_EQ(pthread_create(&t, &attr, tramp, const_cast<std::function<void()>*>(&fn)), 0);
  pthread_join(t, nullptr);
  pthread_attr_destroy(&attr);
}

TEST(small_stack, pool_workers_run_on_the_fixed_stack) {
  ol::thread_pool* pool = ol::thread_pool_create(2);
  ASSERT_NE(pool, nullptr);
  struct rec {
    ol::thread_task task;
    size_t size;
  } recs[2];
  for (rec& r : recs) {
    r.size = 0;
    r.task.arg = &r;
    r.task.func = [](void* a) -> int32_t {  // the stack size this worker got
      pthread_attr_t attr;
      if (pthread_getattr_np(pthread_self(), &attr) == 0) {
        pthread_attr_getstacksize(&attr, &static_cast<rec*>(a)->size);
        pthread_attr_destroy(&attr);
      }
      return 0;
    };
  }
  ol::dispatch_tasks(pool, recs, 2, ol::on_refused::skip);
  ol::thread_pool_destroy(pool);
  EXPECT_EQ(recs[0].size, ol::k_worker_stack_bytes);
  EXPECT_EQ(recs[1].size, ol::k_worker_stack_bytes);
}

// The pipeline at pre_nms_num and post_nms_num 32767 with 81 classes: 36,864
// positions, every proposal kept by the proposal stage, then a head stage
// over 32767 ROIs (more than post_nms_num given, so clamped).
TEST(small_stack, pipeline_at_the_largest_counts) {
  std::vector<float> anchors = ol_test::base_anchors_9();
  for (bool qsort : {true, false}) {
    SCOPED_TRACE(qsort);
    frcnn_desc d = ol_test::vgg16_desc(2, qsort);
    d.fmap_h = d.fmap_w = d.fmap_pitch = d.rpn_cls_pitch = 64;
    d.img_h = d.img_w = 1024;
    d.min_size = 0;
    d.pre_nms_num = d.post_nms_num = 32767;
    d.class_num = d.rcnn_cls_pitch = 81;
    d.rcnn_bbox_pitch = 4 * 81;
    d.fmap_d = 16;
    d.cls_prob = 0.099f;
    d.pre_nms_iou = 0.3f;
    void* h = opt_layers_instance_frcnn_init(&d, anchors.data());
    ASSERT_NE(h, nullptr);
    ol_test::frame_arrays a(d, d.post_nms_num);
    a.fill(11);
    // Head probabilities mostly below cls_prob, so that the class
    // suppressions stay short.
    ol_test::rng g(3);
    for (size_t i = 0; i < a.rcnn_cls.n; ++i) a.rcnn_cls[i] = ol_test::h(g.uniform(0.0f, 0.1f));
    int k = 0, r2 = 0, post = -2;
    on_small_stack([&] {
      ol_test::frame_calls c{h, a};
      half_float::half* props = nullptr;
      k = c.prenms(&props);
      r2 = c.pre_nms_roi();
      // The head stage over all 32767 rows (NMS wrote the first r2).
      ol_test::stdout_capture cap;
      post = c.post_nms(40000);
    });
    EXPECT_EQ(k, 32767);
    EXPECT_GT(r2, 0);
    EXPECT_EQ(post, 0);
    opt_layers_instance_frcnn_exit(h);
  }
}

TEST(small_stack, operators_at_large_sizes) {
  ol_test::rng g(9);
  // nms over 32767 crowded boxes: most are suppressed early, which keeps
  // the greedy loop short; the scratch is sized by the count all the same.
  std::vector<uint16_t> boxes(5 * 32767), out(4 * 32767);
  for (size_t i = 0; i < boxes.size(); i += 5) {
    const float x = g.uniform(0, 300), y = g.uniform(0, 300);
    boxes[i] = ol_test::h(x);
    boxes[i + 1] = ol_test::h(y);
    boxes[i + 2] = ol_test::h(x + g.uniform(20, 60));
    boxes[i + 3] = ol_test::h(y + g.uniform(20, 60));
  }
  // Pooling inputs: long grids in each direction.
  std::vector<uint16_t> map16(4 * 64 * 64 * 16), pooled(4 * 4096 * 16);
  for (uint16_t& v : map16) v = static_cast<uint16_t>(g.next());
  std::vector<uint16_t> hbox = {ol_test::h(0), ol_test::h(0), ol_test::h(1000), ol_test::h(1000)};
  std::vector<float> fbox = {2, 3, 500, 400, 10, 10, 300, 600};
  std::vector<short> smap(64 * 64 * 32), aligned(2 * 4096 * 2 * 32);
  for (short& v : smap) v = static_cast<short>(g.next());
  short* maps[3] = {smap.data(), smap.data(), smap.data()};
  unsigned scales[3] = {16, 32, 64};
  // Position-sensitive pooling with 21 x 21 bins, both channel paths.
  const int group = 21;
  std::vector<float> psmap(static_cast<size_t>(group) * group * 8 * 8 * 24), psout(2 * group * group * 24);
  for (float& v : psmap) v = g.uniform(-1, 1);
  std::vector<float> psbox = {0, 0, 100, 120, 30, 20, 90, 90};

  int kept = -1, kept_noheap = -1, rc = 0;
  on_small_stack([&] {
    kept = nms(ol_test::as_half(out), ol_test::as_half(boxes), 32767, 0.5f, 32767);
    // With the heap refused, nms works without list scratch.
    ol::alloc_hooks refuse{[](size_t, void*) { return false; }, nullptr};
    ol::set_alloc_hooks(&refuse);
    kept_noheap = nms(ol_test::as_half(out), ol_test::as_half(boxes), 32767, 0.5f, 32767);
    ol::set_alloc_hooks(nullptr);
    for (bool wide : {true, false}) {  // 4096 x 1 and 1 x 4096 bins, 4096 x 2 and 2 x 4096
      const int w = wide ? 4096 : 1, h = 4097 - w, w2 = wide ? 4096 : 2, h2 = 4098 - w2;
      for (auto fn : {roi_pooling, roi_pooling_sign})
        rc |= fn(ol_test::as_half(hbox), map16.data(), pooled.data(), 1, w, h, 0, 16, 0, 64, 64, 64);
      rc |= roi_align_fmap_int16(smap.data(), 16, fbox.data(), 2, 64, 64, w2, h2, 32, aligned.data());
      rc |= crop_and_resize_fmap_int16(smap.data(), 0.1f, 0.1f, 0.0f, fbox.data(), 2, 64, 64, w2,
                                       h2, 32, aligned.data());
    }
    rc |= roi_align_four_fmap_int16(maps, scales, fbox.data(), 2, 1024, 1024, 4096, 2, 32, aligned.data());
    for (int oc : {21, 10})
      rc |= ps_roi_pooling_scale(psmap.data(), 8, 8, group * group * oc, 24, psbox.data(), 2,
                                 psout.data(), group, group, oc, 24, 0.0625f, group, 1.2f, 1.0f, 1.0f);
  });
  EXPECT_GT(kept, 0);
  EXPECT_EQ(kept_noheap, kept);
  EXPECT_EQ(rc, 0);
}

}  // namespace
