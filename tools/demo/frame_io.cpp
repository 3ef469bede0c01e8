#include "demo/frame_io.h"

#include <errno.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "demo/error.h"
#include "demo/npy.h"

namespace ol_demo {

namespace {

using json = nlohmann::json;

// ---- descriptor fields by name ---------------------------------------------

struct u32_field {
  const char* name;
  uint32_t frcnn_desc::*member;
};

const u32_field k_u32_fields[] = {
    {"anchor_num", &frcnn_desc::anchor_num},
    {"pre_nms_num", &frcnn_desc::pre_nms_num},
    {"post_nms_num", &frcnn_desc::post_nms_num},
    {"class_num", &frcnn_desc::class_num},
    {"img_h", &frcnn_desc::img_h},
    {"img_w", &frcnn_desc::img_w},
    {"fmap_scale", &frcnn_desc::fmap_scale},
    {"fmap_d", &frcnn_desc::fmap_d},
    {"fmap_h", &frcnn_desc::fmap_h},
    {"fmap_w", &frcnn_desc::fmap_w},
    {"fmap_pitch", &frcnn_desc::fmap_pitch},
    {"rpn_bbox_pitch", &frcnn_desc::rpn_bbox_pitch},
    {"rpn_cls_pitch", &frcnn_desc::rpn_cls_pitch},
    {"min_size", &frcnn_desc::min_size},
    {"pool_h", &frcnn_desc::pool_h},
    {"pool_w", &frcnn_desc::pool_w},
    {"pool_pitch", &frcnn_desc::pool_pitch},
    {"rcnn_bbox_pitch", &frcnn_desc::rcnn_bbox_pitch},
    {"rcnn_cls_pitch", &frcnn_desc::rcnn_cls_pitch},
    {"bbox_type", &frcnn_desc::bbox_type},
};

struct f32_field {
  const char* name;
  float frcnn_desc::*member;
};

const f32_field k_f32_fields[] = {
    {"pre_nms_iou", &frcnn_desc::pre_nms_iou},
    {"post_nms_iou", &frcnn_desc::post_nms_iou},
    {"cls_prob", &frcnn_desc::cls_prob},
    {"rpn_cls_threshold", &frcnn_desc::rpn_cls_threshold},
};

// The flags are bit-fields: reached through a getter and a setter.
struct flag_field {
  const char* name;
  bool (*get)(const frcnn_desc&);
  void (*set)(frcnn_desc&, bool);
};

#define OL_DEMO_FLAG(f) \
  { #f, [](const frcnn_desc& d) { return d.f != 0; }, [](frcnn_desc& d, bool v) { d.f = v; } }
const flag_field k_flags[] = {
    OL_DEMO_FLAG(is_debug),
    OL_DEMO_FLAG(fmap_sign),
    OL_DEMO_FLAG(rcnn_bbox_share_location),
    OL_DEMO_FLAG(is_anchor_bbox_suppress),
    OL_DEMO_FLAG(is_rpn_cls_fg_minus_bg),
    OL_DEMO_FLAG(is_rpn_cls_fg_only),
    OL_DEMO_FLAG(is_filter_rpn_cls),
    OL_DEMO_FLAG(is_apply_bbox_scale_factor),
    OL_DEMO_FLAG(is_no_rcnn_bg_bbox),
    OL_DEMO_FLAG(is_use_qsort),
};
#undef OL_DEMO_FLAG

// Optional fields and their defaults when absent.
const char* const k_optional[] = {"thread_num", "rpn_bbox_pitch", "pool_pitch",
                                  "bbox_scale_factor", "class_names", "ground_truth", "format"};

// Shortest decimal text that reads back as the same float, so that
// config.json holds 0.7 rather than 0.699999988079071.
double short_double(float v) {
  if (!std::isfinite(v)) return v;
  char buf[48];
  for (int prec = 1; prec <= 9; ++prec) {
    snprintf(buf, sizeof buf, "%.*g", prec, static_cast<double>(v));
    if (strtof(buf, nullptr) == v) break;
  }
  return strtod(buf, nullptr);
}

class config_reader {
 public:
  config_reader(const json& j, std::string path) : j_(j), path_(std::move(path)) {}

  [[noreturn]] void fail(const std::string& what) const { throw demo_error(path_ + ": " + what); }

  const json& need(const char* key) const {
    auto it = j_.find(key);
    if (it == j_.end()) fail(std::string("missing field '") + key + "'");
    return *it;
  }

  uint32_t u32(const json& v, const std::string& what) const {
    if (v.is_number_unsigned() || (v.is_number_integer() && v.get<int64_t>() >= 0)) {
      const uint64_t x = v.get<uint64_t>();
      if (x <= UINT32_MAX) return static_cast<uint32_t>(x);
    }
    fail(what + " must be an integer from 0 to 4294967295, not " + v.dump());
  }

  float f32(const json& v, const std::string& what) const {
    if (!v.is_number()) fail(what + " must be a number, not " + v.dump());
    const float x = v.get<float>();
    if (!std::isfinite(x)) fail(what + " must be finite");
    return x;
  }

  bool flag(const json& v, const std::string& what) const {
    if (v.is_boolean()) return v.get<bool>();
    if (v.is_number_integer() && (v.get<int64_t>() == 0 || v.get<int64_t>() == 1))
      return v.get<int64_t>() == 1;
    fail(what + " must be true or false, not " + v.dump());
  }

  const json& j_;
  std::string path_;
};

}  // namespace

void read_config(const std::string& path, uint8_t default_threads, frame* f) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    if (!std::filesystem::exists(path)) throw demo_error(path + ": missing file");
    throw demo_error(path + ": cannot open");
  }
  std::stringstream ss;
  ss << in.rdbuf();
  json j = json::parse(ss.str(), nullptr, false);
  if (j.is_discarded()) {
    // Parse again with exceptions for the position of the fault.
    try {
      j = json::parse(ss.str());
    } catch (const json::exception& e) {
      std::string what = e.what();
      const size_t at = what.find("parse error");
      throw demo_error(path + ": invalid JSON: " + (at == std::string::npos ? what : what.substr(at)));
    }
  }
  config_reader r(j, path);
  if (!j.is_object()) r.fail("the top level must be a JSON object");

