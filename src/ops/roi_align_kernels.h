// Internal pieces of the bilinear 16-bit operators (roi_align_fmap_int16,
// roi_align_four_fmap_int16, crop_and_resize_fmap_int16): the kernel that
// interpolates all channels of one output position, its plain scalar twin,
// the small conversions the operators share, and entry points that take the
// kernel as a parameter so that tests and benchmarks can run the operators on
// either kernel.
#ifndef OL_OPS_ROI_ALIGN_KERNELS_H
#define OL_OPS_ROI_ALIGN_KERNELS_H

#include <stddef.h>
#include <stdint.h>

namespace ol {

// One bilinear sample: the four source positions (each `channel` adjacent
// elements) and their Q13 weights (8192 = 1.0).
struct bilinear_taps {
  const int16_t* p00;  // row r0, column c0
  const int16_t* p01;  // row r0, column c1
  const int16_t* p10;  // row r1, column c0
  const int16_t* p11;  // row r1, column c1
  int16_t w00, w01, w10, w11;
};

// For c < channel (a multiple of 16):
//   acc = p00[c]*w00 + p01[c]*w01 + p10[c]*w10 + p11[c]*w11   (32-bit sum)
//   out[c] = low 16 bits of (acc + 4096) >> 13 (arithmetic shift)
// The sum wraps modulo 2^32 when the weights are extreme; the low 16 bits of
// the result are the same as with an exact sum.
void bilinear_i16_vector(const bilinear_taps& t, unsigned channel, int16_t* out);
// Makes the stores of earlier bilinear_i16_vector calls globally visible in
// order (some versions write with streaming stores); an operator calls it
// once before it returns.
void bilinear_i16_vector_done();
void bilinear_i16_scalar(const bilinear_taps& t, unsigned channel, int16_t* out);

// Q13 weight from the float product of a column and a row weight: truncated
// toward zero, saturated to [-32768, 32767]; NaN gives 0.
int16_t q13_weight(float product);

// Pyramid level (0, 1 or 2) of a box in image pixels:
// clamp(floor(log2(sqrtf(area) / 224 + 1e-6) + 1), 0, 2), upper bound first.
// A NaN (negative or NaN area) gives 0.
unsigned roi_align_level(float x1, float y1, float x2, float y2);

// Extrapolation value of crop-and-resize: truncated toward zero to an integer
// and reduced to its low 16 bits (exactly, for every finite value); NaN and
// infinities give 0.
int16_t extrapolation_bits(float v);

enum class bilinear_kernel { vector, scalar };

// The exported operators with a choice of kernel (the exported functions use
// bilinear_kernel::vector). Same arguments, checks and messages.
int roi_align_fmap_int16_with(bilinear_kernel kernel, short* fmap, unsigned int fmap_scale,
                              float* proposal, unsigned int roi_num, unsigned int fmap_w,
                              unsigned int fmap_h, unsigned int pool_w, unsigned int pool_h,
                              unsigned int channel, short* roi_result);
int roi_align_four_fmap_int16_with(bilinear_kernel kernel, short** fmap, unsigned int* fmap_scale,
                                   float* proposal, unsigned int roi_num, unsigned int img_w,
                                   unsigned int img_h, unsigned int pool_w, unsigned int pool_h,
                                   unsigned int channel, short* roi_result);
int crop_and_resize_fmap_int16_with(bilinear_kernel kernel, short* fmap, float scale_x,
                                    float scale_y, float extrapolation_value, float* proposal,
                                    unsigned int roi_num, unsigned int fmap_w, unsigned int fmap_h,
                                    unsigned int crop_w, unsigned int crop_h, unsigned int channel,
                                    short* roi_result);

}  // namespace ol

#endif
