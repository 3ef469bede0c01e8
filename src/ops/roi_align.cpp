// ROI align and crop-and-resize on signed 16-bit channel-innermost maps.
//
// Both operators resample a grid of positions out of the map by bilinear
// interpolation in Q13 fixed point. Per box they build a column table and a
// row table (source offsets and weights per output column and row), then for
// each output position turn the two weight pairs into four 16-bit weights
// and run the channel kernel: 16 channels per step, 16 x 16 -> 32-bit
// products summed modulo 2^32 (smull/smlal on aarch64, pmaddwd pairs on
// x86-64), one rounding narrowing shift by 13.
//
// The tables live on the stack in fixed chunks of kTableChunk entries, so a
// call uses a few KiB of stack whatever the grid size; grids wider or taller
// than a chunk rebuild their tables chunk by chunk, keeping the output order
// (rows outer, columns inner) and the exact sequence of float position sums.
#include <math.h>
#include <stdio.h>
#include <string.h>

#include "brennik_opt_layers.h"
#include "common/cpu.h"
#include "ops/roi_align_kernels.h"

// Keeps the scalar twin scalar under GCC; clang has no such function
// attribute (it only builds the fuzzing targets) and ignores it.
#if defined(__clang__)
#define OL_NO_TREE_VECTORIZE
#else
#define OL_NO_TREE_VECTORIZE __attribute__((optimize("no-tree-vectorize")))
#endif

#if defined(__aarch64__)
#include <arm_neon.h>
#elif defined(__SSE2__)
#include <immintrin.h>
#endif

namespace ol {
namespace {

typedef int16_t i16x8 __attribute__((vector_size(16)));
typedef int32_t i32x4 __attribute__((vector_size(16)));
typedef float f32x4 __attribute__((vector_size(16)));

#if defined(__aarch64__)
// Eight 32-bit accumulators, one per lane of an i16x8: smull/smlal by
// element and one rounding narrowing shift (rshrn). rshrn adds the rounding
// constant without 32-bit overflow; only the low 16 bits are kept, and those
// equal the wrapped (acc + 4096) >> 13.
struct acc8 {
  int32x4_t lo, hi;
};

inline void widen_mul(acc8& a, i16x8 v, int16_t w) {
  const int16x8_t n = (int16x8_t)v;
  a.lo = vmull_n_s16(vget_low_s16(n), w);
  a.hi = vmull_high_n_s16(n, w);
}

inline void widen_mac(acc8& a, i16x8 v, int16_t w) {
  const int16x8_t n = (int16x8_t)v;
  a.lo = vmlal_n_s16(a.lo, vget_low_s16(n), w);
  a.hi = vmlal_high_n_s16(a.hi, n, w);
}

inline i16x8 round_narrow(const acc8& a) {
  return (i16x8)vrshrn_high_n_s32(vrshrn_n_s32(a.lo, 13), a.hi, 13);
}

// Sixteen channels: each tap loads as one two-register ld1 and the output
// stores as one st1 (all loads come before the store, which as far as the
// compiler knows may alias them), 4 smull, 12 smlal, 4 rshrn.
inline void bilinear16(const int16_t* p00, const int16_t* p01, const int16_t* p10,
                       const int16_t* p11, int16_t w00, int16_t w01, int16_t w10, int16_t w11,
                       int16_t* out) {
  const int16x8x2_t a = vld1q_s16_x2(p00), b = vld1q_s16_x2(p01);
  const int16x8x2_t c = vld1q_s16_x2(p10), d = vld1q_s16_x2(p11);
  acc8 lo, hi;
  widen_mul(lo, (i16x8)a.val[0], w00);
  widen_mul(hi, (i16x8)a.val[1], w00);
  widen_mac(lo, (i16x8)b.val[0], w01);
  widen_mac(hi, (i16x8)b.val[1], w01);
  widen_mac(lo, (i16x8)c.val[0], w10);
  widen_mac(hi, (i16x8)c.val[1], w10);
  widen_mac(lo, (i16x8)d.val[0], w11);
  widen_mac(hi, (i16x8)d.val[1], w11);
  int16x8x2_t r;
  r.val[0] = (int16x8_t)round_narrow(lo);
  r.val[1] = (int16x8_t)round_narrow(hi);
  vst1q_s16_x2(out, r);
}
#elif defined(__SSE2__)
// Pairs of 16-bit products (pmaddwd): the two horizontal neighbours are
// interleaved channel by channel and multiplied by the interleaved weight
// pair, which gives p0[c]*w0 + p1[c]*w1 in 32 bits per channel. Every
// product of two 16-bit values is exact; the only pair sum that leaves 32
// bits is 2 * 32768 * 32768, which pmaddwd wraps to 0x80000000, the sum
// modulo 2^32, as all the other sums are. (acc + 4096) << 3 puts bits
// 13..28 of the rounded sum in the upper half, so the arithmetic shift by 16
// leaves the wanted low 16 bits already sign-extended and the saturating
// pack changes nothing.
inline __m128i weight_pair(int16_t w0, int16_t w1) {
  return _mm_set1_epi32(static_cast<int>(static_cast<uint16_t>(w0) |
                                         (static_cast<uint32_t>(static_cast<uint16_t>(w1)) << 16)));
}

inline __m128i load_m128(const int16_t* p) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}

// Eight channels: 4 loads, 4 unpacks, 4 pmaddwd, 4 adds, 4 shifts, 1 pack,
// 1 store.
inline void bilinear8(const int16_t* p00, const int16_t* p01, const int16_t* p10,
                      const int16_t* p11, __m128i top, __m128i bottom, int16_t* out) {
  const __m128i round = _mm_set1_epi32(4096);
  const __m128i a = load_m128(p00), b = load_m128(p01);
  const __m128i c = load_m128(p10), d = load_m128(p11);
  __m128i lo = _mm_add_epi32(_mm_madd_epi16(_mm_unpacklo_epi16(a, b), top),
                             _mm_madd_epi16(_mm_unpacklo_epi16(c, d), bottom));
  __m128i hi = _mm_add_epi32(_mm_madd_epi16(_mm_unpackhi_epi16(a, b), top),
                             _mm_madd_epi16(_mm_unpackhi_epi16(c, d), bottom));
  lo = _mm_srai_epi32(_mm_slli_epi32(_mm_add_epi32(lo, round), 3), 16);
  hi = _mm_srai_epi32(_mm_slli_epi32(_mm_add_epi32(hi, round), 3), 16);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_packs_epi32(lo, hi));
}