  // Unknown keys are most likely misspelt fields: refuse them.
  for (auto it = j.begin(); it != j.end(); ++it) {
    const std::string& k = it.key();
    bool known = k == "base_anchors";
    for (const auto& u : k_u32_fields) known = known || k == u.name;
    for (const auto& u : k_f32_fields) known = known || k == u.name;
    for (const auto& u : k_flags) known = known || k == u.name;
    for (const char* o : k_optional) known = known || k == o;
    if (!known) r.fail("unknown field '" + k + "'");
  }

  frcnn_desc& d = f->desc;
  memset(&d, 0, sizeof d);
  for (const auto& u : k_u32_fields) {
    const bool optional = strcmp(u.name, "rpn_bbox_pitch") == 0 || strcmp(u.name, "pool_pitch") == 0;
    if (optional && !j.contains(u.name)) continue;
    d.*u.member = r.u32(r.need(u.name), std::string("'") + u.name + "'");
  }
  if (!j.contains("rpn_bbox_pitch")) d.rpn_bbox_pitch = d.fmap_pitch;
  if (!j.contains("pool_pitch")) d.pool_pitch = d.pool_w;
  for (const auto& u : k_f32_fields)
    d.*u.member = r.f32(r.need(u.name), std::string("'") + u.name + "'");
  for (const auto& u : k_flags)
    if (j.contains(u.name)) u.set(d, r.flag(j[u.name], std::string("'") + u.name + "'"));

