// Processor features of the running x86-64 machine, for kernels that have a
// faster version than the build's baseline allows. Each is read once; the
// choice is made by an ordinary branch (not an ifunc, whose resolver would
// run before the sanitizer runtimes are ready).
#ifndef OL_COMMON_CPU_H
#define OL_COMMON_CPU_H

namespace ol {

// Set by the tests to run the baseline versions on any machine.
inline bool cpu_force_baseline = false;

}  // namespace ol

#if defined(__x86_64__) && defined(__GNUC__)
#define OL_X86_DISPATCH 1

namespace ol {

// What the processor supports, read once.
struct cpu_features {
  bool fma, avx2, avx512bw;
};

inline const cpu_features& cpu_detected() {
  static const cpu_features f = [] {
    __builtin_cpu_init();
    return cpu_features{__builtin_cpu_supports("fma") != 0, __builtin_cpu_supports("avx2") != 0,
                        __builtin_cpu_supports("avx512bw") != 0};
  }();
  return f;
}

inline bool cpu_has_fma() { return cpu_detected().fma && !cpu_force_baseline; }
inline bool cpu_has_avx2() { return cpu_detected().avx2 && !cpu_force_baseline; }
inline bool cpu_has_avx512bw() { return cpu_detected().avx512bw && !cpu_force_baseline; }

}  // namespace ol

#endif
#endif