// All channels of one output position. The baseline uses 128-bit vectors;
// processors with AVX2 run a version with 256-bit vectors. unpack, pmaddwd
// and pack work within each 128-bit half, so the 256-bit form is the
// 128-bit one on channels c..c+7 and c+8..c+15 side by side and its results
// are the same.
void bilinear_channels_sse2(const bilinear_taps& t, unsigned channel, int16_t* out) {
  const int16_t* const p00 = t.p00;
  const int16_t* const p01 = t.p01;
  const int16_t* const p10 = t.p10;
  const int16_t* const p11 = t.p11;
  const __m128i top = weight_pair(t.w00, t.w01), bottom = weight_pair(t.w10, t.w11);
  for (unsigned c = 0; c < channel; c += 16) {
    bilinear8(p00 + c, p01 + c, p10 + c, p11 + c, top, bottom, out + c);
    bilinear8(p00 + c + 8, p01 + c + 8, p10 + c + 8, p11 + c + 8, top, bottom, out + c + 8);
  }
}

#if defined(OL_X86_DISPATCH)
// The AVX2 version writes a 16-byte aligned output with streaming stores:
// the operators write many MiB that nothing reads back meanwhile, and
// without the line fills of ordinary stores the memory traffic is lower
// (roi_align_fmap_int16 about 12 % and roi_align_four_fmap_int16 about 7 %
// less time on the benchmark machine). bilinear_i16_vector_done orders them
// before the operator returns.
__attribute__((target("avx2"))) void bilinear_channels_avx2(const bilinear_taps& t,
                                                            unsigned channel, int16_t* out) {
  const bool stream = (reinterpret_cast<uintptr_t>(out) & 15) == 0;
  const int16_t* const p00 = t.p00;
  const int16_t* const p01 = t.p01;
  const int16_t* const p10 = t.p10;
  const int16_t* const p11 = t.p11;
  const __m256i top = _mm256_broadcastsi128_si256(weight_pair(t.w00, t.w01));
  const __m256i bottom = _mm256_broadcastsi128_si256(weight_pair(t.w10, t.w11));
  const __m256i round = _mm256_set1_epi32(4096);
  for (unsigned c = 0; c < channel; c += 16) {
    const __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p00 + c));
    const __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p01 + c));
    const __m256i d0 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p10 + c));
    const __m256i d1 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p11 + c));
    __m256i lo = _mm256_add_epi32(_mm256_madd_epi16(_mm256_unpacklo_epi16(a, b), top),
                                  _mm256_madd_epi16(_mm256_unpacklo_epi16(d0, d1), bottom));
    __m256i hi = _mm256_add_epi32(_mm256_madd_epi16(_mm256_unpackhi_epi16(a, b), top),
                                  _mm256_madd_epi16(_mm256_unpackhi_epi16(d0, d1), bottom));
    lo = _mm256_srai_epi32(_mm256_slli_epi32(_mm256_add_epi32(lo, round), 3), 16);
    hi = _mm256_srai_epi32(_mm256_slli_epi32(_mm256_add_epi32(hi, round), 3), 16);
    const __m256i r = _mm256_packs_epi32(lo, hi);
    if (stream) {
      _mm_stream_si128(reinterpret_cast<__m128i*>(out + c), _mm256_castsi256_si128(r));
      _mm_stream_si128(reinterpret_cast<__m128i*>(out + c + 8), _mm256_extracti128_si256(r, 1));
    } else {
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + c), r);
    }
  }
}

