// Position-sensitive average ROI pooling on float maps.
//
// Each box is cut into group_size x group_size bins; bin (ph, pw) averages
// block k = ph * pooled_w + pw of the map over its rows and columns, for
// out_channels adjacent floats per map position. The sums run rows outer,
// columns inner, one running single-precision sum per channel starting at 0;
// both summation paths below add in exactly that order, so they give the
// same bits.
#include <math.h>
#include <stdio.h>
#include <string.h>

#include "brennik_opt_layers.h"
#include "ops/ps_roi_pooling_kernels.h"

// Keeps the scalar twin scalar under GCC; clang has no such function
// attribute (it only builds the fuzzing targets) and ignores it.
#if defined(__clang__)
#define OL_NO_TREE_VECTORIZE
#else
#define OL_NO_TREE_VECTORIZE __attribute__((optimize("no-tree-vectorize")))
#endif

namespace ol {
namespace {

typedef float f32x4 __attribute__((vector_size(16)));

inline f32x4 load4(const float* p) {
  f32x4 v;
  memcpy(&v, p, sizeof v);
  return v;
}

inline void store4(float* p, f32x4 v) { memcpy(p, &v, sizeof v); }

constexpr int kFastChannels = 21;

struct box_geometry {
  float start_w, start_h;
  float bin_w, bin_h;
  float off_w, off_h;  // shifts of the scaled variant
};

// Boxes narrower or lower than 0.1 map cells are widened to 0.1. A NaN size
// stays NaN: its bin bounds become 0 and every bin is empty.
inline float min_extent(float v) { return v < 0.1f ? 0.1f : v; }

box_geometry plain_geometry(const ps_roi_args& a, const float* box) {
  const float s = a.spatial_scale;
  box_geometry g;
  g.start_w = s * roundf(box[0]);
  g.start_h = s * roundf(box[1]);
  const float roi_w = fmaf(s, roundf(box[2]) + 1.0f, -g.start_w);
  const float roi_h = (roundf(box[3]) + 1.0f) * s - g.start_h;
  g.bin_w = min_extent(roi_w) / static_cast<float>(a.pooled_w);
  g.bin_h = min_extent(roi_h) / static_cast<float>(a.pooled_h);
  g.off_w = 0.0f;
  g.off_h = 0.0f;
  return g;
}

box_geometry scaled_geometry(const ps_roi_args& a, const float* box) {
  const float s = a.spatial_scale;
  // Scale the box about its centre.
  const float half_w = (box[2] - box[0]) * a.roi_scale * 0.5f;
  const float half_h = (box[3] - box[1]) * a.roi_scale * 0.5f;
  const float x1 = fmaf(box[0] + box[2], 0.5f, -half_w);
  const float x2 = fmaf(box[0] + box[2], 0.5f, half_w);
  const float y1 = fmaf(box[1] + box[3], 0.5f, -half_h);
  const float y2 = fmaf(box[1] + box[3], 0.5f, half_h);
  box_geometry g;
  g.start_w = s * roundf(x1);
  g.start_h = s * roundf(y1);
  const float end_w = static_cast<float>((static_cast<double>(roundf(x2)) + 1.0) * s);
  const float end_h = static_cast<float>((static_cast<double>(roundf(y2)) + 1.0) * s);
  g.bin_w = min_extent(end_w - g.start_w) / static_cast<float>(a.pooled_w);
  g.bin_h = min_extent(end_h - g.start_h) / static_cast<float>(a.pooled_h);
  g.off_w = fmaf(a.bin_shift_factor, g.bin_w, -g.bin_w) * 0.5f;
  g.off_h = fmaf(a.bin_shift_factor, g.bin_h, -g.bin_h) * 0.5f;
  return g;
}

// A floored or ceiled bound clamped to [0, limit] (limit >= 1). NaN gives 0;
// no float reaches an integer conversion out of range.
inline int clamp_bound(float v, int limit) {
  if (!(v > 0.0f)) return 0;
  if (v < static_cast<float>(limit)) return static_cast<int>(v);
  return limit;
}

// Map range [lo, hi) of bin i along one axis.
inline void bin_range(const ps_roi_args& a, float bin, float start, float off, int i, int limit,
                      int* lo, int* hi) {
  float b, e;
  if (a.scaled) {
    const float it = static_cast<float>(i) * a.bin_stride_factor;
    b = floorf(fmaf(bin, it, start) - off);
    e = ceilf(fmaf(bin, it + 1.0f, start) - off);
  } else {
    b = floorf(fmaf(bin, static_cast<float>(i), start));
    e = ceilf(fmaf(bin, static_cast<float>(i + 1), start));
  }
  *lo = clamp_bound(b, limit);
  *hi = clamp_bound(e, limit);
}

// One non-empty bin of a map block.
struct bin_span {
  const float* block;
  size_t row_stride;  // floats per map row
  size_t pitch;       // floats per map position
  int hstart, hend, wstart, wend;

