// nms (and the pipeline's nms_kernel) against the plain twin in nms_ref.h.
#include "frcnn/nms.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <stdlib.h>

#include <algorithm>
#include <vector>

#include "common/alloc.h"
#include "common/test_util.h"
#include "frcnn/nms_ref.h"

namespace {

using ol_test::as_half;
using ol_test::h;

constexpr uint16_t k_poison = 0xA5A5;

// Proposal records (x1 y1 x2 y2 score) in clusters of jittered boxes, with
// optional rare NaN / infinite coordinates and degenerate boxes.
std::vector<uint16_t> make_boxes(ol_test::rng& rng, int n, int clusters, bool unusual) {
  std::vector<float> cx(clusters), cy(clusters), cw(clusters), chh(clusters);
  for (int k = 0; k < clusters; ++k) {
    cx[k] = rng.uniform(0, 900);
    cy[k] = rng.uniform(0, 500);
    cw[k] = rng.uniform(8, 300);
    chh[k] = rng.uniform(8, 300);
  }
  const uint16_t odd[] = {0x7E00, 0xFE00, 0x7C00, 0xFC00, 0x7BFF, 0xFBFF};
  std::vector<uint16_t> v;
  for (int i = 0; i < n; ++i) {
    const int k = rng.range(0, clusters - 1);
    const float j = 0.15f;
    const float x1 = cx[k] + rng.uniform(-j, j) * cw[k], y1 = cy[k] + rng.uniform(-j, j) * chh[k];
    const float x2 = x1 + cw[k] * rng.uniform(1 - j, 1 + j), y2 = y1 + chh[k] * rng.uniform(1 - j, 1 + j);
    uint16_t rec[5] = {h(x1), h(y1), h(x2), h(y2), h(rng.uniform(0, 1))};
    if (unusual) {
      const uint32_t r = rng.next() % 64;
      if (r == 0) rec[rng.range(0, 3)] = odd[rng.range(0, 5)];
      if (r == 1) std::swap(rec[0], rec[2]);  // reversed
      if (r == 2) rec[2] = rec[0];            // one pixel wide
      if (r == 3) rec[2] = h(ol_test::f(rec[0]) - 1);  // zero wide
    }
    v.insert(v.end(), rec, rec + 5);
  }
  return v;
}

using nms_fn = int (*)(uint16_t*, uint16_t*, int, float, int);

int call_nms(uint16_t* out, uint16_t* in, int count, float thr, int max_out) {
  return nms(as_half(out), as_half(in), count, thr, max_out);
}

int call_kernel(uint16_t* out, uint16_t* in, int count, float thr, int max_out) {
  // Exactly sized heap scratch, so an overrun shows under ASan.
  void* scratch = malloc(std::max<size_t>(ol::nms_scratch_bytes(static_cast<uint32_t>(count)), 1));
  const int r = ol::nms_kernel(out, in, count, thr, max_out, scratch);
  free(scratch);
  return r;
}

bool refuse_all(size_t, void*) { return false; }

// The exported nms with every allocation refused (the scratch-free path for
// counts that do not fit the stack buffer).
int call_nms_no_heap(uint16_t* out, uint16_t* in, int count, float thr, int max_out) {
  const ol::alloc_hooks refuse = {refuse_all, nullptr};
  ol::set_alloc_hooks(&refuse);
  const int r = call_nms(out, in, count, thr, max_out);
  ol::set_alloc_hooks(nullptr);
  return r;
}

// Output has exactly max_out records (plus nothing): ASan sees overruns; the
// records past the result must stay poisoned.
void expect_like_twin(nms_fn fn, std::vector<uint16_t>& in, int count, float thr, int max_out) {
  std::vector<uint16_t> want(static_cast<size_t>(max_out) * 4, k_poison);
  std::vector<uint16_t> got(static_cast<size_t>(max_out) * 4, k_poison);
  const int nw = ol_ref::nms_ref(want.data(), in.data(), count, thr, max_out);
  const int ng = fn(got.data(), in.data(), count, thr, max_out);
  ASSERT_EQ(nw, ng) << "count " << count << " thr " << thr << " max_out " << max_out;
  ASSERT_EQ(want, got) << "count " << count << " thr " << thr << " max_out " << max_out;
}

// Small integer boxes on a small grid: many boxes that just touch (w or
// h exactly 0 or 1) and IoUs exactly at the threshold (the strict test).
std::vector<uint16_t> make_grid_boxes(ol_test::rng& rng, int n) {
  std::vector<uint16_t> v;
  for (int i = 0; i < n; ++i) {
    const int x1 = rng.range(0, 24), y1 = rng.range(0, 24);
    const float rec[5] = {float(x1), float(y1), float(x1 + rng.range(-1, 9)),
                          float(y1 + rng.range(-1, 9)), 0.5f};
    for (float x : rec) v.push_back(h(x));
  }
  return v;
}

TEST(Nms, MatchesTwinOnRandomSets) {
  ol_test::rng rng(5);
  const float thresholds[] = {-0.5f, 0.0f, 0.3f, 0.5f, 0.7f, 0.7f, 0.9f, 1.0f};
  const nms_fn fns[] = {call_nms, call_kernel, call_nms_no_heap};
  for (int iter = 0; iter < 240; ++iter) {
    const int n = iter % 4 == 0 ? rng.range(510, 1200) : rng.range(1, 200);
    std::vector<uint16_t> in = iter % 3 == 2 ? make_grid_boxes(rng, n)
                                             : make_boxes(rng, n, rng.range(1, 40), iter % 2 == 0);
    const float thr = iter % 5 == 0 ? rng.uniform(0, 1) : thresholds[rng.range(0, 7)];
    const int max_out = rng.range(1, n + 4);
    expect_like_twin(fns[(iter / 2) % 3], in, n, thr, max_out);
  }
}

// Boxes made of arbitrary half patterns: NaN and infinities in any corner
// never suppress, whatever the vector min/max pick.
TEST(Nms, ArbitraryHalfBitsMatchTwin) {
  ol_test::rng rng(9);
  const uint16_t odd[] = {0x7E00, 0xFE00, 0x7C00, 0xFC00, 0x7C01, 0x0000, 0x8000, 0x3C00};
  for (int iter = 0; iter < 60; ++iter) {
    std::vector<uint16_t> in = make_boxes(rng, 64, 3, false);
    for (size_t i = 0; i < in.size(); ++i)
      if (rng.next() % 8 == 0) in[i] = odd[rng.range(0, 7)];
    expect_like_twin(iter % 2 ? call_nms : call_kernel, in, 64, iter % 3 ? 0.5f : 0.0f, 64);
  }
}

std::vector<uint16_t> records(std::initializer_list<std::initializer_list<float>> boxes) {
  std::vector<uint16_t> v;
  for (auto& b : boxes) {
    for (float x : b) v.push_back(h(x));
    v.push_back(h(0.5f));
  }
  return v;
}

// Number of boxes kept; the same on all three paths (stack scratch, the
// kernel on caller scratch, the scratch-free path, reached through 600
// extra disjoint boxes and a refusing heap).
int kept(std::vector<uint16_t> in, float thr) {
  const int n = static_cast<int>(in.size() / 5), pad = 600;
  std::vector<uint16_t> out(static_cast<size_t>(n + pad) * 4);
  const int on_stack = call_nms(out.data(), in.data(), n, thr, n);
  EXPECT_EQ(on_stack, call_kernel(out.data(), in.data(), n, thr, n));
  for (int i = 0; i < pad; ++i) {
    const float x = 1000.0f + 20.0f * i;
    const float rec[5] = {x, 0, x + 9, 9, 0.5f};
    for (float v : rec) in.push_back(h(v));
  }
  EXPECT_EQ(on_stack + pad, call_nms_no_heap(out.data(), in.data(), n + pad, thr, n + pad));
  return on_stack;
}

TEST(Nms, InclusiveSizesAndStrictTest) {
  // Identical boxes: IoU 1 is above 0.7 but not above 1.0.
  EXPECT_EQ(1, kept(records({{0, 0, 10, 10}, {0, 0, 10, 10}}), 0.7f));
  EXPECT_EQ(2, kept(records({{0, 0, 10, 10}, {0, 0, 10, 10}}), 1.0f));
  // x2 = 10 and x1 = 10 share one column (w = 1): any positive overlap beats
  // threshold 0. IoU = 11 / (121 + 121 - 11).
  EXPECT_EQ(1, kept(records({{0, 0, 10, 10}, {10, 0, 20, 10}}), 0.0f));
  EXPECT_EQ(1, kept(records({{0, 0, 10, 10}, {10, 0, 20, 10}}), 11.0f / 231.0f - 1e-4f));
  EXPECT_EQ(2, kept(records({{0, 0, 10, 10}, {10, 0, 20, 10}}), 11.0f / 231.0f + 1e-4f));
  // x1 = 11: w = 0, no overlap even at threshold 0; likewise vertically.
  EXPECT_EQ(2, kept(records({{0, 0, 10, 10}, {11, 0, 20, 10}}), 0.0f));
  EXPECT_EQ(2, kept(records({{0, 0, 10, 10}, {0, 11, 10, 20}}), 0.0f));
  // A negative threshold suppresses anything with w > 0 and h > 0, but the
  // w <= 0 and h <= 0 checks still keep touching boxes.
  EXPECT_EQ(1, kept(records({{0, 0, 10, 10}, {10, 0, 20, 10}}), -1.0f));
  EXPECT_EQ(2, kept(records({{0, 0, 10, 10}, {11, 0, 20, 10}}), -1.0f));
  EXPECT_EQ(2, kept(records({{0, 0, 10, 10}, {0, 11, 10, 20}}), -1.0f));
  // A NaN threshold suppresses nothing.
  EXPECT_EQ(2, kept(records({{0, 0, 10, 10}, {0, 0, 10, 10}}), ol_test::f(0x7E00)));
}

TEST(Nms, KeepsInputOrderAndStopsAtMaxOut) {
  // Scores are not looked at: the first box wins over a better-scored one.
  std::vector<uint16_t> in = records({{0, 0, 9, 9}, {1, 0, 10, 9}, {100, 0, 109, 9},
                                      {200, 0, 209, 9}, {300, 0, 309, 9}});
  in[4] = h(0.1f);
  in[9] = h(0.9f);
  std::vector<uint16_t> out(4 * 4, k_poison);
  ASSERT_EQ(3, call_nms(out.data(), in.data(), 5, 0.7f, 3));
  const int picked[] = {0, 2, 3};
  for (int k = 0; k < 3; ++k)
    for (int c = 0; c < 4; ++c) EXPECT_EQ(in[5 * picked[k] + c], out[4 * k + c]);
  for (int e = 12; e < 16; ++e) EXPECT_EQ(k_poison, out[e]);
}

TEST(Nms, EmptyCallsWriteNothing) {
  std::vector<uint16_t> in = records({{0, 0, 9, 9}, {20, 0, 29, 9}});
  for (auto c : {std::make_pair(0, 4), std::make_pair(-1, 4), std::make_pair(2, 0),
                 std::make_pair(2, -5), std::make_pair(-70000, 4)}) {
    std::vector<uint16_t> out(16, k_poison);
    EXPECT_EQ(0, call_nms(out.data(), in.data(), c.first, 0.5f, c.second));
    EXPECT_EQ(0, call_kernel(out.data(), in.data(), c.first, 0.5f, c.second));
    for (uint16_t e : out) ASSERT_EQ(k_poison, e);
  }
}

// Counts beyond 32767 are taken as signed 16-bit: 40000 is negative and
// examines nothing; 65536 + 600 examines 600. Buffers are exactly the given
// size, so reads past them would show under ASan.
TEST(Nms, CountsBeyondSixteenBits) {
  ol_test::rng rng(13);
  std::vector<uint16_t> in = make_boxes(rng, 40000, 50, false);
  std::vector<uint16_t> out(300 * 4, k_poison);
  EXPECT_EQ(0, call_nms(out.data(), in.data(), 40000, 0.7f, 300));
  for (uint16_t e : out) ASSERT_EQ(k_poison, e);
  in = make_boxes(rng, 65536 + 600, 50, false);
  expect_like_twin(call_nms, in, 65536 + 600, 0.7f, 300);
  expect_like_twin(call_kernel, in, 65536 + 600, 0.7f, 300);
  EXPECT_EQ(ol::nms_scratch_bytes(32767), ol::nms_scratch_bytes(40000));
}

struct alloc_log {
  int calls = 0;
  size_t bytes = 0;
};

bool count_alloc(size_t bytes, void* user) {
  auto* log = static_cast<alloc_log*>(user);
  ++log->calls;
  log->bytes = bytes;
  return true;
}

// The largest count: one heap block of nms_scratch_bytes(count) per call,
// and the same result when the heap refuses it.
TEST(Nms, LargestCountOnHeapAndWithoutScratch) {
  ol_test::rng rng(17);
  std::vector<uint16_t> in = make_boxes(rng, 32767, 300, true);
  alloc_log log;
  const ol::alloc_hooks hooks = {count_alloc, &log};
  ol::set_alloc_hooks(&hooks);
  expect_like_twin(call_nms, in, 32767, 0.7f, 400);
  ol::set_alloc_hooks(nullptr);
  EXPECT_EQ(1, log.calls);
  EXPECT_EQ(ol::nms_scratch_bytes(32767), log.bytes);
  expect_like_twin(call_nms_no_heap, in, 32767, 0.7f, 400);

  // Small lists use no heap at all.
  log = alloc_log{};
  ol::set_alloc_hooks(&hooks);
  expect_like_twin(call_nms, in, 509, 0.7f, 400);
  ol::set_alloc_hooks(nullptr);
  EXPECT_EQ(0, log.calls);
}

struct thread_job {
  std::vector<uint16_t>* in;
  int count;
  bool refuse_heap;
  std::vector<uint16_t> out;
  int result;
};

void* run_job(void* arg) {
  auto* j = static_cast<thread_job*>(arg);
  j->result = (j->refuse_heap ? call_nms_no_heap : call_nms)(j->out.data(), j->in->data(), j->count,
                                                            0.7f, 300);
  return nullptr;
}

// nms from a thread with a 128 KiB stack: stack, heap and scratch-free paths.
TEST(Nms, RunsOnASmallThreadStack) {
  ol_test::rng rng(19);
  std::vector<uint16_t> in = make_boxes(rng, 32767, 60, false);
  for (auto c : {std::make_pair(509, false), std::make_pair(32767, false),
                 std::make_pair(32767, true)}) {
    thread_job job{&in, c.first, c.second, std::vector<uint16_t>(300 * 4, k_poison), -1};
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    ASSERT_EQ(0, pthread_attr_setstacksize(&attr, 128 * 1024));
    pthread_t t;
    ASSERT_EQ(0, pthread_create(&t, &attr, run_job, &job));
    pthread_join(t, nullptr);
    pthread_attr_destroy(&attr);
    std::vector<uint16_t> want(300 * 4, k_poison);
    ASSERT_EQ(ol_ref::nms_ref(want.data(), in.data(), c.first, 0.7f, 300), job.result);
    EXPECT_EQ(want, job.out);
  }
}

}  // namespace
