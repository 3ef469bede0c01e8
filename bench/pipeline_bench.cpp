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
#include "workloads.h"

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
  const int K = ol::rpn_decode(ctx, p.frame.bbox.data(), n, n, M);
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
        benchmark::DoNotOptimize(ol::rpn_decode(ctx, p.frame.bbox.data(), n, n, M));
        break;
      case 4: {  // the decode kernel alone, on this thread
        ol::rpn_decode_params dp = {ctx->anchors, p.frame.bbox.data(), ctx->rpn_cls_nopitch,
                                    ctx->order_rpn_index, 600, 1000, 38, 63, 64, 16, 9, 0,
                                    false, &ctx->desc.bbox_scale_factor.center_x,
                                    ctx->exp_w, ctx->exp_h};
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

// A whole VGG16 frame on an instance handle: pre_nms_roi (proposals and the
// pooling of a 512- or 64-channel map) then post_nms for 21 classes. Here
// and below "CPU" is the CPU time of the whole process (caller and workers):
// on a busy machine, where wall times of several workers say little, CPU
// time divided by the workers bounds what an idle machine would show.
// Args: channels, workers, qsort.
void pipeline_frame(benchmark::State& state) {
  ol_bench::vgg16_frame f(static_cast<uint32_t>(state.range(1)),
                          static_cast<uint32_t>(state.range(0)), state.range(2));
  for (auto _ : state) {
    f.pre_nms_roi();
    f.post_nms();
  }
  state.counters["rois"] = f.rois;
  state.SetLabel(std::to_string(state.range(0)) + " ch" + (state.range(2) ? " qsort" : " hist"));
}
BENCHMARK(pipeline_frame)
    ->ArgsProduct({{512, 64}, {1, 2}, {0}})
    ->Args({512, 1, 1})
    ->Args({512, 2, 1})
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime();

// The same frame one stage at a time: 0 prenms_nms, 1 the pooling stage (on
// the ROIs of the frame, through the context's pool), 2 post_nms.
// Args: stage, channels, workers.
void pipeline_frame_stage(benchmark::State& state) {
  ol_bench::vgg16_frame f(static_cast<uint32_t>(state.range(2)),
                          static_cast<uint32_t>(state.range(1)));
  f.pre_nms_roi();
  auto* ctx = static_cast<ol::frcnn_context*>(f.h);
  const frcnn_desc& d = f.desc;
  for (auto _ : state) {
    switch (state.range(0)) {
      case 0:
        f.prenms_nms();
        break;
      case 1:
        ol::frcnn_roi_pool(ctx->pool, f.nms_out.data(), f.fmap.data(), f.roi_result.data(),
                           static_cast<uint32_t>(f.rois), d.fmap_d, d.fmap_h, d.fmap_w,
                           d.fmap_pitch, d.fmap_scale, d.fmap_sign, d.pool_h, d.pool_w,
                           d.pool_pitch);
        break;
      case 2:
        f.post_nms();
        break;
    }
  }
  static const char* names[] = {"prenms_nms", "pooling stage", "post_nms"};
  state.SetLabel(std::string(names[state.range(0)]) + " " + std::to_string(state.range(1)) + " ch");
}
BENCHMARK(pipeline_frame_stage)
    ->ArgsProduct({{0, 1, 2}, {512, 64}, {1, 2}})
    ->Unit(benchmark::kMicrosecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime();

// The pooling workload of roi_pooling (ops_pool_bench.cpp, arm_cost.cpp): 300
// ROIs on a 512-channel 38x63 map, 7x7. Arg 0: one direct roi_pooling call
// on this thread; 1, 2, 4: the pooling stage on that many workers.
void pipeline_roi_pool_stage(benchmark::State& state) {
  static ol_bench::pool_workload w;
  using pw = ol_bench::pool_workload;
  ol::thread_pool* pool =
      state.range(0) ? ol::thread_pool_create(static_cast<uint32_t>(state.range(0))) : nullptr;
  for (auto _ : state) {
    if (pool == nullptr) {
      w.run(false);
    } else {
      ol::frcnn_roi_pool(pool, w.boxes.data(), w.fmap.data(), w.out.data(), pw::rois, pw::depth,
                         pw::map_h, pw::map_w, pw::map_w, pw::stride, false, pw::pool, pw::pool,
                         pw::pool);
    }
  }
  ol::thread_pool_destroy(pool);
}
BENCHMARK(pipeline_roi_pool_stage)
    ->Arg(0)
    ->Arg(1)
    ->Arg(2)
    ->Arg(4)
    ->Unit(benchmark::kMicrosecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime();

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
