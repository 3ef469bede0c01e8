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

void expect_poisoned(const float* v, size_t count) {
  for (size_t i = 0; i < count; ++i) EXPECT_EQ(k_poison, opt_layers_half::f32_bits(v[i])) << i;
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
  expect_poisoned(out.data(), 8);
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
    ASSERT_EQ(0, memcmp(want.data(), got.data(), 4 * classes * sizeof(float))) << "case " << iter;
  }
}

// ---- the stage on the pool -------------------------------------------------

struct decode_frame {
  uint32_t n, classes, pitch;
  std::vector<uint16_t> nms_out, deltas;
};

decode_frame make_frame(uint32_t n, uint32_t classes, uint32_t seed) {
  decode_frame fr{n, classes, 4 * classes + 3, {}, {}};
  ol_test::rng r(seed);
  for (uint32_t i = 0; i < n; ++i) {
    const float x = r.uniform(0, 600), y = r.uniform(0, 400);
    const proposal p = box(x, y, x + r.uniform(10, 300), y + r.uniform(10, 300));
    fr.nms_out.insert(fr.nms_out.end(), p.v, p.v + 4);
  }
  fr.deltas.resize(static_cast<size_t>(n) * fr.pitch);
  for (auto& d : fr.deltas) d = h(r.uniform(-1, 1));
  return fr;
}

const float k_scale[4] = {0.1f, 0.1f, 0.2f, 0.2f};

// The stage on a pool of `threads`, with room for `capacity` proposals.
std::vector<float> run_stage(uint32_t threads, const decode_frame& fr, uint32_t capacity,
                             bool share, uint32_t type, bool no_bg, std::string* printed) {
  ol::thread_pool* pool = ol::thread_pool_create(threads);
  std::vector<float> boxes = poisoned(4 * static_cast<size_t>(capacity) * fr.classes);
  ol_test::stdout_capture cap;
  ol::frcnn_rcnn_decode(pool, fr.nms_out.data(), fr.deltas.data(), boxes.data(),
                        600, 800, fr.classes, fr.pitch, fr.n, share, type, true, k_scale, no_bg);
  *printed = cap.end();
  ol::thread_pool_destroy(pool);
  return boxes;
}

// Every mode, 1 and 8 workers, fewer proposals than tasks and more (uneven
// runs): each proposal's slots equal a direct call of the kernel, and the
// slots of proposals n .. capacity-1 stay untouched.
// No proposal or a bad type writes nothing; the bad type prints once per
// proposal.
TEST(FrcnnRcnnDecode, StageMatchesKernelForAnyThreadCount) {
  std::string printed;
  for (const uint32_t n : {37u, 203u}) {
    decode_frame fr = make_frame(n, 6, 3);
    const uint32_t capacity = n + 3;
    for (int mode = 0; mode < 4; ++mode) {
      const bool share = mode & 1, no_bg = mode & 2;
      std::vector<float> want = poisoned(4 * capacity * fr.classes);
      for (uint32_t i = 0; i < fr.n; ++i)
        ol::rcnn_bbox_decode(&fr.nms_out[4 * i], &fr.deltas[i * fr.pitch], &want[4 * i * fr.classes],
                             600, 800, fr.classes, share, 1, 1, k_scale, no_bg);
      for (uint32_t threads : {1u, 8u}) {
        const std::vector<float> got = run_stage(threads, fr, capacity, share, 1, no_bg, &printed);
        ASSERT_EQ(0, memcmp(want.data(), got.data(), want.size() * sizeof(float)))
            << "mode " << mode << " threads " << threads;
        EXPECT_EQ("", printed);
      }
      std::vector<float> got = run_stage(2, fr, capacity, share, 2, no_bg, &printed);
      expect_poisoned(got.data(), got.size());
      std::string line = "Unsupported bbox type: 2\n", lines;
      for (uint32_t i = 0; i < fr.n; ++i) lines += line;
      EXPECT_EQ(lines, printed);
    }
  }
  decode_frame fr = make_frame(4, 6, 3);
  fr.n = 0;
  const std::vector<float> got = run_stage(2, fr, 5, false, 0, false, &printed);
  expect_poisoned(got.data(), got.size());
  EXPECT_EQ("", printed);
}

}  // namespace
