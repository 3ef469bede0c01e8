// One frame of pipeline input: the configuration, the base anchors, the
// region-proposal tensors, the feature map and (once the ROIs are known) the
// second stage's outputs, plus what the demo needs to judge and draw the
// result. Loaded from a directory (frame_io.h) or made from the bundled
// synthetic scene (scene.h).
#ifndef OL_DEMO_FRAME_H
#define OL_DEMO_FRAME_H

#include <stdint.h>

#include <string>
#include <vector>

#include "brennik_opt_layers.h"
#include "demo/scene.h"

namespace ol_demo {

struct frame {
  std::string source;  // "bundled synthetic scene" or the input directory
  frcnn_desc desc{};
  std::vector<float> base_anchors;  // anchor_num * 4
  std::vector<uint16_t> rpn_cls;    // half patterns, rpn_cls_planes(desc) planes
  std::vector<uint16_t> rpn_bbox;   // half patterns, 4 * anchor_num planes
  std::vector<uint16_t> fmap;       // 16-channel blocks

  // Second stage: rcnn_rows rows of rcnn_cls_pitch / rcnn_bbox_pitch halves.
  bool have_rcnn = false;
  uint32_t rcnn_rows = 0;
  std::vector<uint16_t> rcnn_cls;
  std::vector<uint16_t> rcnn_bbox;

  // The ROIs the second stage was run on (4 halves each), when known in
  // advance: the pipeline's own ROIs must match them.
  bool have_rois = false;
  std::vector<uint16_t> rois;

  std::vector<std::string> class_names;  // empty, or class_num names
  bool have_ground_truth = false;
  std::vector<labelled_box> ground_truth;
  rgb_image image;  // may be empty

  // The bundled frame keeps its scene: the second stage's outputs are made
  // from it once the pipeline has produced the ROIs.
  bool synthetic = false;
  scene synthetic_scene;
};

// The bundled frame, without second-stage outputs (see complete_synthetic).
frame make_bundled_frame(uint8_t threads);

// Fills the second-stage outputs of a synthetic frame for the given ROIs.
void complete_synthetic(frame* f, const uint16_t* rois, uint32_t roi_num);

// Name of class c ("class 7" when the frame has no names).
std::string class_name(const frame& f, uint32_t c);

}  // namespace ol_demo

#endif
