// Candidate ordering of the proposal stage: the histogram path against the
// comparison path, for a VGG16 frame (38 x 63 map, 9 anchors: 21,546
// candidates) and a large one (100,000), 6,000 wanted; and the cost of the
// per-frame reset after frames that touched few or many buckets.
#include <benchmark/benchmark.h>
#include <math.h>
#include <string.h>

#include <chrono>
#include <vector>

#include "common/test_util.h"
#include "frcnn/hist_fixture.h"
#include "frcnn/hist_sort.h"

namespace {

enum scores_kind { softmax_like, few_distinct };

// softmax_like: foreground probabilities of a two-class softmax over
// normally distributed logits, truncated to half (thousands of distinct
// values, most of them small). few_distinct: eight values only.
std::vector<uint16_t> make_scores(uint32_t M, scores_kind kind) {
  ol_test::rng r(M * 3 + kind);
  std::vector<uint16_t> s(M);
  for (auto& v : s) {
    if (kind == few_distinct) {
      v = ol_test::h(0.125f * static_cast<float>(r.next() % 8));
      continue;
    }
    // Sum of uniforms ~ normal logit, mean -3, sd 2.
    float z = 0.0f;
    for (int k = 0; k < 4; ++k) z += r.uniform(-1.0f, 1.0f);
    const float logit = -3.0f + 2.0f * 1.732f * z / 2.0f;
    v = opt_layers_half::from_float_trunc(1.0f / (1.0f + expf(-logit)));
  }
  return s;
}

void bm_rpn_sort(benchmark::State& state) {
  const uint32_t M = static_cast<uint32_t>(state.range(0));
  const auto kind = static_cast<scores_kind>(state.range(1));
  const bool use_qsort = state.range(2) != 0;
  const std::vector<uint16_t> s = make_scores(M, kind);
  ol_test::hist_fixture fx(static_cast<uint32_t>(uint64_t{M} * 20 / 2048));
  std::vector<uint32_t> order(M);
  for (auto _ : state) {
    ol::rpn_sort(&fx.t, s.data(), 6000, order.data(), M, use_qsort);
    benchmark::DoNotOptimize(order.data());
    benchmark::ClobberMemory();
  }
  state.SetLabel(use_qsort ? "qsort_r" : "histogram");
}
BENCHMARK(bm_rpn_sort)
    ->ArgNames({"M", "ties", "qsort"})
    ->Args({21546, softmax_like, 0})
    ->Args({21546, softmax_like, 1})
    ->Args({21546, few_distinct, 0})
    ->Args({21546, few_distinct, 1})
    ->Args({100000, softmax_like, 0})
    ->Args({100000, softmax_like, 1})
    ->Args({100000, few_distinct, 0})
    ->Args({100000, few_distinct, 1})
    ->Unit(benchmark::kMicrosecond);

// The histogram path split into its steps, on the VGG16 frame.
void bm_hist_steps(benchmark::State& state) {
  const uint32_t M = 21546;
  const std::vector<uint16_t> s = make_scores(M, softmax_like);
  ol_test::hist_fixture fx(M * 20 / 2048);
  std::vector<uint32_t> order(M);
  const int step = static_cast<int>(state.range(0));
  ol::hist_reset(&fx.t);
  ol::hist_insert(&fx.t, s.data(), M);
  for (auto _ : state) {
    if (step == 0) {
      ol::hist_reset(&fx.t);
      ol::hist_insert(&fx.t, s.data(), M);
    } else {
      ol::hist_walk(order.data(), 6000, &fx.t, true);
    }
    benchmark::ClobberMemory();
  }
  state.SetLabel(step == 0 ? "reset+insert" : "walk 6000");
}
BENCHMARK(bm_hist_steps)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

// Init-time cost of the visiting order (qsort of the 65,536 patterns).
void bm_hist_build_order(benchmark::State& state) {
  std::vector<uint16_t> order(ol::k_hist_buckets);
  for (auto _ : state) {
    ol::hist_build_order(order.data(), ol::k_hist_buckets);
    benchmark::DoNotOptimize(order.data());
  }
}
BENCHMARK(bm_hist_build_order)->Unit(benchmark::kMillisecond);

// Reset after a frame whose M candidates fall into `distinct` buckets: the
// cost follows the buckets touched, not the 65,536 there are. Timed by hand
// around the reset only; the insert that refills the buckets is untimed.
// Variant 1 is a plain full reset (all counts, all 65,536 list records) for
// comparison.
void full_reset(ol::hist_tables* t) {
  memset(t->num, 0, ol::k_hist_buckets * sizeof(uint32_t));
  memset(t->occupied, 0, ol::k_hist_buckets / 8);
  for (uint32_t k = 0; k < ol::k_hist_buckets; ++k) {
    ol::hist_bucket* b = &t->list[k];
    if (b->head == nullptr) continue;
    ol::hist_row_node* last = b->head;
    while (last->next) last = last->next;
    last->next = t->free_nodes;
    t->free_nodes = b->head;
    *b = ol::hist_bucket{};
  }
}

void bm_hist_reset(benchmark::State& state) {
  const uint32_t distinct = static_cast<uint32_t>(state.range(0));
  const bool full = state.range(1) != 0;
  const uint32_t M = 21546;
  std::vector<uint16_t> s(M);
  for (uint32_t i = 0; i < M; ++i)
    s[i] = static_cast<uint16_t>((i % distinct) * (30720 / distinct));
  ol_test::hist_fixture fx(M * 20 / 2048);
  for (auto _ : state) {
    ol::hist_insert(&fx.t, s.data(), M);
    const auto t0 = std::chrono::steady_clock::now();
    if (full) {
      full_reset(&fx.t);
    } else {
      ol::hist_reset(&fx.t);
    }
    benchmark::ClobberMemory();
    const auto t1 = std::chrono::steady_clock::now();
    state.SetIterationTime(std::chrono::duration<double>(t1 - t0).count());
  }
  state.SetLabel(full ? "full reset" : "bitmap reset");
}
BENCHMARK(bm_hist_reset)
    ->ArgNames({"buckets", "full"})
    ->ArgsProduct({{1, 16, 256, 4096, 21546}, {0, 1}})
    ->UseManualTime()
    ->Iterations(2000)  // each iteration also runs an untimed insert
    ->Unit(benchmark::kMicrosecond);

}  // namespace