  d.thread_num = default_threads;
  if (j.contains("thread_num")) {
    const uint32_t t = r.u32(j["thread_num"], "'thread_num'");
    if (t < 1 || t > 32) r.fail("'thread_num' must be from 1 to 32, not " + std::to_string(t));
    d.thread_num = static_cast<uint8_t>(t);
  }

  d.bbox_scale_factor = {1.0f, 1.0f, 1.0f, 1.0f};
  if (j.contains("bbox_scale_factor")) {
    const json& s = j["bbox_scale_factor"];
    float* out[4] = {&d.bbox_scale_factor.center_x, &d.bbox_scale_factor.center_y,
                     &d.bbox_scale_factor.width, &d.bbox_scale_factor.height};
    const char* names[4] = {"center_x", "center_y", "width", "height"};
    if (s.is_array() && s.size() == 4) {
      for (int k = 0; k < 4; ++k) *out[k] = r.f32(s[k], "'bbox_scale_factor'");
    } else if (s.is_object()) {
      for (int k = 0; k < 4; ++k) {
        if (!s.contains(names[k]))
          r.fail(std::string("'bbox_scale_factor' lacks '") + names[k] + "'");
        *out[k] = r.f32(s[names[k]], std::string("'bbox_scale_factor.") + names[k] + "'");
      }
      if (s.size() != 4) r.fail("'bbox_scale_factor' has fields besides center_x, center_y, width, height");
    } else {
      r.fail("'bbox_scale_factor' must be {center_x, center_y, width, height} or 4 numbers");
    }
  }

  check_desc(d, path);

  const json& anchors = r.need("base_anchors");
  if (!anchors.is_array() || anchors.size() != d.anchor_num)
    r.fail(strf("'base_anchors' must be a list of anchor_num (%u) boxes [x1, y1, x2, y2]",
                d.anchor_num));
  f->base_anchors.clear();
  for (size_t a = 0; a < anchors.size(); ++a) {
    const json& b = anchors[a];
    if (!b.is_array() || b.size() != 4)
      r.fail(strf("'base_anchors'[%zu] must be [x1, y1, x2, y2]", a));
    for (int k = 0; k < 4; ++k) f->base_anchors.push_back(r.f32(b[k], "'base_anchors'"));
  }

  f->class_names.clear();
  if (j.contains("class_names")) {
    const json& n = j["class_names"];
    if (!n.is_array() || n.size() != d.class_num)
      r.fail(strf("'class_names' must be a list of class_num (%u) strings", d.class_num));
    for (const json& s : n) {
      if (!s.is_string()) r.fail("'class_names' must hold strings");
      f->class_names.push_back(s.get<std::string>());
    }
  }

  f->ground_truth.clear();
  f->have_ground_truth = j.contains("ground_truth");
  if (f->have_ground_truth) {
    const json& g = j["ground_truth"];
    if (!g.is_array()) r.fail("'ground_truth' must be a list of {\"class\": c, \"box\": [x1, y1, x2, y2]}");
    for (size_t i = 0; i < g.size(); ++i) {
      const json& e = g[i];
      if (!e.is_object() || !e.contains("class") || !e.contains("box") || !e["box"].is_array() ||
          e["box"].size() != 4)
        r.fail(strf("'ground_truth'[%zu] must be {\"class\": c, \"box\": [x1, y1, x2, y2]}", i));
      labelled_box b;
      b.cls = r.u32(e["class"], "'ground_truth' class");
      if (b.cls < 1 || b.cls >= d.class_num)
        r.fail(strf("'ground_truth'[%zu]: class %u is not a foreground class (1..%u)", i, b.cls,
                    d.class_num - 1));
      b.x1 = r.f32(e["box"][0], "'ground_truth' box");
      b.y1 = r.f32(e["box"][1], "'ground_truth' box");
      b.x2 = r.f32(e["box"][2], "'ground_truth' box");
      b.y2 = r.f32(e["box"][3], "'ground_truth' box");
      f->ground_truth.push_back(b);
    }
  }
}

