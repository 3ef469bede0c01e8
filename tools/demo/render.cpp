#include "demo/render.h"

#include <math.h>
#include <string.h>

#include <algorithm>

#include "demo/error.h"

// Debian's libstb-dev: stb_image_write for the PNG encoder, stb_easy_font
// for the labels (a small vector font made of rectangles).
#define STB_IMAGE_WRITE_IMPLEMENTATION
#define STB_IMAGE_WRITE_STATIC
#include <stb/stb_easy_font.h>
#include <stb/stb_image_write.h>

namespace ol_demo {

namespace {

struct rgb {
  uint8_t r, g, b;
};

// Pixel coordinate of a box edge; anything far outside the image (or not a
// number) is pinned just outside it.
int px(float v) {
  if (!(v > -16.0f)) return -16;
  if (v > 40000.0f) return 40000;
  return static_cast<int>(lroundf(v));
}

class canvas {
 public:
  explicit canvas(rgb_image* img) : img_(img) {}

  void blend(int x, int y, rgb c, float alpha) {
    if (x < 0 || y < 0 || x >= img_->width || y >= img_->height) return;
    uint8_t* p = &img_->pixels[(static_cast<size_t>(y) * img_->width + x) * 3];
    const uint8_t v[3] = {c.r, c.g, c.b};
    for (int k = 0; k < 3; ++k)
      p[k] = static_cast<uint8_t>(lroundf(p[k] + alpha * (static_cast<float>(v[k]) - p[k])));
  }

  void fill(int x1, int y1, int x2, int y2, rgb c, float alpha = 1.0f) {
    for (int y = std::max(y1, 0); y <= std::min(y2, img_->height - 1); ++y)
      for (int x = std::max(x1, 0); x <= std::min(x2, img_->width - 1); ++x) blend(x, y, c, alpha);
  }

  // Outline of thickness t drawn inside the inclusive box; dashed when
  // dash > 0.
  void outline(int x1, int y1, int x2, int y2, int t, rgb c, float alpha = 1.0f, int dash = 0) {
    for (int y = y1; y <= y2; ++y)
      for (int x = x1; x <= x2; ++x) {
        const bool edge = x < x1 + t || x > x2 - t || y < y1 + t || y > y2 - t;
        if (!edge) {
          x = x2 - t;  // skip the inside of the row
          continue;
        }
        if (dash > 0 && ((x + y) / dash) % 2) continue;
        blend(x, y, c, alpha);
      }
  }

  // The font covers printable ASCII only (it indexes its table by the
  // character): anything else is drawn as '?'.
  static std::string printable(const std::string& s) {
    std::string t = s;
    for (char& ch : t)
      if (ch < 32 || ch > 126) ch = '?';
    return t;
  }

  // Text at (x, y) (top left), scaled; returns the width in pixels.
  int text(int x, int y, const std::string& s, rgb c, int scale) {
    static char buffer[60000];
    std::string copy = printable(s);
    const int quads = stb_easy_font_print(0, 0, &copy[0], nullptr, buffer, sizeof buffer);
    for (int q = 0; q < quads; ++q) {
      const float* v = reinterpret_cast<const float*>(buffer + q * 64);
      // Vertices are 16 bytes apart: x, y, z, colour. Quads are axis-aligned.
      float qx1 = v[0], qy1 = v[1], qx2 = v[0], qy2 = v[1];
      for (int k = 1; k < 4; ++k) {
        const float* w = reinterpret_cast<const float*>(buffer + q * 64 + 16 * k);
        qx1 = std::min(qx1, w[0]);
        qy1 = std::min(qy1, w[1]);
        qx2 = std::max(qx2, w[0]);
        qy2 = std::max(qy2, w[1]);
      }
      fill(x + static_cast<int>(qx1 * scale), y + static_cast<int>(qy1 * scale),
           x + static_cast<int>(qx2 * scale) - 1, y + static_cast<int>(qy2 * scale) - 1, c);
    }
    return text_width(s, scale);
  }

  static int text_width(const std::string& s, int scale) {
    std::string copy = printable(s);
    return stb_easy_font_width(&copy[0]) * scale;
  }

  // A label: text on a filled box whose bottom-left corner is (x, y); kept
  // inside the image.
  void label(int x, int y, const std::string& s, rgb fg, rgb bg, int scale) {
    const int w = text_width(s, scale) + 2 * scale + 2, h = 9 * scale + 2;
    x = std::max(0, std::min(x, img_->width - w));
    y = std::max(h, y);
    fill(x, y - h, x + w - 1, y - 1, bg);
    text(x + scale + 1, y - h + scale + 1, s, fg, scale);
  }

 private:
  rgb_image* img_;
};

}  // namespace

rgb_image draw_picture(const picture_input& in) {
  const frame& f = *in.f;
  rgb_image img;
  if (!f.image.empty()) {
    img = f.image;
  } else {
    // No image with the input: a neutral background of the image's size.
    img.width = static_cast<int>(f.desc.img_w);
    img.height = static_cast<int>(f.desc.img_h);
    img.pixels.assign(static_cast<size_t>(img.width) * img.height * 3, 96);
  }
  canvas c(&img);
  const int scale = img.width >= 600 ? 2 : 1;

  if (in.rois != nullptr) {
    for (uint32_t i = 0; i < in.roi_count; ++i) {
      const uint16_t* r = in.rois + 4 * i;
      c.outline(px(opt_layers_half::to_float(r[0])), px(opt_layers_half::to_float(r[1])),
                px(opt_layers_half::to_float(r[2])), px(opt_layers_half::to_float(r[3])), 1,
                {255, 255, 255}, 0.35f);
    }
  }

  const rgb hit = {255, 214, 0}, miss = {230, 40, 40}, dark = {20, 20, 20};
  // Ground truth that no detection found: dashed red.
  if (in.eval != nullptr) {
    std::vector<bool> found(f.ground_truth.size(), false);
    for (int m : in.eval->match)
      if (m >= 0) found[static_cast<size_t>(m)] = true;
    for (size_t g = 0; g < f.ground_truth.size(); ++g)
      if (!found[g]) {
        const labelled_box& b = f.ground_truth[g];
        c.outline(px(b.x1), px(b.y1), px(b.x2), px(b.y2), 2, miss, 1.0f, 6);
      }
  }

  const std::vector<detection>& dets = *in.detections;
  for (size_t i = 0; i < dets.size(); ++i) {
    const detection& d = dets[i];
    const bool false_positive = in.eval != nullptr && in.eval->match[i] < 0;
    const rgb col = false_positive ? miss : hit;
    const int x1 = px(d.x1), y1 = px(d.y1), x2 = px(d.x2), y2 = px(d.y2);
    c.outline(x1 - 1, y1 - 1, x2 + 1, y2 + 1, 1, dark);
    c.outline(x1, y1, x2, y2, 3, col);
    c.outline(x1 + 3, y1 + 3, x2 - 3, y2 - 3, 1, dark, 0.6f);
    c.label(x1, y1, class_name(f, d.cls) + strf(" %.3f", d.score), dark, col, scale);
  }

  if (!in.caption.empty()) {
    const int h = 9 * scale + 8;
    c.fill(0, 0, canvas::text_width(in.caption, scale) + 12, h, dark, 0.7f);
    c.text(6, 5, in.caption, {255, 255, 255}, scale);
  }
  return img;
}

void write_png(const std::string& path, const rgb_image& img) {
  if (!stbi_write_png(path.c_str(), img.width, img.height, 3, img.pixels.data(), img.width * 3))
    throw demo_error(path + ": cannot write the PNG file");
}

}  // namespace ol_demo
