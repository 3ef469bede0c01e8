// The descriptor's binary layout and its configuration dump.
#include <stdint.h>
#include <string.h>

#include <string>

#include "common/test_util.h"
#include "frcnn/context.h"

namespace {

const char k_desc_text[] =
    "[FRCNN_DESC] ThreadN: %u, AnchorN: %u, PreNMS: %u, PostNMS: %u, ClassN: %u, MinSize: %u \n"
    "Img(H, W): %ux%u, FMap_Scale: %u, FMap(D, H, W): %ux%ux%u, pitch: %u, Pool(H, W): %ux%u, "
    "pitch: %u \nRPN_CLS_P: %u, RPN_BBox_P: %u, RCNN_CLS_P: %u, RCNN_BBox_P: %u \n"
    "Threshold: PreIOU: %f, PostIOU: %f, CLS_Prob: %f, RPN_ClS_threshold: %f \nBBox type: %u\n";
const char k_flag_text[] =
    "[FRCNN_FLAG] fmap_sign: %u, rcnn_bbox_share_location: %u \nis_anchor_bbox_suppress: %u, "
    "is_rpn_cls_fg_minus_bg: %u, is_rpn_cls_fg_only: %u \nis_filter_rpn_cls: %u, "
    "is_apply_bbox_scale_factor: %u, is_no_rcnn_bg_bbox: %u \nis_use_qsort: %u\n";
const char k_scale_text[] =
    "[BBox Scale Factor] center_x: %f, center_y: %f, width: %f, hegith: %f\n";

// Every field a different value, so that a swapped argument shows.
frcnn_desc distinct_desc() {
  frcnn_desc d;
  memset(&d, 0, sizeof d);
  d.thread_num = 3;
  d.anchor_num = 9;
  d.pre_nms_num = 6000;
  d.post_nms_num = 300;
  d.class_num = 21;
  d.img_h = 600;
  d.img_w = 1000;
  d.fmap_scale = 16;
  d.fmap_d = 512;
  d.fmap_h = 38;
  d.fmap_w = 63;
  d.fmap_pitch = 64;
  d.rpn_bbox_pitch = 65;
  d.rpn_cls_pitch = 66;
  d.min_size = 17;
  d.pool_h = 7;
  d.pool_w = 8;
  d.pool_pitch = 56;
  d.rcnn_bbox_pitch = 84;
  d.rcnn_cls_pitch = 22;
  d.pre_nms_iou = 0.7f;
  d.post_nms_iou = 0.3f;
  d.cls_prob = 0.05f;
  d.rpn_cls_threshold = -0.125f;
  d.bbox_type = 1;
  d.bbox_scale_factor = {10.5f, 11.25f, 5.75f, 6.125f};
  return d;
}

// The expected dump, from the record order into the text order by hand.
std::string expected_dump(const unsigned flags[9], bool scale) {
  std::string s = ol_test::format(
      k_desc_text, 3u, 9u, 6000u, 300u, 21u, 17u, 600u, 1000u, 16u, 512u, 38u, 63u, 64u, 7u, 8u,
      56u, 66u, 65u, 22u, 84u, static_cast<double>(0.7f), static_cast<double>(0.3f),
      static_cast<double>(0.05f), static_cast<double>(-0.125f), 1u);
  s += ol_test::format(k_flag_text, flags[0], flags[1], flags[2], flags[3], flags[4], flags[5],
                       flags[6], flags[7], flags[8]);
  if (scale) s += ol_test::format(k_scale_text, 10.5, 11.25, 5.75, 6.125);
  return s;
}

std::string dump(const frcnn_desc& d) {
  ol_test::stdout_capture cap;
  ol::frcnn_desc_dump(&d);
  return cap.end();
}

struct flag_case {
  const char* name;
  void (*set)(frcnn_desc&);
  int byte, bit;
  int shown;  // position in the flag text, -1 when not shown
};

const flag_case k_flags[] = {
    {"is_debug", [](frcnn_desc& d) { d.is_debug = 1; }, 1, 0, -1},
    {"fmap_sign", [](frcnn_desc& d) { d.fmap_sign = 1; }, 1, 1, 0},
    {"rcnn_bbox_share_location", [](frcnn_desc& d) { d.rcnn_bbox_share_location = 1; }, 1, 2, 1},
    {"is_anchor_bbox_suppress", [](frcnn_desc& d) { d.is_anchor_bbox_suppress = 1; }, 1, 3, 2},
    {"is_rpn_cls_fg_minus_bg", [](frcnn_desc& d) { d.is_rpn_cls_fg_minus_bg = 1; }, 1, 4, 3},
    {"is_rpn_cls_fg_only", [](frcnn_desc& d) { d.is_rpn_cls_fg_only = 1; }, 1, 5, 4},
    {"is_filter_rpn_cls", [](frcnn_desc& d) { d.is_filter_rpn_cls = 1; }, 1, 6, 5},
    {"is_apply_bbox_scale_factor", [](frcnn_desc& d) { d.is_apply_bbox_scale_factor = 1; }, 1, 7,
     6},
    {"is_no_rcnn_bg_bbox", [](frcnn_desc& d) { d.is_no_rcnn_bg_bbox = 1; }, 2, 0, 7},
    {"is_use_qsort", [](frcnn_desc& d) { d.is_use_qsort = 1; }, 2, 1, 8},
};

TEST(frcnn_desc, dump_text_and_argument_order) {
  const frcnn_desc d = distinct_desc();
  const unsigned none[9] = {};
  EXPECT_EQ(dump(d), expected_dump(none, false));
}

TEST(frcnn_desc, each_flag_alone) {
  for (const flag_case& fc : k_flags) {
    frcnn_desc d = distinct_desc();
    fc.set(d);
    uint8_t raw[sizeof d];
    memcpy(raw, &d, sizeof d);
    EXPECT_EQ(raw[0], 3) << fc.name;
    EXPECT_EQ(raw[1], fc.byte == 1 ? 1u << fc.bit : 0u) << fc.name;
    EXPECT_EQ(raw[2], fc.byte == 2 ? 1u << fc.bit : 0u) << fc.name;
    EXPECT_EQ(raw[3], 0) << fc.name;
    unsigned flags[9] = {};
    if (fc.shown >= 0) flags[fc.shown] = 1;
    EXPECT_EQ(dump(d), expected_dump(flags, fc.shown == 6)) << fc.name;
  }
  // All together: every flag prints as 1, not as its bit value.
  frcnn_desc d = distinct_desc();
  for (const flag_case& fc : k_flags) fc.set(d);
  uint8_t raw[sizeof d];
  memcpy(raw, &d, sizeof d);
  EXPECT_EQ(raw[1], 0xFF);
  EXPECT_EQ(raw[2], 0x03);
  const unsigned all[9] = {1, 1, 1, 1, 1, 1, 1, 1, 1};
  EXPECT_EQ(dump(d), expected_dump(all, true));
}

TEST(frcnn_desc, reserved_bits_change_nothing) {
  for (bool scale : {false, true}) {
    frcnn_desc d = distinct_desc();
    d.is_apply_bbox_scale_factor = scale;
    const std::string clean = dump(d);
    uint8_t raw[sizeof d];
    memcpy(raw, &d, sizeof d);
    raw[2] |= 0xFC;
    raw[3] = 0xA5;
    memcpy(&d, raw, sizeof d);
    EXPECT_EQ(d.is_no_rcnn_bg_bbox, 0);
    EXPECT_EQ(d.is_use_qsort, 0);
    EXPECT_EQ(dump(d), clean);
  }
}

TEST(frcnn_desc, raw_layout) {
  EXPECT_EQ(sizeof(frcnn_desc), 116u);
  uint8_t raw[116];
  memset(raw, 0, sizeof raw);
  const uint32_t u_at[][2] = {{4, 9}, {20, 600}, {48, 65}, {52, 66}, {56, 17}, {76, 22}, {96, 1}};
  for (auto& p : u_at) memcpy(raw + p[0], &p[1], 4);
  const float f80 = 0.7f, f92 = -0.125f, f112 = 6.125f;
  memcpy(raw + 80, &f80, 4);
  memcpy(raw + 92, &f92, 4);
  memcpy(raw + 112, &f112, 4);
  raw[0] = 3;
  frcnn_desc d;
  memcpy(&d, raw, sizeof d);
  EXPECT_EQ(d.thread_num, 3);
  EXPECT_EQ(d.anchor_num, 9u);
  EXPECT_EQ(d.img_h, 600u);
  EXPECT_EQ(d.rpn_bbox_pitch, 65u);
  EXPECT_EQ(d.rpn_cls_pitch, 66u);
  EXPECT_EQ(d.min_size, 17u);
  EXPECT_EQ(d.rcnn_cls_pitch, 22u);
  EXPECT_EQ(d.bbox_type, 1u);
  EXPECT_EQ(d.pre_nms_iou, 0.7f);
  EXPECT_EQ(d.rpn_cls_threshold, -0.125f);
  EXPECT_EQ(d.bbox_scale_factor.height, 6.125f);
  EXPECT_EQ(d.bbox_scale_factor.center_x, 0.0f);
}

}  // namespace
