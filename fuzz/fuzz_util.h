// Helpers shared by the fuzz targets: drawing sizes and values (NaN,
// infinities and other edge values included) from the fuzzer's bytes, and
// buffers sized exactly so that AddressSanitizer sees any access past them.
#ifndef OL_FUZZ_UTIL_H
#define OL_FUZZ_UTIL_H

#include <fuzzer/FuzzedDataProvider.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "brennik_opt_layers.h"

namespace ol_fuzz {

// The library prints warnings per call; writing them to a terminal or a
// pipe would dominate the run time.
inline void silence_stdout() {
  if (freopen("/dev/null", "w", stdout) == nullptr) perror("freopen");
}

// Defines a libFuzzer target that silences standard output at start-up and
// reads each input through `in` (`size` bytes):
//   OL_FUZZ_TARGET(in, size) { ... }
// The body is outside namespace ol_fuzz, whose functions are left out of the
// coverage instrumentation.
#define OL_FUZZ_TARGET(in, size)                                               \
  extern "C" int LLVMFuzzerInitialize(int*, char***) {                         \
    ol_fuzz::silence_stdout();                                                 \
    return 0;                                                                  \
  }                                                                            \
  static void fuzz_one_input(FuzzedDataProvider& in, size_t size);             \
  extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {    \
    FuzzedDataProvider in(data, size);                                         \
    fuzz_one_input(in, size);                                                  \
    return 0;                                                                  \
  }                                                                            \
  static void fuzz_one_input(FuzzedDataProvider& in, size_t size)

// Aborts the run with a message: a property of the library does not hold.
#define OL_FUZZ_CHECK(cond)                                                   \
  do {                                                                        \
    if (!(cond)) {                                                            \
      fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
      __builtin_trap();                                                       \
    }                                                                         \
  } while (0)

// Half edge values: +-0, +-inf, NaNs (quiet, negative, signalling), +-65504,
// subnormals, 1, -1, 0.5, 1024, 32768.
constexpr uint16_t k_half_specials[] = {0x0000, 0x8000, 0x7C00, 0xFC00, 0x7E00, 0xFE00,
                                        0x7C01, 0x7BFF, 0xFBFF, 0x0001, 0x8001, 0x03FF,
                                        0x3C00, 0xBC00, 0x3800, 0x6400, 0x7800};

constexpr float k_float_specials[] = {
    0.0f, -0.0f, __builtin_inff(), -__builtin_inff(), __builtin_nanf(""), -__builtin_nanf(""),
    1.0f, -1.0f, 0.5f, 1e-45f, 3.4e38f, -3.4e38f, 65504.0f, 65536.0f, 1e9f, -1e9f, 32767.5f,
};

// A half pattern: an edge value, a value in a plausible range, or any
// pattern at all.
inline uint16_t draw_half(FuzzedDataProvider& in) {
  const uint8_t kind = in.ConsumeIntegral<uint8_t>();
  if (kind < 32) return k_half_specials[kind % (sizeof k_half_specials / 2)];
  if (kind < 160)
    return opt_layers_half::from_float_round(in.ConsumeFloatingPointInRange<float>(-2000.0f, 2000.0f));
  return in.ConsumeIntegral<uint16_t>();
}

inline float draw_float(FuzzedDataProvider& in, float lo, float hi) {
  const uint8_t kind = in.ConsumeIntegral<uint8_t>();
  if (kind < 24) return k_float_specials[kind % (sizeof k_float_specials / sizeof(float))];
  if (kind < 200) return in.ConsumeFloatingPointInRange<float>(lo, hi);
  return in.ConsumeFloatingPoint<float>();
}

// A size: mostly small (0..small_max), sometimes a value at a 16- or 32-bit
// boundary or anything at all.
inline uint32_t draw_size(FuzzedDataProvider& in, uint32_t small_max) {
  static const uint32_t edges[] = {0,       1,          0x7FFF,     0x8000,     0xFFFF,
                                   0x10000, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, 0x1000001};
  const uint8_t kind = in.ConsumeIntegral<uint8_t>();
  if (kind < 224) return in.ConsumeIntegralInRange<uint32_t>(0, small_max);
  if (kind < 248) return edges[kind % (sizeof edges / sizeof edges[0])];
  return in.ConsumeIntegral<uint32_t>();
}

// A channel count for the int16 operators: mostly 16 * (1..kinds), else
// 0..40 (mostly not a multiple of 16).
inline unsigned draw_channel(FuzzedDataProvider& in, unsigned kinds) {
  const uint8_t k = in.ConsumeIntegral<uint8_t>();
  return k < 200 ? 16u * (1 + k % kinds) : in.ConsumeIntegralInRange<unsigned>(0, 40);
}

inline bool valid_channel(unsigned c) { return c != 0 && c % 16 == 0; }

// Deterministic filler for bulk arrays once the fuzzer's bytes are spent.
struct filler {
  uint64_t s;
  explicit filler(uint64_t seed) : s(seed * 0x9E3779B97F4A7C15ull + 0x1234567) {}
  uint32_t next() {
    s ^= s << 13;
    s ^= s >> 7;
    s ^= s << 17;
    return static_cast<uint32_t>(s >> 16);
  }
  // Mostly plausible values in [-range, range], about one in 64 an edge value.
  template <class T, size_t N>
  T pick(const T (&specials)[N], float range, T (*convert)(float)) {
    const uint32_t r = next();
    if ((r & 63) == 0) return specials[(r >> 6) % N];
    return convert(((r >> 8) & 0xFFFF) / 32768.0f * range - range);
  }
  uint16_t half(float range) { return pick(k_half_specials, range, opt_layers_half::from_float_round); }
  float flt(float range) { return pick<float>(k_float_specials, range, [](float x) { return x; }); }
};

// A heap array of exactly n elements (n may be 0: the pointer is still not
// NULL, and AddressSanitizer reports any access through it).
template <class T>
class buffer {
 public:
  explicit buffer(size_t n) : n_(n), p_(static_cast<T*>(malloc(n * sizeof(T)))) {
    if (p_ == nullptr) abort();
  }
  ~buffer() { free(p_); }
  buffer(const buffer&) = delete;
  buffer& operator=(const buffer&) = delete;
  T* data() { return p_; }
  size_t size() const { return n_; }
  T& operator[](size_t i) { return p_[i]; }
  half_float::half* half() { return reinterpret_cast<half_float::half*>(p_); }
  void fill_bytes(uint8_t v) { memset(p_, v, n_ * sizeof(T)); }
  bool equals(const buffer& o) const { return n_ == o.n_ && memcmp(p_, o.p_, n_ * sizeof(T)) == 0; }

