// Class suppression: the kernel against its scalar twin (full selection sort
// and greedy walk) on random inputs, the worked examples, the table layout
// and the ten-task stage.
// ctest-labels: threaded
#include <string.h>

#include <vector>

#include "common/alloc.h"
#include "common/test_util.h"
#include "frcnn/head_reference.h"
#include "frcnn/head_stage.h"

namespace {

using ol_test::f;
using ol_test::h;

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
  size_t result_size() const { return class_num + 5 * static_cast<size_t>(post_nms_num) * class_num; }
};

// Scratch block for one kernel call, deliberately misaligned.
struct scratch_block {
  std::vector<unsigned char> bytes;
  ol::class_nms_scratch s;
  explicit scratch_block(uint32_t n) : bytes(ol::class_nms_scratch_bytes(n) + 1) {
    s = ol::class_nms_scratch_at(bytes.data() + 1, n);
  }
};

std::vector<uint16_t> run_kernel(problem& p, uint32_t start, uint32_t end) {
  std::vector<uint16_t> out(p.result_size(), k_poison);
  scratch_block sb(p.n);
  ol::rcnn_class_nms(out.data(), out.data() + p.class_num, p.boxes.data(), p.scores.data(), start,
                     end, p.class_num, p.pitch, p.n, p.post_nms_num, p.no_bg, p.iou, p.cls_prob,
                     sb.s);
  return out;
}

std::vector<uint16_t> run_reference(problem& p, uint32_t start, uint32_t end) {
  std::vector<uint16_t> out(p.result_size(), k_poison);
  ol_ref::class_nms(out.data(), out.data() + p.class_num, p.boxes.data(), p.scores.data(), start,
                    end, p.class_num, p.pitch, p.n, p.post_nms_num, p.no_bg, p.iou, p.cls_prob);
  return out;
}

std::vector<uint16_t> run_stage(problem& p, uint32_t threads, uint32_t n) {
  ol::thread_pool* pool = ol::thread_pool_create(threads);
  const uint32_t block = ol::class_nms_scratch_bytes(p.post_nms_num) + 5;
  std::vector<unsigned char> scratch(10 * static_cast<size_t>(block) + 3);
  std::vector<uint16_t> out(p.result_size(), k_poison);
  ol::frcnn_rcnn_nms(pool, out.data(), p.boxes.data(), p.scores.data(), p.class_num, n, p.pitch,
                     p.post_nms_num, p.no_bg, p.iou, p.cls_prob, scratch.data() + 3, block);
  ol::thread_pool_destroy(pool);
  return out;
}

const uint16_t* record(const std::vector<uint16_t>& out, const problem& p, uint32_t c, uint32_t k) {
  return &out[p.class_num + 5 * (static_cast<size_t>(p.post_nms_num) * c + k)];
}

TEST(RcnnClassNms, EqualScoresFollowTheSelectionSort) {
  problem p(3, 2, 3);
  p.set(0, 1, 0, 0, 9, 9, 0.5f);
  p.set(1, 1, 20, 0, 29, 9, 0.5f);
  p.set(2, 1, 40, 0, 49, 9, 0.9f);
  const std::vector<uint16_t> out = run_kernel(p, 1, 2);
  EXPECT_EQ(0x4200, out[1]);  // three detections: 3.0
  const float x1[3] = {40, 20, 0};  // proposals 2, 1, 0
  for (uint32_t k = 0; k < 3; ++k) {
    EXPECT_EQ(x1[k], f(record(out, p, 1, k)[0]));
    EXPECT_EQ(h(x1[k] + 9), record(out, p, 1, k)[2]);
  }
  EXPECT_EQ(h(0.9f), record(out, p, 1, 0)[4]);
  EXPECT_EQ(out, run_reference(p, 1, 2));
}

TEST(RcnnClassNms, CoordinatesRoundTiesAwayScoresCopied) {
  problem p(1, 2, 1);
  p.set(0, 1, 1000.25f, 1000.3f, 1000.75f, 7.0f, 0.0f);
  p.scores[1] = 0x3A01;  // copied bit for bit
  const std::vector<uint16_t> out = run_kernel(p, 1, 2);
  const uint16_t* r = record(out, p, 1, 0);
  EXPECT_EQ(1000.5f, f(r[0]));
  EXPECT_EQ(1000.5f, f(r[1]));
  EXPECT_EQ(1001.0f, f(r[2]));  // 1000.75 ties away as well
  EXPECT_EQ(0x3A01, r[4]);
}

