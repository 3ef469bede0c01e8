// Pooling stage: one task per ROI, each block equal to a direct call of the
// ROI pooling operator on that box, at the right offset, nothing else written.
// ctest-labels: threaded
#include <string.h>

#include <vector>

#include "common/test_util.h"
#include "frcnn/head_stage.h"

namespace {

using ol_test::h;

const uint16_t k_poison = 0xA55A;

struct pool_case {
  uint32_t n, fmap_d, fmap_h, fmap_w, fmap_scale, pool_h, pool_w;
  bool sign;
  std::vector<uint16_t> rois;  // 4 halves per ROI
  std::vector<uint16_t> fmap;  // 16-channel blocks
};

pool_case make_case(uint32_t n, uint32_t fmap_d, bool sign, uint32_t seed) {
  pool_case pc{n, fmap_d, 19, 23, 16, 7, 7, sign, {}, {}};
  ol_test::rng r(seed);
  const uint32_t blocks = (fmap_d + 15) / 16;
  pc.fmap.resize(static_cast<size_t>(blocks) * pc.fmap_h * pc.fmap_w * 16);
  for (auto& v : pc.fmap) v = static_cast<uint16_t>(r.next());
  for (uint32_t i = 0; i < n; ++i) {
    // Some boxes reach past the map, some are inverted.
    const float x = r.uniform(-40, 380), y = r.uniform(-40, 300);
    const uint16_t b[4] = {h(x), h(y), h(x + r.uniform(-20, 200)), h(y + r.uniform(-20, 200))};
    pc.rois.insert(pc.rois.end(), b, b + 4);
  }
  return pc;
}

size_t block_elems(const pool_case& pc) {
  return static_cast<size_t>(pc.pool_h) * pc.fmap_d * pc.pool_w;
}

std::vector<uint16_t> run_stage(pool_case& pc, uint32_t threads) {
  ol::thread_pool* pool = ol::thread_pool_create(threads);
  std::vector<ol::roi_pool_task> records(pc.n + 1);
  std::vector<uint16_t> out(block_elems(pc) * (pc.n + 1), k_poison);
  ol::frcnn_roi_pool(pool, records.data(), pc.rois.data(), pc.fmap.data(), out.data(), pc.n,
                     pc.fmap_d, pc.fmap_h, pc.fmap_w, 99 /*fmap_pitch*/, pc.fmap_scale, pc.sign,
                     pc.pool_h, pc.pool_w, 77 /*pool_pitch*/);
  ol::thread_pool_destroy(pool);
  return out;
}

// The same blocks made by direct calls of the operator, one box at a time.
std::vector<uint16_t> run_direct(pool_case& pc) {
  std::vector<uint16_t> out(block_elems(pc) * (pc.n + 1), k_poison);
  for (uint32_t i = 0; i < pc.n; ++i) {
    half_float::half* box = ol_test::as_half(&pc.rois[4 * i]);
    uint16_t* dst = out.data() + i * block_elems(pc);
    auto fn = pc.sign ? roi_pooling_sign : roi_pooling;
    fn(box, pc.fmap.data(), dst, 1, static_cast<int>(pc.pool_w), static_cast<int>(pc.pool_h), 0,
       static_cast<int>(pc.fmap_scale), 0, static_cast<int>(pc.fmap_h),
       static_cast<int>(pc.fmap_w), static_cast<int>(pc.fmap_d));
  }
  return out;
}

TEST(FrcnnRoiPool, BlocksEqualDirectCallsForAnyThreadCount) {
  for (bool sign : {false, true}) {
    pool_case pc = make_case(25, 32, sign, sign ? 11 : 12);
    const std::vector<uint16_t> want = run_direct(pc);
    for (uint32_t threads : {1u, 4u}) EXPECT_EQ(want, run_stage(pc, threads)) << sign;
  }
}

TEST(FrcnnRoiPool, BlockOffsetsAndUnpooledTail) {
  // fmap_d 32, 7x7: ROI 3's block starts at 3 * 7 * 32 * 7 = 4704.
  pool_case pc = make_case(5, 32, false, 3);
  std::vector<uint16_t> out = run_stage(pc, 2);
  std::vector<uint16_t> alone(block_elems(pc), k_poison);
  roi_pooling(ol_test::as_half(&pc.rois[12]), pc.fmap.data(), alone.data(), 1, 7, 7, 0, 16, 0,
              static_cast<int>(pc.fmap_h), static_cast<int>(pc.fmap_w), 32);
  EXPECT_EQ(alone, std::vector<uint16_t>(out.begin() + 4704, out.begin() + 4704 + 1568));
  for (size_t v = 5 * 1568; v < out.size(); ++v) ASSERT_EQ(k_poison, out[v]);

  // fmap_d 40: blocks of 40 * 49 elements, the last 8 * 49 of each untouched.
  pool_case tail = make_case(4, 40, true, 4);
  out = run_stage(tail, 2);
  EXPECT_EQ(run_direct(tail), out);
  for (uint32_t i = 0; i < 4; ++i)
    for (size_t v = 32 * 49; v < 40 * 49; ++v) ASSERT_EQ(k_poison, out[i * 40 * 49 + v]);
}

TEST(FrcnnRoiPool, NoRoiNoWrite) {
  pool_case pc = make_case(0, 16, false, 5);
  for (uint16_t v : run_stage(pc, 2)) ASSERT_EQ(k_poison, v);
}

}  // namespace
