// Detection head: box decode plus class suppression for one frame (300 ROIs,
// 21 or 81 classes) on 1 and 2 workers, and the class-suppression kernel
// alone against its plain scalar twin.
#include <benchmark/benchmark.h>
#include <math.h>

#include <vector>

#include "common/test_util.h"
#include "frcnn/head_reference.h"
#include "frcnn/head_stage.h"

namespace {

using opt_layers_half::from_float_round;
using opt_layers_half::from_float_trunc;

// A second-stage output of a 600 x 1000 frame: 300 ROIs, a few objects. ROIs
// near an object score high for its class (softmax of logits), the rest are
// background; most probabilities fall below cls_prob 0.05.
struct head_frame {
  uint32_t n = 300, classes, cls_pitch, bbox_pitch;
  std::vector<uint16_t> nms_out, rcnn_cls, rcnn_bbox;
  std::vector<float> rcnn_boxes;
  std::vector<unsigned char> scratch;
  uint32_t block;
  std::vector<uint16_t> result;

  explicit head_frame(uint32_t class_num)
      : classes(class_num), cls_pitch(class_num), bbox_pitch(4 * class_num) {
    ol_test::rng r(class_num);
    struct object {
      float x, y, w, h;
      uint32_t cls;
    };
    std::vector<object> objects;
    for (int k = 0; k < 6; ++k)
      objects.push_back({r.uniform(0, 800), r.uniform(0, 450), r.uniform(40, 200),
                         r.uniform(40, 150), static_cast<uint32_t>(r.range(1, class_num - 1))});
    rcnn_cls.resize(static_cast<size_t>(n) * cls_pitch);
    std::vector<float> logits(class_num);
    for (uint32_t i = 0; i < n; ++i) {
      float x, y, w, h;
      int target = -1;
      if (r.next() % 10 < 4) {  // near an object
        const object& o = objects[r.next() % objects.size()];
        x = o.x + r.uniform(-0.2f, 0.2f) * o.w, y = o.y + r.uniform(-0.2f, 0.2f) * o.h;
        w = o.w * r.uniform(0.8f, 1.2f), h = o.h * r.uniform(0.8f, 1.2f);
        target = static_cast<int>(o.cls);
      } else {
        x = r.uniform(0, 900), y = r.uniform(0, 500), w = r.uniform(16, 300), h = r.uniform(16, 300);
      }
      const uint16_t b[4] = {from_float_round(x), from_float_round(y), from_float_round(x + w),
                             from_float_round(y + h)};
      nms_out.insert(nms_out.end(), b, b + 4);
      float sum = 0;
      for (uint32_t c = 0; c < class_num; ++c) {
        logits[c] = r.uniform(-1.5f, 1.5f);
        if (static_cast<int>(c) == (target < 0 ? 0 : target)) logits[c] += r.uniform(4, 8);
        if (target >= 0 && c == 0) logits[c] += r.uniform(0, 5);
        logits[c] = expf(logits[c]);
        sum += logits[c];
      }
      for (uint32_t c = 0; c < class_num; ++c)
        rcnn_cls[static_cast<size_t>(i) * cls_pitch + c] = from_float_trunc(logits[c] / sum);
    }
    rcnn_bbox.resize(static_cast<size_t>(n) * bbox_pitch);
    for (auto& d : rcnn_bbox) d = from_float_round(r.uniform(-0.3f, 0.3f));
    rcnn_boxes.resize(4 * static_cast<size_t>(n) * class_num);
    block = ol::class_nms_scratch_bytes(n);
    scratch.resize(10 * static_cast<size_t>(block));
    result.resize(class_num + 5 * static_cast<size_t>(n) * class_num);
  }