// AVX-512BW: 32 channels per step, the same per 128-bit lane again; a last
// 16 channels go through the AVX2 version. (GCC 12 warns about the
// deliberately undefined upper parts inside its own AVX-512 intrinsics.)
#if !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
__attribute__((target("avx512bw"))) void bilinear_channels_avx512(const bilinear_taps& t,
                                                                  unsigned channel, int16_t* out) {
  const bool stream = (reinterpret_cast<uintptr_t>(out) & 15) == 0;
  const int16_t* const p00 = t.p00;
  const int16_t* const p01 = t.p01;
  const int16_t* const p10 = t.p10;
  const int16_t* const p11 = t.p11;
  const __m512i top = _mm512_broadcast_i32x4(weight_pair(t.w00, t.w01));
  const __m512i bottom = _mm512_broadcast_i32x4(weight_pair(t.w10, t.w11));
  const __m512i round = _mm512_set1_epi32(4096);
  unsigned c = 0;
  for (; c + 32 <= channel; c += 32) {
    const __m512i a = _mm512_loadu_si512(p00 + c);
    const __m512i b = _mm512_loadu_si512(p01 + c);
    const __m512i d0 = _mm512_loadu_si512(p10 + c);
    const __m512i d1 = _mm512_loadu_si512(p11 + c);
    __m512i lo = _mm512_add_epi32(_mm512_madd_epi16(_mm512_unpacklo_epi16(a, b), top),
                                  _mm512_madd_epi16(_mm512_unpacklo_epi16(d0, d1), bottom));
    __m512i hi = _mm512_add_epi32(_mm512_madd_epi16(_mm512_unpackhi_epi16(a, b), top),
                                  _mm512_madd_epi16(_mm512_unpackhi_epi16(d0, d1), bottom));
    lo = _mm512_srai_epi32(_mm512_slli_epi32(_mm512_add_epi32(lo, round), 3), 16);
    hi = _mm512_srai_epi32(_mm512_slli_epi32(_mm512_add_epi32(hi, round), 3), 16);
    const __m512i r = _mm512_packs_epi32(lo, hi);
    if (stream) {
      _mm_stream_si128(reinterpret_cast<__m128i*>(out + c), _mm512_castsi512_si128(r));
      _mm_stream_si128(reinterpret_cast<__m128i*>(out + c + 8), _mm512_extracti32x4_epi32(r, 1));
      _mm_stream_si128(reinterpret_cast<__m128i*>(out + c + 16), _mm512_extracti32x4_epi32(r, 2));
      _mm_stream_si128(reinterpret_cast<__m128i*>(out + c + 24), _mm512_extracti32x4_epi32(r, 3));
    } else {
      _mm512_storeu_si512(out + c, r);
    }
  }
  if (c < channel) {
    bilinear_taps rest = t;
    rest.p00 += c;
    rest.p01 += c;
    rest.p10 += c;
    rest.p11 += c;
    bilinear_channels_avx2(rest, channel - c, out + c);
  }
}
#if !defined(__clang__)
#pragma GCC diagnostic pop
#endif
#endif
#else
// Generic vectors: widen, multiply, add in unsigned 32-bit lanes (so that
// wrapping is defined), shift and narrow.
inline i16x8 load_i16x8(const int16_t* p) {
  i16x8 v;
  memcpy(&v, p, sizeof v);
  return v;
}

inline void store_i16x8(int16_t* p, i16x8 v) { memcpy(p, &v, sizeof v); }

typedef uint32_t u32x4 __attribute__((vector_size(16)));
typedef int32_t i32x8 __attribute__((vector_size(32)));

inline void widen(i16x8 v, i32x4* lo, i32x4* hi) {
  const i32x8 x = __builtin_convertvector(v, i32x8);
  *lo = __builtin_shufflevector(x, x, 0, 1, 2, 3);
  *hi = __builtin_shufflevector(x, x, 4, 5, 6, 7);
}

inline void bilinear8(const int16_t* p00, const int16_t* p01, const int16_t* p10,
                      const int16_t* p11, int16_t w00, int16_t w01, int16_t w10, int16_t w11,
                      int16_t* out) {
  const int16_t* src[4] = {p00, p01, p10, p11};
  const int16_t w[4] = {w00, w01, w10, w11};
  u32x4 acc_lo = {0, 0, 0, 0}, acc_hi = {0, 0, 0, 0};
  for (int k = 0; k < 4; ++k) {
    i32x4 lo, hi;
    widen(load_i16x8(src[k]), &lo, &hi);
    const i32x4 wk = {w[k], w[k], w[k], w[k]};  // |v * w| <= 2^30: no overflow
    acc_lo += (u32x4)(lo * wk);
    acc_hi += (u32x4)(hi * wk);
  }
  const i32x4 lo = (i32x4)(acc_lo + 4096u) >> 13;
  const i32x4 hi = (i32x4)(acc_hi + 4096u) >> 13;
  store_i16x8(out,
              __builtin_convertvector(__builtin_shufflevector(lo, hi, 0, 1, 2, 3, 4, 5, 6, 7), i16x8));
}

