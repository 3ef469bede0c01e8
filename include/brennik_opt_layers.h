// libbrennik_opt_layers: Faster R-CNN post-processing and 16-bit feature-map
// operators for embedded 64-bit Arm Linux.
//
// All functions have C++ linkage: their symbol names encode the parameter
// types, so the types below (half_float::half*, frcnn_desc*, ...) are part of
// the binary interface.
//
// Conventions shared by every function:
//  * failures are reported by a return value (-1 or NULL) and one or more
//    lines on standard output (a stage failure is followed by its caller's
//    line; a few system errors go through perror to standard error);
//    nothing throws;
//  * the library owns the pipeline context (init to exit); the caller owns
//    every array it passes, outputs included;
//  * a pipeline frame allocates nothing on the heap in steady state.
#ifndef BRENNIK_OPT_LAYERS_H
#define BRENNIK_OPT_LAYERS_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#define OPT_LAYERS_API __attribute__((visibility("default")))

// ---------------------------------------------------------------------------
// Half precision.
//
// The library exchanges IEEE 754 binary16 values as half_float::half. When
// the application has the half_float library's <half.hpp> on its include path
// that type is used; otherwise the small definition below stands in for it.
// Both are a trivially copyable 16-bit class in namespace half_float and
// mangle the same, so objects and binaries built either way interoperate.
//
// The library never relies on the type's own conversions: it converts with
// the functions in namespace opt_layers_half, so results do not depend on
// which definition the application compiles with.
// ---------------------------------------------------------------------------
namespace opt_layers_half {

inline uint32_t f32_bits(float f) {
  uint32_t u;
  memcpy(&u, &f, sizeof u);
  return u;
}

inline float f32_from_bits(uint32_t u) {
  float f;
  memcpy(&f, &u, sizeof f);
  return f;
}

// Exact conversion of a binary16 pattern to float. NaN stays NaN (payload
// kept), infinities and signed zeros are preserved.
inline float to_float(uint16_t h) {
  const uint32_t sign = static_cast<uint32_t>(h & 0x8000u) << 16;
  const uint32_t exp = (h >> 10) & 0x1Fu;
  const uint32_t mant = h & 0x3FFu;
  if (exp == 0x1Fu) return f32_from_bits(sign | 0x7F800000u | (mant << 13));
  if (exp != 0) return f32_from_bits(sign | ((exp + 112u) << 23) | (mant << 13));
  // Zero or subnormal: mant * 2^-24, exact in single precision.
  const float mag = static_cast<float>(mant) * 5.9604644775390625e-8f;
  return sign ? -mag : mag;
}

namespace detail {
// Shared core of both float-to-half conversions: the magnitude truncated
// toward zero, plus the first discarded bit when `round` is set (ties away
// from zero; a carry moves into the exponent, up to infinity).
inline uint16_t from_float(float f, bool round) {
  const uint32_t x = f32_bits(f);
  const uint16_t sign = static_cast<uint16_t>((x >> 16) & 0x8000u);
  const uint32_t a = x & 0x7FFFFFFFu;
  if (a > 0x7F800000u) return static_cast<uint16_t>(sign | 0x7E00u | ((a >> 13) & 0x3FFu));
  if (a >= 0x47800000u) return static_cast<uint16_t>(sign | 0x7C00u);  // >= 65536
  uint32_t mag, round_bit;
  if (a >= 0x38800000u) {  // normal half range (>= 2^-14)
    mag = (a - 0x38000000u) >> 13;
    round_bit = (a >> 12) & 1u;
  } else if ((a >> 23) < 102u) {  // below 2^-25: nothing survives, not even rounding
    mag = round_bit = 0;
  } else {  // subnormal half
    const uint32_t m = (a & 0x7FFFFFu) | 0x800000u;
    const uint32_t shift = 126u - (a >> 23);  // 14 .. 24
    mag = m >> shift;
    round_bit = (m >> (shift - 1)) & 1u;
  }
  return static_cast<uint16_t>(sign | (mag + (round ? round_bit : 0u)));
}
}  // namespace detail

// float -> half, truncating toward zero; |f| >= 65536 gives an infinity.
// Used for scores, thresholds and the bucket order.
inline uint16_t from_float_trunc(float f) { return detail::from_float(f, false); }

// float -> half, rounding to nearest with ties away from zero; |f| >= 65520
// gives an infinity. Used for box coordinates.
inline uint16_t from_float_round(float f) { return detail::from_float(f, true); }

}  // namespace opt_layers_half

