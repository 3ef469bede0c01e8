// ROI pooling and NMS on a VGG16 Faster R-CNN frame (600x1000 image,
// stride 16: 38x63 map of 512 channels, 7x7 bins, 300 ROIs; 6000 proposals
// reduced to 300 at IoU 0.7), each beside its plain scalar twin, plus a
// memcpy bandwidth reference for the pooling's bytes per second.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "common/alloc.h"
#include "common/test_util.h"
#include "frcnn/nms.h"
#include "frcnn/nms_ref.h"
#include "ops/roi_pooling_ref.h"
#include "workloads.h"

namespace {

using ol_test::h;

constexpr int k_img_h = 600, k_img_w = 1000, k_stride = 16;
constexpr int k_map_h = 38, k_map_w = 63, k_depth = 512, k_pool = 7, k_rois = 300;

// ---- ROI pooling ------------------------------------------------------------

// The ROI pooling workload of workloads.h, with its footprint.
struct pool_frame : ol_bench::pool_workload {
  double unique_bytes = 0;  // map bytes inside the ROIs' bins (each counted once per ROI)
  double visited_bytes = 0;  // bytes loaded, bins overlapping by a row/column counted again

  pool_frame() {
    for (int r = 0; r < k_rois; ++r) {
      // Footprint with the pooling's own arithmetic.
      auto cell = [](uint16_t v) { return (ol_ref::roi_coord(v) + 8) / k_stride; };
      const int sw = cell(boxes[4 * r]), sh = cell(boxes[4 * r + 1]);
      const int rw = std::max(cell(boxes[4 * r + 2]) - sw + 1, 1);
      const int rh = std::max(cell(boxes[4 * r + 3]) - sh + 1, 1);
      const int bw = rw * 128 / k_pool, bh = rh * 128 / k_pool;
      long cols = 0, rows = 0;
      for (int p = 0; p < k_pool; ++p) {
        cols += std::min(sw + ((p * bw + bw + 127) >> 7), k_map_w) - std::min(sw + ((p * bw) >> 7), k_map_w);
        rows += std::min(sh + ((p * bh + bh + 127) >> 7), k_map_h) - std::min(sh + ((p * bh) >> 7), k_map_h);
      }
      const int cover_w = std::min(sw + rw, k_map_w) - sw, cover_h = std::min(sh + rh, k_map_h) - sh;
      unique_bytes += double(cover_w) * cover_h * k_depth * 2;
      visited_bytes += double(cols) * rows * k_depth * 2;
    }
  }
};

pool_frame& frame() {
  static pool_frame f;
  return f;
}

void set_pool_counters(benchmark::State& state) {
  pool_frame& f = frame();
  state.SetBytesProcessed(static_cast<int64_t>(f.unique_bytes) * state.iterations());
  state.counters["unique_MB"] = f.unique_bytes / 1e6;
  state.counters["visited_MB"] = f.visited_bytes / 1e6;
}

void BM_roi_pooling(benchmark::State& state) {
  pool_frame& f = frame();
  for (auto _ : state) {
    roi_pooling(ol_test::as_half(f.boxes), f.fmap.data(), f.out.data(), k_rois, k_pool, k_pool, 0,
                k_stride, 0, k_map_h, k_map_w, k_depth);
    benchmark::ClobberMemory();
  }
  set_pool_counters(state);
}
BENCHMARK(BM_roi_pooling)->Unit(benchmark::kMicrosecond);

// The pooling stage's pattern: one call per box.
void BM_roi_pooling_one_box_per_call(benchmark::State& state) {
  pool_frame& f = frame();
  const size_t stride = static_cast<size_t>(k_depth) * k_pool * k_pool;
  for (auto _ : state) {
    for (int r = 0; r < k_rois; ++r)
      roi_pooling(ol_test::as_half(f.boxes) + 4 * r, f.fmap.data(), f.out.data() + r * stride, 1,
                  k_pool, k_pool, 0, k_stride, 0, k_map_h, k_map_w, k_depth);
    benchmark::ClobberMemory();
  }
  set_pool_counters(state);
}
BENCHMARK(BM_roi_pooling_one_box_per_call)->Unit(benchmark::kMicrosecond);

void BM_roi_pooling_sign(benchmark::State& state) {
  pool_frame& f = frame();
  for (auto _ : state) {
    roi_pooling_sign(ol_test::as_half(f.boxes), f.fmap.data(), f.out.data(), k_rois, k_pool, k_pool,
                     0, k_stride, 0, k_map_h, k_map_w, k_depth);
    benchmark::ClobberMemory();
  }
  set_pool_counters(state);
}
BENCHMARK(BM_roi_pooling_sign)->Unit(benchmark::kMicrosecond);

void BM_roi_pooling_scalar_twin(benchmark::State& state) {
  pool_frame& f = frame();
  for (auto _ : state) {
    ol_ref::roi_pooling_ref(false, f.boxes.data(), f.fmap.data(), f.out.data(), k_rois, k_pool,
                            k_pool, k_stride, k_map_h, k_map_w, k_depth);
    benchmark::ClobberMemory();
  }
  set_pool_counters(state);
}
BENCHMARK(BM_roi_pooling_scalar_twin)->Unit(benchmark::kMicrosecond);

// memcpy of the map itself (cache-resident like the pooling's reads) and of
// 64 MiB (DRAM); bytes per second count the bytes read.
void BM_memcpy(benchmark::State& state) {
  const size_t n = static_cast<size_t>(state.range(0));
  std::vector<uint8_t> src(n, 1), dst(n);
  for (auto _ : state) {
    memcpy(dst.data(), src.data(), n);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(n) * state.iterations());
}
BENCHMARK(BM_memcpy)->Arg(k_depth * k_map_h * k_map_w * 2)->Arg(64 << 20)->Unit(benchmark::kMicrosecond);

// ---- NMS --------------------------------------------------------------------

// RPN-like proposals: ~50 objects, most proposals jittered around one of
// them (score falling with the jitter), the rest scattered background;
// sorted by score, best first.
std::vector<uint16_t> make_proposals(int n, uint64_t seed) {
  ol_test::rng rng(seed);
  struct obj { float x, y, w, h; };
  std::vector<obj> objs(50);
  for (auto& o : objs) {
    o.w = std::exp(rng.uniform(std::log(32.f), std::log(500.f)));
    o.h = std::exp(rng.uniform(std::log(32.f), std::log(400.f)));
    o.x = rng.uniform(0, k_img_w - o.w);
    o.y = rng.uniform(0, k_img_h - o.h);
  }
  struct rec { float b[4], score; };
  std::vector<rec> v(n);
  for (auto& r : v) {
    float x, y, w, hh, score;
    if (rng.next() % 10 < 8) {
      const obj& o = objs[rng.range(0, 49)];
      const float j = rng.uniform(0, 0.4f);
      x = o.x + o.w * j * rng.uniform(-1, 1);
      y = o.y + o.h * j * rng.uniform(-1, 1);
      w = o.w * (1 + j * rng.uniform(-1, 1));
      hh = o.h * (1 + j * rng.uniform(-1, 1));
      score = 1 - j + rng.uniform(0, 0.2f);
    } else {
      w = rng.uniform(16, 400);
      hh = rng.uniform(16, 400);
      x = rng.uniform(0, k_img_w - w);
      y = rng.uniform(0, k_img_h - hh);
      score = rng.uniform(0, 0.6f);
    }
    r = rec{{std::max(x, 0.f), std::max(y, 0.f), std::min(x + w, float(k_img_w - 1)),
             std::min(y + hh, float(k_img_h - 1))}, score};
  }
  std::stable_sort(v.begin(), v.end(), [](const rec& a, const rec& b) { return a.score > b.score; });
  std::vector<uint16_t> out;
  for (auto& r : v) {
    for (float c : r.b) out.push_back(h(c));
    out.push_back(h(r.score));
  }
  return out;
}

constexpr int k_keep = 300;
constexpr float k_iou = 0.7f;

std::vector<uint16_t>& proposals(int n) {
  static std::vector<uint16_t> p6000 = make_proposals(6000, 1), p1000 = make_proposals(1000, 2);
  return n == 6000 ? p6000 : p1000;
}

void BM_nms(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  std::vector<uint16_t>& in = proposals(n);
  std::vector<uint16_t> out(k_keep * 4);
  int kept = 0;
  for (auto _ : state) {
    kept = nms(ol_test::as_half(out.data()), ol_test::as_half(in), n, k_iou, k_keep);
    benchmark::DoNotOptimize(kept);
  }
  state.counters["kept"] = kept;
}
BENCHMARK(BM_nms)->Arg(6000)->Arg(1000)->Unit(benchmark::kMicrosecond);

// The pipeline's form: scratch allocated once.
void BM_nms_kernel(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  std::vector<uint16_t>& in = proposals(n);
  std::vector<uint16_t> out(k_keep * 4);
  void* scratch = malloc(ol::nms_scratch_bytes(static_cast<uint32_t>(n)));
  int kept = 0;
  for (auto _ : state) {
    kept = ol::nms_kernel(out.data(), in.data(), n, k_iou, k_keep, scratch);
    benchmark::DoNotOptimize(kept);
  }
  free(scratch);
  state.counters["kept"] = kept;
}
BENCHMARK(BM_nms_kernel)->Arg(6000)->Arg(1000)->Unit(benchmark::kMicrosecond);

// Setup alone (conversion of the corners, areas): max_out 1 keeps the first
// box and stops before any overlap test.
void BM_nms_kernel_setup_only(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  std::vector<uint16_t>& in = proposals(n);
  std::vector<uint16_t> out(4);
  void* scratch = malloc(ol::nms_scratch_bytes(static_cast<uint32_t>(n)));
  for (auto _ : state) benchmark::DoNotOptimize(ol::nms_kernel(out.data(), in.data(), n, k_iou, 1, scratch));
  free(scratch);
}
BENCHMARK(BM_nms_kernel_setup_only)->Arg(6000)->Unit(benchmark::kMicrosecond);

bool refuse_all(size_t, void*) { return false; }

// The exported nms when the heap refuses its scratch.
void BM_nms_no_heap(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  std::vector<uint16_t>& in = proposals(n);
  std::vector<uint16_t> out(k_keep * 4);
  const ol::alloc_hooks refuse = {refuse_all, nullptr};
  ol::set_alloc_hooks(&refuse);
  int kept = 0;
  for (auto _ : state) {
    kept = nms(ol_test::as_half(out.data()), ol_test::as_half(in), n, k_iou, k_keep);
    benchmark::DoNotOptimize(kept);
  }
  ol::set_alloc_hooks(nullptr);
  state.counters["kept"] = kept;
}
BENCHMARK(BM_nms_no_heap)->Arg(6000)->Arg(1000)->Unit(benchmark::kMicrosecond);

void BM_nms_scalar_twin(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  std::vector<uint16_t>& in = proposals(n);
  std::vector<uint16_t> out(k_keep * 4);
  int kept = 0;
  for (auto _ : state) {
    kept = ol_ref::nms_ref(out.data(), in.data(), n, k_iou, k_keep);
    benchmark::DoNotOptimize(kept);
  }
  state.counters["kept"] = kept;
}
BENCHMARK(BM_nms_scalar_twin)->Arg(6000)->Arg(1000)->Unit(benchmark::kMicrosecond);

}  // namespace
