// Feature-map operators on realistic workloads: ROI align (one map and a
// three-level pyramid of an 800 x 1344 image), crop and resize, and R-FCN
// position-sensitive ROI pooling. Each benchmark reports the bytes it must
// move per call (read_MB: the distinct map bytes its samples or bins touch,
// plus the boxes; write_MB: the output) and mem_bw_frac, that traffic per
// second as a fraction of the machine's memory bandwidth (a memcpy of 512
// MiB measured in the same program). The _scalar / _general variants run
// the plain twins, so the vector kernels' speedups can be read off the same
// run.
#include <benchmark/benchmark.h>
#include <math.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <vector>

#include "brennik_opt_layers.h"
#include "ops/ps_roi_pooling_kernels.h"
#include "ops/roi_align_kernels.h"
#include "workloads.h"

namespace {

using ol::bilinear_kernel;
using ol::ps_path;

using ol_bench::gen;
using ol_bench::image_boxes;
using ol_bench::random_map;

// CPU time of the calling thread: the machine is shared, so wall time would
// count other processes' work.
double thread_seconds() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return double(ts.tv_sec) + 1e-9 * double(ts.tv_nsec);
}

// memcpy bandwidth (bytes read + bytes written per second) on buffers far
// larger than the caches; the best of a few runs.
constexpr size_t kCopyBytes = size_t(512) << 20;

double memory_bandwidth() {
  static const double bw = [] {
    std::vector<char> a(kCopyBytes, 1), b(kCopyBytes, 2);
    double best = 0;
    for (int rep = 0; rep < 4; ++rep) {
      const double t0 = thread_seconds();
      memcpy(b.data(), a.data(), kCopyBytes);
      benchmark::ClobberMemory();
      best = std::max(best, 2.0 * kCopyBytes / (thread_seconds() - t0));
    }
    return best;
  }();
  return bw;
}

// Started before a benchmark loop; report() sets the traffic counters:
// read_MB / write_MB per call, and mem_bw_frac = (bytes moved per CPU
// second) / (memcpy bandwidth).
struct traffic {
  double t0 = thread_seconds();

  void report(benchmark::State& st, double read_bytes, double write_bytes) const {
    const double dt = thread_seconds() - t0;
    const double bytes = read_bytes + write_bytes;
    st.SetBytesProcessed(int64_t(bytes) * int64_t(st.iterations()));
    st.counters["read_MB"] = read_bytes / 1e6;
    st.counters["write_MB"] = write_bytes / 1e6;
    st.counters["mem_bw_frac"] = bytes * double(st.iterations()) / dt / memory_bandwidth();
  }
};

void BM_memcpy_512MiB(benchmark::State& st) {
  std::vector<char> a(kCopyBytes, 1), b(kCopyBytes, 2);
  for (auto _ : st) {
    memcpy(b.data(), a.data(), kCopyBytes);
    benchmark::ClobberMemory();
  }
  st.SetBytesProcessed(int64_t(2 * kCopyBytes) * int64_t(st.iterations()));
}
BENCHMARK(BM_memcpy_512MiB)->Unit(benchmark::kMillisecond);

// Distinct map cells read, for the traffic figures (computed apart from the
// operators; a cell more or less does not matter here).
struct cell_set {
  unsigned w, h;
  std::vector<char> hit;
  cell_set(unsigned w_, unsigned h_) : w(w_), h(h_), hit(size_t(w_) * h_, 0) {}
  static unsigned lower(float v, unsigned n) {
    return v > 0 ? std::min(unsigned(std::min(v, 1e9f)), n - 1) : 0;
  }
  // The four taps of a bilinear sample.
  void sample(float x, float y) {
    const unsigned c0 = lower(x, w), r0 = lower(y, h);
    const unsigned c1 = std::min(c0 + 1, w - 1), r1 = std::min(r0 + 1, h - 1);
    hit[size_t(r0) * w + c0] = hit[size_t(r0) * w + c1] = 1;
    hit[size_t(r1) * w + c0] = hit[size_t(r1) * w + c1] = 1;
  }
  size_t count() const { return size_t(std::count(hit.begin(), hit.end(), 1)); }
};

