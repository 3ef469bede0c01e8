// The pipeline driven through the library's exported interface, one
// instance handle per object: init, proposals, pooling, head, exit.
#ifndef OL_DEMO_PIPELINE_H
#define OL_DEMO_PIPELINE_H

#include <stdint.h>

#include <vector>

#include "brennik_opt_layers.h"
#include "demo/frame.h"

namespace ol_demo {

struct detection {
  uint32_t cls;
  float score;
  float x1, y1, x2, y2;
};

class pipeline {
 public:
  // opt_layers_instance_frcnn_init; throws demo_error when it fails.
  pipeline(const frcnn_desc& desc, const std::vector<float>& base_anchors);
  ~pipeline();
  pipeline(const pipeline&) = delete;
  pipeline& operator=(const pipeline&) = delete;

  // opt_layers_instance_frcnn_prenms: the proposal stage alone; returns the
  // number of proposals before NMS.
  uint32_t proposals(frame& f);
  // opt_layers_instance_frcnn_pre_nms_roi: proposals, NMS and pooling;
  // returns the number of ROIs.
  uint32_t first_stage(frame& f);
  // opt_layers_instance_frcnn_post_nms on the frame's second-stage outputs
  // for the roi_num ROIs of the last first_stage.
  void second_stage(frame& f, uint32_t roi_num);

  // The detection table of the last second_stage, class by class.
  std::vector<detection> detections() const;

  const frcnn_desc& desc() const { return desc_; }
  const uint16_t* proposal_records() const { return proposals_; }  // 5 halves each
  const std::vector<uint16_t>& rois() const { return nms_out_; }     // 4 halves each
  const std::vector<uint16_t>& roi_features() const { return roi_result_; }
  const std::vector<uint16_t>& rcnn_result() const { return rcnn_result_; }

 private:
  frcnn_desc desc_;
  void* handle_ = nullptr;
  const uint16_t* proposals_ = nullptr;
  std::vector<uint16_t> nms_out_;
  std::vector<uint16_t> roi_result_;
  std::vector<uint16_t> rcnn_result_;
};

struct frame_result {
  uint32_t proposals = 0;
  uint32_t rois = 0;
  std::vector<detection> detections;
};

// One frame end to end. A synthetic frame gets its second-stage outputs
// made for the ROIs; a loaded one must hold outputs for exactly these ROIs
// (throws demo_error naming the file otherwise).
frame_result run_frame(pipeline& p, frame& f);

// Matches detections to ground truth at an IoU threshold (inclusive box
// sizes), greedily in descending score order, same class only.
struct evaluation {
  uint32_t ground_truth = 0;
  uint32_t found = 0;       // ground-truth boxes matched
  uint32_t detections = 0;
  uint32_t true_positives = 0;
  std::vector<int> match;   // per detection: ground-truth index or -1
  float recall() const { return ground_truth ? static_cast<float>(found) / ground_truth : 1.0f; }
  float precision() const {
    return detections ? static_cast<float>(true_positives) / detections : 1.0f;
  }
};
evaluation evaluate(const std::vector<detection>& dets, const std::vector<labelled_box>& gt,
                    float iou_threshold);

}  // namespace ol_demo

#endif
