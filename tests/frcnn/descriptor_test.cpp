// The descriptor's flag bits and its configuration dump (the field offsets
// are fixed by static_asserts in the public header).
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

// The record as raw bytes: 3 threads, no flags, every 32-bit field a
// different value so that a swapped argument shows.
struct raw_desc {
  uint8_t b[sizeof(frcnn_desc)] = {3};
  raw_desc() {
    for (size_t at = 4; at < sizeof b; at += 4) {
      const uint32_t u = 1000 + static_cast<uint32_t>(at);
      memcpy(b + at, &u, 4);
    }
    const float floats[2][4] = {{0.7f, 0.3f, 0.05f, -0.125f}, {10.5f, 11.25f, 5.75f, 6.125f}};
    memcpy(b + offsetof(frcnn_desc, pre_nms_iou), floats[0], 16);
    memcpy(b + offsetof(frcnn_desc, bbox_scale_factor), floats[1], 16);
  }
  std::string dump() const {
    frcnn_desc d;
    memcpy(&d, b, sizeof d);
    ol_test::stdout_capture cap;
    ol::frcnn_desc_dump(&d);
    return cap.end();
  }
};

// The value raw_desc gives a 32-bit field.
#define U(field) (1000u + static_cast<unsigned>(offsetof(frcnn_desc, field)))

// The expected dump, in the text order; flags[i] is the i-th flag shown.
std::string expected_dump(const unsigned flags[9], bool scale) {
  std::string s = ol_test::format(
      k_desc_text, 3u, U(anchor_num), U(pre_nms_num), U(post_nms_num), U(class_num), U(min_size),
      U(img_h), U(img_w), U(fmap_scale), U(fmap_d), U(fmap_h), U(fmap_w), U(fmap_pitch), U(pool_h),
      U(pool_w), U(pool_pitch), U(rpn_cls_pitch), U(rpn_bbox_pitch), U(rcnn_cls_pitch),
      U(rcnn_bbox_pitch), static_cast<double>(0.7f), static_cast<double>(0.3f),
      static_cast<double>(0.05f), -0.125, U(bbox_type));
  s += ol_test::format(k_flag_text, flags[0], flags[1], flags[2], flags[3], flags[4], flags[5],
                       flags[6], flags[7], flags[8]);
  if (scale) s += ol_test::format(k_scale_text, 10.5, 11.25, 5.75, 6.125);
  return s;
}

// Each flag bit alone (byte, bit, position in the flag text or -1 for
// is_debug, which is not shown), then all of them with the reserved bits
// and byte set: every flag prints as 1, not as its bit value, and the
// reserved bits change nothing.
TEST(frcnn_desc, flag_bits_and_dump) {
  const int k_flags[10][3] = {{1, 0, -1}, {1, 1, 0}, {1, 2, 1}, {1, 3, 2}, {1, 4, 3},
                              {1, 5, 4},  {1, 6, 5}, {1, 7, 6}, {2, 0, 7}, {2, 1, 8}};
  const unsigned none[9] = {}, all[9] = {1, 1, 1, 1, 1, 1, 1, 1, 1};
  raw_desc plain;
  EXPECT_EQ(plain.dump(), expected_dump(none, false));
  for (const auto& fl : k_flags) {
    SCOPED_TRACE(testing::Message() << "byte " << fl[0] << " bit " << fl[1]);
    raw_desc r;
    r.b[fl[0]] = static_cast<uint8_t>(1u << fl[1]);
    unsigned flags[9] = {};
    if (fl[2] >= 0) flags[fl[2]] = 1;
    EXPECT_EQ(r.dump(), expected_dump(flags, fl[2] == 6));
  }
  raw_desc reserved;
  reserved.b[2] = 0xFC;
  reserved.b[3] = 0xA5;
  EXPECT_EQ(reserved.dump(), expected_dump(none, false));
  reserved.b[1] = 0xFF;
  reserved.b[2] = 0xFF;
  EXPECT_EQ(reserved.dump(), expected_dump(all, true));
}

}  // namespace