// Cells read by ROI align (cell-centre samples) of the boxes on a map of
// stride s.
void touch_align(cell_set& cs, const float* b, unsigned s, unsigned pool) {
  const float x1 = b[0] / s, y1 = b[1] / s, bw = (b[2] / s - x1) / pool,
              bh = (b[3] / s - y1) / pool;
  for (unsigned i = 0; i < pool; ++i)
    for (unsigned j = 0; j < pool; ++j) cs.sample(x1 + (j + 0.5f) * bw, y1 + (i + 0.5f) * bh);
}

// --- roi_align_fmap_int16: 300 ROIs, 256 channels, 50 x 84 map (stride 16), 7 x 7.
struct align_one_data : ol_bench::align_workload {
  align_one_data() { out.resize(size_t(300) * 49 * 256); }
  double read_bytes(unsigned pool_cells) const {  // touched by 7 x 7 ROI align
    cell_set cs(84, 50);
    for (size_t b = 0; b < boxes.size(); b += 4) touch_align(cs, &boxes[b], 16, pool_cells);
    return 2.0 * 256 * cs.count() + 4.0 * boxes.size();
  }
};

void BM_roi_align_300x256ch_7x7(benchmark::State& st, bilinear_kernel k) {
  static align_one_data d;
  memory_bandwidth();  // measured once, outside the timing
  const traffic t;
  for (auto _ : st) {
    ol::roi_align_fmap_int16_with(k, d.map.data(), 16, d.boxes.data(), 300, 84, 50, 7, 7, 256,
                                  d.out.data());
    benchmark::ClobberMemory();
  }
  t.report(st, d.read_bytes(7), 2.0 * d.out.size());
}
BENCHMARK_CAPTURE(BM_roi_align_300x256ch_7x7, vector, bilinear_kernel::vector)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_roi_align_300x256ch_7x7, scalar, bilinear_kernel::scalar)
    ->Unit(benchmark::kMillisecond);

// --- roi_align_four_fmap_int16: 1,000 ROIs over strides 8, 16, 32 of an
// 800 x 1344 image (100 x 168, 50 x 84, 25 x 42 maps), 256 channels, 7 x 7.
using align_four_data = ol_bench::align_four_workload;

void BM_roi_align_four_1000x256ch_7x7(benchmark::State& st, bilinear_kernel k) {
  static align_four_data d;
  short* maps[3] = {d.maps[0].data(), d.maps[1].data(), d.maps[2].data()};
  memory_bandwidth();  // measured once, outside the timing
  const traffic t;
  for (auto _ : st) {
    ol::roi_align_four_fmap_int16_with(k, maps, d.scales, d.boxes.data(), 1000, 1344, 800, 7, 7,
                                       256, d.out.data());
    benchmark::ClobberMemory();
  }
  double map_bytes = 0;
  for (unsigned k = 0; k < 3; ++k) {
    cell_set cs(1344 / d.scales[k], 800 / d.scales[k]);
    for (size_t b = 0; b < d.boxes.size(); b += 4)
      if (ol::roi_align_level(d.boxes[b], d.boxes[b + 1], d.boxes[b + 2], d.boxes[b + 3]) == k)
        touch_align(cs, &d.boxes[b], d.scales[k], 7);
    map_bytes += 2.0 * 256 * cs.count();
  }
  t.report(st, map_bytes + 4.0 * d.boxes.size(), 2.0 * d.out.size());
}
BENCHMARK_CAPTURE(BM_roi_align_four_1000x256ch_7x7, vector, bilinear_kernel::vector)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_roi_align_four_1000x256ch_7x7, scalar, bilinear_kernel::scalar)
    ->Unit(benchmark::kMillisecond);

