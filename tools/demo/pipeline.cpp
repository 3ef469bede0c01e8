#include "demo/pipeline.h"

#include <algorithm>
#include <numeric>

#include "demo/error.h"

namespace ol_demo {

namespace {

half_float::half* as_half(std::vector<uint16_t>& v) {
  return reinterpret_cast<half_float::half*>(v.data());
}

using opt_layers_half::to_float;

}  // namespace

pipeline::pipeline(const frcnn_desc& desc, const std::vector<float>& base_anchors)
    : desc_(desc) {
  // init copies the record and reads the anchors once; neither is modified.
  frcnn_desc copy = desc;
  std::vector<float> anchors = base_anchors;
  handle_ = opt_layers_instance_frcnn_init(&copy, anchors.data());
  if (handle_ == nullptr) throw demo_error("opt_layers_instance_frcnn_init failed");
  nms_out_.assign(4 * static_cast<size_t>(desc.post_nms_num), 0);
  roi_result_.assign(static_cast<size_t>(desc.post_nms_num) * desc.pool_h * desc.pool_w *
                         desc.fmap_d,
                     0);
  rcnn_result_.assign(desc.class_num + 5 * static_cast<size_t>(desc.post_nms_num) *
                                           desc.class_num,
                      0);
}

pipeline::~pipeline() {
  if (handle_ != nullptr) opt_layers_instance_frcnn_exit(handle_);
}

uint32_t pipeline::proposals(frame& f) {
  half_float::half* records = nullptr;
  const int k = opt_layers_instance_frcnn_prenms(handle_, as_half(f.rpn_cls), as_half(f.rpn_bbox),
                                                 &records);
  if (k < 0) throw demo_error("opt_layers_instance_frcnn_prenms failed");
  proposals_ = reinterpret_cast<const uint16_t*>(records);
  return static_cast<uint32_t>(k);
}

uint32_t pipeline::first_stage(frame& f) {
  const int r = opt_layers_instance_frcnn_pre_nms_roi(handle_, as_half(f.rpn_cls),
                                                      as_half(f.rpn_bbox), f.fmap.data(),
                                                      roi_result_.data(), as_half(nms_out_));
  if (r < 0) throw demo_error("opt_layers_instance_frcnn_pre_nms_roi failed");
  return static_cast<uint32_t>(r);
}

void pipeline::second_stage(frame& f, uint32_t roi_num) {
  const int r = opt_layers_instance_frcnn_post_nms(handle_, as_half(f.rcnn_cls),
                                                   as_half(f.rcnn_bbox), as_half(nms_out_),
                                                   as_half(rcnn_result_), roi_num);
  if (r < 0) throw demo_error("opt_layers_instance_frcnn_post_nms failed");
}

std::vector<detection> pipeline::detections() const {
  std::vector<detection> out;
  const uint32_t C = desc_.class_num, P = desc_.post_nms_num;
  for (uint32_t c = 1; c < C; ++c) {
    const float count = to_float(rcnn_result_[c]);
    const uint32_t n = count > 0.0f ? static_cast<uint32_t>(std::min(count, float(P))) : 0u;
    for (uint32_t k = 0; k < n; ++k) {
      const uint16_t* r = &rcnn_result_[C + 5 * (static_cast<size_t>(P) * c + k)];
      out.push_back({c, to_float(r[4]), to_float(r[0]), to_float(r[1]), to_float(r[2]),
                     to_float(r[3])});
    }
  }
  return out;
}

frame_result run_frame(pipeline& p, frame& f) {
  frame_result res;
  res.proposals = p.proposals(f);
  res.rois = p.first_stage(f);
  const uint16_t* rois = p.rois().data();
  if (f.synthetic && !f.have_rcnn) complete_synthetic(&f, rois, res.rois);
  if (f.have_rois) {
    const uint32_t expected = static_cast<uint32_t>(f.rois.size() / 4);
    if (expected != res.rois)
      throw demo_error(f.source + "/rois.npy: holds " + std::to_string(expected) +
                       " ROIs but the pipeline produced " + std::to_string(res.rois));
    for (uint32_t i = 0; i < res.rois; ++i)
      if (!std::equal(rois + 4 * i, rois + 4 * i + 4, f.rois.begin() + 4 * i))
        throw demo_error(f.source + strf("/rois.npy: ROI %u is (%g, %g, %g, %g) but the "
                                         "pipeline produced (%g, %g, %g, %g)",
                                         i, to_float(f.rois[4 * i]), to_float(f.rois[4 * i + 1]),
                                         to_float(f.rois[4 * i + 2]), to_float(f.rois[4 * i + 3]),
                                         to_float(rois[4 * i]), to_float(rois[4 * i + 1]),
                                         to_float(rois[4 * i + 2]), to_float(rois[4 * i + 3])));
  }
  if (!f.have_rcnn) throw demo_error(f.source + ": no second-stage outputs");
  if (f.rcnn_rows != res.rois)
    throw demo_error(f.source + strf("/rcnn_cls.npy: holds %u ROI rows but the pipeline "
                                     "produced %u ROIs (run the second stage on those ROIs)",
                                     f.rcnn_rows, res.rois));
  if (!f.have_rois) {
    // Keep the ROIs with the outputs they belong to (for --dump).
    f.rois.assign(rois, rois + 4 * static_cast<size_t>(res.rois));
    f.have_rois = true;
  }
  p.second_stage(f, res.rois);
  res.detections = p.detections();
  return res;
}

evaluation evaluate(const std::vector<detection>& dets, const std::vector<labelled_box>& gt,
                    float iou_threshold) {
  evaluation e;
  e.ground_truth = static_cast<uint32_t>(gt.size());
  e.detections = static_cast<uint32_t>(dets.size());
  e.match.assign(dets.size(), -1);
  std::vector<size_t> order(dets.size());
  std::iota(order.begin(), order.end(), size_t{0});
  std::stable_sort(order.begin(), order.end(),
                   [&](size_t a, size_t b) { return dets[a].score > dets[b].score; });
  std::vector<bool> taken(gt.size(), false);
  for (size_t i : order) {
    const detection& d = dets[i];
    int best = -1;
    float best_iou = iou_threshold;
    for (size_t g = 0; g < gt.size(); ++g) {
      if (taken[g] || gt[g].cls != d.cls) continue;
      const float u =
          iou_inclusive(d.x1, d.y1, d.x2, d.y2, gt[g].x1, gt[g].y1, gt[g].x2, gt[g].y2);
      if (u >= best_iou) {
        best_iou = u;
        best = static_cast<int>(g);
      }
    }
    if (best >= 0) {
      taken[static_cast<size_t>(best)] = true;
      e.match[i] = best;
      ++e.true_positives;
      ++e.found;
    }
  }
  return e;
}

}  // namespace ol_demo
