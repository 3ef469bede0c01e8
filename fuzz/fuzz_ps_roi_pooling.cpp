// Fuzz target of ps_roi_pooling and ps_roi_pooling_scale: any box values and
// scale factors (NaN, infinities, negative), group sizes 1..4, pooled sizes
// and channel counts matching or not, pitches at or above out_channels (or
// zero, which overlaps every position, or negative, which reads an empty
// map or writes nothing). The map holds exactly what the last position may
// read and the output exactly roi_num regions; a rejected call must leave the
// output untouched.
#include <math.h>

#include <algorithm>

#include "fuzz_util.h"

using namespace ol_fuzz;

OL_FUZZ_TARGET(in, size) {
  const bool scaled = in.ConsumeBool();
  const int group = in.ConsumeIntegralInRange<int>(1, 4);
  const uint8_t pk = in.ConsumeIntegral<uint8_t>();
  const int pooled_w = pk < 230 ? group : in.ConsumeIntegralInRange<int>(-1, 5);
  const int pooled_h = pk < 230 ? group : in.ConsumeIntegralInRange<int>(-1, 5);
  const int out_channels = in.ConsumeIntegralInRange<int>(1, 24);
  const uint8_t ck = in.ConsumeIntegral<uint8_t>();
  const int channels = ck < 240 ? group * group * out_channels : in.ConsumeIntegralInRange<int>(-1, 600);
  const uint8_t fk = in.ConsumeIntegral<uint8_t>();
  const int fmap_pitch = fk < 240 ? out_channels + fk % 4 : in.ConsumeIntegralInRange<int>(-3, 0);
  const uint8_t ok = in.ConsumeIntegral<uint8_t>();
  const int out_pitch = ok < 240 ? out_channels + ok % 4 : in.ConsumeIntegralInRange<int>(-3, 0);
  const int W = in.ConsumeIntegralInRange<int>(0, 16);
  const int H = in.ConsumeIntegralInRange<int>(0, 16);
  const int roi_num = in.ConsumeIntegralInRange<int>(-1, 6);
  const float spatial_scale = draw_float(in, 0.0f, 1.0f);
  const float roi_scale = draw_float(in, 0.0f, 3.0f);
  const float bin_shift = draw_float(in, 0.0f, 3.0f);
  const float bin_stride = draw_float(in, 0.0f, 3.0f);

  filler f(size);
  const size_t R = roi_num > 0 ? roi_num : 0;
  buffer<float> boxes(4 * R);
  fill_floats(boxes, in, 24, f, 1.2f * std::max(W, H) / std::max(std::fabs(spatial_scale), 0.01f) + 2.0f);
  const size_t positions = static_cast<size_t>(group) * group * W * H;
  // A zero pitch makes every position read the same out_channels floats; a
  // negative one is an empty map.
  const size_t map_n = positions == 0 || fmap_pitch < 0 ? 0 : (positions - 1) * fmap_pitch + out_channels;
  buffer<float> fmap(map_n);
  for (size_t i = 0; i < fmap.size(); ++i) fmap[i] = f.flt(100.0f);
  const size_t region = out_pitch > 0 && pooled_w > 0 && pooled_h > 0
                            ? static_cast<size_t>(pooled_w) * pooled_h * out_pitch : 0;
  const bool valid = pooled_w == group && pooled_h == group && channels == group * group * out_channels;
  check_call<float>(R * region, valid ? 0 : -1, false, [&](float* out) {
    return scaled ? ps_roi_pooling_scale(fmap.data(), W, H, channels, fmap_pitch, boxes.data(), roi_num,
                                         out, pooled_w, pooled_h, out_channels, out_pitch,
                                         spatial_scale, group, roi_scale, bin_shift, bin_stride)
                  : ps_roi_pooling(fmap.data(), W, H, channels, fmap_pitch, boxes.data(), roi_num, out,
                                   pooled_w, pooled_h, out_channels, out_pitch, spatial_scale, group);
  });
}