  void decode(ol::thread_pool* pool) {
    ol::frcnn_rcnn_decode(pool, nms_out.data(), rcnn_bbox.data(),
                          rcnn_boxes.data(), 600, 1000, classes, bbox_pitch, n, false, 0, false,
                          nullptr, false);
  }
  void suppress(ol::thread_pool* pool, float cls_prob) {
    ol::frcnn_rcnn_nms(pool, result.data(), rcnn_boxes.data(), rcnn_cls.data(), classes, n,
                       cls_pitch, n, false, 0.3f, cls_prob, scratch.data(), block);
  }
};

// args: classes, workers
void BM_head_frame(benchmark::State& state) {
  head_frame fr(static_cast<uint32_t>(state.range(0)));
  ol::thread_pool* pool = ol::thread_pool_create(static_cast<uint32_t>(state.range(1)));
  for (auto _ : state) {
    fr.decode(pool);
    fr.suppress(pool, 0.05f);
    benchmark::DoNotOptimize(fr.result.data());
  }
  ol::thread_pool_destroy(pool);
  uint32_t dets = 0;
  for (uint32_t c = 1; c < fr.classes; ++c) dets += static_cast<uint32_t>(ol_test::f(fr.result[c]));
  state.counters["detections"] = dets;
}
BENCHMARK(BM_head_frame)->Args({21, 1})->Args({21, 2})->Args({81, 1})->Args({81, 2})
    ->Unit(benchmark::kMicrosecond)->UseRealTime();

// The two steps apart, one worker. args: classes
void BM_head_decode(benchmark::State& state) {
  head_frame fr(static_cast<uint32_t>(state.range(0)));
  ol::thread_pool* pool = ol::thread_pool_create(1);
  for (auto _ : state) fr.decode(pool);
  ol::thread_pool_destroy(pool);
}
BENCHMARK(BM_head_decode)->Arg(21)->Arg(81)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_head_suppress(benchmark::State& state) {
  head_frame fr(static_cast<uint32_t>(state.range(0)));
  ol::thread_pool* pool = ol::thread_pool_create(1);
  fr.decode(pool);
  for (auto _ : state) fr.suppress(pool, 0.05f);
  ol::thread_pool_destroy(pool);
}
BENCHMARK(BM_head_suppress)->Arg(21)->Arg(81)->Unit(benchmark::kMicrosecond)->UseRealTime();

// Class-suppression kernel over every class on the calling thread, against
// the scalar twin. args: classes, cls_prob in thousandths (0: every proposal
// is a candidate, the sort's worst case).
void BM_class_nms_kernel(benchmark::State& state) {
  head_frame fr(static_cast<uint32_t>(state.range(0)));
  const float cls_prob = static_cast<float>(state.range(1)) / 1000.0f;
  ol::thread_pool* pool = ol::thread_pool_create(1);
  fr.decode(pool);
  ol::thread_pool_destroy(pool);
  const ol::class_nms_scratch s = ol::class_nms_scratch_at(fr.scratch.data(), fr.n);
  for (auto _ : state) {
    ol::rcnn_class_nms(fr.result.data(), fr.result.data() + fr.classes, fr.rcnn_boxes.data(),
                       fr.rcnn_cls.data(), 1, fr.classes, fr.classes, fr.cls_pitch, fr.n, fr.n, 0,
                       0.3f, cls_prob, s);
    benchmark::DoNotOptimize(fr.result.data());
  }
}
BENCHMARK(BM_class_nms_kernel)->Args({21, 50})->Args({81, 50})->Args({21, 0})->Args({81, 0})
    ->Unit(benchmark::kMicrosecond);

void BM_class_nms_scalar_twin(benchmark::State& state) {
  head_frame fr(static_cast<uint32_t>(state.range(0)));
  const float cls_prob = static_cast<float>(state.range(1)) / 1000.0f;
  ol::thread_pool* pool = ol::thread_pool_create(1);
  fr.decode(pool);
  ol::thread_pool_destroy(pool);
  for (auto _ : state) {
    ol_ref::class_nms(fr.result.data(), fr.result.data() + fr.classes, fr.rcnn_boxes.data(),
                      fr.rcnn_cls.data(), 1, fr.classes, fr.classes, fr.cls_pitch, fr.n, fr.n,
                      false, 0.3f, cls_prob);
    benchmark::DoNotOptimize(fr.result.data());
  }
}
BENCHMARK(BM_class_nms_scalar_twin)->Args({21, 50})->Args({81, 50})->Args({21, 0})->Args({81, 0})
    ->Unit(benchmark::kMicrosecond);

}  // namespace

namespace {

// Box decode of every proposal on the calling thread (no pool), against the
// scalar twin. args: classes
void BM_bbox_decode_kernel(benchmark::State& state) {
  head_frame fr(static_cast<uint32_t>(state.range(0)));
  for (auto _ : state) {
    for (uint32_t i = 0; i < fr.n; ++i)
      ol::rcnn_bbox_decode(&fr.nms_out[4 * i], &fr.rcnn_bbox[static_cast<size_t>(i) * fr.bbox_pitch],
                           &fr.rcnn_boxes[4 * static_cast<size_t>(i) * fr.classes], 600, 1000,
                           fr.classes, 0, 0, 0, nullptr, 0);
    benchmark::DoNotOptimize(fr.rcnn_boxes.data());
  }
}
BENCHMARK(BM_bbox_decode_kernel)->Arg(21)->Arg(81)->Unit(benchmark::kMicrosecond);

void BM_bbox_decode_scalar_twin(benchmark::State& state) {
  head_frame fr(static_cast<uint32_t>(state.range(0)));
  for (auto _ : state) {
    for (uint32_t i = 0; i < fr.n; ++i)
      ol_ref::bbox_decode(&fr.nms_out[4 * i], &fr.rcnn_bbox[static_cast<size_t>(i) * fr.bbox_pitch],
                          &fr.rcnn_boxes[4 * static_cast<size_t>(i) * fr.classes], 600, 1000,
                          fr.classes, false, 0, nullptr, false);
    benchmark::DoNotOptimize(fr.rcnn_boxes.data());
  }
}
BENCHMARK(BM_bbox_decode_scalar_twin)->Arg(21)->Arg(81)->Unit(benchmark::kMicrosecond);

}  // namespace
