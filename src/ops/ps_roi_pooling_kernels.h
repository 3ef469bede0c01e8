// Internal interface of position-sensitive ROI pooling: one entry point for
// both exported functions with a choice of summation path, so that tests and
// benchmarks can hold the paths against each other.
#ifndef OL_OPS_PS_ROI_POOLING_KERNELS_H
#define OL_OPS_PS_ROI_POOLING_KERNELS_H

namespace ol {

struct ps_roi_args {
  const float* fmap;
  int fmap_w, fmap_h, channels, fmap_pitch;
  const float* proposal;
  int roi_num;
  float* roi_result;
  int pooled_w, pooled_h, out_channels, out_pitch;
  float spatial_scale;
  int group_size;
  // ps_roi_pooling_scale only (scaled = true).
  bool scaled;
  float roi_scale, bin_shift_factor, bin_stride_factor;
};

enum class ps_path {
  automatic,  // what the exported functions do: register sums for 21 channels
  general,    // sums in the zero-filled output cell, 4-lane vectors
  scalar,     // sums in the zero-filled output cell, one channel at a time
};

// Checks, prints and pools exactly like the exported functions; the general
// and scalar paths zero-fill the whole output region whatever out_channels.
int ps_roi_pooling_run(const ps_roi_args& a, ps_path path);

}  // namespace ol

#endif