 private:
  size_t n_;
  T* p_;
};

// Fills v: the first elements from the fuzzer's bytes (up to `direct`), the
// rest from the filler.
inline void fill_halves(buffer<uint16_t>& v, FuzzedDataProvider& in, size_t direct, filler& f,
                        float range) {
  for (size_t i = 0; i < v.size(); ++i)
    v[i] = i < direct && in.remaining_bytes() > 0 ? draw_half(in) : f.half(range);
}

inline void fill_floats(buffer<float>& v, FuzzedDataProvider& in, size_t direct, filler& f,
                        float range) {
  for (size_t i = 0; i < v.size(); ++i)
    v[i] = i < direct && in.remaining_bytes() > 0 ? draw_float(in, -range, range) : f.flt(range);
}

// Elements read from planes*rows rows of `width` elements with row pitch
// `pitch`: the extent of the last row read (the pitch may be below the width
// where the rows are allowed to overlap).
inline uint64_t pitched_extent(uint64_t rows, uint64_t pitch, uint64_t width) {
  return rows == 0 || width == 0 ? 0 : (rows - 1) * pitch + width;
}

}  // namespace ol_fuzz

// The two below are instrumented like the target bodies: the lengths of their
// loops tell the fuzzer the sizes an input drew.
// Fills v with the filler's raw bits (feature maps of any pattern).
template <class T>
void fill_bits(ol_fuzz::buffer<T>& v, ol_fuzz::filler& f) {
  for (size_t i = 0; i < v.size(); ++i) v[i] = static_cast<T>(f.next());
}

// Calls call(out) on an output of n elements poisoned with 0xA5 bytes: it
// must return `expect`, and a rejected call must leave the output untouched.
// With `twice`, a second identical call must return and write the same.
template <class T, class F>
void check_call(size_t n, int expect, bool twice, F call) {
  ol_fuzz::buffer<T> out(n), again(n);
  out.fill_bytes(0xA5);
  again.fill_bytes(0xA5);
  const int r = call(out.data());
  OL_FUZZ_CHECK(r == expect);
  if (twice) OL_FUZZ_CHECK(call(again.data()) == r && out.equals(again));
  T poison;
  memset(&poison, 0xA5, sizeof poison);
  if (r != 0)
    for (size_t i = 0; i < n; ++i) OL_FUZZ_CHECK(memcmp(&out[i], &poison, sizeof poison) == 0);
}

#endif