  const float* at(int h, int w) const {
    return block + row_stride * static_cast<size_t>(h) + pitch * static_cast<size_t>(w);
  }
  float area() const {
    return static_cast<float>(static_cast<long long>(hend - hstart) * (wend - wstart));
  }
};

// General path: sums accumulate in the (zero-filled) output cell, then are
// divided in place; 4-lane vectors over the first out_channels / 4 * 4
// channels, single floats for the rest.
void pool_general(const bin_span& b, int channels, float* cell) {
  const int n4 = channels / 4 * 4;
  for (int h = b.hstart; h < b.hend; ++h) {
    for (int w = b.wstart; w < b.wend; ++w) {
      const float* src = b.at(h, w);
      for (int c = 0; c < n4; c += 4) store4(cell + c, load4(cell + c) + load4(src + c));
      for (int c = n4; c < channels; ++c) cell[c] += src[c];
    }
  }
  const float area = b.area();
  for (int c = 0; c < n4; c += 4) store4(cell + c, load4(cell + c) / area);
  for (int c = n4; c < channels; ++c) cell[c] = cell[c] / area;
}

// Scalar twin of pool_general, one channel at a time; kept scalar (no
// auto-vectorisation) as the baseline of the benchmarks.
OL_NO_TREE_VECTORIZE void pool_scalar(const bin_span& b, int channels,
                                                                float* cell) {
  for (int h = b.hstart; h < b.hend; ++h) {
    for (int w = b.wstart; w < b.wend; ++w) {
      const float* src = b.at(h, w);
      for (int c = 0; c < channels; ++c) cell[c] += src[c];
    }
  }
  const float area = b.area();
  for (int c = 0; c < channels; ++c) cell[c] = cell[c] / area;
}

// 21 channels: five 4-lane sums and one scalar sum in registers; only the 21
// results are stored.
void pool_21(const bin_span& b, float* cell) {
  f32x4 s0 = {0.0f, 0.0f, 0.0f, 0.0f}, s1 = s0, s2 = s0, s3 = s0, s4 = s0;
  float s20 = 0.0f;
  for (int h = b.hstart; h < b.hend; ++h) {
    for (int w = b.wstart; w < b.wend; ++w) {
      const float* src = b.at(h, w);
      s0 += load4(src);
      s1 += load4(src + 4);
      s2 += load4(src + 8);
      s3 += load4(src + 12);
      s4 += load4(src + 16);
      s20 += src[20];
    }
  }
  const float area = b.area();
  store4(cell, s0 / area);
  store4(cell + 4, s1 / area);
  store4(cell + 8, s2 / area);
  store4(cell + 12, s3 / area);
  store4(cell + 16, s4 / area);
  cell[20] = s20 / area;
}

void pool_box(const ps_roi_args& a, const float* box, ps_path path, bool fast, float* out) {
  const box_geometry g = a.scaled ? scaled_geometry(a, box) : plain_geometry(a, box);
  const size_t pitch = static_cast<size_t>(a.out_pitch);
  const size_t row_cells = static_cast<size_t>(a.pooled_w);
  // A map without rows or columns (or with a negative pitch, which would
  // index before it) gives empty bins only.
  const bool has_map = a.fmap_w > 0 && a.fmap_h > 0 && a.fmap_pitch >= 0;
  bin_span b;
  b.pitch = static_cast<size_t>(a.fmap_pitch);
  b.row_stride = has_map ? static_cast<size_t>(a.fmap_w) * b.pitch : 0;
  const size_t block_stride = has_map ? static_cast<size_t>(a.fmap_h) * b.row_stride : 0;
  for (int ph = 0; ph < a.pooled_h; ++ph) {
    float* row_out = out + static_cast<size_t>(ph) * row_cells * pitch;
    b.hstart = b.hend = 0;
    if (has_map) bin_range(a, g.bin_h, g.start_h, g.off_h, ph, a.fmap_h, &b.hstart, &b.hend);
    if (b.hstart >= b.hend) {
      if (fast) memset(row_out, 0, row_cells * pitch * sizeof(float));
      continue;
    }
    for (int pw = 0; pw < a.pooled_w; ++pw) {
      float* cell = row_out + static_cast<size_t>(pw) * pitch;
      bin_range(a, g.bin_w, g.start_w, g.off_w, pw, a.fmap_w, &b.wstart, &b.wend);
      if (b.wstart >= b.wend) {
        if (fast) memset(cell, 0, pitch * sizeof(float));
        continue;
      }
      b.block =
          a.fmap + block_stride * (static_cast<size_t>(ph) * row_cells + static_cast<size_t>(pw));
      if (fast) {
        pool_21(b, cell);
      } else if (path == ps_path::scalar) {
        pool_scalar(b, a.out_channels, cell);
      } else {
        pool_general(b, a.out_channels, cell);
      }
    }
  }
}

}  // namespace

int ps_roi_pooling_run(const ps_roi_args& a, ps_path path) {
  if (a.group_size != a.pooled_w || a.group_size != a.pooled_h) {
    printf("group_size mismatch pooled width and height, %d != %d, %d\n", a.group_size, a.pooled_w,
           a.pooled_h);
    return -1;
  }
  // The product is formed in 64 bits and printed as the 32-bit int it wraps to.
  const long long expected = static_cast<long long>(a.group_size) * a.out_channels * a.group_size;
  if (expected != a.channels) {
    printf("Channels mismatch: %d != %d\n", a.channels, static_cast<int>(expected));
    return -1;
  }
  if (a.roi_num < 1) return 0;
  const bool fast = path == ps_path::automatic && a.out_channels == kFastChannels;
  const size_t box_floats = a.pooled_w > 0 && a.pooled_h > 0 && a.out_pitch > 0
                                ? static_cast<size_t>(a.pooled_h) * a.pooled_w * a.out_pitch
                                : 0;
  // An empty output region (a zero or negative size or pitch) gets nothing.
  if (box_floats == 0) return 0;
  if (!fast) memset(a.roi_result, 0, box_floats * a.roi_num * sizeof(float));
  for (int r = 0; r < a.roi_num; ++r) {
    pool_box(a, a.proposal + 4 * static_cast<size_t>(r), path, fast, a.roi_result + box_floats * r);
  }
  return 0;
}

}  // namespace ol

