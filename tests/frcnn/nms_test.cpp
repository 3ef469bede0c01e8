// nms (and the pipeline's nms_kernel) against the plain twin in nms_ref.h.
#include "frcnn/nms.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

#include "common/alloc.h"
#include "common/test_util.h"
#include "frcnn/nms_ref.h"

namespace {

using ol_test::as_half;
using ol_test::h;

constexpr uint16_t k_poison = 0xA5A5;

// Proposal records (x1 y1 x2 y2 score) in clusters of jittered boxes, with
// optional rare NaN / infinite coordinates and degenerate boxes. With no
// cluster: small integer boxes on a small grid, many of which just touch (w
// or h exactly 0 or 1) or overlap exactly at the threshold (the strict test).
std::vector<uint16_t> make_boxes(ol_test::rng& rng, int n, int clusters, bool unusual) {
  std::vector<uint16_t> v;
  for (int i = 0; clusters == 0 && i < n; ++i) {
    const int x1 = rng.range(0, 24), y1 = rng.range(0, 24);
    const float rec[5] = {float(x1), float(y1), float(x1 + rng.range(-1, 9)),
                          float(y1 + rng.range(-1, 9)), 0.5f};
    for (float x : rec) v.push_back(h(x));
  }
  std::vector<std::array<float, 4>> cl(clusters);  // x, y, w, h
  for (auto& c : cl) c = {rng.uniform(0, 900), rng.uniform(0, 500), rng.uniform(8, 300), rng.uniform(8, 300)};
  const uint16_t odd[] = {0x7E00, 0xFE00, 0x7C00, 0xFC00, 0x7BFF, 0xFBFF};
  for (int i = 0; clusters > 0 && i < n; ++i) {
    const auto& c = cl[rng.range(0, clusters - 1)];
    const float j = 0.15f;
    const float x1 = c[0] + rng.uniform(-j, j) * c[2], y1 = c[1] + rng.uniform(-j, j) * c[3];
    const float x2 = x1 + c[2] * rng.uniform(1 - j, 1 + j), y2 = y1 + c[3] * rng.uniform(1 - j, 1 + j);
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

// Counts the allocations nms asks for (and the size of the last) and grants
// or refuses them; refused, nms takes its scratch-free path.
struct alloc_log {
  bool refuse;
  int calls = 0;
  size_t bytes = 0;
};

bool log_alloc(size_t bytes, void* user) {
  auto* log = static_cast<alloc_log*>(user);
  ++log->calls;
  log->bytes = bytes;
  return !log->refuse;
}

int call_nms_no_heap(uint16_t* out, uint16_t* in, int count, float thr, int max_out) {
  alloc_log log{true};
  const ol::alloc_hooks refuse = {log_alloc, &log};
  ol::set_alloc_hooks(&refuse);
  const int r = call_nms(out, in, count, thr, max_out);
  ol::set_alloc_hooks(nullptr);
  return r;
}

// Output has exactly max_out records (one when max_out is not positive): ASan
// sees overruns; the records past the result must stay poisoned.
void expect_like_twin(nms_fn fn, std::vector<uint16_t>& in, int count, float thr, int max_out) {
  std::vector<uint16_t> want(4 * static_cast<size_t>(std::max(max_out, 1)), k_poison), got = want;
  const int nw = ol_ref::nms_ref(want.data(), in.data(), count, thr, max_out);
  const int ng = fn(got.data(), in.data(), count, thr, max_out);
  ASSERT_EQ(nw, ng) << "count " << count << " thr " << thr << " max_out " << max_out;
  ASSERT_EQ(want, got) << "count " << count << " thr " << thr << " max_out " << max_out;
}

// Clustered, grid and arbitrary-bit boxes (NaN and infinities in any corner
// never suppress, whatever the vector min/max pick), short and long lists,
// on all three paths: stack scratch, the kernel on caller scratch, and the
// scratch-free path.
TEST(Nms, MatchesTwinOnRandomSets) {
  ol_test::rng rng(5);
  const float thresholds[] = {-0.5f, 0.0f, 0.3f, 0.5f, 0.7f, 0.7f, 0.9f, 1.0f};
  const uint16_t odd[] = {0x7E00, 0xFE00, 0x7C00, 0xFC00, 0x7C01, 0x0000, 0x8000, 0x3C00};
  const nms_fn fns[] = {call_nms, call_kernel, call_nms_no_heap};
  for (int iter = 0; iter < 300; ++iter) {
    const int n = iter % 4 == 0 ? rng.range(510, 1200) : rng.range(1, 200);
    std::vector<uint16_t> in = make_boxes(rng, n, iter % 3 == 2 ? 0 : rng.range(1, 40), iter % 2);
    if (iter % 5 == 1)
      for (uint16_t& v : in)
        if (rng.next() % 8 == 0) v = odd[rng.range(0, 7)];
    const float thr = iter % 5 == 0 ? rng.uniform(0, 1) : thresholds[rng.range(0, 7)];
    const int max_out = rng.range(1, n + 4);
    expect_like_twin(fns[(iter / 3) % 3], in, n, thr, max_out);
  }
}

// Nothing kept, nothing written. 40000 is negative as a 16-bit count;
// -40000 has low 16 bits that read as a positive count (found by fuzzing:
// boxes never given were written).
TEST(Nms, EmptyCallsWriteNothing) {
  std::vector<uint16_t> in(10, h(5.0f));
  const int cases[][2] = {{0, 4},      {-1, 4},    {2, 0},      {2, -5},
                          {-70000, 4}, {40000, 4}, {-40000, 4}, {INT32_MIN, 4}};
  for (const auto& c : cases)
    for (nms_fn fn : {call_nms, call_kernel}) expect_like_twin(fn, in, c[0], 0.5f, c[1]);
}

// nms from a thread with a 128 KiB stack, up to the largest count: small
// lists use no heap, larger ones one block of nms_scratch_bytes(count) per
// call, and with the heap refusing it the same result comes out. Counts
// beyond 32767 are taken as signed 16-bit: 65536 + 1200 examines 1200. The
// input is exactly the given size, so reads past it would show under ASan.
TEST(Nms, LargeCountsOnASmallThreadStack) {
  ol_test::rng rng(17);
  std::vector<uint16_t> in = make_boxes(rng, 65536 + 1200, 300, true);
  for (auto c : {std::make_pair(509, false), std::make_pair(32767, false), std::make_pair(32767, true),
                 std::make_pair(65536 + 1200, false)}) {
    alloc_log log{c.second};
    const ol::alloc_hooks hooks = {log_alloc, &log};
    std::vector<uint16_t> got(400 * 4, k_poison), want(400 * 4, k_poison);
    int kept = -1;
    ol_test::on_small_stack([&] {
      ol::set_alloc_hooks(&hooks);
      kept = call_nms(got.data(), in.data(), c.first, 0.7f, 400);
      ol::set_alloc_hooks(nullptr);
    });
    ASSERT_EQ(ol_ref::nms_ref(want.data(), in.data(), c.first, 0.7f, 400), kept);
    EXPECT_EQ(want, got);
    const int n = static_cast<int16_t>(c.first);
    EXPECT_EQ(n > 509 ? 1 : 0, log.calls) << c.first;
    EXPECT_EQ(log.calls ? ol::nms_scratch_bytes(n) : 0, log.bytes);
  }
  expect_like_twin(call_kernel, in, 65536 + 1200, 0.7f, 300);
  EXPECT_EQ(ol::nms_scratch_bytes(32767), ol::nms_scratch_bytes(40000));
}

}  // namespace