inline void bilinear16(const int16_t* p00, const int16_t* p01, const int16_t* p10,
                       const int16_t* p11, int16_t w00, int16_t w01, int16_t w10, int16_t w11,
                       int16_t* out) {
  bilinear8(p00, p01, p10, p11, w00, w01, w10, w11, out);
  bilinear8(p00 + 8, p01 + 8, p10 + 8, p11 + 8, w00, w01, w10, w11, out + 8);
}
#endif

}  // namespace

void bilinear_i16_vector(const bilinear_taps& t, unsigned channel, int16_t* out) {
#if defined(__SSE2__) && !defined(__aarch64__)
#if defined(OL_X86_DISPATCH)
  if (cpu_has_avx512bw()) {
    bilinear_channels_avx512(t, channel, out);
    return;
  }
  if (cpu_has_avx2()) {
    bilinear_channels_avx2(t, channel, out);
    return;
  }
#endif
  bilinear_channels_sse2(t, channel, out);
#else
  // Local copies: stores to out must not force reloads of the taps.
  const int16_t* p00 = t.p00;
  const int16_t* p01 = t.p01;
  const int16_t* p10 = t.p10;
  const int16_t* p11 = t.p11;
  const int16_t w00 = t.w00, w01 = t.w01, w10 = t.w10, w11 = t.w11;
  for (const int16_t* const end = out + channel; out != end; out += 16) {
    bilinear16(p00, p01, p10, p11, w00, w01, w10, w11, out);
    p00 += 16;
    p01 += 16;
    p10 += 16;
    p11 += 16;
  }
#endif
}

void bilinear_i16_vector_done() {
#if defined(OL_X86_DISPATCH)
  if (cpu_has_avx2()) _mm_sfence();
#endif
}

// Kept scalar (no auto-vectorisation) so that it is a plain reference and a
// fair baseline for the vector kernel.
OL_NO_TREE_VECTORIZE void bilinear_i16_scalar(const bilinear_taps& t,
                                                                        unsigned channel,
                                                                        int16_t* out) {
  const bilinear_taps k = t;
  for (unsigned c = 0; c < channel; ++c) {
    // Each product fits in 31 bits; the sum is formed modulo 2^32.
    const uint32_t acc =
        static_cast<uint32_t>(k.p00[c] * k.w00) + static_cast<uint32_t>(k.p01[c] * k.w01) +
        static_cast<uint32_t>(k.p10[c] * k.w10) + static_cast<uint32_t>(k.p11[c] * k.w11);
    out[c] = static_cast<int16_t>(static_cast<int32_t>(acc + 4096u) >> 13);
  }
}

int16_t q13_weight(float product) {
  if (product != product) return 0;
  if (product <= -32768.0f) return -32768;
  if (product >= 32767.0f) return 32767;
  return static_cast<int16_t>(static_cast<int32_t>(product));
}

unsigned roi_align_level(float x1, float y1, float x2, float y2) {
  const float area = (x2 - x1) * (y2 - y1);
  const float d = sqrtf(area) / 224.0f;
  const double k = floor(log2(static_cast<double>(d) + 1e-6) + 1.0);
  // min(k, 2) then max(., 0); NaN (negative area) ends at 0.
  if (k >= 2.0) return 2;
  if (k >= 0.0) return static_cast<unsigned>(k);
  return 0;
}

int16_t extrapolation_bits(float v) {
  if (!(fabsf(v) <= 3.4028235e38f)) return 0;  // NaN or infinite
  // truncf is exact, and so is fmodf: the remainder lies in (-65536, 65536)
  // and equals the truncated value modulo 2^16 (with its sign).
  const float r = fmodf(truncf(v), 65536.0f);
  return static_cast<int16_t>(static_cast<uint16_t>(static_cast<int32_t>(r)));
}

