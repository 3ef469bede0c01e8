// Whole-stage benchmarks of the pipeline through its exported interface.
//
//   ol_bench --benchmark_filter=pipeline --benchmark_repetitions=5
//            --benchmark_report_aggregates_only=true
#include <benchmark/benchmark.h>

#include <vector>

#include "common/frame_gen.h"
#include "frcnn/context.h"
#include "frcnn/head_stage.h"
#include "frcnn/nms.h"
#include "frcnn/rpn_stage.h"

namespace {

using ol_test::hp;

enum config_id { vgg16 = 0, mobile = 1 };

frcnn_desc make_desc(int64_t config, int64_t threads, int64_t qsort, int64_t filter) {
  frcnn_desc d = config == vgg16 ? ol_test::vgg16_desc(static_cast<uint8_t>(threads), qsort)
                                 : ol_test::mobile_desc(static_cast<uint8_t>(threads), qsort);
  d.is_filter_rpn_cls = filter;
  d.rpn_cls_threshold = filter ? 0.05f : 0.0f;
  return d;
}

struct pipeline {
  std::vector<float> anchors = ol_test::base_anchors_9();
  frcnn_desc desc;
  void* h;
  ol_test::rpn_frame frame;
  std::vector<uint16_t> nms_out;
  explicit pipeline(const frcnn_desc& d) : desc(d) {
    h = opt_layers_instance_frcnn_init(&desc, anchors.data());
    frame = ol_test::make_rpn_frame(desc, 42);
    nms_out.resize(4 * desc.post_nms_num);
  }
  ~pipeline() { opt_layers_instance_frcnn_exit(h); }
};

void label(benchmark::State& state) {
  state.SetLabel(std::string(state.range(0) == vgg16 ? "vgg16" : "mobile") +
                 (state.range(2) ? " qsort" : " hist") + (state.range(3) ? " filter" : ""));
}

void args(benchmark::internal::Benchmark* b) {
  for (int config : {vgg16, mobile})
    for (int threads : {1, 2})
      for (int qsort : {0, 1})
        for (int filter : {0, 1}) b->Args({config, threads, qsort, filter});
  b->Unit(benchmark::kMicrosecond)->UseRealTime();
}

void pipeline_prenms(benchmark::State& state) {
  pipeline p(make_desc(state.range(0), state.range(1), state.range(2), state.range(3)));
  for (auto _ : state) {
    half_float::half* props = nullptr;
    benchmark::DoNotOptimize(
        opt_layers_instance_frcnn_prenms(p.h, hp(p.frame.cls), hp(p.frame.bbox), &props));
  }
  label(state);
}
BENCHMARK(pipeline_prenms)->Apply(args);

void pipeline_prenms_nms(benchmark::State& state) {
  pipeline p(make_desc(state.range(0), state.range(1), state.range(2), state.range(3)));
  int rois = 0;
  for (auto _ : state) {
    rois = opt_layers_instance_frcnn_prenms_nms(p.h, hp(p.frame.cls), hp(p.frame.bbox),
                                                hp(p.nms_out));
    benchmark::DoNotOptimize(rois);
  }
  state.counters["rois"] = rois;
  label(state);
}
BENCHMARK(pipeline_prenms_nms)->Apply(args);

// Where the time of one proposal stage goes: each step alone on the VGG16
// frame (histogram path, one worker).
void pipeline_step(benchmark::State& state) {
  pipeline p(make_desc(vgg16, 1, state.range(1), 0));
  auto* ctx = static_cast<ol::frcnn_context*>(p.h);
  const uint16_t* cls = reinterpret_cast<const uint16_t*>(p.frame.cls.data());
  const uint16_t T = opt_layers_half::from_float_trunc(ctx->desc.rpn_cls_threshold);
  uint32_t M = ol::rpn_score_filter(ctx, cls, T);
  const uint32_t n = M < ctx->desc.pre_nms_num ? M : ctx->desc.pre_nms_num;
  ol::rpn_sort(&ctx->hist, ctx->rpn_cls_nopitch, ctx->desc.pre_nms_num, ctx->order_buf, M,
               ctx->desc.is_use_qsort, ctx->sort_scratch);
  const int K = ol::rpn_decode(ctx, p.frame.bbox.data(), n, M);
  for (auto _ : state) {
    switch (state.range(0)) {
      case 0:
        M = ol::rpn_score_filter(ctx, cls, T);
        break;
      case 1:
        ol::rpn_sort(&ctx->hist, ctx->rpn_cls_nopitch, ctx->desc.pre_nms_num, ctx->order_buf, M,
                     ctx->desc.is_use_qsort, ctx->sort_scratch);
        break;
      case 2:
        benchmark::DoNotOptimize(ol::rpn_decode(ctx, p.frame.bbox.data(), n, M));
        break;
      case 4: {  // the decode kernel alone, on this thread
        ol::rpn_decode_params dp = {ctx->anchors, p.frame.bbox.data(), ctx->rpn_cls_nopitch,
                                    ctx->order_rpn_index, 600, 1000, 38, 63, 64, 16, 9, 0,
                                    false, &ctx->desc.bbox_scale_factor.center_x};
        uint32_t dropped = 0;
        benchmark::DoNotOptimize(
            ol::rpn_decode_batch(dp, ctx->detections, ctx->order_buf, n, &dropped));
        break;
      }
      case 3:
        benchmark::DoNotOptimize(ol::nms_kernel(p.nms_out.data(), ctx->detections, K,
                                                ctx->desc.pre_nms_iou, 300, ctx->nms_scratch));
        break;
    }
  }
  static const char* names[] = {"filter", "sort", "decode", "nms", "decode kernel"};
  state.SetLabel(std::string(names[state.range(0)]) + (state.range(1) ? " qsort" : " hist"));
}
BENCHMARK(pipeline_step)
    ->Args({0, 0})
    ->Args({1, 0})
    ->Args({1, 1})
    ->Args({2, 0})
    ->Args({3, 0})
    ->Args({4, 0})
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();

// A whole VGG16 frame: proposals, ROI pooling of a 512-channel map, then the
// detection head on second-stage outputs for 21 classes.
void pipeline_frame(benchmark::State& state) {
  pipeline p(make_desc(vgg16, state.range(0), state.range(1), 0));
  const frcnn_desc& d = p.desc;
  std::vector<uint16_t> fmap(static_cast<size_t>(d.fmap_d) * d.fmap_h * d.fmap_w);
  for (size_t i = 0; i < fmap.size(); ++i) fmap[i] = static_cast<uint16_t>(i * 2654435761u >> 16);
  std::vector<uint16_t> roi_result(static_cast<size_t>(d.post_nms_num) * d.pool_h * d.pool_w *
                                   d.fmap_d);
  std::vector<uint16_t> rcnn_cls(static_cast<size_t>(d.post_nms_num) * d.rcnn_cls_pitch);
  std::vector<uint16_t> rcnn_bbox(static_cast<size_t>(d.post_nms_num) * d.rcnn_bbox_pitch);
  std::vector<uint16_t> rcnn_result(d.class_num + 5 * d.post_nms_num * d.class_num);
  uint32_t seed = 1;
  for (uint32_t r = 0; r < d.post_nms_num; ++r) {
    // Mostly background; a few classes above cls_prob.
    for (uint32_t c = 0; c < d.class_num; ++c) {
      seed = seed * 1664525u + 1013904223u;
      const float prob = c == 0 ? 0.6f : (seed >> 8) * (1.0f / 16777216.0f) * 0.12f;
      rcnn_cls[r * d.rcnn_cls_pitch + c] = opt_layers_half::from_float_round(prob);
    }
    for (uint32_t k = 0; k < d.rcnn_bbox_pitch; ++k) {
      seed = seed * 1664525u + 1013904223u;
      rcnn_bbox[r * d.rcnn_bbox_pitch + k] =
          opt_layers_half::from_float_round(((seed >> 8) * (1.0f / 16777216.0f) - 0.5f) * 0.2f);
    }
  }
  for (auto _ : state) {
    const int rois = opt_layers_instance_frcnn_pre_nms_roi(
        p.h, hp(p.frame.cls), hp(p.frame.bbox), fmap.data(), roi_result.data(), hp(p.nms_out));
    opt_layers_instance_frcnn_post_nms(p.h, hp(rcnn_cls), hp(rcnn_bbox), hp(p.nms_out),
                                       hp(rcnn_result), static_cast<unsigned>(rois));
  }
  state.SetLabel(state.range(1) ? "qsort" : "hist");
}
BENCHMARK(pipeline_frame)
    ->Args({1, 0})
    ->Args({2, 0})
    ->Args({1, 1})
    ->Args({2, 1})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// The pooling stage alone: 300 ROIs (16..600 px boxes in a 600x1000 image)
// on a 512-channel 38x63 map, 7x7 bins, through the stage on 1, 2, 4 workers.
void pipeline_roi_pool_stage(benchmark::State& state) {
  const uint32_t rois = 300, depth = 512, H = 38, W = 63, P = 7;
  ol::thread_pool* pool =
      state.range(0) ? ol::thread_pool_create(static_cast<uint32_t>(state.range(0))) : nullptr;
  std::vector<uint16_t> fmap(static_cast<size_t>(depth) * H * W);
  for (size_t i = 0; i < fmap.size(); ++i) fmap[i] = static_cast<uint16_t>(i * 2654435761u >> 16);
  std::vector<uint16_t> boxes(4 * rois), out(static_cast<size_t>(rois) * P * P * depth);
  uint32_t seed = 7;
  auto rnd = [&seed](float lo, float hi) {
    seed = seed * 1664525u + 1013904223u;
    return lo + (hi - lo) * ((seed >> 8) * (1.0f / 16777216.0f));
  };
  for (uint32_t r = 0; r < rois; ++r) {
    const float w = rnd(16, 600), h = rnd(16, 580);
    const float x = rnd(0, 1000 - w), y = rnd(0, 600 - h);
    const float b[4] = {x, y, x + w - 1, y + h - 1};
    for (int k = 0; k < 4; ++k) boxes[4 * r + k] = opt_layers_half::from_float_round(b[k]);
  }
  // Arg 0: the same boxes through one direct roi_pooling call on this thread.
  for (auto _ : state) {
    if (pool == nullptr) {
      roi_pooling(reinterpret_cast<half_float::half*>(boxes.data()), fmap.data(), out.data(), rois,
                  P, P, P, 16, W, H, W, depth);
    } else {
      ol::frcnn_roi_pool(pool, boxes.data(), fmap.data(), out.data(), rois, depth,
                         H, W, W, 16, false, P, P, P);
    }
  }
  ol::thread_pool_destroy(pool);
  // Bytes the pooling must read at least: the map under every ROI once.
  state.counters["map_MB"] = fmap.size() * 2 / 1e6;
}
BENCHMARK(pipeline_roi_pool_stage)->Arg(0)->Arg(1)->Arg(2)->Arg(4)->Unit(benchmark::kMicrosecond)->UseRealTime();

void pipeline_init_exit(benchmark::State& state) {
  std::vector<float> anchors = ol_test::base_anchors_9();
  frcnn_desc d = ol_test::vgg16_desc(static_cast<uint8_t>(state.range(1)), state.range(0));
  for (auto _ : state) {
    void* h = opt_layers_instance_frcnn_init(&d, anchors.data());
    opt_layers_instance_frcnn_exit(h);
  }
  state.SetLabel(state.range(0) ? "qsort" : "hist");
}
BENCHMARK(pipeline_init_exit)
    ->Args({0, 1})
    ->Args({1, 1})
    ->Args({0, 2})
    ->Args({1, 2})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