namespace {

// ---- arrays ------------------------------------------------------------

std::string shape_text(const std::vector<uint64_t>& s) {
  npy_array a;
  a.shape = s;
  return a.shape_text();
}

// Reads an array and checks its element type and shape. A leading
// dimension of 1 is accepted when allow_batch is set (NCHW dumps).
npy_array read_checked(const std::string& path, npy_dtype dtype, std::vector<uint64_t> shape,
                       const char* meaning, bool allow_batch = false) {
  npy_array a = npy_read(path);
  if (a.dtype != dtype)
    throw demo_error(path + ": dtype " + npy_dtype_name(a.dtype) + " ('" + a.descr +
                     "'), expected " + npy_dtype_name(dtype));
  if (allow_batch && a.shape.size() == shape.size() + 1 && a.shape[0] == 1)
    a.shape.erase(a.shape.begin());
  if (a.shape != shape)
    throw demo_error(path + ": shape " + a.shape_text() + ", expected " + shape_text(shape) +
                     " " + meaning);
  return a;
}

std::vector<uint16_t> to_u16(const npy_array& a) {
  std::vector<uint16_t> v(a.data.size() / 2);
  if (!v.empty()) memcpy(v.data(), a.data.data(), v.size() * 2);
  return v;
}

std::string join(const std::string& dir, const char* name) {
  return (std::filesystem::path(dir) / name).string();
}

bool exists(const std::string& path) {
  std::error_code ec;
  return std::filesystem::exists(path, ec);
}

// ---- writing config.json -------------------------------------------------

// Integral values print without a fraction (-84, not -84.0).
std::string num(float v) {
  if (v == truncf(v) && fabsf(v) < 1e9f && !(v == 0.0f && std::signbit(v)))
    return std::to_string(static_cast<long long>(v));
  return json(short_double(v)).dump();
}

}  // namespace

void check_desc(const frcnn_desc& d, const std::string& where) {
  auto fail = [&](const std::string& what) { throw demo_error(where + ": " + what); };
  if (d.thread_num < 1 || d.thread_num > 32) fail("thread_num must be from 1 to 32");
  if (d.anchor_num < 1 || d.anchor_num > 1024) fail("anchor_num must be from 1 to 1024");
  if (d.fmap_h < 1 || d.fmap_w < 1 || d.fmap_h > 4096 || d.fmap_w > 4096)
    fail("fmap_h and fmap_w must be from 1 to 4096");
  if (static_cast<uint64_t>(d.anchor_num) * d.fmap_h * d.fmap_w > (1u << 24))
    fail("anchor_num * fmap_h * fmap_w exceeds 16777216 anchor positions");
  if (d.img_h < 1 || d.img_w < 1 || d.img_h > 32767 || d.img_w > 32767)
    fail("img_h and img_w must be from 1 to 32767");
  if (d.pre_nms_num < 1 || d.pre_nms_num > 32767 || d.post_nms_num < 1 || d.post_nms_num > 32767)
    fail("pre_nms_num and post_nms_num must be from 1 to 32767");
  if (d.class_num < 2 || d.class_num > 4096)
    fail("class_num must be from 2 to 4096 (background and at least one class)");
  if (d.fmap_scale < 1) fail("fmap_scale must be at least 1");
  if (d.fmap_d < 16 || d.fmap_d % 16 != 0 || d.fmap_d > 16384)
    fail(strf("fmap_d must be a multiple of 16 from 16 to 16384, not %u", d.fmap_d));
  if (d.pool_h < 1 || d.pool_w < 1 || d.pool_h > 256 || d.pool_w > 256)
    fail("pool_h and pool_w must be from 1 to 256");
  if (d.rpn_cls_pitch < d.fmap_w) fail("rpn_cls_pitch must be at least fmap_w");
  if (d.fmap_pitch < d.fmap_w)
    fail("fmap_pitch (the row pitch of the RPN box deltas) must be at least fmap_w");
  if (d.rcnn_cls_pitch < d.class_num) fail("rcnn_cls_pitch must be at least class_num");
  const uint32_t sets = d.rcnn_bbox_share_location ? 1 : d.class_num - (d.is_no_rcnn_bg_bbox ? 1 : 0);
  if (d.rcnn_bbox_pitch < 4 * sets)
    fail(strf("rcnn_bbox_pitch must be at least %u (4 deltas for each of %u box sets)", 4 * sets,
              sets));
  if (d.bbox_type > 1) fail(strf("bbox_type must be 0 or 1, not %u", d.bbox_type));
  const uint64_t pooled = static_cast<uint64_t>(d.post_nms_num) * d.pool_h * d.pool_w * d.fmap_d;
  if (pooled > (1ull << 29))
    fail("post_nms_num * pool_h * pool_w * fmap_d exceeds 536870912 pooled elements");
  if (static_cast<uint64_t>(d.post_nms_num) * d.class_num > (1ull << 24))
    fail("post_nms_num * class_num exceeds 16777216 detection slots");
  if (static_cast<uint64_t>(d.rcnn_cls_pitch) + d.rcnn_bbox_pitch > (1ull << 20))
    fail("rcnn_cls_pitch and rcnn_bbox_pitch are unreasonably large");
  if (static_cast<uint64_t>(d.rpn_cls_pitch) + d.fmap_pitch > (1ull << 16))
    fail("rpn_cls_pitch and fmap_pitch are unreasonably large");
}

