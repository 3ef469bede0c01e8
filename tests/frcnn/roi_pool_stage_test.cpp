// Pooling stage: the ROIs cut into runs, one task each; each block equal to a
// direct call of the ROI pooling operator on that box, at the right offset,
// nothing else written.
// ctest-labels: threaded

#include <vector>

#include "common/alloc.h"
#include "common/test_util.h"
#include "frcnn/head_stage.h"

namespace {

using ol_test::h;

const uint16_t k_poison = 0xA55A;

// n ROIs (some reaching past the 19x23 map, some inverted) over fmap_d
// channels in 16-channel blocks, pooled to 7x7 at scale 16; the output has
// room for one block more than n. Returns the stage's output and, in
// *direct, the blocks made by direct calls of the operator, one box at a time.
// accept > 0: the pool has queue nodes for `accept` tasks and the heap refuses
// more, so the later tasks are refused; *printed gets what the stage printed.
std::vector<uint16_t> run_stage(uint32_t n, uint32_t fmap_d, bool sign, uint32_t threads,
                                std::vector<uint16_t>* direct, uint32_t accept = 0,
                                std::string* printed = nullptr) {
  const uint32_t fmap_h = 19, fmap_w = 23, block = 7 * fmap_d * 7;
  ol_test::rng r(n * 100 + fmap_d + sign);
  std::vector<uint16_t> fmap(static_cast<size_t>((fmap_d + 15) / 16) * fmap_h * fmap_w * 16);
  for (auto& v : fmap) v = static_cast<uint16_t>(r.next());
  std::vector<uint16_t> rois;
  for (uint32_t i = 0; i < n; ++i) {
    const float x = r.uniform(-40, 380), y = r.uniform(-40, 300);
    const uint16_t b[4] = {h(x), h(y), h(x + r.uniform(-20, 200)), h(y + r.uniform(-20, 200))};
    rois.insert(rois.end(), b, b + 4);
  }
  direct->assign(static_cast<size_t>(block) * (n + 1), k_poison);
  for (uint32_t i = 0; i < n; ++i)
    (sign ? roi_pooling_sign : roi_pooling)(ol_test::as_half(&rois[4 * i]), fmap.data(),
                                            direct->data() + i * block, 1, 7, 7, 0, 16, 0, fmap_h,
                                            fmap_w, static_cast<int>(fmap_d));
  ol::thread_pool* pool = ol::thread_pool_create(threads);
  std::vector<uint16_t> out(direct->size(), k_poison);
  const ol::alloc_hooks refuse = {[](size_t, void*) { return false; }, nullptr};
  if (accept) ol::thread_pool_prepare(pool, accept);
  ol::set_alloc_hooks(accept ? &refuse : nullptr);
  ol_test::stdout_capture cap;
  // (A stage waiting for a task that never ran fails at the test's deadline.)
  ol::frcnn_roi_pool(pool, rois.data(), fmap.data(), out.data(), n, fmap_d, fmap_h, fmap_w, 99 /*fmap_pitch*/, 16,
                     sign, 7, 7, 77 /*pool_pitch*/);
  ol::set_alloc_hooks(nullptr);
  if (printed) *printed = cap.end();
  ol::thread_pool_destroy(pool);
  return out;
}

// Both operators, 1 and 4 workers, fewer ROIs than tasks and more (uneven
// runs), channel counts that fill their last 16-channel block or not
// (fmap_d 40: the last 8 * 49 elements of each block stay untouched), one
// run of channel blocks or several (144, 272), and no ROI at all. With
// tasks after the third refused (accept 3), a prefix of the ROIs is pooled,
// every later ROI prints "fatal: add task fail" once and keeps its poisoned
// block (and nothing waits for a task that never ran).
TEST(FrcnnRoiPool, BlocksEqualDirectCallsForAnyThreadCount) {
  const struct { uint32_t n, fmap_d; bool sign; uint32_t accept; } cases[] = {
      {25, 32, false, 0}, {25, 32, true, 0}, {4, 40, true, 0}, {5, 40, false, 0}, {0, 16, false, 0},
      {131, 16, true, 0}, {25, 272, true, 0}, {9, 144, false, 0}, {40, 32, false, 3}};
  for (const auto& c : cases)
    for (uint32_t threads : {1u, 4u}) {
      SCOPED_TRACE(testing::Message() << c.n << " " << c.fmap_d << " " << c.sign << " " << threads);
      std::vector<uint16_t> direct;
      std::string printed;
      const std::vector<uint16_t> out = run_stage(c.n, c.fmap_d, c.sign, threads, &direct, c.accept, &printed);
      const size_t block = 49 * c.fmap_d;
      uint32_t done = 0;
      while (done < c.n && std::equal(out.begin() + done * block, out.begin() + (done + 1) * block,
                                       direct.begin() + done * block))
        ++done;
      EXPECT_TRUE(c.accept ? done > 0 && done < c.n : done == c.n) << done;  // refused: some pooled
      for (size_t v = 0; v < out.size(); ++v)  // channels past the last whole block, later ROIs
        ASSERT_TRUE(out[v] == k_poison || (v % block < 49 * (c.fmap_d / 16 * 16) && v < done * block)) << v;
      size_t fails = 0;
      for (size_t at = 0; (at = printed.find("fatal: add task fail\n", at)) != std::string::npos; ++at)
        ++fails;
      EXPECT_EQ(c.n - done, fails) << printed;
    }
}

}  // namespace
