// The picture: the frame's image (or a plain background) with the final
// detections drawn on it, written as PNG.
#ifndef OL_DEMO_RENDER_H
#define OL_DEMO_RENDER_H

#include <stdint.h>

#include <string>
#include <vector>

#include "demo/frame.h"
#include "demo/pipeline.h"

namespace ol_demo {

struct picture_input {
  const frame* f = nullptr;
  const std::vector<detection>* detections = nullptr;
  const evaluation* eval = nullptr;  // may be NULL (no ground truth)
  const uint16_t* rois = nullptr;    // drawn faintly when not NULL (4 halves each)
  uint32_t roi_count = 0;
  std::string caption;
};

// Draws the picture into an RGB image.
rgb_image draw_picture(const picture_input& in);

// Writes an RGB image as PNG; throws demo_error on failure.
void write_png(const std::string& path, const rgb_image& img);

}  // namespace ol_demo

#endif
