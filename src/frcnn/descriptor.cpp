// Configuration dump of the pipeline descriptor, printed by init when the
// record's is_debug flag is set.
#include <stdio.h>

#include "frcnn/context.h"

namespace ol {

void frcnn_desc_dump(const frcnn_desc* d) {
  // Sizes first, then pitches (each class pitch before its box pitch),
  // thresholds and the box encoding; min_size is shown with the counts.
  printf(
      "[FRCNN_DESC] ThreadN: %u, AnchorN: %u, PreNMS: %u, PostNMS: %u, ClassN: %u, MinSize: %u \n"
      "Img(H, W): %ux%u, FMap_Scale: %u, FMap(D, H, W): %ux%ux%u, pitch: %u, Pool(H, W): %ux%u, "
      "pitch: %u \n"
      "RPN_CLS_P: %u, RPN_BBox_P: %u, RCNN_CLS_P: %u, RCNN_BBox_P: %u \n"
      "Threshold: PreIOU: %f, PostIOU: %f, CLS_Prob: %f, RPN_ClS_threshold: %f \n"
      "BBox type: %u\n",
      static_cast<unsigned>(d->thread_num), d->anchor_num, d->pre_nms_num, d->post_nms_num,
      d->class_num, d->min_size, d->img_h, d->img_w, d->fmap_scale, d->fmap_d, d->fmap_h,
      d->fmap_w, d->fmap_pitch, d->pool_h, d->pool_w, d->pool_pitch, d->rpn_cls_pitch,
      d->rpn_bbox_pitch, d->rcnn_cls_pitch, d->rcnn_bbox_pitch,
      static_cast<double>(d->pre_nms_iou), static_cast<double>(d->post_nms_iou),
      static_cast<double>(d->cls_prob), static_cast<double>(d->rpn_cls_threshold), d->bbox_type);
  // is_debug itself is not shown.
  printf(
      "[FRCNN_FLAG] fmap_sign: %u, rcnn_bbox_share_location: %u \n"
      "is_anchor_bbox_suppress: %u, is_rpn_cls_fg_minus_bg: %u, is_rpn_cls_fg_only: %u \n"
      "is_filter_rpn_cls: %u, is_apply_bbox_scale_factor: %u, is_no_rcnn_bg_bbox: %u \n"
      "is_use_qsort: %u\n",
      static_cast<unsigned>(d->fmap_sign), static_cast<unsigned>(d->rcnn_bbox_share_location),
      static_cast<unsigned>(d->is_anchor_bbox_suppress),
      static_cast<unsigned>(d->is_rpn_cls_fg_minus_bg),
      static_cast<unsigned>(d->is_rpn_cls_fg_only), static_cast<unsigned>(d->is_filter_rpn_cls),
      static_cast<unsigned>(d->is_apply_bbox_scale_factor),
      static_cast<unsigned>(d->is_no_rcnn_bg_bbox), static_cast<unsigned>(d->is_use_qsort));
  if (d->is_apply_bbox_scale_factor) {
    // The height label reads "hegith": the dump text is fixed, kept as is.
    printf("[BBox Scale Factor] center_x: %f, center_y: %f, width: %f, hegith: %f\n",
           static_cast<double>(d->bbox_scale_factor.center_x),
           static_cast<double>(d->bbox_scale_factor.center_y),
           static_cast<double>(d->bbox_scale_factor.width),
           static_cast<double>(d->bbox_scale_factor.height));
  }
}

}  // namespace ol