// --- crop_and_resize_fmap_int16: 300 boxes inside the 50 x 84 map, 14 x 14,
// 256 channels. Boxes in image pixels, scaled to map cells by 1/16.
void BM_crop_and_resize_300x256ch_14x14(benchmark::State& st, bilinear_kernel k) {
  static align_one_data d;
  static std::vector<short> out(size_t(300) * 196 * 256);
  const float s = 1.0f / 16;
  memory_bandwidth();  // measured once, outside the timing
  const traffic t;
  for (auto _ : st) {
    ol::crop_and_resize_fmap_int16_with(k, d.map.data(), s, s, 0, d.boxes.data(), 300, 84, 50, 14,
                                        14, 256, out.data());
    benchmark::ClobberMemory();
  }
  cell_set cs(84, 50);
  for (size_t b = 0; b < d.boxes.size(); b += 4) {
    const float x1 = d.boxes[b] * s / 84 * 83, x2 = d.boxes[b + 2] * s / 84 * 83;
    const float y1 = d.boxes[b + 1] * s / 50 * 49, y2 = d.boxes[b + 3] * s / 50 * 49;
    for (unsigned i = 0; i < 14; ++i)
      for (unsigned j = 0; j < 14; ++j) cs.sample(x1 + (x2 - x1) * j / 13, y1 + (y2 - y1) * i / 13);
  }
  t.report(st, 2.0 * 256 * cs.count() + 4.0 * d.boxes.size(), 2.0 * out.size());
}
BENCHMARK_CAPTURE(BM_crop_and_resize_300x256ch_14x14, vector, bilinear_kernel::vector)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_crop_and_resize_300x256ch_14x14, scalar, bilinear_kernel::scalar)
    ->Unit(benchmark::kMillisecond);

// --- ps_roi_pooling, R-FCN: 600 x 1000 image, 38 x 63 map of 1,029
// channels (7 x 7 groups of 21), 300 ROIs, spatial scale 1/16.
struct ps_data {
  std::vector<float> map;
  std::vector<float> boxes;
  std::vector<float> out = std::vector<float>(size_t(300) * 49 * 21);
  ps_data() {
    gen g;
    map.resize(size_t(49) * 38 * 63 * 21);
    for (float& v : map) v = g.uniform(-1, 1);
    for (int i = 0; i < 300; ++i) {
      const float w = expf(g.uniform(logf(32), logf(600)));
      const float h = expf(g.uniform(logf(32), logf(500)));
      const float x = g.uniform(0, 1000 - std::min(w, 999.f)),
                  y = g.uniform(0, 600 - std::min(h, 599.f));
      boxes.insert(boxes.end(), {x, y, std::min(x + w, 999.f), std::min(y + h, 599.f)});
    }
  }
};

void BM_ps_roi_pooling_rfcn_300(benchmark::State& st, ps_path path) {
  static ps_data d;
  const ol::ps_roi_args a{d.map.data(), 63,   38,   1029, 21, d.boxes.data(), 300,
                          d.out.data(), 7,    7,    21,   21, 0.0625f,        7,
                          false,        1.0f, 1.0f, 1.0f};
  memory_bandwidth();  // measured once, outside the timing
  const traffic t;
  for (auto _ : st) {
    ol::ps_roi_pooling_run(a, path);
    benchmark::ClobberMemory();
  }
  // Positions read: block k = bin (ph, pw) over the bin's rows and columns.
  std::vector<char> hit(d.map.size() / 21, 0);
  for (size_t b = 0; b < d.boxes.size(); b += 4) {
    const float* bx = &d.boxes[b];
    const float sw = roundf(bx[0]) / 16, sh = roundf(bx[1]) / 16;
    const float bw = std::max((roundf(bx[2]) + 1) / 16 - sw, 0.1f) / 7;
    const float bh = std::max((roundf(bx[3]) + 1) / 16 - sh, 0.1f) / 7;
    for (int ph = 0; ph < 7; ++ph)
      for (int pw = 0; pw < 7; ++pw) {
        const int hs = std::clamp(int(floorf(bh * ph + sh)), 0, 38);
        const int he = std::clamp(int(ceilf(bh * (ph + 1) + sh)), 0, 38);
        const int ws = std::clamp(int(floorf(bw * pw + sw)), 0, 63);
        const int we = std::clamp(int(ceilf(bw * (pw + 1) + sw)), 0, 63);
        for (int h = hs; h < he; ++h)
          for (int w = ws; w < we; ++w) hit[(size_t(ph * 7 + pw) * 38 + h) * 63 + w] = 1;
      }
  }
  const double map_bytes = 4.0 * 21 * double(std::count(hit.begin(), hit.end(), 1));
  t.report(st, map_bytes + 4.0 * d.boxes.size(), 4.0 * d.out.size());
}
BENCHMARK_CAPTURE(BM_ps_roi_pooling_rfcn_300, fast21, ps_path::automatic)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_ps_roi_pooling_rfcn_300, general, ps_path::general)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_ps_roi_pooling_rfcn_300, scalar, ps_path::scalar)
    ->Unit(benchmark::kMicrosecond);

}  // namespace
