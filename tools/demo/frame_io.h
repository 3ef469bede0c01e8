// The frame directory: what --input reads and --dump writes.
//
//   config.json        frcnn_desc fields by name, "base_anchors" and
//                      optionally "class_names" and "ground_truth"
//   rpn_cls.npy        float16 (P, fmap_h, rpn_cls_pitch), P = 2*anchor_num
//                      (anchor_num with is_rpn_cls_fg_only alone)
//   rpn_bbox.npy       float16 (4*anchor_num, fmap_h, fmap_pitch)
//   fmap.npy           uint16 (int16 with fmap_sign) (fmap_d/16, fmap_h,
//                      fmap_w, 16): 16-channel blocks
//   rcnn_cls.npy       float16 (R, rcnn_cls_pitch)   second stage, for the
//   rcnn_bbox.npy      float16 (R, rcnn_bbox_pitch)  R ROIs of the pipeline
//   rois.npy           float16 (R, 4), optional: the ROIs the second stage
//                      ran on (x1 y1 x2 y2); checked against the pipeline's
//   image.npy          uint8 (img_h, img_w, 3), optional: drawn under the
//                      detections
//
// The RPN tensors may carry a leading batch dimension of 1. Without the two
// rcnn files the demo runs the first stage only and writes rois.npy and
// roi_features.npy (the pooled features, (R, fmap_d/16, pool_h, pool_w, 16))
// into the directory for the application's second stage.
#ifndef OL_DEMO_FRAME_IO_H
#define OL_DEMO_FRAME_IO_H

#include <string>

#include "demo/frame.h"

namespace ol_demo {

// Reads a frame directory. Throws demo_error naming the file and the fault.
// thread_num is taken from the config when present, else default_threads.
frame load_frame_dir(const std::string& dir, uint8_t default_threads);

// Reads config.json alone into f (desc, base anchors, class names, ground
// truth). Throws demo_error naming the file and the fault.
void read_config(const std::string& path, uint8_t default_threads, frame* f);

// Checks a configuration for what the demo and the library need (sizes,
// pitches, limits); throws demo_error prefixed with `where`.
void check_desc(const frcnn_desc& d, const std::string& where);

// Writes a complete frame (second-stage outputs included) as a frame
// directory, creating it when needed. roi_features: R pooled blocks, may be
// NULL.
void dump_frame_dir(const frame& f, const std::string& dir, const uint16_t* roi_features);

// Writes rois.npy and roi_features.npy for the first-stage-only mode.
void write_first_stage(const frame& f, const std::string& dir, const uint16_t* rois,
                       uint32_t roi_num, const uint16_t* roi_features);

// The configuration as config.json text (also used to print it).
std::string config_json(const frame& f);

}  // namespace ol_demo

#endif