frame load_frame_dir(const std::string& dir, uint8_t default_threads) {
  if (!std::filesystem::is_directory(dir)) {
    if (!exists(dir)) throw demo_error(dir + ": no such directory");
    throw demo_error(dir + ": not a directory");
  }
  frame f;
  f.source = dir;
  read_config(join(dir, "config.json"), default_threads, &f);
  const frcnn_desc& d = f.desc;

  const uint32_t planes = rpn_cls_planes(d);
  f.rpn_cls = to_u16(read_checked(
      join(dir, "rpn_cls.npy"), npy_dtype::f2, {planes, d.fmap_h, d.rpn_cls_pitch},
      d.is_rpn_cls_fg_minus_bg || !d.is_rpn_cls_fg_only
          ? "(2*anchor_num score planes, fmap_h, rpn_cls_pitch)"
          : "(anchor_num score planes, fmap_h, rpn_cls_pitch)",
      true));
  f.rpn_bbox = to_u16(read_checked(join(dir, "rpn_bbox.npy"), npy_dtype::f2,
                                   {4ull * d.anchor_num, d.fmap_h, d.fmap_pitch},
                                   "(4*anchor_num delta planes, fmap_h, fmap_pitch)", true));
  {
    const std::string path = join(dir, "fmap.npy");
    npy_array a = npy_read(path);
    const npy_dtype want = d.fmap_sign ? npy_dtype::i2 : npy_dtype::u2;
    if (a.dtype != want) {
      if (a.dtype == npy_dtype::i2 || a.dtype == npy_dtype::u2)
        throw demo_error(path + ": dtype " + npy_dtype_name(a.dtype) + " but config.json has "
                         "fmap_sign " + (d.fmap_sign ? "true" : "false") + " (expected " +
                         npy_dtype_name(want) + ")");
      throw demo_error(path + ": dtype " + npy_dtype_name(a.dtype) + " ('" + a.descr +
                       "'), expected " + npy_dtype_name(want));
    }
    const std::vector<uint64_t> shape = {d.fmap_d / 16, d.fmap_h, d.fmap_w, 16};
    if (a.shape != shape)
      throw demo_error(path + ": shape " + a.shape_text() + ", expected " + shape_text(shape) +
                       " (fmap_d/16 channel blocks, fmap_h, fmap_w, 16)");
    f.fmap = to_u16(a);
  }

  const std::string cls_path = join(dir, "rcnn_cls.npy"), bbox_path = join(dir, "rcnn_bbox.npy");
  const bool have_cls = exists(cls_path), have_bbox = exists(bbox_path);
  if (have_cls != have_bbox)
    throw demo_error((have_cls ? bbox_path : cls_path) + ": missing file (rcnn_cls.npy and "
                     "rcnn_bbox.npy go together)");
  if (have_cls) {
    npy_array c = npy_read(cls_path);
    if (c.dtype != npy_dtype::f2)
      throw demo_error(cls_path + ": dtype " + npy_dtype_name(c.dtype) + " ('" + c.descr +
                       "'), expected float16");
    if (c.shape.size() != 2 || c.shape[1] != d.rcnn_cls_pitch)
      throw demo_error(cls_path + ": shape " + c.shape_text() + ", expected (R, " +
                       std::to_string(d.rcnn_cls_pitch) + ") (ROIs, rcnn_cls_pitch)");
    if (c.shape[0] > d.post_nms_num)
      throw demo_error(cls_path + strf(": %llu ROI rows, more than post_nms_num (%u)",
                                       static_cast<unsigned long long>(c.shape[0]),
                                       d.post_nms_num));
    const uint32_t rows = static_cast<uint32_t>(c.shape[0]);
    npy_array b = read_checked(bbox_path, npy_dtype::f2, {rows, d.rcnn_bbox_pitch},
                               "(ROIs as in rcnn_cls.npy, rcnn_bbox_pitch)");
    f.rcnn_cls = to_u16(c);
    f.rcnn_bbox = to_u16(b);
    f.rcnn_rows = rows;
    f.have_rcnn = true;
  }

  const std::string rois_path = join(dir, "rois.npy");
  if (exists(rois_path)) {
    npy_array r = npy_read(rois_path);
    if (r.dtype != npy_dtype::f2)
      throw demo_error(rois_path + ": dtype " + npy_dtype_name(r.dtype) + " ('" + r.descr +
                       "'), expected float16");
    if (r.shape.size() != 2 || r.shape[1] != 4 || r.shape[0] > d.post_nms_num)
      throw demo_error(rois_path + ": shape " + r.shape_text() +
                       ", expected (R, 4) with R at most post_nms_num");
    f.rois = to_u16(r);
    f.have_rois = true;
  }

  const std::string image_path = join(dir, "image.npy");
  if (exists(image_path)) {
    npy_array im = read_checked(image_path, npy_dtype::u1, {d.img_h, d.img_w, 3},
                                "(img_h, img_w, 3) RGB");
    f.image.width = static_cast<int>(d.img_w);
    f.image.height = static_cast<int>(d.img_h);
    f.image.pixels = std::move(im.data);
  }
  return f;
}