#if defined(__has_include) && !defined(OPT_LAYERS_NO_HALF_HPP)
#if __has_include(<half.hpp>)
#include <half.hpp>
#define OPT_LAYERS_HAVE_HALF_HPP 1
#endif
#endif

#ifndef OPT_LAYERS_HAVE_HALF_HPP
namespace half_float {
// Stand-in for half_float::half: one binary16 value.
class half {
 public:
  half() = default;
  // Truncating conversion, like the half_float library's default.
  explicit half(float f) : data_(opt_layers_half::from_float_trunc(f)) {}
  operator float() const { return opt_layers_half::to_float(data_); }

 private:
  uint16_t data_;
};
}  // namespace half_float
#endif

static_assert(sizeof(half_float::half) == 2, "half_float::half must be 16 bits");

namespace opt_layers_half {
inline uint16_t bits(half_float::half h) {
  uint16_t u;
  memcpy(&u, &h, sizeof u);
  return u;
}
inline half_float::half from_bits(uint16_t u) {
  half_float::half h;
  memcpy(static_cast<void*>(&h), &u, sizeof u);
  return h;
}
}  // namespace opt_layers_half

// ---------------------------------------------------------------------------
// Pipeline configuration: 116 bytes, little-endian, filled by the caller and
// copied whole by init. Flags sit in bytes 1 and 2 (bit 0 = least
// significant); byte 3 and the reserved bits are never read.
//
// Sizes derived from the record are 32-bit unsigned products: with
// N = anchor_num * fmap_h * fmap_w, init allocates N*16, N*4 (three times,
// four with is_use_qsort), pre_nms_num*10 plus about 20 bytes per proposal
// for the suppression (at most 32767 counted), post_nms_num*class_num*16
// and about 630 bytes per ROI for the class suppression (at most 32767 ROIs
// counted); without is_use_qsort also about 18 MiB of histogram tables and
// N*20 bytes of overflow nodes. Init computes every size in 64 bits and
// refuses (with an allocation message, shared by some buffers, before
// allocating it) any configuration with a buffer of 4 GiB or more, which
// covers every product that would wrap in 32 bits. The caller's roi_result
// is addressed with 32-bit element offsets: keep post_nms_num * pool_h *
// pool_w * fmap_d below 2^32. img_w and img_h
// must not exceed 32767, and post_nms_num and pre_nms_num must not exceed
// 32767 (the suppression counts are 16-bit: a proposal count between 32768
// and 65535 gives no ROI, and the head stage handles at most 32767 ROIs per
// class). Other values are accepted and never index outside the buffers:
// zero sizes (empty maps find nothing), class_num 0 (post_nms writes
// nothing; rcnn_result then needs no room) or 1, any bbox_type (above 1,
// prenms fails with -1 when there are candidates; post_nms prints
// "Unsupported bbox type: %u" once per ROI, still returns 0 and its table
// is then meaningless), row pitches below the row width (rows overlap; the
// tensors must then hold (rows - 1) * pitch + width elements), and NaN or
// infinite values anywhere (a NaN box coordinate is clamped to L - 1).
// Caller arrays: rpn_cls 2*anchor_num (anchor_num with is_rpn_cls_fg_only
// and without is_rpn_cls_fg_minus_bg) planes of fmap_h rows at
// rpn_cls_pitch; rpn_bbox 4*anchor_num planes at fmap_pitch; fmap and
// roi_result as described at pre_nms_roi; the head arrays as described
// at post_nms.
// ---------------------------------------------------------------------------
struct frcnn_desc {
  uint8_t thread_num;  // worker threads, 1..32