namespace {

constexpr unsigned kTableChunk = 128;

// Positions of one axis: first, first + step, ... (each next position adds
// step to the previous one in single precision), n of them.
struct axis_plan {
  float first;
  float step;
  unsigned n;
};

struct col_entry {
  float pos;
  float w0, w1;       // 1 - lx, lx
  size_t off0, off1;  // channel * c0, channel * c1
};

struct row_entry {
  float pos;
  float w0, w1;  // (1 - ly) * 8192, ly * 8192
  const int16_t* r0;
  const int16_t* r1;
};

// Source cells of a position on an axis of n >= 1 cells: the lower index is
// the position truncated toward zero (0 for negative positions and NaN); it
// and the next index are the taps, unless the lower index reaches the last
// cell, where both taps are the last cell. frac = position - lower tap.
inline void axis_taps(float pos, unsigned n, unsigned* i0, unsigned* i1, float* frac) {
  const unsigned last = n - 1;
  unsigned lo = 0;
  if (pos > 0.0f) lo = static_cast<double>(pos) < last ? static_cast<unsigned>(pos) : last;
  if (lo < last) {
    *i0 = lo;
    *i1 = lo + 1;
  } else {
    *i0 = *i1 = last;
  }
  *frac = pos - static_cast<float>(*i0);
}

// The bilinear operators' map and grid for one box.
struct box_plan {
  const int16_t* map;
  unsigned w, h, channel;
  axis_plan xs, ys;
};

// Builds count column entries from *pos on; leaves *pos at the next position.
void build_cols(const box_plan& p, col_entry* e, unsigned count, float* pos) {
  for (unsigned j = 0; j < count; ++j) {
    unsigned c0, c1;
    float lx;
    axis_taps(*pos, p.w, &c0, &c1, &lx);
    e[j].pos = *pos;
    e[j].w0 = 1.0f - lx;
    e[j].w1 = lx;
    e[j].off0 = static_cast<size_t>(p.channel) * c0;
    e[j].off1 = static_cast<size_t>(p.channel) * c1;
    *pos += p.xs.step;
  }
}

void build_rows(const box_plan& p, row_entry* e, unsigned count, float* pos) {
  const size_t row_elems = static_cast<size_t>(p.w) * p.channel;
  for (unsigned i = 0; i < count; ++i) {
    unsigned r0, r1;
    float ly;
    axis_taps(*pos, p.h, &r0, &r1, &ly);
    e[i].pos = *pos;
    e[i].w0 = (1.0f - ly) * 8192.0f;
    e[i].w1 = ly * 8192.0f;
    e[i].r0 = p.map + row_elems * r0;
    e[i].r1 = p.map + row_elems * r1;
    *pos += p.ys.step;
  }
}

// The two kernels with their matching weight conversion: the vector one
// forms the four products in one 4-lane float multiply.
struct vector_kernel {
  static void weights(const col_entry& c, const row_entry& r, bilinear_taps* t) {
    const f32x4 cw = {c.w0, c.w1, c.w0, c.w1};
    const f32x4 rw = {r.w0, r.w0, r.w1, r.w1};
    const f32x4 zero = {0.0f, 0.0f, 0.0f, 0.0f};
    const f32x4 lo = {-32768.0f, -32768.0f, -32768.0f, -32768.0f};
    const f32x4 hi = {32767.0f, 32767.0f, 32767.0f, 32767.0f};
    f32x4 p = cw * rw;
    p = p == p ? p : zero;  // NaN -> 0
    p = p > lo ? p : lo;
    p = p < hi ? p : hi;
    const i32x4 w = __builtin_convertvector(p, i32x4);  // truncation toward zero
    t->w00 = static_cast<int16_t>(w[0]);
    t->w01 = static_cast<int16_t>(w[1]);
    t->w10 = static_cast<int16_t>(w[2]);
    t->w11 = static_cast<int16_t>(w[3]);
  }
  static void run(const bilinear_taps& t, unsigned channel, int16_t* out) {
    bilinear_i16_vector(t, channel, out);
  }
  static void done() { bilinear_i16_vector_done(); }
};

struct scalar_kernel {
  static void weights(const col_entry& c, const row_entry& r, bilinear_taps* t) {
    t->w00 = q13_weight(c.w0 * r.w0);
    t->w01 = q13_weight(c.w1 * r.w0);
    t->w10 = q13_weight(c.w0 * r.w1);
    t->w11 = q13_weight(c.w1 * r.w1);
  }
  static void run(const bilinear_taps& t, unsigned channel, int16_t* out) {
    bilinear_i16_scalar(t, channel, out);
  }
  static void done() {}
};

void fill_i16(int16_t* out, size_t count, int16_t v) {
  for (size_t i = 0; i < count; ++i) out[i] = v;
}

// Crop-and-resize's outside handling: E for every element, one line each.
void write_extr_y(int16_t* out, size_t count, int16_t e) {
  fill_i16(out, count, e);
  for (size_t i = 0; i < count; ++i) puts("extr y");
}

// Output columns [0, count) of one output row from a column chunk. With
// kCrop, positions outside [0, W - 1] take the extrapolation value.
template <class K, bool kCrop>
void run_cols(const box_plan& p, const col_entry* cols, unsigned count, const row_entry& r,
              int16_t extr, int16_t* out) {
  const float wmax = static_cast<float>(p.w - 1);
  for (unsigned j = 0; j < count; ++j, out += p.channel) {
    const col_entry& c = cols[j];
    if (kCrop && (c.pos < 0.0f || c.pos > wmax)) {
      fill_i16(out, p.channel, extr);
      for (unsigned k = 0; k < p.channel; ++k) printf("extr x, %f\n", c.pos);
      continue;
    }
    bilinear_taps t;
    t.p00 = r.r0 + c.off0;
    t.p01 = r.r0 + c.off1;
    t.p10 = r.r1 + c.off0;
    t.p11 = r.r1 + c.off1;
    K::weights(c, r, &t);
    K::run(t, p.channel, out);
  }
}

// Resamples one box into out (ys.n rows x xs.n columns x channel). The map
// has at least one row and one column.
template <class K, bool kCrop>
void resample_box(const box_plan& p, int16_t extr, int16_t* out) {
  col_entry cols[kTableChunk];
  row_entry rows[kTableChunk];
  const size_t out_row = static_cast<size_t>(p.xs.n) * p.channel;
  const float hmax = static_cast<float>(p.h - 1);
  const bool cols_once = p.xs.n <= kTableChunk;
  if (cols_once) {
    float x = p.xs.first;
    build_cols(p, cols, p.xs.n, &x);
  }
  float y = p.ys.first;
  for (unsigned i0 = 0; i0 < p.ys.n; i0 += kTableChunk) {
    const unsigned ni = p.ys.n - i0 < kTableChunk ? p.ys.n - i0 : kTableChunk;
    build_rows(p, rows, ni, &y);
    for (unsigned i = 0; i < ni; ++i) {
      const row_entry& r = rows[i];
      int16_t* orow = out + out_row * (i0 + i);
      if (kCrop && (r.pos < 0.0f || r.pos > hmax)) {
        write_extr_y(orow, out_row, extr);
        continue;
      }
      if (cols_once) {
        run_cols<K, kCrop>(p, cols, p.xs.n, r, extr, orow);
        continue;
      }
      float x = p.xs.first;
      for (unsigned j0 = 0; j0 < p.xs.n; j0 += kTableChunk) {
        const unsigned nj = p.xs.n - j0 < kTableChunk ? p.xs.n - j0 : kTableChunk;
        build_cols(p, cols, nj, &x);
        run_cols<K, kCrop>(p, cols, nj, r, extr, orow + static_cast<size_t>(j0) * p.channel);
      }
    }
  }
}

// ROI align grid of one box on a map of stride s: one sample per cell centre.
axis_plan align_axis(float lo, float hi, float s, unsigned n) {
  const float a = lo / s;
  const float b = hi / s;
  const float bin = (b - a) / static_cast<float>(n);
  return axis_plan{static_cast<float>(static_cast<double>(a) + 0.5 * static_cast<double>(bin)), bin,
                   n};
}

template <class K>
void align_box(const short* map, unsigned s, unsigned w, unsigned h, const float* box,
               unsigned pool_w, unsigned pool_h, unsigned channel, short* out) {
  if (pool_w == 0 || pool_h == 0) return;
  if (w == 0 || h == 0) {
    // No cell to sample: the box's output is zero.
    memset(out, 0, static_cast<size_t>(pool_w) * pool_h * channel * sizeof(short));
    return;
  }
  const float sf = static_cast<float>(s);
  box_plan p;
  p.map = map;
  p.w = w;
  p.h = h;
  p.channel = channel;
  p.xs = align_axis(box[0], box[2], sf, pool_w);
  p.ys = align_axis(box[1], box[3], sf, pool_h);
  resample_box<K, false>(p, 0, out);
}

bool align_args_ok(float* proposal, unsigned channel, short* roi_result) {
  if (proposal == nullptr || roi_result == nullptr) {
    printf("Invalid proposal or roi_result: %p, %p\n", static_cast<void*>(proposal),
           static_cast<void*>(roi_result));
    return false;
  }
  if (channel == 0 || channel % 16 != 0) {
    printf("Invalid channel: %u, should be multiple 16\n", channel);
    return false;
  }
  return true;
}

template <class K>
int roi_align_one(short* fmap, unsigned fmap_scale, float* proposal, unsigned roi_num,
                  unsigned fmap_w, unsigned fmap_h, unsigned pool_w, unsigned pool_h,
                  unsigned channel, short* roi_result) {
  if (fmap == nullptr) {
    printf("Invalid FMap pointer: %p\n", static_cast<void*>(fmap));
    return -1;
  }
  if (fmap_scale == 0) {
    printf("Invalid FMap scale: %u\n", fmap_scale);
    return -1;
  }
  if (!align_args_ok(proposal, channel, roi_result)) return -1;
  const size_t per_box = static_cast<size_t>(pool_w) * pool_h * channel;
  for (unsigned r = 0; r < roi_num; ++r) {
    align_box<K>(fmap, fmap_scale, fmap_w, fmap_h, proposal + 4 * static_cast<size_t>(r), pool_w,
                 pool_h, channel, roi_result + per_box * r);
  }
  K::done();
  return 0;
}

// roi_align_four_fmap_int16 takes its boxes in chunks of k_level_chunk
// and, within a chunk, by level and then by band of the image rows their
// top edge lies in (k_row_bands bands), so that one map at a time is read,
// and boxes that share map rows follow one another while those rows are in
// cache. Every box writes only its own output, so the order changes no
// result. Sorting a chunk takes about 3 KiB of stack.
constexpr unsigned k_level_chunk = 1024;
constexpr unsigned k_row_bands = 16;

// The group of a box: level * k_row_bands + band of y1 (NaN and negative
// values in band 0, beyond the image in the last).
inline unsigned box_group(const float* box, unsigned level, float bands_per_row) {
  const float f = box[1] * bands_per_row;
  unsigned band = 0;
  if (f >= static_cast<float>(k_row_bands - 1)) {
    band = k_row_bands - 1;
  } else if (f > 0.0f) {
    band = static_cast<unsigned>(f);
  }
  return level * k_row_bands + band;
}

template <class K>
int roi_align_four(short** fmap, unsigned* fmap_scale, float* proposal, unsigned roi_num,
                   unsigned img_w, unsigned img_h, unsigned pool_w, unsigned pool_h,
                   unsigned channel, short* roi_result) {
  short* maps[3] = {nullptr, nullptr, nullptr};
  if (fmap != nullptr) {
    maps[0] = fmap[0];
    maps[1] = fmap[1];
    maps[2] = fmap[2];
  }
  if (maps[0] == nullptr || maps[1] == nullptr || maps[2] == nullptr) {
    printf("Invalid FMap pointer: %p, %p, %p\n", static_cast<void*>(maps[0]),
           static_cast<void*>(maps[1]), static_cast<void*>(maps[2]));
    return -1;
  }
  unsigned scales[3] = {0, 0, 0};
  if (fmap_scale != nullptr) {
    scales[0] = fmap_scale[0];
    scales[1] = fmap_scale[1];
    scales[2] = fmap_scale[2];
  }
  if (scales[0] == 0 || scales[1] == 0 || scales[2] == 0) {
    printf("Invalid FMap scale: %u, %u, %u\n", scales[0], scales[1], scales[2]);
    return -1;
  }
  if (!align_args_ok(proposal, channel, roi_result)) return -1;
  const size_t per_box = static_cast<size_t>(pool_w) * pool_h * channel;
  // Boxes are taken in chunks, and within a chunk level by level, so that
  // one map at a time is read while it is in cache (every box writes only
  // its own output, so the order changes no result).
  constexpr unsigned k_groups = 3 * k_row_bands;
  const float bands_per_row = static_cast<float>(k_row_bands) / static_cast<float>(img_h);
  for (unsigned r0 = 0; r0 < roi_num; r0 += k_level_chunk) {
    const unsigned nr = roi_num - r0 < k_level_chunk ? roi_num - r0 : k_level_chunk;
    // Counting sort of the chunk's boxes by group.
    uint8_t group[k_level_chunk];
    uint16_t order[k_level_chunk];
    unsigned start[k_groups + 1] = {};
    for (unsigned i = 0; i < nr; ++i) {
      const float* box = proposal + 4 * static_cast<size_t>(r0 + i);
      const unsigned k = roi_align_level(box[0], box[1], box[2], box[3]);
      group[i] = static_cast<uint8_t>(box_group(box, k, bands_per_row));
      ++start[group[i] + 1];
    }
    for (unsigned g = 0; g < k_groups; ++g) start[g + 1] += start[g];
    for (unsigned i = 0; i < nr; ++i) order[start[group[i]]++] = static_cast<uint16_t>(i);
    for (unsigned j = 0; j < nr; ++j) {
      const unsigned r = r0 + order[j];
      const unsigned k = group[order[j]] / k_row_bands;
      const unsigned s = scales[k];
      align_box<K>(maps[k], s, img_w / s, img_h / s, proposal + 4 * static_cast<size_t>(r),
                   pool_w, pool_h, channel, roi_result + per_box * r);
    }
  }
  K::done();
  return 0;
}

// Crop grid of one axis: edge to edge over [lo, hi] in map cells after
// normalisation by the map size n (>= 1); one output gives the centre.
axis_plan crop_axis(float lo, float hi, float scale, unsigned n, unsigned count) {
  const float a = scale * lo / static_cast<float>(n);
  const float b = scale * hi / static_cast<float>(n);
  const float last = static_cast<float>(n - 1);
  if (count == 1) {
    const double centre = 0.5 * static_cast<double>(a + b) * static_cast<double>(n - 1);
    return axis_plan{static_cast<float>(centre), 0.0f, 1};
  }
  return axis_plan{a * last, (b - a) * last / static_cast<float>(count - 1), count};
}

template <class K>
int crop_and_resize(short* fmap, float scale_x, float scale_y, float extrapolation_value,
                    float* proposal, unsigned roi_num, unsigned fmap_w, unsigned fmap_h,
                    unsigned crop_w, unsigned crop_h, unsigned channel, short* roi_result) {
  if (fmap == nullptr) {
    printf("Invalid FMap pointer: %p\n", static_cast<void*>(fmap));
    return -1;
  }
  if (!align_args_ok(proposal, channel, roi_result)) return -1;
  if (roi_num == 0) return 0;
  const int16_t extr = extrapolation_bits(extrapolation_value);
  const size_t per_box = static_cast<size_t>(crop_w) * crop_h * channel;
  for (unsigned r = 0; r < roi_num; ++r) {
    const float* box = proposal + 4 * static_cast<size_t>(r);
    short* out = roi_result + per_box * r;
    if (crop_w == 0 || crop_h == 0) continue;
    if (fmap_w == 0 || fmap_h == 0) {
      // An empty map has no inside: every output row is outside.
      for (unsigned i = 0; i < crop_h; ++i) {
        write_extr_y(out + static_cast<size_t>(i) * crop_w * channel,
                     static_cast<size_t>(crop_w) * channel, extr);
      }
      continue;
    }
    box_plan p;
    p.map = fmap;
    p.w = fmap_w;
    p.h = fmap_h;
    p.channel = channel;
    p.xs = crop_axis(box[0], box[2], scale_x, fmap_w, crop_w);
    p.ys = crop_axis(box[1], box[3], scale_y, fmap_h, crop_h);
    resample_box<K, true>(p, extr, out);
  }
  K::done();
  return 0;
}

}  // namespace

