// The ROI pooling kernel behind roi_pooling and roi_pooling_sign, with the
// output stride of a box as a parameter so that the pooling stage can place
// boxes of a map whose depth is not a multiple of 16.
#ifndef OL_OPS_ROI_POOLING_KERNELS_H
#define OL_OPS_ROI_POOLING_KERNELS_H

#include <stddef.h>
#include <stdint.h>

namespace ol {

// Elements roi_pooling writes per box: whole channel blocks of pool_h x
// pool_w cells of 16 (0 when nothing is written).
size_t roi_pool_box_elems(int pool_w, int pool_h, int fmap_d);

// Estimated work of pooling one box per channel block, in map positions
// read (at least 1): what the pooling stage balances its tasks by.
uint64_t roi_pool_box_work(const uint16_t* box, int pool_w, int pool_h, int fmap_scale, int fmap_h,
                           int fmap_w);

// The whole channel blocks of a map are pooled in runs of up to 8 blocks
// (the last run may be shorter): the number of runs of fmap_d channels.
int roi_pool_runs(int fmap_d);

// Pools boxes [0, roi_num) of `proposal` (four half values each) exactly as
// roi_pooling (is_signed false) or roi_pooling_sign (true) do, except that
// box r's blocks start at roi_result + r * box_stride elements and only the
// channel blocks of runs [first_run, end_run) are pooled. Pure: no state, no
// allocation, under 1 KiB of stack whatever the configuration.
void roi_pool_boxes(bool is_signed, const uint16_t* proposal, const uint16_t* fmap,
                    uint16_t* roi_result, size_t box_stride, int roi_num, int pool_w, int pool_h,
                    int fmap_scale, int fmap_h, int fmap_w, int fmap_d, int first_run,
                    int end_run);

}  // namespace ol

#endif