  // byte 1
  uint8_t is_debug : 1;
  uint8_t fmap_sign : 1;
  uint8_t rcnn_bbox_share_location : 1;
  uint8_t is_anchor_bbox_suppress : 1;
  uint8_t is_rpn_cls_fg_minus_bg : 1;
  uint8_t is_rpn_cls_fg_only : 1;
  uint8_t is_filter_rpn_cls : 1;
  uint8_t is_apply_bbox_scale_factor : 1;

  // byte 2
  uint8_t is_no_rcnn_bg_bbox : 1;
  uint8_t is_use_qsort : 1;
  uint8_t reserved_flags : 6;  // never read

  uint8_t reserved;  // byte 3, never read

  uint32_t anchor_num;
  uint32_t pre_nms_num;
  uint32_t post_nms_num;
  uint32_t class_num;
  uint32_t img_h;
  uint32_t img_w;
  uint32_t fmap_scale;
  uint32_t fmap_d;
  uint32_t fmap_h;
  uint32_t fmap_w;
  uint32_t fmap_pitch;      // row pitch (halves) of the RPN box-delta planes
  uint32_t rpn_bbox_pitch;  // printed only; no stage reads it
  uint32_t rpn_cls_pitch;   // row pitch (halves) of the RPN score planes
  uint32_t min_size;
  uint32_t pool_h;
  uint32_t pool_w;
  uint32_t pool_pitch;  // accepted and unused
  uint32_t rcnn_bbox_pitch;
  uint32_t rcnn_cls_pitch;
  float pre_nms_iou;
  float post_nms_iou;
  float cls_prob;
  float rpn_cls_threshold;
  uint32_t bbox_type;  // 0: dx dy dw dh, 1: dy dx dh dw
  struct {
    float center_x;
    float center_y;
    float width;
    float height;
  } bbox_scale_factor;
};

static_assert(sizeof(frcnn_desc) == 116, "frcnn_desc is 116 bytes");
static_assert(offsetof(frcnn_desc, thread_num) == 0, "layout");
static_assert(offsetof(frcnn_desc, reserved) == 3, "layout");
static_assert(offsetof(frcnn_desc, anchor_num) == 4, "layout");
static_assert(offsetof(frcnn_desc, pre_nms_num) == 8, "layout");
static_assert(offsetof(frcnn_desc, post_nms_num) == 12, "layout");
static_assert(offsetof(frcnn_desc, class_num) == 16, "layout");
static_assert(offsetof(frcnn_desc, img_h) == 20, "layout");
static_assert(offsetof(frcnn_desc, img_w) == 24, "layout");
static_assert(offsetof(frcnn_desc, fmap_scale) == 28, "layout");
static_assert(offsetof(frcnn_desc, fmap_d) == 32, "layout");
static_assert(offsetof(frcnn_desc, fmap_h) == 36, "layout");
static_assert(offsetof(frcnn_desc, fmap_w) == 40, "layout");
static_assert(offsetof(frcnn_desc, fmap_pitch) == 44, "layout");
static_assert(offsetof(frcnn_desc, rpn_bbox_pitch) == 48, "layout");
static_assert(offsetof(frcnn_desc, rpn_cls_pitch) == 52, "layout");
static_assert(offsetof(frcnn_desc, min_size) == 56, "layout");
static_assert(offsetof(frcnn_desc, pool_h) == 60, "layout");
static_assert(offsetof(frcnn_desc, pool_w) == 64, "layout");
static_assert(offsetof(frcnn_desc, pool_pitch) == 68, "layout");
static_assert(offsetof(frcnn_desc, rcnn_bbox_pitch) == 72, "layout");
static_assert(offsetof(frcnn_desc, rcnn_cls_pitch) == 76, "layout");
static_assert(offsetof(frcnn_desc, pre_nms_iou) == 80, "layout");
static_assert(offsetof(frcnn_desc, post_nms_iou) == 84, "layout");
static_assert(offsetof(frcnn_desc, cls_prob) == 88, "layout");
static_assert(offsetof(frcnn_desc, rpn_cls_threshold) == 92, "layout");
static_assert(offsetof(frcnn_desc, bbox_type) == 96, "layout");
static_assert(offsetof(frcnn_desc, bbox_scale_factor) == 100, "layout");

