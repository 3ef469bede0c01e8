// Minimal use of the pipeline: init, one frame of (blank) network outputs,
// exit. Prints the version and the counts.
#include <brennik_opt_layers.h>
#include <stdio.h>

#include <vector>

int main() {
  opt_layers_version v;
  if (opt_layers_get_version(&v) != 0) return 1;
  printf("%s %u.%u.%u\n", v.description, v.major, v.minor, v.patch);

  frcnn_desc d = {};
  d.thread_num = 2;
  d.anchor_num = 1;
  d.pre_nms_num = 100;
  d.post_nms_num = 10;
  d.class_num = 3;
  d.img_h = 160;
  d.img_w = 160;
  d.fmap_scale = 16;
  d.fmap_d = 16;
  d.fmap_h = 10;
  d.fmap_w = 10;
  d.fmap_pitch = 10;
  d.rpn_cls_pitch = 10;
  d.pool_h = 2;
  d.pool_w = 2;
  d.rcnn_cls_pitch = 3;
  d.rcnn_bbox_pitch = 12;
  d.pre_nms_iou = 0.7f;
  d.post_nms_iou = 0.3f;
  d.cls_prob = 0.5f;
  float base_anchors[4] = {0, 0, 31, 31};
  void* h = opt_layers_instance_frcnn_init(&d, base_anchors);
  if (h == nullptr) return 1;

  // Zero-filled halves are valid inputs (all scores 0, all deltas 0).
  std::vector<half_float::half> rpn_cls(2 * 10 * 10), rpn_bbox(4 * 10 * 10), nms_out(4 * 10);
  std::vector<unsigned short> fmap(16 * 10 * 10), pooled(10 * 2 * 2 * 16);
  const int rois = opt_layers_instance_frcnn_pre_nms_roi(h, rpn_cls.data(), rpn_bbox.data(),
                                                         fmap.data(), pooled.data(), nms_out.data());
  std::vector<half_float::half> rcnn_cls(10 * 3), rcnn_bbox(10 * 12), result(3 + 5 * 10 * 3);
  const int post = opt_layers_instance_frcnn_post_nms(h, rcnn_cls.data(), rcnn_bbox.data(),
                                                      nms_out.data(), result.data(), rois);
  opt_layers_instance_frcnn_exit(h);
  printf("rois %d, post_nms %d\n", rois, post);
  return rois > 0 && post == 0 ? 0 : 1;
}
