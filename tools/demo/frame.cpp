#include "demo/frame.h"

namespace ol_demo {

frame make_bundled_frame(uint8_t threads) {
  frame f;
  f.source = "bundled synthetic scene";
  f.synthetic = true;
  f.synthetic_scene = default_scene();
  f.desc = default_desc(threads);
  f.base_anchors = base_anchors_9();
  f.image = render_scene(f.synthetic_scene);
  make_rpn_outputs(f.synthetic_scene, f.desc, f.base_anchors, &f.rpn_cls, &f.rpn_bbox);
  f.fmap = make_feature_map(f.image, f.desc);
  f.class_names = f.synthetic_scene.class_names;
  f.ground_truth = ground_truth(f.synthetic_scene);
  f.have_ground_truth = true;
  return f;
}

void complete_synthetic(frame* f, const uint16_t* rois, uint32_t roi_num) {
  make_head_outputs(f->synthetic_scene, f->desc, rois, roi_num, &f->rcnn_cls, &f->rcnn_bbox);
  f->rcnn_rows = roi_num;
  f->have_rcnn = true;
  f->rois.assign(rois, rois + 4 * static_cast<size_t>(roi_num));
  f->have_rois = true;
}

std::string class_name(const frame& f, uint32_t c) {
  if (c < f.class_names.size()) return f.class_names[c];
  return "class " + std::to_string(c);
}

}  // namespace ol_demo