struct opt_layers_version {
  uint32_t major;
  uint32_t minor;
  uint32_t patch;
  uint32_t build_date;  // 0xYYYYMMDD
  const char* description;
};

// ---------------------------------------------------------------------------
// Lifecycle. The global forms use one process-wide context; the instance
// forms return a handle. Init and exit must not overlap other calls on the
// same context; different handles may be used from different threads.
// base_anchors: anchor_num boxes (x1, y1, x2, y2 floats) for cell (0, 0).
// Each context runs thread_num worker threads with a fixed 128 KiB stack;
// every entry point and operator also runs on a caller thread with a
// 128 KiB stack (large scratch lives in the context or on the heap).
// A frame in steady state allocates nothing on the heap; init and exit
// allocate and free everything (nothing is left behind).
// ---------------------------------------------------------------------------
OPT_LAYERS_API int opt_layers_frcnn_init(frcnn_desc* desc, float* base_anchors);
OPT_LAYERS_API void opt_layers_frcnn_exit();
OPT_LAYERS_API void* opt_layers_instance_frcnn_init(frcnn_desc* desc, float* base_anchors);
OPT_LAYERS_API void opt_layers_instance_frcnn_exit(void* handle);
OPT_LAYERS_API int opt_layers_get_version(opt_layers_version* version);

// ---------------------------------------------------------------------------
// Proposal entry points. rpn_cls / rpn_bbox are half tensors of fmap_h-row
// planes with row pitches rpn_cls_pitch / fmap_pitch (elements).
// prenms: returns the number of proposals (records x1 y1 x2 y2 score, 5
// halves) and stores their address (inside the context) in *proposals when
// proposals is not NULL. prenms_nms: returns the number of ROIs written to
// nms_out (4 halves each, room for post_nms_num), or -1.
// ---------------------------------------------------------------------------
OPT_LAYERS_API int opt_layers_frcnn_prenms(half_float::half* rpn_cls, half_float::half* rpn_bbox,
                                           half_float::half** proposals);
OPT_LAYERS_API int opt_layers_instance_frcnn_prenms(void* handle, half_float::half* rpn_cls,
                                                    half_float::half* rpn_bbox,
                                                    half_float::half** proposals);
OPT_LAYERS_API int opt_layers_frcnn_prenms_nms(half_float::half* rpn_cls, half_float::half* rpn_bbox,
                                               half_float::half* nms_out);
OPT_LAYERS_API int opt_layers_instance_frcnn_prenms_nms(void* handle, half_float::half* rpn_cls,
                                                        half_float::half* rpn_bbox,
                                                        half_float::half* nms_out);

// ---------------------------------------------------------------------------
// Pooling and head entry points.
// pre_nms_roi: prenms_nms, then max-pools fmap (16-channel blocks, see
// roi_pooling) over every ROI into roi_result (pool_h*pool_w*fmap_d elements
// per ROI). Returns the ROI count or -1.
// post_nms: decodes rcnn_bbox (rcnn_bbox_pitch halves per ROI) against
// nms_out, suppresses per class with rcnn_cls (rcnn_cls_pitch halves per
// ROI) and fills rcnn_result: class_num counts (as halves, rounded down
// above 2048), then per class c a block of post_nms_num detection records
// (5 halves) starting at class_num + 5*post_nms_num*c. Returns 0 or -1.
// ---------------------------------------------------------------------------
OPT_LAYERS_API int opt_layers_frcnn_pre_nms_roi(half_float::half* rpn_cls, half_float::half* rpn_bbox,
                                                unsigned short* fmap, unsigned short* roi_result,
                                                half_float::half* nms_out);
OPT_LAYERS_API int opt_layers_instance_frcnn_pre_nms_roi(void* handle, half_float::half* rpn_cls,
                                                         half_float::half* rpn_bbox,
                                                         unsigned short* fmap,
                                                         unsigned short* roi_result,
                                                         half_float::half* nms_out);
