// Fuzz target of the whole pipeline: a descriptor with every field drawn
// from the input (zero sizes, 32-bit products that overflow, class_num 0,
// pitches below the widths, any bbox_type, any flags), base anchors and
// tensors sized from it, then init -> prenms -> prenms_nms -> pre_nms_roi ->
// post_nms -> exit on an instance handle and on the process-wide context.
//
// Caller arrays are sized exactly to what the library may read or write, so
// AddressSanitizer reports any access past them. The two forms run with
// different worker counts and must give identical results. Allocations of
// the library go through a hook that refuses very large buffers (init must
// then fail cleanly) so that a run stays small.
#include <algorithm>
#include <atomic>
#include <vector>

#include "common/alloc.h"
#include "frcnn/context.h"
#include "fuzz_util.h"

using namespace ol_fuzz;

namespace {

constexpr uint64_t k_max_alloc = 48ull << 20;    // largest buffer let through
constexpr uint64_t k_max_total = 160ull << 20;   // per init or frame series
constexpr uint64_t k_max_count = 150000;         // allocations per series
constexpr uint64_t k_max_elems = 4ull << 20;     // elements of a caller array
constexpr uint64_t k_max_positions = 1ull << 16; // N for running frames
constexpr uint64_t k_live_rows = 600;             // head rows whose scores stay as drawn
constexpr uint64_t k_max_pool_reads = 1ull << 28; // ROIs x map elements for pooling

std::atomic<uint64_t> g_bytes{0}, g_count{0};

bool budget_hook(size_t bytes, void*) {
  if (bytes > k_max_alloc) return false;
  if (g_count.fetch_add(1) >= k_max_count) return false;
  return g_bytes.fetch_add(bytes) + bytes <= k_max_total;
}

void reset_budget() { g_bytes = g_count = 0; }

frcnn_desc draw_desc(FuzzedDataProvider& in) {
  frcnn_desc d;
  memset(&d, 0, sizeof d);
  const uint8_t t = in.ConsumeIntegral<uint8_t>();
  d.thread_num = t < 240 ? 1 + t % 4 : in.ConsumeIntegral<uint8_t>();
  uint8_t flags[3];
  for (uint8_t& f : flags) f = in.ConsumeIntegral<uint8_t>();
  memcpy(reinterpret_cast<uint8_t*>(&d) + 1, flags, 3);
  // The histogram path sets up 64 Ki-bucket tables at init, which would
  // dominate the run time: one input in sixteen takes it.
  d.is_use_qsort = (in.ConsumeIntegral<uint8_t>() & 15) != 0;
  // One input in sixteen draws frame-sized maps and counts; the others stay
  // small, which keeps a run fast (the edge values of draw_size still come).
  const bool large = (in.ConsumeIntegral<uint8_t>() & 15) == 0;
  d.anchor_num = draw_size(in, large ? 12 : 9);
  d.pre_nms_num = draw_size(in, large ? 3000 : 400);
  d.post_nms_num = draw_size(in, large ? 600 : 64);
  d.class_num = draw_size(in, 25);
  d.img_h = draw_size(in, 2000);
  d.img_w = draw_size(in, 2000);
  d.fmap_scale = draw_size(in, 33);
  d.fmap_d = draw_size(in, large ? 64 : 32);
  d.fmap_h = draw_size(in, large ? 40 : 16);
  d.fmap_w = draw_size(in, large ? 40 : 16);
  // Pitches: mostly the width plus a little padding, sometimes below it.
  auto pitch = [&in](uint32_t width) {
    const uint8_t k = in.ConsumeIntegral<uint8_t>();
    if (k < 192) return width + k % 4;
    if (k < 240) return width - std::min<uint32_t>(width, k % 8);
    return draw_size(in, 64);
  };
  d.fmap_pitch = pitch(d.fmap_w);
  d.rpn_bbox_pitch = in.ConsumeIntegral<uint32_t>();
  d.rpn_cls_pitch = pitch(d.fmap_w);
  d.min_size = draw_size(in, 64);
  d.pool_h = draw_size(in, 8);
  d.pool_w = draw_size(in, 8);
  d.pool_pitch = in.ConsumeIntegral<uint32_t>();
  d.rcnn_bbox_pitch = pitch(4 * d.class_num);
  d.rcnn_cls_pitch = pitch(d.class_num);
  for (float* v : {&d.pre_nms_iou, &d.post_nms_iou, &d.cls_prob}) *v = draw_float(in, 0.0f, 1.0f);
  d.rpn_cls_threshold = draw_float(in, -1.0f, 1.0f);
  const uint8_t bt = in.ConsumeIntegral<uint8_t>();
  d.bbox_type = bt < 240 ? bt % 2 : in.ConsumeIntegral<uint32_t>();
  auto& s = d.bbox_scale_factor;
  for (float* v : {&s.center_x, &s.center_y, &s.width, &s.height}) *v = draw_float(in, 0.0f, 20.0f);
  return d;
}

uint64_t mul(uint64_t a, uint64_t b) {
  uint64_t r;
  return __builtin_mul_overflow(a, b, &r) ? UINT64_MAX : r;
}

// Everything a frame series needs, sized from the descriptor.
struct frame_inputs {
  bool runnable = false;     // sizes within the budget
  bool can_pool = false;     // fmap and roi_result within the budget
  uint32_t post_rows = 0;    // rows of the head arrays
  uint32_t roi_num = 0;      // 0: use the NMS count
  int null_case = 0;         // which argument to pass as NULL (0: none)
  uint64_t cls_n = 0, bbox_n = 0, fmap_n = 0, roi_n = 0, nms_n = 0;
  uint64_t rcls_n = 0, rbbox_n = 0, result_n = 0;
};

frame_inputs plan_frames(const frcnn_desc& d, FuzzedDataProvider& in) {
  frame_inputs p;
  const uint64_t A = d.anchor_num, H = d.fmap_h, W = d.fmap_w;
  const uint64_t N = mul(mul(A, H), W);
  // Rows are scanned even when they are empty (W = 0): bound the rows too.
  if (N > k_max_positions || mul(A, H) > k_max_positions || A > 4096) return p;
  const uint64_t planes = (d.is_rpn_cls_fg_minus_bg || !d.is_rpn_cls_fg_only) ? 2 * A : A;
  p.cls_n = pitched_extent(mul(planes, H), d.rpn_cls_pitch, W);
  p.bbox_n = pitched_extent(mul(4 * A, H), d.fmap_pitch, W);
  const uint32_t max_rois = std::min<uint32_t>(d.post_nms_num, 32767);
  // post_nms may be given more ROIs than NMS returned (up to post_nms_num).
  // The class NMS is quadratic in them: up to 600, thousands one time in 64.
  const uint8_t r = in.ConsumeIntegral<uint8_t>();
  const uint32_t roi_cap = r < 252 ? 600 : 40000;
  p.roi_num = r < 200 ? 0 : in.ConsumeIntegralInRange<uint32_t>(0, std::min(d.post_nms_num, roi_cap) + 5);
  p.post_rows = std::max(max_rois, std::min(p.roi_num, d.post_nms_num));
  p.nms_n = 4ull * p.post_rows;
  const uint64_t C = d.class_num == 0 ? 0 : (d.is_no_rcnn_bg_bbox ? d.class_num - 1 : d.class_num);
  // One shared delta set is read whenever there is a class (also when
  // is_no_rcnn_bg_bbox leaves class_num - 1 = 0 slots).
  const uint64_t bbox_reads = d.rcnn_bbox_share_location ? (d.class_num > 0 ? 4 : 0) : 4 * C;
  p.rcls_n = pitched_extent(p.post_rows, d.rcnn_cls_pitch, d.class_num);
  p.rbbox_n = pitched_extent(p.post_rows, d.rcnn_bbox_pitch, bbox_reads);
  p.result_n = d.class_num + mul(mul(5, d.post_nms_num), d.class_num);
  for (uint64_t n : {p.cls_n, p.bbox_n, p.nms_n, p.rcls_n, p.rbbox_n, p.result_n})
    if (n > k_max_elems) return p;
  p.runnable = true;
  // Pooling: whole 16-channel blocks, arguments taken as int by the stage.
  const uint64_t blocks = d.fmap_d <= 0x7FFFFFFFu ? d.fmap_d / 16 : 0;
  const uint64_t ph = d.pool_h <= 0x7FFFFFFFu ? d.pool_h : 0;
  const uint64_t pw = d.pool_w <= 0x7FFFFFFFu ? d.pool_w : 0;
  p.fmap_n = mul(mul(mul(blocks, H), W), 16);
  // roi_result holds pool_h * pool_w * fmap_d elements per ROI (the stage
  // steps by that; the operator fills the whole 16-channel blocks of it).
  p.roi_n = blocks == 0 ? 0 : mul(mul(mul(ph, pw), d.fmap_d), max_rois);
  // Each ROI may cover the whole map: thousands of ROIs over a map of
  // millions of elements would take many minutes under the sanitizers.
  p.can_pool = p.fmap_n <= k_max_elems && p.roi_n <= k_max_elems &&
               mul(p.fmap_n, max_rois) <= k_max_pool_reads;
  const uint8_t nc = in.ConsumeIntegral<uint8_t>();
  p.null_case = nc < 240 ? 0 : 1 + nc % 8;
  return p;
}

struct frame_outputs {
  int k = 0, r = 0, r2 = 0, post = 0;
  std::vector<uint16_t> proposals;
  buffer<uint16_t> nms_out, roi_result, rcnn_result;
  frame_outputs(const frame_inputs& p)
      : nms_out(p.nms_n), roi_result(p.can_pool ? p.roi_n : 0),
        rcnn_result(p.result_n) {}
};

struct frame_data {
  buffer<uint16_t> cls, bbox, fmap, nms_seed, rcls, rbbox;
  frame_data(const frame_inputs& p, uint32_t rcnn_cls_pitch, FuzzedDataProvider& in, uint64_t seed)
      : cls(p.cls_n), bbox(p.bbox_n), fmap(p.can_pool ? p.fmap_n : 0), nms_seed(p.nms_n),
        rcls(p.rcls_n), rbbox(p.rbbox_n) {
    filler f(seed);
    const size_t direct = in.ConsumeIntegralInRange<size_t>(0, 64);
    fill_halves(cls, in, direct, f, 8.0f);
    fill_halves(bbox, in, direct, f, 2.0f);
    fill_bits(fmap, f);
    fill_halves(nms_seed, in, direct, f, 1000.0f);
    fill_halves(rcls, in, direct, f, 1.0f);
    // The class suppression is quadratic in the ROIs that take part in it:
    // those scored above cls_prob, or all of them when a score is NaN. In the
    // rare inputs with thousands of ROIs only the first rows take part (past
    // them the scores are -inf, at or below any cls_prob but NaN, which the
    // caller rules out for them, and no score is NaN), so that such an input
    // runs in a second rather than many minutes; the scans and clamps over
    // all the ROIs still run.
    const size_t live = k_live_rows * rcnn_cls_pitch;
    if (rcls.size() > live) {
      for (size_t i = 0; i < live; ++i)
        if ((rcls[i] & 0x7FFF) > 0x7C00) rcls[i] = 0x3800;
      for (size_t i = live; i < rcls.size(); ++i) rcls[i] = 0xFC00;
    }
    fill_halves(rbbox, in, direct, f, 2.0f);
  }
};

// Calls the instance form of an entry point on `handle`, or the process-wide
// form when the handle is NULL.
template <class G, class I, class... A>
int call(void* handle, G global_form, I instance_form, A... args) {
  return handle == nullptr ? global_form(args...) : instance_form(handle, args...);
}

// One frame series on one context (handle, or NULL for the global forms).
void run_frames(void* handle, const frcnn_desc& d, const frame_inputs& p, frame_data& in,
                frame_outputs& out) {
  half_float::half* cls = p.null_case == 1 ? nullptr : in.cls.half();
  half_float::half* bbox = p.null_case == 2 ? nullptr : in.bbox.half();
  half_float::half* props = nullptr;
  out.k = call(handle, opt_layers_frcnn_prenms, opt_layers_instance_frcnn_prenms, cls, bbox, &props);
  OL_FUZZ_CHECK(out.k >= -1 && (out.k < 0 || static_cast<uint32_t>(out.k) <= d.pre_nms_num));
  if (out.k > 0) {
    OL_FUZZ_CHECK(props != nullptr);
    // The records lie inside the context's detections buffer.
    const uint16_t* p16 = reinterpret_cast<const uint16_t*>(props);
    out.proposals.assign(p16, p16 + 5ull * out.k);
  }
  const int max_rois = static_cast<int>(std::min<uint32_t>(d.post_nms_num, 32767));
  memcpy(out.nms_out.data(), in.nms_seed.data(), in.nms_seed.size() * 2);
  half_float::half* nms = p.null_case == 3 ? nullptr : out.nms_out.half();
  out.r = call(handle, opt_layers_frcnn_prenms_nms, opt_layers_instance_frcnn_prenms_nms, cls, bbox, nms);
  OL_FUZZ_CHECK(out.r >= -1 && out.r <= max_rois);
  if (out.k >= 0 && nms != nullptr) OL_FUZZ_CHECK(out.r >= 0 && out.r <= out.k);
  if (p.can_pool) {
    uint16_t* fmap = p.null_case == 4 ? nullptr : in.fmap.data();
    out.roi_result.fill_bytes(0xA5);
    // A NULL map is only passed when no ROI can be pooled from it.
    if (fmap == nullptr && out.r > 0) fmap = in.fmap.data();
    out.r2 = call(handle, opt_layers_frcnn_pre_nms_roi, opt_layers_instance_frcnn_pre_nms_roi, cls,
                  bbox, fmap, out.roi_result.data(), nms);
    OL_FUZZ_CHECK(out.r2 == out.r);
  }
  const uint32_t roi_num = p.roi_num ? p.roi_num : static_cast<uint32_t>(out.r < 0 ? 0 : out.r);
  out.rcnn_result.fill_bytes(0x5A);
  half_float::half* rcls = p.null_case == 5 ? nullptr : in.rcls.half();
  half_float::half* rbbox = p.null_case == 6 ? nullptr : in.rbbox.half();
  half_float::half* result = p.null_case == 7 ? nullptr : out.rcnn_result.half();
  out.post = call(handle, opt_layers_frcnn_post_nms, opt_layers_instance_frcnn_post_nms, rcls, rbbox,
                  nms, result, roi_num);
  OL_FUZZ_CHECK(out.post == (p.null_case >= 3 && p.null_case <= 7 && p.null_case != 4 ? -1 : 0));
  // Class counts never exceed the ROIs given (nor post_nms_num).
  if (out.post == 0)
    for (uint32_t c = 1; c < d.class_num; ++c) {
      const float n = opt_layers_half::to_float(out.rcnn_result[c]);
      OL_FUZZ_CHECK(n >= 0.0f && n <= static_cast<float>(std::min(roi_num, d.post_nms_num)));
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  silence_stdout();
  static ol::alloc_hooks hooks{budget_hook, nullptr};
  ol::set_alloc_hooks(&hooks);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  frcnn_desc d = draw_desc(in);

  // Base anchors: the library reads anchor_num records when it generates
  // anchors. Large counts only go with maps whose anchor buffer is refused
  // or empty, so the table stays small.
  const uint64_t N = mul(mul(d.anchor_num, d.fmap_h), d.fmap_w);
  if (d.anchor_num > 1024 && N > 0 && mul(N, 16) <= 0xFFFFFFFFull && d.anchor_num <= 0x7FFFFFFFu)
    d.anchor_num %= 1025;
  // A NaN cls_prob keeps every score, so no head row can be left out of the
  // quadratic class suppression: it only comes with few rows.
  if (d.cls_prob != d.cls_prob && d.post_nms_num > k_live_rows) d.cls_prob = -__builtin_inff();
  const frcnn_desc original = d;
  buffer<float> base(4ull * std::min<uint32_t>(d.anchor_num, 1024));
  filler f(size);
  fill_floats(base, in, 16, f, 300.0f);
  const frame_inputs plan = plan_frames(d, in);

  reset_budget();
  void* h = opt_layers_instance_frcnn_init(&d, base.data());
  OL_FUZZ_CHECK(memcmp(&d, &original, sizeof d) == 0);  // the caller's record is never written
  if (h == nullptr) {
    OL_FUZZ_CHECK(ol::global_context() == nullptr);
    return 0;
  }
  if (!plan.runnable) {
    opt_layers_instance_frcnn_exit(h);
    return 0;
  }
  frame_data inputs(plan, d.rcnn_cls_pitch, in, size);
  frame_outputs a(plan);
  reset_budget();
  run_frames(h, d, plan, inputs, a);
  opt_layers_instance_frcnn_exit(h);

  // The same frames on the process-wide context with another worker count.
  frcnn_desc g = d;
  if (g.thread_num >= 1 && g.thread_num <= 4) g.thread_num = 1 + g.thread_num % 4;
  reset_budget();
  if (opt_layers_frcnn_init(&g, base.data()) != 0) return 0;
  frame_outputs b(plan);
  reset_budget();
  run_frames(nullptr, g, plan, inputs, b);
  opt_layers_frcnn_exit();
  OL_FUZZ_CHECK(ol::global_context() == nullptr);

  OL_FUZZ_CHECK(a.k == b.k && a.r == b.r && a.r2 == b.r2 && a.post == b.post);
  OL_FUZZ_CHECK(a.proposals == b.proposals);
  OL_FUZZ_CHECK(a.nms_out.equals(b.nms_out));
  OL_FUZZ_CHECK(a.roi_result.equals(b.roi_result));
  OL_FUZZ_CHECK(a.rcnn_result.equals(b.rcnn_result));
  return 0;
}
