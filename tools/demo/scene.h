// The bundled frame: a synthetic scene with flat-coloured objects at known
// boxes, and the network outputs a well-trained detector would give for it,
// made deterministically (no trained network ships with the library).
//
// * Region proposals: a two-class softmax pair per anchor whose foreground
//   score rises with the anchor's overlap with the nearest object, and box
//   deltas that are the exact inverse of the proposal decode (anchor to
//   object box) plus a little noise.
// * Feature map: 16-bit, 16-channel blocks, derived from the image patch
//   under each cell.
// * Second stage (made once the ROIs are known): class probabilities
//   (softmax over class_num, background class 0) rising with each ROI's
//   overlap with an object of that class, and per-class deltas that are the
//   exact inverse of the head decode plus a little noise.
//
// All noise comes from a hash of the element's indices, so every value is
// the same on every machine and in every order of evaluation.
#ifndef OL_DEMO_SCENE_H
#define OL_DEMO_SCENE_H

#include <stdint.h>

#include <string>
#include <vector>

#include "brennik_opt_layers.h"

namespace ol_demo {

struct rgb_image {
  int width = 0;
  int height = 0;
  std::vector<uint8_t> pixels;  // rows of RGB triples
  bool empty() const { return width <= 0 || height <= 0; }
};

enum class shape_kind { box, disc, diamond, bar, ring };

// An object of the scene. cls 0 marks clutter: drawn and seen by the region
// proposal network, but belonging to no class (the second stage gives it a
// low probability), so it is not part of the ground truth.
struct scene_object {
  uint32_t cls;
  shape_kind shape;
  float x1, y1, x2, y2;  // inclusive pixel box
};

struct scene {
  int width = 0;
  int height = 0;
  std::vector<scene_object> objects;
  std::vector<std::string> class_names;  // class_num names, 0 = background
};

// A labelled box (ground truth or detection): inclusive pixel coordinates.
struct labelled_box {
  uint32_t cls;
  float x1, y1, x2, y2;
};

// IoU of two boxes with inclusive sizes (width x2 - x1 + 1).
float iou_inclusive(float ax1, float ay1, float ax2, float ay2, float bx1, float by1, float bx2,
                    float by2);

scene default_scene();
std::vector<labelled_box> ground_truth(const scene& s);
rgb_image render_scene(const scene& s);

// The configuration of the bundled frame: a VGG16-sized first stage at
// 600x1000 (38x63 cells, 9 anchors, 6000 proposals before NMS, 300 after)
// with a light feature map (64 channels) and the scene's classes.
frcnn_desc default_desc(uint8_t threads);

// The nine anchors of a stride-16 detector (ratios 0.5, 1, 2; scales 8, 16,
// 32) for the cell at the origin: x1 y1 x2 y2 per anchor.
std::vector<float> base_anchors_9();

// Number of planes of the RPN score tensor for the descriptor's score mode.
uint32_t rpn_cls_planes(const frcnn_desc& d);

// RPN score (two-class planes: background a, foreground anchor_num + a) and
// box-delta tensors, with the descriptor's pitches.
void make_rpn_outputs(const scene& s, const frcnn_desc& d, const std::vector<float>& base_anchors,
                      std::vector<uint16_t>* rpn_cls, std::vector<uint16_t>* rpn_bbox);

// The feature map, fmap_d channels in 16-channel blocks: element (c, y, x)
// at ((c/16 * fmap_h + y) * fmap_w + x) * 16 + c%16.
std::vector<uint16_t> make_feature_map(const rgb_image& img, const frcnn_desc& d);

// Second-stage outputs for roi_num ROIs (4 halves each): rcnn_cls_pitch
// probabilities and rcnn_bbox_pitch deltas per ROI.
void make_head_outputs(const scene& s, const frcnn_desc& d, const uint16_t* rois, uint32_t roi_num,
                       std::vector<uint16_t>* rcnn_cls, std::vector<uint16_t>* rcnn_bbox);

}  // namespace ol_demo

#endif
