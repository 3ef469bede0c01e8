// The detection head's box decode and class suppression: each kernel against
// its scalar twin in head_reference.h and worked examples (the suppression's
// shared with nms), and each stage on the pool for 1 and 8 workers.
// ctest-labels: threaded
#include <math.h>
#include <string.h>

#include <string>
#include <vector>

#include "common/test_util.h"
#include "frcnn/head_reference.h"
#include "frcnn/head_stage.h"
#include "frcnn/nms_ref.h"
#include "frcnn/rpn_stage.h"

namespace {

using ol_test::h;

// ---- box decode ------------------------------------------------------------

const uint32_t k_box_poison = 0x7FA5A5A5u;  // a NaN pattern no decode produces

std::vector<float> poisoned(size_t count) {
  return std::vector<float>(count, opt_layers_half::f32_from_bits(k_box_poison));
}

// Equal bit for bit (NaN patterns included).
bool same_bits(const std::vector<float>& a, const std::vector<float>& b) {
  return a.size() == b.size() && memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0;
}

struct proposal {
  uint16_t v[4];
};
proposal box(float x1, float y1, float x2, float y2) { return {{h(x1), h(y1), h(x2), h(y2)}}; }

// rcnn_bbox_decode on a proposal record, the factors applied when given.
int decode(const proposal& p, const std::vector<uint16_t>& deltas, float* out, uint32_t class_num,
           uint32_t share, uint32_t type, const float* scale, uint32_t no_bg, uint32_t img_h, uint32_t img_w) {
  return ol::rcnn_bbox_decode(p.v, deltas.data(), out, img_h, img_w, class_num, share, type,
                              scale ? 1 : 0, scale, no_bg);
}

// One class: zero deltas give a box one pixel wider and taller than the
// proposal; edges clip to L - 1 and to 0; NaN deltas give NaN edges, which
// clip to L - 1 (0 when L <= 1). class_num 0 writes nothing in any mode (and
// nothing wraps).
TEST(RcnnBboxDecode, WorkedExamples) {
  const uint16_t nan = 0x7E00;
  const struct { proposal p; std::vector<uint16_t> deltas; uint32_t img_h, img_w; std::vector<float> want; } cases[] = {
      {box(10, 20, 29, 59), {0, 0, 0, 0}, 1000, 1000, {10, 20, 30, 60}},
      {box(-5, 0, 699, 10), {0, 0, 0, 0}, 480, 640, {0, 0, 639, 11}},  // w = 705: x1' = -5, x2' = 700
      {box(10, 20, 29, 59), {nan, nan, nan, nan}, 480, 640, {639, 479, 639, 479}},
      {box(10, 20, 29, 59), {nan, nan, nan, nan}, 1, 0, {0, 0, 0, 0}}};
  for (const auto& c : cases) {
    std::vector<float> out(4);
    ASSERT_EQ(0, decode(c.p, c.deltas, out.data(), 1, 0, 0, nullptr, 0, c.img_h, c.img_w));
    EXPECT_EQ(c.want, out);
  }
  std::vector<float> out = poisoned(8);
  for (uint32_t mode = 0; mode < 4; ++mode)
    EXPECT_EQ(0, decode(cases[0].p, {0, 0, 0, 0}, out.data(), 0, mode & 1, 0, nullptr, mode >> 1, 600, 800));
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
// writes nothing and prints once per proposal. On 8 workers the stage takes
// its exponentials from the tables a context fills (width and height
// factors differ), the kernel calls expf.
TEST(FrcnnRcnnDecode, StageMatchesKernelForAnyThreadCount) {
  const uint32_t classes = 6, pitch = 4 * classes + 3;
  const float scale[4] = {0.1f, 0.1f, 0.2f, 0.3f};
  std::vector<float> exps(2 * ol::k_rpn_exp_entries);
  ol::rpn_exp_table_fill(exps.data(), true, scale[2]);
  ol::rpn_exp_table_fill(exps.data() + ol::k_rpn_exp_entries, true, scale[3]);
  for (const uint32_t n : {0u, 37u, 203u}) {
    ol_test::rng r(3);
    std::vector<uint16_t> nms_out, deltas(static_cast<size_t>(n) * pitch);
    for (uint32_t i = 0; i < n; ++i) {
      const float x = r.uniform(0, 600), y = r.uniform(0, 400);
      for (float v : {x, y, x + r.uniform(10, 300), y + r.uniform(10, 300)}) nms_out.push_back(h(v));
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
          const float* tables = threads == 8 ? exps.data() : nullptr;
          ol::frcnn_rcnn_decode(pool, nms_out.data(), deltas.data(), got.data(), 600, 800, classes,
                                pitch, n, share, type, true, scale, no_bg, tables,
                                tables ? tables + ol::k_rpn_exp_entries : nullptr);
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

// ---- class suppression -----------------------------------------------------

const uint16_t k_poison = 0x7D5A;  // a NaN pattern the kernel never writes

// One class-suppression problem: per proposal class_num boxes and scores.
struct problem {
  uint32_t n, class_num, pitch, post_nms_num;
  bool no_bg = false;
  float iou = 0.7f, cls_prob = 0.05f;
  std::vector<float> boxes;      // n * class_num slots of 4 floats
  std::vector<uint16_t> scores;  // n rows of pitch halves

  problem(uint32_t n_, uint32_t classes, uint32_t post)
      : n(n_), class_num(classes), pitch(classes + 2), post_nms_num(post),
        boxes(4 * static_cast<size_t>(n_) * classes, 0.0f),
        scores(static_cast<size_t>(n_) * (classes + 2), k_poison) {}
  float* slot(uint32_t i, uint32_t c) {
    return &boxes[4 * (static_cast<size_t>(i) * class_num + (no_bg ? c - 1 : c))];
  }
  void set(uint32_t i, uint32_t c, float x1, float y1, float x2, float y2, float score) {
    float* b = slot(i, c);
    b[0] = x1, b[1] = y1, b[2] = x2, b[3] = y2;
    scores[static_cast<size_t>(i) * pitch + c] = h(score);
  }
  // The table and one poisoned value past it.
  size_t result_size() const { return class_num + 5 * static_cast<size_t>(post_nms_num) * class_num + 1; }
};

// The kernel on a deliberately misaligned scratch block.
std::vector<uint16_t> run_kernel(problem& p, uint32_t start, uint32_t end) {
  std::vector<uint16_t> out(p.result_size(), k_poison);
  std::vector<unsigned char> bytes(ol::class_nms_scratch_bytes(p.n) + 1);
  ol::rcnn_class_nms(out.data(), out.data() + p.class_num, p.boxes.data(), p.scores.data(), start,
                     end, p.class_num, p.pitch, p.n, p.post_nms_num, p.no_bg, p.iou, p.cls_prob,
                     ol::class_nms_scratch_at(bytes.data() + 1, p.n));
  return out;
}

std::vector<uint16_t> run_reference(problem& p, uint32_t start, uint32_t end) {
  std::vector<uint16_t> out(p.result_size(), k_poison);
  ol_ref::class_nms(out.data(), out.data() + p.class_num, p.boxes.data(), p.scores.data(), start,
                    end, p.class_num, p.pitch, p.n, p.post_nms_num, p.no_bg, p.iou, p.cls_prob);
  return out;
}

// The stage on misaligned scratch blocks (none for class_num 0: it runs no task).
std::vector<uint16_t> run_stage(problem& p, uint32_t threads, uint32_t n) {
  ol::thread_pool* pool = ol::thread_pool_create(threads);
  const uint32_t block = ol::class_nms_scratch_bytes(p.post_nms_num) + 5;
  std::vector<unsigned char> scratch(10 * static_cast<size_t>(block) + 3);
  std::vector<uint16_t> out(p.result_size(), k_poison);
  ol::frcnn_rcnn_nms(pool, out.data(), p.boxes.data(), p.scores.data(), p.class_num, n, p.pitch,
                     p.post_nms_num, p.no_bg, p.iou, p.cls_prob, p.class_num ? scratch.data() + 3 : nullptr,
                     p.class_num ? block : 0);
  ol::thread_pool_destroy(pool);
  return out;
}

// Worked examples through both suppressions: the class kernel on class 1 of
// two (which proposals are kept, in which order; each record is the rounded
// box and the score) and nms on the same records in the given order, best
// first (how many are kept). Sizes are inclusive; only an IoU strictly above
// the threshold suppresses.
TEST(Suppression, WorkedExamplesForBothKernels) {
  struct example {
    const char* what;
    float iou, cls_prob;
    uint32_t post;
    std::vector<std::vector<float>> boxes;  // x1 y1 x2 y2 score
    std::vector<uint32_t> kept;
    int nms_kept;
  };
  const std::vector<float> a = {0, 0, 10, 10, 0.9f}, same = {0, 0, 10, 10, 0.8f};
  const std::vector<float> column = {10, 0, 20, 10, 0.8f};  // one shared column: IoU 11 / 231
  const std::vector<float> right = {11, 0, 20, 10, 0.8f}, below = {0, 11, 10, 20, 0.8f};  // w, h = 0
  const float col = 11.0f / 231.0f;
  const example cases[] = {
      {"equal scores keep the order of the selection sort", 0.7f, 0.05f, 3,
       {{0, 0, 9, 9, 0.5f}, {20, 0, 29, 9, 0.5f}, {40, 0, 49, 9, 0.9f}}, {2, 1, 0}, 3},
      {"a score equal to cls_prob is not kept", 0.7f, 0.5f, 2,
       {{0, 0, 9, 9, 0.5f}, {50, 0, 59, 9, 0.25f}}, {}, 2},
      {"the next half above cls_prob is", 0.7f, 0.5f, 2,
       {{0, 0, 9, 9, 0.5f}, {50, 0, 59, 9, 0.50048828125f}}, {1}, 2},
      // 1000.25 and 1000.3 round to 1000.5, 1000.75 (a tie as well) to 1001.
      {"coordinates round to the nearest half, ties away", 0.7f, 0.05f, 1,
       {{1000.25f, 1000.3f, 1000.75f, 7.0f, 0.75f}}, {0}, 1},
      // The scratch holds 6, the kernels stop at 4.
      {"the count stops at post_nms_num", 0.7f, 0.05f, 4,
       {{0, 0, 9, 9, 0.1f}, {20, 0, 29, 9, 0.2f}, {40, 0, 49, 9, 0.3f}, {60, 0, 69, 9, 0.4f},
        {80, 0, 89, 9, 0.5f}, {100, 0, 109, 9, 0.6f}},
       {5, 4, 3, 2}, 4},
      {"identical boxes: IoU 1 above 0.7", 0.7f, 0.05f, 2, {a, same}, {0}, 1},
      {"identical boxes: IoU 1 not above 1.0", 1.0f, 0.05f, 2, {a, same}, {0, 1}, 2},
      {"any overlap is above 0", 0.0f, 0.05f, 2, {a, column}, {0}, 1},
      {"IoU above", col - 1e-4f, 0.05f, 2, {a, column}, {0}, 1},
      {"IoU not above", col + 1e-4f, 0.05f, 2, {a, column}, {0, 1}, 2},
      {"no overlap to the right", 0.0f, 0.05f, 2, {a, right}, {0, 1}, 2},
      {"no overlap below", 0.0f, 0.05f, 2, {a, below}, {0, 1}, 2},
      // Below a negative threshold nms still keeps boxes with w or h <= 0;
      // for the class kernel their IoU, 0, is above it.
      {"negative threshold, overlap", -1.0f, 0.05f, 2, {a, column}, {0}, 1},
      {"negative threshold, to the right", -1.0f, 0.05f, 2, {a, right}, {0}, 2},
      {"negative threshold, below", -1.0f, 0.05f, 2, {a, below}, {0}, 2},
      {"a NaN threshold suppresses nothing", NAN, 0.05f, 2, {a, same}, {0, 1}, 2},
  };
  for (const example& e : cases) {
    SCOPED_TRACE(e.what);
    problem p(static_cast<uint32_t>(e.boxes.size()), 2, e.post);
    p.iou = e.iou;
    p.cls_prob = e.cls_prob;
    std::vector<uint16_t> records;
    for (uint32_t i = 0; i < p.n; ++i) {
      p.set(i, 1, e.boxes[i][0], e.boxes[i][1], e.boxes[i][2], e.boxes[i][3], e.boxes[i][4]);
      for (float v : e.boxes[i]) records.push_back(h(v));
    }
    const std::vector<uint16_t> out = run_kernel(p, 1, 2);
    std::vector<uint16_t> want(out.size(), k_poison);  // class 1's count and records
    want[1] = h(static_cast<float>(e.kept.size()));
    for (size_t k = 0; k < e.kept.size(); ++k)
      for (int j = 0; j < 5; ++j) want[2 + 5 * (e.post + k) + j] = h(e.boxes[e.kept[k]][j]);
    EXPECT_EQ(out, want);
    EXPECT_EQ(out, run_reference(p, 1, 2));
    std::vector<uint16_t> got_nms(4 * e.post, k_poison), want_nms = got_nms;
    EXPECT_EQ(e.nms_kept, nms(ol_test::as_half(got_nms), ol_test::as_half(records), p.n, e.iou, e.post));
    EXPECT_EQ(e.nms_kept, ol_ref::nms_ref(want_nms.data(), records.data(), p.n, e.iou, e.post));
    EXPECT_EQ(want_nms, got_nms);
  }
  // A count above 2048 is stored truncated: 2049 kept boxes read 2048.
  problem p(2049, 2, 2049);
  p.iou = 1.0f;
  for (uint32_t i = 0; i < p.n; ++i) p.set(i, 1, 0, 0, 9, 9, 0.5f);
  EXPECT_EQ(run_kernel(p, 1, 2)[1], 0x6800);
}

// Random problems built to meet ties, overlaps, NaN scores and coordinates,
// negative and infinite values: every output value (and every untouched one)
// must equal the twin's.
TEST(RcnnClassNms, MatchesScalarTwin) {
  ol_test::rng r(2024);
  const float grid_scores[] = {0.0f, 0.04f, 0.05f, 0.3f, 0.5f, 0.9f, -0.0f, 1.0f};
  const float ious[] = {0.3f, 0.5f, 0.7f, 1.0f, 0.0f, -1.0f};
  const float probs[] = {0.05f, 0.0f, 0.5f, -1.0f, 0.3f, 1e-7f, -INFINITY, 70000.0f};
  for (int iter = 0; iter < 300; ++iter) {
    const uint32_t n = static_cast<uint32_t>(r.range(0, iter < 250 ? 40 : 300));
    const uint32_t classes = static_cast<uint32_t>(r.range(2, 5));
    problem p(n, classes, n + static_cast<uint32_t>(r.range(0, 3)));
    if (r.next() % 4 == 0 && n > 0) p.post_nms_num = static_cast<uint32_t>(r.range(1, n));
    p.no_bg = r.next() & 1;
    p.iou = ious[r.next() % 6];
    p.cls_prob = probs[r.next() % 8];
    const bool nan_scores = r.next() % 5 == 0;
    if (r.next() % 40 == 0) p.cls_prob = NAN;
    for (uint32_t i = 0; i < n; ++i) {
      for (uint32_t c = p.no_bg ? 1 : 0; c < classes; ++c) {
        // Boxes cluster around a few centres so that many overlap.
        const float cx = 50.0f * r.range(0, 3) + r.uniform(-10, 10);
        const float cy = 40.0f * r.range(0, 2) + r.uniform(-10, 10);
        const float w = r.uniform(-3, 60), hh = r.uniform(-3, 60);
        float* b = p.slot(i, c);
        b[0] = cx - w / 2, b[1] = cy - hh / 2, b[2] = cx + w / 2, b[3] = cy + hh / 2;
        if (r.next() % 50 == 0) b[r.next() % 4] = NAN;
        if (r.next() % 80 == 0) b[r.next() % 4] = (r.next() & 1) ? INFINITY : -1e6f;
        uint16_t s = (r.next() % 3) ? h(grid_scores[r.next() % 8]) : h(r.uniform(0, 1));
        if (r.next() % 10 == 0) {  // any half, even a subnormal or infinite one
          s = static_cast<uint16_t>(r.next());
          if ((s & 0x7FFF) > 0x7C00) s &= 0xFC00;
        }
        if (nan_scores && r.next() % 8 == 0) s = (r.next() & 1) ? 0x7E00 : 0xFE01;
        p.scores[static_cast<size_t>(i) * p.pitch + c] = s;
      }
    }
    ASSERT_EQ(run_reference(p, 1, classes), run_kernel(p, 1, classes)) << "case " << iter;
  }
}

// ---- the stage ---------------------------------------------------------------

// The stage against the twin on a 26-class frame (no background set; ten
// tasks of 2 classes, the last one with 7) and at the edges: n = 0 (every
// count 0, no record), n above post_nms_num (limited to it), class_num 1
// (only value 0 is written), class_num 0 (nothing at all); 1 and 8 workers.
TEST(FrcnnRcnnNms, StageMatchesTwinForAnyThreadCount) {
  const struct { uint32_t n, given, classes, post; } cases[] = {
      {120, 120, 26, 150}, {0, 0, 4, 3}, {3, 7, 4, 3}, {3, 3, 1, 3}, {3, 3, 0, 3}};
  ol_test::rng r(5);
  for (const auto& c : cases) {
    problem p(c.n, c.classes, c.post);
    p.no_bg = c.classes == 26;
    for (uint32_t i = 0; i < p.n; ++i)
      for (uint32_t k = p.no_bg ? 1 : 0; k < p.class_num; ++k) {
        const float x = r.uniform(0, 300), y = r.uniform(0, 300);
        p.set(i, k, x, y, x + r.uniform(5, 80), y + r.uniform(5, 80),
              r.next() % 4 ? r.uniform(0, 0.05f) : r.uniform(0, 1));
      }
    std::vector<uint16_t> want = run_reference(p, 1, p.class_num);
    if (p.class_num > 0) want[0] = 0;  // the background count
    for (uint32_t threads : {1u, 8u}) EXPECT_EQ(want, run_stage(p, threads, c.given)) << c.n;
  }
}

}  // namespace