OPT_LAYERS_API int opt_layers_frcnn_post_nms(half_float::half* rcnn_cls, half_float::half* rcnn_bbox,
                                             half_float::half* nms_out, half_float::half* rcnn_result,
                                             unsigned int roi_num);
OPT_LAYERS_API int opt_layers_instance_frcnn_post_nms(void* handle, half_float::half* rcnn_cls,
                                                      half_float::half* rcnn_bbox,
                                                      half_float::half* nms_out,
                                                      half_float::half* rcnn_result,
                                                      unsigned int roi_num);

// ---------------------------------------------------------------------------
// Operators. Stateless, reentrant, run on the calling thread.
// ---------------------------------------------------------------------------

// Greedy NMS over records of 5 halves (x1 y1 x2 y2 score) already ordered by
// priority; writes kept boxes (4 halves) to out, at most max_out of them.
// Box sizes are inclusive (x2 - x1 + 1). A box is suppressed when its IoU
// with an earlier kept box is strictly above iou_threshold. count must not
// exceed 32767; a count or max_out of 0 or below writes nothing. Returns the
// number of boxes written.
OPT_LAYERS_API int nms(half_float::half* out, half_float::half* in, int count, float iou_threshold,
                       int max_out);

// Max ROI pooling on a 16-bit map stored in 16-channel blocks: element
// (c, y, x) at ((c/16 * fmap_h + y) * fmap_w + x) * 16 + c%16. Boxes are 4
// halves in image pixels. Output per box: fmap_d/16 blocks of pool_h*pool_w
// cells of 16 elements. roi_pooling compares unsigned (empty bin 0),
// roi_pooling_sign signed (empty bin 0x8000). pool_pitch and fmap_pitch are
// accepted and unused. Returns 0.
OPT_LAYERS_API int roi_pooling(half_float::half* proposal, unsigned short* fmap,
                               unsigned short* roi_result, int roi_num, int pool_w, int pool_h,
                               int pool_pitch, int fmap_scale, int fmap_pitch, int fmap_h,
                               int fmap_w, int fmap_d);
OPT_LAYERS_API int roi_pooling_sign(half_float::half* proposal, unsigned short* fmap,
                                    unsigned short* roi_result, int roi_num, int pool_w,
                                    int pool_h, int pool_pitch, int fmap_scale, int fmap_pitch,
                                    int fmap_h, int fmap_w, int fmap_d);

// ROI align on a signed 16-bit channel-innermost map (element (y, x, c) at
// (y*W + x)*channel + c, channel a non-zero multiple of 16), one bilinear
// sample per cell centre with Q13 weights. Boxes are 4 floats in image
// pixels. Output per box: pool_h*pool_w*channel shorts. Returns 0 or -1.
// fmap_scale is the stride (image pixels per map cell). No heap allocation;
// a few KiB of stack whatever pool_w and pool_h.
// Degenerate input:
//  * a map with W or H = 0 has nothing to sample: each box's output is 0
//    and the map is not read;
//  * a map of one column (row) uses that column (row) for both taps;
//  * samples far outside the map (more than about a cell, as from boxes
//    that are not clipped to the image) give weights beyond 16 bits: each
//    weight is truncated toward zero and then saturated to
//    [-32768, 32767], and the 32-bit sum wraps; the output is defined but
//    is no longer an extrapolation of the map;
//  * NaN or infinite coordinates never index outside the map: a NaN
//    position uses column (row) 0 and weight 0, so a NaN box gives 0.
OPT_LAYERS_API int roi_align_fmap_int16(short* fmap, unsigned int fmap_scale, float* proposal,
                                        unsigned int roi_num, unsigned int fmap_w,
                                        unsigned int fmap_h, unsigned int pool_w,
                                        unsigned int pool_h, unsigned int channel,
                                        short* roi_result);