int roi_align_fmap_int16_with(bilinear_kernel kernel, short* fmap, unsigned int fmap_scale,
                              float* proposal, unsigned int roi_num, unsigned int fmap_w,
                              unsigned int fmap_h, unsigned int pool_w, unsigned int pool_h,
                              unsigned int channel, short* roi_result) {
  if (kernel == bilinear_kernel::scalar) {
    return roi_align_one<scalar_kernel>(fmap, fmap_scale, proposal, roi_num, fmap_w, fmap_h, pool_w,
                                        pool_h, channel, roi_result);
  }
  return roi_align_one<vector_kernel>(fmap, fmap_scale, proposal, roi_num, fmap_w, fmap_h, pool_w,
                                      pool_h, channel, roi_result);
}

int roi_align_four_fmap_int16_with(bilinear_kernel kernel, short** fmap, unsigned int* fmap_scale,
                                   float* proposal, unsigned int roi_num, unsigned int img_w,
                                   unsigned int img_h, unsigned int pool_w, unsigned int pool_h,
                                   unsigned int channel, short* roi_result) {
  if (kernel == bilinear_kernel::scalar) {
    return roi_align_four<scalar_kernel>(fmap, fmap_scale, proposal, roi_num, img_w, img_h, pool_w,
                                         pool_h, channel, roi_result);
  }
  return roi_align_four<vector_kernel>(fmap, fmap_scale, proposal, roi_num, img_w, img_h, pool_w,
                                       pool_h, channel, roi_result);
}