int ps_roi_pooling(const float* fmap, int fmap_w, int fmap_h, int channels, int fmap_pitch,
                   const float* proposal, int roi_num, float* roi_result, int pooled_w,
                   int pooled_h, int out_channels, int out_pitch, float spatial_scale,
                   int group_size) {
  const ol::ps_roi_args a{fmap,          fmap_w,     fmap_h,   channels, fmap_pitch,   proposal,
                          roi_num,       roi_result, pooled_w, pooled_h, out_channels, out_pitch,
                          spatial_scale, group_size, false,    1.0f,     1.0f,         1.0f};
  return ol::ps_roi_pooling_run(a, ol::ps_path::automatic);
}

int ps_roi_pooling_scale(const float* fmap, int fmap_w, int fmap_h, int channels, int fmap_pitch,
                         const float* proposal, int roi_num, float* roi_result, int pooled_w,
                         int pooled_h, int out_channels, int out_pitch, float spatial_scale,
                         int group_size, float roi_scale, float bin_shift_factor,
                         float bin_stride_factor) {
  const ol::ps_roi_args a{fmap,         fmap_w,           fmap_h,           channels,   fmap_pitch,
                          proposal,     roi_num,          roi_result,       pooled_w,   pooled_h,
                          out_channels, out_pitch,        spatial_scale,    group_size, true,
                          roi_scale,    bin_shift_factor, bin_stride_factor};
  return ol::ps_roi_pooling_run(a, ol::ps_path::automatic);
}