TEST(RcnnClassNms, ThresholdsAreStrict) {
  // A score equal to cls_prob is not kept.
  problem p(2, 2, 2);
  p.cls_prob = 0.5f;
  p.set(0, 1, 0, 0, 9, 9, 0.5f);
  p.set(1, 1, 50, 0, 59, 9, 0.25f);
  EXPECT_EQ(0, run_kernel(p, 1, 2)[1]);
  p.set(1, 1, 50, 0, 59, 9, 0.50048828125f);  // next half above 0.5
  EXPECT_EQ(h(1), run_kernel(p, 1, 2)[1]);

  // (0,0,9,9) and (9,0,18,9): inter 10, union 190, IoU 0.0526.
  problem q(2, 2, 2);
  q.set(0, 1, 0, 0, 9, 9, 0.9f);
  q.set(1, 1, 9, 0, 18, 9, 0.8f);
  q.iou = 0.052f;
  EXPECT_EQ(h(1), run_kernel(q, 1, 2)[1]);
  q.iou = 0.053f;
  EXPECT_EQ(h(2), run_kernel(q, 1, 2)[1]);

  // Identical boxes: IoU 1 is above 0.7 but not above 1.0.
  q.set(1, 1, 0, 0, 9, 9, 0.8f);
  q.iou = 0.7f;
  std::vector<uint16_t> out = run_kernel(q, 1, 2);
  EXPECT_EQ(h(1), out[1]);
  EXPECT_EQ(h(0.9f), record(out, q, 1, 0)[4]);
  q.iou = 1.0f;
  out = run_kernel(q, 1, 2);
  EXPECT_EQ(h(2), out[1]);
  EXPECT_EQ(h(0.8f), record(out, q, 1, 1)[4]);
}

TEST(RcnnClassNms, CountStopsAtPostNmsNum) {
  problem p(6, 2, 6);
  for (uint32_t i = 0; i < 6; ++i) p.set(i, 1, 20.0f * i, 0, 20.0f * i + 9, 9, 0.1f * (i + 1));
  p.post_nms_num = 6;
  std::vector<uint16_t> out = run_kernel(p, 1, 2);
  EXPECT_EQ(h(6), out[1]);
  // Same data, a block of 4: the kernel stops at 4 (scratch still holds 6).
  problem q = p;
  q.post_nms_num = 4;
  out = run_kernel(q, 1, 2);
  EXPECT_EQ(h(4), out[1]);
  EXPECT_EQ(out, run_reference(q, 1, 2));
}