// As above over three pyramid levels; each box picks its level from its size:
// clamp(floor(log2(sqrt(area) / 224 + 1e-6) + 1), 0, 2), so below 224
// pixels level 0, below 448 level 1, else level 2; a box of negative or NaN
// area takes level 0. Level k's map has img_w / fmap_scale[k] columns and
// img_h / fmap_scale[k] rows; a level with no row or column gives 0 for the
// boxes that select it. A NULL fmap or fmap_scale array is reported like
// three NULL pointers or three zero strides.
OPT_LAYERS_API int roi_align_four_fmap_int16(short** fmap, unsigned int* fmap_scale,
                                             float* proposal, unsigned int roi_num,
                                             unsigned int img_w, unsigned int img_h,
                                             unsigned int pool_w, unsigned int pool_h,
                                             unsigned int channel, short* roi_result);

// Crop and resize (edge-to-edge bilinear sampling) on the map layout of
// roi_align_fmap_int16; samples outside the map take extrapolation_value
// truncated to its low 16 bits. Returns 0 or -1.
// Box coordinates are multiplied by scale_x / scale_y and divided by the map
// width / height, so 0 and 1 are the first and last column or row. Every
// element written for an outside sample prints one line: "extr y" for an
// output row outside the map, "extr x, <x>" for a position outside it.
// Degenerate input:
//  * the extrapolation value is reduced exactly modulo 2^16 after
//    truncation whatever its size; NaN and infinities give 0;
//  * a map with W or H = 0 has no inside: every element is the
//    extrapolation value with its "extr y" line, and the map is not read;
//  * a map of one column (row) has W - 1 = 0: every finite position is 0,
//    inside, and reproduces that column (row);
//  * a NaN position is not outside by the comparisons above: it reads
//    column (row) 0 with weight 0, so the samples that use it give 0. No
//    coordinate, NaN or infinite, indexes outside the map.
OPT_LAYERS_API int crop_and_resize_fmap_int16(short* fmap, float scale_x, float scale_y,
                                              float extrapolation_value, float* proposal,
                                              unsigned int roi_num, unsigned int fmap_w,
                                              unsigned int fmap_h, unsigned int crop_w,
                                              unsigned int crop_h, unsigned int channel,
                                              short* roi_result);

// Position-sensitive average ROI pooling on float maps. Returns 0 or -1.
// Map: group_size^2 blocks of fmap_h x fmap_w positions of fmap_pitch
// floats; output: per box group_size^2 cells of out_pitch floats, of which
// the first out_channels are written (with out_channels = 21, floats 21 ..
// out_pitch - 1 of non-empty cells keep their contents; otherwise the whole
// output region is zeroed first). group_size must equal pooled_w and
// pooled_h, and channels group_size^2 * out_channels (otherwise a message
// and -1). fmap_pitch and out_pitch must not be below
// out_channels (not checked); an output region that is empty (a zero or
// negative out_pitch or pooled size) is left alone, and a negative
// fmap_pitch is read as an empty map. Bins clamped to nothing, boxes
// outside the map, maps with no row or column and NaN coordinates give
// zeros; no coordinate indexes outside the map.
// ps_roi_pooling_scale first scales each box by roi_scale about its centre,
// moves every bin back by (bin_shift_factor - 1) / 2 bins and spaces the
// bins bin_stride_factor bins apart.
OPT_LAYERS_API int ps_roi_pooling(const float* fmap, int fmap_w, int fmap_h, int channels,
                                  int fmap_pitch, const float* proposal, int roi_num,
                                  float* roi_result, int pooled_w, int pooled_h, int out_channels,
                                  int out_pitch, float spatial_scale, int group_size);
OPT_LAYERS_API int ps_roi_pooling_scale(const float* fmap, int fmap_w, int fmap_h, int channels,
                                        int fmap_pitch, const float* proposal, int roi_num,
                                        float* roi_result, int pooled_w, int pooled_h,
                                        int out_channels, int out_pitch, float spatial_scale,
                                        int group_size, float roi_scale, float bin_shift_factor,
                                        float bin_stride_factor);

#endif  // BRENNIK_OPT_LAYERS_H
