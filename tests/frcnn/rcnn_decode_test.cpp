// Head box decode: the per-proposal kernel against its scalar twin and the
// worked examples, and the stage on the pool.
// ctest-labels: threaded
#include <math.h>
#include <string.h>

#include <string>
#include <vector>

#include "common/test_util.h"
#include "frcnn/head_reference.h"
#include "frcnn/head_stage.h"

namespace {

using ol_test::h;

const uint32_t k_poison = 0x7FA5A5A5u;  // a NaN pattern no decode produces

std::vector<float> poisoned(size_t count) {
  return std::vector<float>(count, opt_layers_half::f32_from_bits(k_poison));
}

// Equal bit for bit (NaN patterns included).
bool same_bits(const std::vector<float>& a, const std::vector<float>& b) {
  return a.size() == b.size() && memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0;
}

struct proposal {
  uint16_t v[4];
};
proposal box(float x1, float y1, float x2, float y2) { return {{h(x1), h(y1), h(x2), h(y2)}}; }

// rcnn_bbox_decode with the common defaults.
int decode(const proposal& p, const std::vector<uint16_t>& deltas, float* out, uint32_t class_num,
           uint32_t share = 0, uint32_t type = 0, const float* scale = nullptr, uint32_t no_bg = 0,
           uint32_t img_h = 1000, uint32_t img_w = 1000) {
  return ol::rcnn_bbox_decode(p.v, deltas.data(), out, img_h, img_w, class_num, share, type,
                              scale ? 1 : 0, scale, no_bg);
}

TEST(RcnnBboxDecode, WorkedExamples) {
  const proposal p = box(10, 20, 29, 59);
  std::vector<float> out(4);
  // Zero deltas: one pixel wider and taller than the proposal.
  ASSERT_EQ(0, decode(p, {0, 0, 0, 0}, out.data(), 1));
  EXPECT_EQ(std::vector<float>({10, 20, 30, 60}), out);

  // Clip to img_w - 1 and to 0: w = 705, x1' = -5, x2' = 700.
  decode(box(-5, 0, 699, 10), {0, 0, 0, 0}, out.data(), 1, 0, 0, nullptr, 0, 480, 640);
  EXPECT_EQ(std::vector<float>({0, 0, 639, 11}), out);

  // NaN deltas give NaN edges, which clip to L - 1 (0 when L <= 1).
  const uint16_t nan = 0x7E00;
  decode(p, {nan, nan, nan, nan}, out.data(), 1, 0, 0, nullptr, 0, 480, 640);
  EXPECT_EQ(std::vector<float>({639, 479, 639, 479}), out);
  decode(p, {nan, nan, nan, nan}, out.data(), 1, 0, 0, nullptr, 0, 1, 0);
  EXPECT_EQ(std::vector<float>({0, 0, 0, 0}), out);

  // class_num 0 writes nothing in any mode (and nothing wraps).
  out = poisoned(8);
  for (uint32_t mode = 0; mode < 4; ++mode)
    EXPECT_EQ(0, decode(p, {0, 0, 0, 0}, out.data(), 0, mode & 1, 0, nullptr, mode >> 1));
  EXPECT_TRUE(same_bits(poisoned(8), out));
}

// Random proposals, deltas (with NaN, infinities, signed zeros, subnormals
// and large values), factors, image sizes and every mode (unsupported types
// and one class without a background set included) against the twin, bit
// for bit, slots the mode leaves unwritten included, and the message of a
// refused type. A shared location gets a row of exactly four deltas (it
// reads no more).
TEST(RcnnBboxDecode, MatchesScalarTwin) {
  ol_test::rng r(42);
  const uint16_t specials[] = {0x7E00, 0x7C00, 0xFC00, 0x8000, 0x0001, 0x4B00 /*14*/, 0xCB00};
  for (int iter = 0; iter < 400; ++iter) {
    const uint32_t classes = static_cast<uint32_t>(r.range(1, 9));
    const uint32_t share = r.next() & 1, no_bg = r.next() & 1;
    const uint32_t type = r.next() % 8 ? r.next() & 1 : 2 + r.next() % 6;
    const uint32_t img_w = static_cast<uint32_t>(r.range(1, 1200));
    const uint32_t img_h = static_cast<uint32_t>(r.range(1, 1200));
    float x1 = r.uniform(-50, 1000), y1 = r.uniform(-50, 1000);
    const proposal p = box(x1, y1, x1 + r.uniform(-5, 400), y1 + r.uniform(-5, 400));
    std::vector<uint16_t> deltas(share ? 4 : 4 * classes);
    for (auto& d : deltas)
      d = (r.next() % 20 == 0) ? specials[r.next() % 7] : h(r.uniform(-3.0f, 3.0f));
    float scale[4] = {r.uniform(0, 1), r.uniform(0, 1), r.uniform(0, 1), r.uniform(0, 1)};
    const float* sp = (r.next() & 1) ? scale : nullptr;

    std::vector<float> got = poisoned(4 * classes), want = poisoned(4 * classes);
    int rc = 0;
    const std::string text = ol_test::printed(
        [&] { rc = decode(p, deltas, got.data(), classes, share, type, sp, no_bg, img_h, img_w); });
    const int rc_ref = ol_ref::bbox_decode(p.v, deltas.data(), want.data(), img_h, img_w, classes,
                                           share, type, sp, no_bg);
    ASSERT_EQ(rc_ref, rc);
    EXPECT_EQ(rc ? ol_test::format("Unsupported bbox type: %u\n", type) : "", text);
    ASSERT_TRUE(same_bits(want, got)) << "case " << iter;
  }
}

// ---- the stage on the pool -------------------------------------------------

// Every mode, 1 and 8 workers, no proposal, fewer proposals than tasks and
// more (uneven runs): each proposal's slots equal a direct call of the
// kernel, and the slots of proposals n .. n+2 stay untouched. A bad type
// writes nothing and prints once per proposal.
TEST(FrcnnRcnnDecode, StageMatchesKernelForAnyThreadCount) {
  const uint32_t classes = 6, pitch = 4 * classes + 3;
  const float scale[4] = {0.1f, 0.1f, 0.2f, 0.2f};
  for (const uint32_t n : {0u, 37u, 203u}) {
    ol_test::rng r(3);
    std::vector<uint16_t> nms_out, deltas(static_cast<size_t>(n) * pitch);
    for (uint32_t i = 0; i < n; ++i) {
      const float x = r.uniform(0, 600), y = r.uniform(0, 400);
      const proposal p = box(x, y, x + r.uniform(10, 300), y + r.uniform(10, 300));
      nms_out.insert(nms_out.end(), p.v, p.v + 4);
    }
    for (auto& d : deltas) d = h(r.uniform(-1, 1));
    for (int mode = 0; mode < 4; ++mode) {
      const bool share = mode & 1, no_bg = mode & 2;
      std::vector<float> want = poisoned(4 * (n + 3) * classes);
      for (uint32_t i = 0; i < n; ++i)
        ol::rcnn_bbox_decode(&nms_out[4 * i], &deltas[i * pitch], &want[4 * i * classes], 600, 800,
                             classes, share, 1, 1, scale, no_bg);
      for (uint32_t threads : {1u, 8u, 2u}) {
        const uint32_t type = threads == 2 ? 2 : 1;  // 2: not a type
        ol::thread_pool* pool = ol::thread_pool_create(threads);
        std::vector<float> got = poisoned(want.size());
        const std::string text = ol_test::printed([&] {
          ol::frcnn_rcnn_decode(pool, nms_out.data(), deltas.data(), got.data(), 600, 800, classes,
                                pitch, n, share, type, true, scale, no_bg);
        });
        ol::thread_pool_destroy(pool);
        std::string lines;
        for (uint32_t i = 0; type == 2 && i < n; ++i) lines += "Unsupported bbox type: 2\n";
        EXPECT_EQ(lines, text);
        ASSERT_TRUE(same_bits(type == 2 ? poisoned(want.size()) : want, got))
            << "n " << n << " mode " << mode << " threads " << threads;
      }
    }
  }
}

}  // namespace