// Random problems built to meet ties, overlaps, NaN scores and coordinates,
// negative and infinite values: every output value (and every untouched one)
// must equal the twin's.
TEST(RcnnClassNms, MatchesScalarTwin) {
  ol_test::rng r(2024);
  const float grid_scores[] = {0.0f, 0.04f, 0.05f, 0.3f, 0.5f, 0.9f, -0.0f, 1.0f};
  for (int iter = 0; iter < 300; ++iter) {
    const uint32_t n = static_cast<uint32_t>(r.range(0, iter < 250 ? 40 : 300));
    const uint32_t classes = static_cast<uint32_t>(r.range(2, 5));
    problem p(n, classes, n + static_cast<uint32_t>(r.range(0, 3)));
    if (r.next() % 4 == 0 && n > 0) p.post_nms_num = static_cast<uint32_t>(r.range(1, n));
    p.no_bg = r.next() & 1;
    const float ious[] = {0.3f, 0.5f, 0.7f, 1.0f, 0.0f, -1.0f};
    p.iou = ious[r.next() % 6];
    const float probs[] = {0.05f, 0.0f, 0.5f, -1.0f, 0.3f, 1e-7f, -INFINITY, 70000.0f};
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

TEST(FrcnnRcnnNms, TaskRanges) {
  struct expect {
    uint32_t class_num;
    uint32_t start[10], end[10];
  };
  const expect cases[] = {
      {21, {1, 3, 5, 7, 9, 11, 13, 15, 17, 19}, {3, 5, 7, 9, 11, 13, 15, 17, 19, 21}},
      {26, {1, 3, 5, 7, 9, 11, 13, 15, 17, 19}, {3, 5, 7, 9, 11, 13, 15, 17, 19, 26}},
      {81, {1, 9, 17, 25, 33, 41, 49, 57, 65, 73}, {9, 17, 25, 33, 41, 49, 57, 65, 73, 81}},
      {5, {1, 1, 1, 1, 1, 1, 1, 1, 1, 1}, {1, 1, 1, 1, 1, 1, 1, 1, 1, 5}},
      {1, {1, 1, 1, 1, 1, 1, 1, 1, 1, 1}, {1, 1, 1, 1, 1, 1, 1, 1, 1, 1}},
  };
  for (const expect& e : cases) {
    for (uint32_t t = 0; t < 10; ++t) {
      uint32_t s, en;
      ol::class_nms_task_range(e.class_num, t, &s, &en);
      EXPECT_EQ(e.start[t], s) << e.class_num << " task " << t;
      EXPECT_EQ(e.end[t], en) << e.class_num << " task " << t;
    }
  }
}

TEST(FrcnnRcnnNms, TableLayout) {
  // class_num 3, post_nms_num 4: 63 values, class 1 at 23, class 2 at 43.
  problem p(2, 3, 4);
  p.set(0, 1, 0, 0, 9, 9, 0.9f);
  p.set(1, 1, 100, 0, 109, 9, 0.8f);
  p.set(0, 2, 5, 5, 15, 15, 0.6f);
  p.set(1, 2, 5, 5, 15, 15, 0.01f);
  p.scores[0] = p.scores[p.pitch] = h(1.0f);  // background: never read
  const std::vector<uint16_t> out = run_stage(p, 3, 2);
  ASSERT_EQ(63u, out.size());
  EXPECT_EQ(0, out[0]);
  EXPECT_EQ(h(2), out[1]);
  EXPECT_EQ(h(1), out[2]);
  for (size_t v = 3; v < 23; ++v) EXPECT_EQ(k_poison, out[v]) << v;
  EXPECT_EQ(std::vector<uint16_t>({h(0), h(0), h(9), h(9), h(0.9f)}),
            std::vector<uint16_t>(out.begin() + 23, out.begin() + 28));
  EXPECT_EQ(h(100), out[28]);
  for (size_t v = 33; v < 43; ++v) EXPECT_EQ(k_poison, out[v]) << v;
  EXPECT_EQ(std::vector<uint16_t>({h(5), h(5), h(15), h(15), h(0.6f)}),
            std::vector<uint16_t>(out.begin() + 43, out.begin() + 48));
  for (size_t v = 48; v < 63; ++v) EXPECT_EQ(k_poison, out[v]) << v;
}

TEST(FrcnnRcnnNms, EdgeCounts) {
  problem p(3, 4, 3);
  for (uint32_t i = 0; i < 3; ++i)
    for (uint32_t c = 0; c < 4; ++c) p.set(i, c, 30.0f * i, 0, 30.0f * i + 9, 9, 0.9f);
  // n = 0: every count 0, no record.
  std::vector<uint16_t> out = run_stage(p, 2, 0);
  for (uint32_t c = 0; c < 4; ++c) EXPECT_EQ(0, out[c]);
  for (size_t v = 4; v < out.size(); ++v) ASSERT_EQ(k_poison, out[v]);

  // n above post_nms_num is limited to it.
  out = run_stage(p, 2, 7);
  std::vector<uint16_t> want = run_reference(p, 1, 4);
  want[0] = 0;
  EXPECT_EQ(want, out);

  // class_num 1: only value 0 is written; class_num 0: nothing.
  problem one(3, 1, 3);
  out = run_stage(one, 2, 3);
  EXPECT_EQ(0, out[0]);
  for (size_t v = 1; v < out.size(); ++v) EXPECT_EQ(k_poison, out[v]);
  problem none(3, 0, 3);
  ol::thread_pool* pool = ol::thread_pool_create(1);
  uint16_t sentinel = k_poison;
  ol::frcnn_rcnn_nms(pool, &sentinel, none.boxes.data(), none.scores.data(), 0, 3, 2, 3, false,
                     0.5f, 0.05f, nullptr, 0);
  ol::thread_pool_destroy(pool);
  EXPECT_EQ(k_poison, sentinel);
}

TEST(FrcnnRcnnNms, SameResultForAnyThreadCount) {
  ol_test::rng r(5);
  problem p(120, 21, 150);
  p.no_bg = true;
  for (uint32_t i = 0; i < p.n; ++i)
    for (uint32_t c = 1; c < p.class_num; ++c) {
      const float x = r.uniform(0, 300), y = r.uniform(0, 300);
      p.set(i, c, x, y, x + r.uniform(5, 80), y + r.uniform(5, 80),
            r.next() % 4 ? r.uniform(0, 0.05f) : r.uniform(0, 1));
    }
  const std::vector<uint16_t> one = run_stage(p, 1, p.n);
  std::vector<uint16_t> want = run_reference(p, 1, p.class_num);
  want[0] = 0;
  EXPECT_EQ(want, one);
  EXPECT_EQ(one, run_stage(p, 8, p.n));
}

}  // namespace