int crop_and_resize_fmap_int16_with(bilinear_kernel kernel, short* fmap, float scale_x,
                                    float scale_y, float extrapolation_value, float* proposal,
                                    unsigned int roi_num, unsigned int fmap_w, unsigned int fmap_h,
                                    unsigned int crop_w, unsigned int crop_h, unsigned int channel,
                                    short* roi_result) {
  if (kernel == bilinear_kernel::scalar) {
    return crop_and_resize<scalar_kernel>(fmap, scale_x, scale_y, extrapolation_value, proposal,
                                          roi_num, fmap_w, fmap_h, crop_w, crop_h, channel,
                                          roi_result);
  }
  return crop_and_resize<vector_kernel>(fmap, scale_x, scale_y, extrapolation_value, proposal,
                                        roi_num, fmap_w, fmap_h, crop_w, crop_h, channel,
                                        roi_result);
}

}  // namespace ol

int roi_align_fmap_int16(short* fmap, unsigned int fmap_scale, float* proposal,
                         unsigned int roi_num, unsigned int fmap_w, unsigned int fmap_h,
                         unsigned int pool_w, unsigned int pool_h, unsigned int channel,
                         short* roi_result) {
  return ol::roi_align_fmap_int16_with(ol::bilinear_kernel::vector, fmap, fmap_scale, proposal,
                                       roi_num, fmap_w, fmap_h, pool_w, pool_h, channel,
                                       roi_result);
}

int roi_align_four_fmap_int16(short** fmap, unsigned int* fmap_scale, float* proposal,
                              unsigned int roi_num, unsigned int img_w, unsigned int img_h,
                              unsigned int pool_w, unsigned int pool_h, unsigned int channel,
                              short* roi_result) {
  return ol::roi_align_four_fmap_int16_with(ol::bilinear_kernel::vector, fmap, fmap_scale, proposal,
                                            roi_num, img_w, img_h, pool_w, pool_h, channel,
                                            roi_result);
}

int crop_and_resize_fmap_int16(short* fmap, float scale_x, float scale_y, float extrapolation_value,
                               float* proposal, unsigned int roi_num, unsigned int fmap_w,
                               unsigned int fmap_h, unsigned int crop_w, unsigned int crop_h,
                               unsigned int channel, short* roi_result) {
  return ol::crop_and_resize_fmap_int16_with(ol::bilinear_kernel::vector, fmap, scale_x, scale_y,
                                             extrapolation_value, proposal, roi_num, fmap_w, fmap_h,
                                             crop_w, crop_h, channel, roi_result);
}