std::string config_json(const frame& f) {
  const frcnn_desc& d = f.desc;
  std::string s = "{\n  \"format\": \"frcnn_demo frame 1\",\n";
  s += "  \"thread_num\": " + std::to_string(d.thread_num) + ",\n";
  for (const auto& u : k_u32_fields)
    s += std::string("  \"") + u.name + "\": " + std::to_string(d.*u.member) + ",\n";
  for (const auto& u : k_f32_fields) s += std::string("  \"") + u.name + "\": " + num(d.*u.member) + ",\n";
  s += "  \"bbox_scale_factor\": {\"center_x\": " + num(d.bbox_scale_factor.center_x) +
       ", \"center_y\": " + num(d.bbox_scale_factor.center_y) +
       ", \"width\": " + num(d.bbox_scale_factor.width) +
       ", \"height\": " + num(d.bbox_scale_factor.height) + "},\n";
  for (const auto& u : k_flags)
    s += std::string("  \"") + u.name + "\": " + (u.get(d) ? "true" : "false") + ",\n";
  s += "  \"base_anchors\": [";
  for (size_t a = 0; a + 3 < f.base_anchors.size(); a += 4)
    s += std::string(a ? ",\n" : "\n") + "    [" + num(f.base_anchors[a]) + ", " +
         num(f.base_anchors[a + 1]) + ", " + num(f.base_anchors[a + 2]) + ", " +
         num(f.base_anchors[a + 3]) + "]";
  s += "\n  ]";
  if (!f.class_names.empty()) {
    s += ",\n  \"class_names\": [";
    for (size_t i = 0; i < f.class_names.size(); ++i)
      s += (i ? ", " : "") + json(f.class_names[i]).dump();
    s += "]";
  }
  if (f.have_ground_truth) {
    s += ",\n  \"ground_truth\": [";
    for (size_t i = 0; i < f.ground_truth.size(); ++i) {
      const labelled_box& b = f.ground_truth[i];
      s += std::string(i ? ",\n" : "\n") + "    {\"class\": " + std::to_string(b.cls) +
           ", \"box\": [" + num(b.x1) + ", " + num(b.y1) + ", " + num(b.x2) + ", " + num(b.y2) +
           "]}";
    }
    s += "\n  ]";
  }
  return s + "\n}\n";
}

