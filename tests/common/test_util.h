// Helpers shared by the tests: stdout capture, exactly sized and poisoned
// buffers, halves, thread counts, small stacks, a deterministic generator.
#ifndef OL_TESTS_TEST_UTIL_H
#define OL_TESTS_TEST_UTIL_H

#include <gtest/gtest.h>
#include <stdint.h>
#include <stdio.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "brennik_opt_layers.h"

namespace ol_test {

// Captures everything the library prints to standard output (printf and
// puts) from construction to end().
class stdout_capture {
 public:
  stdout_capture() {
    fflush(stdout);
    testing::internal::CaptureStdout();
  }
  std::string end() {
    fflush(stdout);
    done_ = true;
    return testing::internal::GetCapturedStdout();
  }
  ~stdout_capture() {
    if (!done_) end();
  }

 private:
  bool done_ = false;
};

// What fn printed.
inline std::string printed(const std::function<void()>& fn) {
  stdout_capture cap;
  fn();
  return cap.end();
}

inline uint16_t h(float f) { return opt_layers_half::from_float_round(f); }
inline float f(uint16_t bits) { return opt_layers_half::to_float(bits); }

inline half_float::half* as_half(uint16_t* p) { return reinterpret_cast<half_float::half*>(p); }
inline half_float::half* as_half(std::vector<uint16_t>& v) { return as_half(v.data()); }

// n elements on the heap, exactly (AddressSanitizer reports any access past
// them), never a NULL pointer (also for n = 0), every element `poison`.
template <class T>
struct exact_array {
  std::unique_ptr<T[]> p;
  size_t n = 0;
  explicit exact_array(size_t count = 0, T poison = T()) : p(new T[count]), n(count) {
    fill(poison);
  }
  void fill(T v) { std::fill(p.get(), p.get() + n, v); }
  T* data() { return p.get(); }
  T& operator[](size_t i) { return p[i]; }
  half_float::half* half() { return reinterpret_cast<half_float::half*>(p.get()); }
  std::vector<T> vec(size_t count) const { return std::vector<T>(p.get(), p.get() + count); }
  std::vector<T> vec() const { return vec(n); }
};

// Threads of this process (entries of /proc/self/task).
int live_threads();
// live_threads() once it equals `expected`, waiting up to 2 s: under an
// emulator a joined thread may linger in /proc for a moment.
int settled_threads(int expected);
// The thread count once it has stopped changing (threads joined by earlier
// code may still be leaving): the baseline for settled_threads.
int quiet_threads();

// Runs fn on a new thread with a 128 KiB stack and waits for it.
void on_small_stack(const std::function<void()>& fn);

// printf into a std::string, for building expected messages.
std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// A deterministic generator (tests must not depend on the platform's rand).
class rng {
 public:
  explicit rng(uint64_t seed) : s_(seed * 0x9E3779B97F4A7C15ull + 1) {}
  uint32_t next() {
    s_ ^= s_ << 13;
    s_ ^= s_ >> 7;
    s_ ^= s_ << 17;
    return static_cast<uint32_t>(s_ >> 11);
  }
  // Uniform in [lo, hi).
  float uniform(float lo, float hi) { return lo + (hi - lo) * (next() & 0xFFFFFF) / 16777216.0f; }
  int range(int lo, int hi_inclusive) {
    return lo + static_cast<int>(next() % static_cast<uint32_t>(hi_inclusive - lo + 1));
  }

 private:
  uint64_t s_;
};

}  // namespace ol_test

#endif