namespace {

void make_dir(const std::string& dir) {
  std::error_code ec;
  std::filesystem::create_directories(dir, ec);
  if (ec || !std::filesystem::is_directory(dir))
    throw demo_error(dir + ": cannot create directory" + (ec ? ": " + ec.message() : ""));
}

void write_text(const std::string& path, const std::string& text) {
  FILE* out = fopen(path.c_str(), "wb");
  if (out == nullptr) throw demo_error(path + ": cannot create: " + strerror(errno));
  const bool ok = fwrite(text.data(), 1, text.size(), out) == text.size();
  if ((fclose(out) != 0) || !ok) throw demo_error(path + ": write error");
}

}  // namespace

void write_first_stage(const frame& f, const std::string& dir, const uint16_t* rois,
                       uint32_t roi_num, const uint16_t* roi_features) {
  const frcnn_desc& d = f.desc;
  npy_write(join(dir, "rois.npy"), npy_dtype::f2, {roi_num, 4}, rois);
  if (roi_features != nullptr)
    npy_write(join(dir, "roi_features.npy"), d.fmap_sign ? npy_dtype::i2 : npy_dtype::u2,
              {roi_num, d.fmap_d / 16, d.pool_h, d.pool_w, 16}, roi_features);
}

void dump_frame_dir(const frame& f, const std::string& dir, const uint16_t* roi_features) {
  if (!f.have_rcnn || !f.have_rois) throw demo_error(dir + ": the frame has no second stage to dump");
  const frcnn_desc& d = f.desc;
  make_dir(dir);
  write_text(join(dir, "config.json"), config_json(f));
  npy_write(join(dir, "rpn_cls.npy"), npy_dtype::f2, {rpn_cls_planes(d), d.fmap_h, d.rpn_cls_pitch},
            f.rpn_cls.data());
  npy_write(join(dir, "rpn_bbox.npy"), npy_dtype::f2, {4ull * d.anchor_num, d.fmap_h, d.fmap_pitch},
            f.rpn_bbox.data());
  npy_write(join(dir, "fmap.npy"), d.fmap_sign ? npy_dtype::i2 : npy_dtype::u2,
            {d.fmap_d / 16, d.fmap_h, d.fmap_w, 16}, f.fmap.data());
  npy_write(join(dir, "rcnn_cls.npy"), npy_dtype::f2, {f.rcnn_rows, d.rcnn_cls_pitch},
            f.rcnn_cls.data());
  npy_write(join(dir, "rcnn_bbox.npy"), npy_dtype::f2, {f.rcnn_rows, d.rcnn_bbox_pitch},
            f.rcnn_bbox.data());
  write_first_stage(f, dir, f.rois.data(), static_cast<uint32_t>(f.rois.size() / 4), roi_features);
  if (!f.image.empty())
    npy_write(join(dir, "image.npy"), npy_dtype::u1,
              {static_cast<uint64_t>(f.image.height), static_cast<uint64_t>(f.image.width), 3},
              f.image.pixels.data());
}

}  // namespace ol_demo
