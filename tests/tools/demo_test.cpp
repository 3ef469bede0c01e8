// The demo: the bundled scene is detected completely, frame directories
// round-trip through --dump and --input, and malformed inputs give one line
// on standard error and a failure status, never a crash.
#include <gtest/gtest.h>

#ifdef OL_HAVE_DEMO_LIB

#include <math.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "demo/demo_main.h"
#include "demo/frame_io.h"
#include "demo/npy.h"
#include "demo/pipeline.h"
#include "demo/render.h"
#include "demo/scene.h"

namespace fs = std::filesystem;
using namespace ol_demo;

namespace {

// A fresh directory under one temporary root, removed when the program ends.
std::string temp_dir(const char* tag) {
  static struct root {
    std::string path = (fs::path(testing::TempDir()) / "ol_demo_XXXXXX").string();
    root() { EXPECT_NE(mkdtemp(&path[0]), nullptr) << path; }
    ~root() { std::error_code ec; fs::remove_all(path, ec); }
  } r;
  static int n = 0;
  const std::string dir = r.path + "/" + tag + std::to_string(n++);
  fs::create_directories(dir);
  return dir;
}

struct run_output {
  int status;
  std::string out, err;
};

run_output run_demo(std::vector<std::string> args) {
  args.insert(args.begin(), "frcnn_demo");
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(&a[0]);
  argv.push_back(nullptr);
  fflush(stdout);
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  const int status = demo_main(static_cast<int>(args.size()), argv.data());
  fflush(stdout);
  fflush(stderr);
  const std::string out = testing::internal::GetCapturedStdout();
  return {status, out, testing::internal::GetCapturedStderr()};
}

bool has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// The bundled frame run once, and written as a frame directory (shared by
// the tests that need files; each copies it before changing anything).
struct bundled {
  frame f = make_bundled_frame(2);
  frame_result result;
  std::vector<uint16_t> rcnn_result;
  std::string dir = temp_dir("frame");
  bundled() {
    pipeline p(f.desc, f.base_anchors);
    result = run_frame(p, f);
    rcnn_result = p.rcnn_result();
    dump_frame_dir(f, dir, p.roi_features().data());
  }
};

const bundled& bundled_run() {
  static const bundled* b = new bundled;
  return *b;
}

std::string copy_of_frame_dir() {
  const std::string dir = temp_dir("case");
  fs::copy(bundled_run().dir, dir, fs::copy_options::recursive);
  return dir;
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void write_file(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

float hf(uint16_t bits) { return opt_layers_half::to_float(bits); }

}  // namespace

TEST(demo_scene, finds_every_object_the_same_way_for_any_threads_and_sort) {
  const bundled& b = bundled_run();
  const frcnn_desc& d = b.f.desc;
  const evaluation e = evaluate(b.result.detections, b.f.ground_truth, 0.5f);
  EXPECT_EQ(e.ground_truth, 7u);
  EXPECT_EQ(e.found, e.ground_truth) << "recall below 1";
  EXPECT_EQ(e.true_positives, e.detections) << "a false positive above the threshold";
  for (size_t i = 0; i < b.result.detections.size(); ++i) {
    const detection& det = b.result.detections[i];
    EXPECT_GT(det.score, d.cls_prob);
    ASSERT_GE(e.match[i], 0);
    // The second-stage deltas invert the head decode, so the boxes come back
    // close to the objects (noise and half precision aside).
    const labelled_box& g = b.f.ground_truth[static_cast<size_t>(e.match[i])];
    EXPECT_GT(iou_inclusive(det.x1, det.y1, det.x2, det.y2, g.x1, g.y1, g.x2, g.y2), 0.85f);
  }
  // The clutter object (class 0, not in the ground truth) draws ROIs, so the
  // precision above shows that the second stage rejects it.
  const scene_object* clutter = &b.f.synthetic_scene.objects[0];
  while (clutter->cls != 0) ++clutter;
  uint32_t near_clutter = 0;
  for (uint32_t i = 0; i < 4 * b.result.rois; i += 4) {
    const uint16_t* r = &b.f.rois[i];
    near_clutter += iou_inclusive(hf(r[0]), hf(r[1]), hf(r[2]), hf(r[3]), clutter->x1, clutter->y1,
                                  clutter->x2, clutter->y2) > 0.5f;
  }
  EXPECT_GT(near_clutter, 0u);
  // Scores are a softmax pair (background plane a, foreground anchor_num + a);
  // pad columns stay zero.
  const size_t fg = static_cast<size_t>(d.anchor_num) * d.fmap_h * d.rpn_cls_pitch;
  uint32_t bad = 0;
  for (size_t i = 0; i < fg; ++i) {
    const uint16_t bg_bits = b.f.rpn_cls[i], fg_bits = b.f.rpn_cls[fg + i];
    bad += i % d.rpn_cls_pitch >= d.fmap_w ? bg_bits != 0 || fg_bits != 0
                                           : fabsf(hf(bg_bits) + hf(fg_bits) - 1.0f) > 1e-3f;
  }
  EXPECT_EQ(bad, 0u);

  // The same frame and detections for any thread count and either sort.
  for (uint8_t threads : {1, 4}) {
    for (bool use_qsort : {false, true}) {
      frame f = make_bundled_frame(threads);
      EXPECT_TRUE(f.rpn_cls == b.f.rpn_cls && f.rpn_bbox == b.f.rpn_bbox && f.fmap == b.f.fmap &&
                  f.image.pixels == b.f.image.pixels);
      f.desc.is_use_qsort = use_qsort;
      pipeline p(f.desc, f.base_anchors);
      run_frame(p, f);
      EXPECT_EQ(p.rcnn_result(), b.rcnn_result) << int(threads) << " threads, qsort " << use_qsort;
      EXPECT_EQ(f.rois, b.f.rois);
    }
  }
}

TEST(demo_npy, write_then_read_keeps_type_shape_and_bytes) {
  const std::string path = temp_dir("npy") + "/a.npy";
  const std::vector<uint16_t> v = {1, 2, 3, 0x3C00, 0xFFFF, 0x8000};
  const std::vector<uint8_t> v_bytes = {1, 0, 2, 0, 3, 0, 0, 0x3C, 0xFF, 0xFF, 0, 0x80};
  for (const auto& shape : std::vector<std::vector<uint64_t>>{{6}, {2, 3}, {1, 2, 3}, {6, 1}}) {
    npy_write(path, npy_dtype::u2, shape, v.data());
    const std::string bytes = read_file(path);
    ASSERT_GE(bytes.size(), 10u);
    const size_t header = 10 + (uint8_t(bytes[8]) | uint8_t(bytes[9]) << 8);
    EXPECT_EQ(header % 64, 0u) << "data must start on a 64-byte boundary";
    EXPECT_EQ(bytes[header - 1], '\n');
    // The header text of a one-dimensional array keeps Python's tuple comma.
    EXPECT_EQ(has(bytes, "'shape': (6,)"), shape.size() == 1);
    const npy_array a = npy_read(path);
    EXPECT_EQ(a.dtype, npy_dtype::u2);
    EXPECT_EQ(a.shape, shape);
    EXPECT_EQ(a.data, v_bytes);
  }
  // As NumPy writes a version 2.0 file: 4-byte header length, "2L" spacing.
  std::string dict = "{'descr': '<i2', 'fortran_order': False, 'shape': (2L, 1), }";
  dict.append(64 - (12 + dict.size() + 1) % 64, ' ') += '\n';
  const uint32_t n = static_cast<uint32_t>(dict.size());
  const std::string magic_len = std::string("\x93NUMPY\x02\x00", 8) + std::string((char*)&n, 4);
  write_file(path, magic_len + dict + std::string("\x05\x00\xFF\xFF", 4));
  const npy_array a = npy_read(path);
  EXPECT_EQ(a.dtype, npy_dtype::i2);
  EXPECT_EQ(a.shape, (std::vector<uint64_t>{2, 1}));
  EXPECT_EQ(a.data, (std::vector<uint8_t>{5, 0, 0xFF, 0xFF}));  // 5, -1
}

TEST(demo_frame_dir, config_values_survive_text) {
  // Every field set to an unusual value comes back bit for bit.
  frame f = bundled_run().f;
  frcnn_desc& d = f.desc;
  d.thread_num = 3;
  d.is_debug = d.fmap_sign = d.rcnn_bbox_share_location = d.is_anchor_bbox_suppress = 1;
  d.is_rpn_cls_fg_minus_bg = d.is_filter_rpn_cls = d.is_apply_bbox_scale_factor = 1;
  d.is_no_rcnn_bg_bbox = d.is_use_qsort = 1;
  d.rpn_bbox_pitch = 123;
  d.pool_pitch = 9;
  d.pre_nms_iou = 0.3f;
  d.rpn_cls_threshold = -0.37f;
  d.cls_prob = -0.0f;
  d.bbox_scale_factor = {0.1f, 1e-7f, 0.2f, 12345.678f};
  d.bbox_type = 1;
  f.base_anchors[5] = 0.1f;
  const std::string path = temp_dir("cfg") + "/config.json";
  const std::string text = config_json(f);
  write_file(path, text);
  frame g;
  read_config(path, 1, &g);
  EXPECT_EQ(memcmp(&g.desc, &d, sizeof d), 0) << text;
  EXPECT_EQ(g.base_anchors, f.base_anchors);
  for (const char* s : {"\"pre_nms_iou\": 0.3,", "\"rpn_cls_threshold\": -0.37,", "[-84, -40, 99, 55]"})
    EXPECT_TRUE(has(text, s)) << s << "\n" << text;

  // Optional fields take their defaults; flags may be 0 or 1.
  write_file(path,
             "{\"anchor_num\": 1, \"pre_nms_num\": 10, \"post_nms_num\": 5, \"class_num\": 2, "
             "\"img_h\": 64, \"img_w\": 64, \"fmap_scale\": 16, \"fmap_d\": 16, \"fmap_h\": 4, "
             "\"fmap_w\": 4, \"fmap_pitch\": 4, \"rpn_cls_pitch\": 4, \"min_size\": 0, "
             "\"pool_h\": 2, \"pool_w\": 3, \"rcnn_bbox_pitch\": 8, \"rcnn_cls_pitch\": 2, "
             "\"pre_nms_iou\": 0.7, \"post_nms_iou\": 0.3, \"cls_prob\": 0.5, "
             "\"rpn_cls_threshold\": 0, \"bbox_type\": 0, \"is_use_qsort\": 1, "
             "\"base_anchors\": [[0, 0, 15, 15]]}");
  frame h;
  read_config(path, 7, &h);
  EXPECT_EQ(h.desc.thread_num, 7);
  EXPECT_EQ(h.desc.rpn_bbox_pitch, 4u);
  EXPECT_EQ(h.desc.pool_pitch, 3u);
  EXPECT_EQ(h.desc.is_use_qsort, 1);
  EXPECT_EQ(h.desc.bbox_scale_factor.height, 1.0f);
  EXPECT_FALSE(h.have_ground_truth);
}

// Without the second stage's outputs the demo writes the pipeline's ROIs and
// pooled features for the application; with them saved beside, it runs the
// whole frame, and --dump writes the pipeline's ROIs (no rois.npy given) and
// no image (none given).
TEST(demo_command, first_stage_only_then_second_stage) {
  const bundled& b = bundled_run();
  const std::string dir = copy_of_frame_dir();
  for (const char* name : {"rcnn_cls.npy", "rcnn_bbox.npy", "rois.npy", "roi_features.npy"})
    fs::remove(dir + "/" + name);
  run_output r = run_demo({"--input", dir, "--frames", "1"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(has(r.out, "first stage only")) << r.out;
  const npy_array rois = npy_read(dir + "/rois.npy"), features = npy_read(dir + "/roi_features.npy");
  EXPECT_TRUE(rois.dtype == npy_dtype::f2 && features.dtype == npy_dtype::u2);
  EXPECT_EQ(rois.shape, (std::vector<uint64_t>{b.result.rois, 4}));
  EXPECT_EQ(memcmp(rois.data.data(), b.f.rois.data(), rois.data.size()), 0);
  EXPECT_EQ(features.shape, (std::vector<uint64_t>{b.result.rois, 4, 7, 7, 16}));
  EXPECT_EQ(read_file(dir + "/roi_features.npy"), read_file(b.dir + "/roi_features.npy"));

  fs::copy_file(b.dir + "/rcnn_cls.npy", dir + "/rcnn_cls.npy");
  fs::copy_file(b.dir + "/rcnn_bbox.npy", dir + "/rcnn_bbox.npy");
  fs::remove(dir + "/rois.npy");
  fs::remove(dir + "/image.npy");
  r = run_demo({"--input", dir, "--frames", "2", "--out", dir + "/p.png", "--dump", dir + "/again"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(has(r.out, "recall 1.00 (7 of 7 objects), precision 1.00")) << r.out;
  EXPECT_TRUE(fs::exists(dir + "/p.png"));
  EXPECT_EQ(read_file(dir + "/again/rois.npy"), read_file(b.dir + "/rois.npy"));
  EXPECT_FALSE(fs::exists(dir + "/again/image.npy"));
}

// The bundled run prints its report and draws; its --dump loads back to the
// same frame and runs again through --input (with the comparison sort too).
TEST(demo_command, bundled_run_prints_draws_and_dumps) {
  const bundled& b = bundled_run();
  const std::string dir = temp_dir("cmd");
  const std::string png = dir + "/out.png";
  const run_output r = run_demo({"--frames", "3", "--threads", "2", "--out", png, "--proposals",
                                 "--dump", dir + "/dumped"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");
  for (const char* s : {"configuration (bundled synthetic scene):", "threads 2,",
                        "proposals: 6000 before NMS, ", "detections (probability > 0.50): 7",
                        "recall 1.00 (7 of 7 objects), precision 1.00 (7 of 7 detections)",
                        "stage times over 3 frames", "post_nms", "all 3 frames gave the same",
                        "picture: "})
    EXPECT_TRUE(has(r.out, s)) << s << "\n" << r.out;
  // A PNG of the image's size (big-endian width and height at 16 and 20).
  const std::string bytes = read_file(png);
  ASSERT_GT(bytes.size(), 24u);
  EXPECT_EQ(bytes.substr(0, 8), std::string("\x89PNG\r\n\x1a\n", 8));
  EXPECT_EQ(bytes.substr(16, 8), std::string("\0\0\x03\xe8\0\0\x02\x58", 8));
  frame f = load_frame_dir(dir + "/dumped", 2);
  EXPECT_EQ(memcmp(&f.desc, &b.f.desc, sizeof f.desc), 0);
  EXPECT_EQ(config_json(f), config_json(b.f));  // anchors, class names, ground truth
  EXPECT_TRUE(f.rpn_cls == b.f.rpn_cls && f.rpn_bbox == b.f.rpn_bbox && f.fmap == b.f.fmap);
  EXPECT_TRUE(f.rcnn_cls == b.f.rcnn_cls && f.rcnn_bbox == b.f.rcnn_bbox && f.rois == b.f.rois);
  EXPECT_EQ(f.image.pixels, b.f.image.pixels);
  const run_output again = run_demo({"--input", dir + "/dumped", "--frames", "1", "--qsort",
                                     "--out", dir + "/again.png"});
  ASSERT_EQ(again.status, 0) << again.err;
  EXPECT_TRUE(has(again.out, "recall 1.00 (7 of 7 objects), precision 1.00"));
  EXPECT_TRUE(has(again.out, "comparison sort"));
}

TEST(demo_command, picture_marks_detections) {
  const bundled& b = bundled_run();
  const evaluation e = evaluate(b.result.detections, b.f.ground_truth, 0.5f);
  picture_input in{&b.f, &b.result.detections, &e, nullptr, 0, ""};
  const rgb_image img = draw_picture(in);
  ASSERT_EQ(img.width, 1000);
  ASSERT_EQ(img.height, 600);
  for (const detection& d : b.result.detections) {
    // The bottom edge of every box is drawn in the highlight colour.
    const int x = static_cast<int>((d.x1 + d.x2) / 2), y = static_cast<int>(lroundf(d.y2)) - 1;
    const uint8_t* p = &img.pixels[(static_cast<size_t>(y) * img.width + x) * 3];
    EXPECT_EQ(std::vector<uint8_t>(p, p + 3), (std::vector<uint8_t>{255, 214, 0}));
  }
  EXPECT_EQ(img.pixels[(300 * 1000 + 5) * 3], b.f.image.pixels[(300 * 1000 + 5) * 3]);

  // Names from a user's config may hold any bytes; boxes any coordinates.
  frame f = b.f;
  f.class_names = {"bg", "caf\xC3\xA9", std::string("tab\tnul\0x", 9), "\x7F\x80\xFF", ""};
  f.image = rgb_image();
  f.ground_truth.push_back({1, -1e30f, NAN, 1e30f, 5e9f});
  std::vector<detection> dets = b.result.detections;
  dets.push_back({4, 0.9f, -5.0f, -7.0f, 2000.0f, 1e20f});
  const evaluation e2 = evaluate(dets, f.ground_truth, 0.5f);
  in = {&f, &dets, &e2, nullptr, 0, std::string(400, 'x') + "\xE2\x9C\x93"};
  const rgb_image odd = draw_picture(in);
  EXPECT_EQ(odd.width, 1000);
  EXPECT_EQ(odd.height, 600);
}

TEST(demo_command, options_and_usage) {
  const run_output help = run_demo({"--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_TRUE(has(help.out, "rcnn_bbox.npy"));
  for (const auto& args : std::vector<std::vector<std::string>>{
           {"--threads", "0"}, {"--threads", "33"}, {"--frames", "x"}, {"--frames"}, {"--bogus"},
           {"--out", ""}}) {
    const run_output r = run_demo(args);
    EXPECT_NE(r.status, 0) << args[0];
    EXPECT_EQ(r.err.rfind("frcnn_demo: error: ", 0), 0u) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_EQ(r.out, "");
  }
}

// Each case damages one file of a good frame directory; the demo must stop
// with status 1 and one line naming the file and the fault.
TEST(demo_command, malformed_inputs_fail_with_one_line) {
  const bundled& b = bundled_run();
  const frcnn_desc& d = b.f.desc;
  const uint32_t R = b.result.rois;
  using edit = std::function<void(const std::string& path)>;
  auto put = [](std::string bytes) -> edit {
    return [=](const std::string& path) { write_file(path, bytes); };
  };
  auto npy = [&](const std::string& descr, const std::string& rest, const std::string& data = "") {
    const std::string dict = "{'descr': " + descr + ", 'fortran_order': " + rest + "\n";
    return put(std::string("\x93NUMPY\x01\x00", 8) + char(dict.size()) + '\0' + dict + data);
  };
  auto zeros = [](npy_dtype t, std::vector<uint64_t> shape) -> edit {
    return [=](const std::string& path) {
      uint64_t n = npy_dtype_size(t);
      for (uint64_t s : shape) n *= s;
      npy_write(path, t, shape, std::vector<uint8_t>(n).data());
    };
  };
  auto sub = [](std::string from, std::string to) -> edit {
    return [=](const std::string& path) {
      std::string s = read_file(path);
      const size_t at = s.find(from);
      ASSERT_NE(at, std::string::npos) << from;
      write_file(path, s.replace(at, from.size(), to));
    };
  };
  const edit rm = [](const std::string& path) { fs::remove(path); };
  const npy_dtype f2 = npy_dtype::f2, u2 = npy_dtype::u2;
  const std::string c1 = "False, 'shape': (1,), }";
  const struct {
    const char* file;
    edit change;
    const char* expect;
  } cases[] = {
      {"rpn_cls.npy", put(""), "bad magic"},
      {"rpn_cls.npy", put("PK\x03\x04 not numpy at all"), "bad magic"},
      {"rpn_cls.npy", put(std::string("\x93NUMPY\x07\x00\x10\x00", 10)), "format version 7"},
      {"rpn_cls.npy", put(std::string("\x93NUMPY\x01\x00\x10\x00{'", 12)), "truncated .npy header"},
      {"rpn_cls.npy", npy("'<f2'", "False}"), "lacks"},
      {"rpn_cls.npy", npy("'<f2'", "True, 'shape': (2, 2), }", std::string(8, '\0')), "Fortran"},
      {"rpn_cls.npy", npy("'>f2'", c1, "ab"), "big-endian"},
      {"rpn_cls.npy", npy("'|O'", c1, "12345678"), "unsupported dtype '|O'"},
      {"rpn_cls.npy", npy("[('a', '<f2')]", c1, "ab"), "structured"},
      {"rpn_cls.npy", npy("'<f2'", "False, 'shape': (4294967296, 4096), }"), "truncated"},
      {"rpn_cls.npy", npy("'<f2'", "False, 'shape': (4294967296, 4294967296), }"), "too large"},
      {"rpn_cls.npy", npy("'<f2'", "False, 'shape': (2, x), }"), "malformed shape"},
      {"rpn_cls.npy", npy("'<f2'", c1, "abcd"), "2 bytes of data after the array"},
      {"rpn_bbox.npy", zeros(npy_dtype::f4, {4ull * d.anchor_num, d.fmap_h, d.fmap_pitch}),
       "dtype float32 ('<f4'), expected float16"},
      {"fmap.npy", zeros(u2, {4, d.fmap_h, d.fmap_w - 1, 16}),
       "shape (4, 38, 62, 16), expected (4, 38, 63, 16)"},
      {"rpn_cls.npy", zeros(f2, {2ull * d.anchor_num, d.fmap_h, d.fmap_w}), "expected (18, 38, 64)"},
      {"fmap.npy", zeros(npy_dtype::i2, {4, d.fmap_h, d.fmap_w, 16}),
       "dtype int16 but config.json has fmap_sign false"},
      {"config.json", sub("\"img_h\": 600,", "\"img_h\": 600,,"), "invalid JSON: parse error"},
      {"config.json", put("[1, 2]"), "top level must be a JSON object"},
      {"config.json", sub("\"fmap_h\": 38,", ""), "missing field 'fmap_h'"},
      {"config.json", sub("\"fmap_h\"", "\"fmap_hh\""), "unknown field 'fmap_hh'"},
      {"config.json", sub("\"min_size\": 16", "\"min_size\": -1"), "'min_size' must be an integer"},
      {"config.json", sub("\"rcnn_bbox_pitch\": 20", "\"rcnn_bbox_pitch\": 12"),
       "rcnn_bbox_pitch must be at least 20"},
      {"config.json", sub("[-84, -40, 99, 55],", ""),
       "'base_anchors' must be a list of anchor_num (9) boxes"},
      {"rpn_bbox.npy", rm, "missing file"},
      {"config.json", rm, "missing file"},
      {"rcnn_bbox.npy", rm, "missing file (rcnn_cls.npy and rcnn_bbox.npy go together)"},
      {"rcnn_cls.npy",
       [&](const std::string& p) {
         const std::string dir = fs::path(p).parent_path().string();
         fs::remove(dir + "/rois.npy");
         zeros(f2, {R - 1, d.rcnn_cls_pitch})(p);
         zeros(f2, {R - 1, d.rcnn_bbox_pitch})(dir + "/rcnn_bbox.npy");
       },
       "holds 299 ROI rows but the pipeline produced 300 ROIs"},
      {"rcnn_bbox.npy", zeros(f2, {R - 1, d.rcnn_bbox_pitch}), "shape (299, 20), expected (300, 20)"},
      {"rois.npy",
       [&](const std::string& p) {
         std::vector<uint16_t> rois = b.f.rois;
         rois[4 * 7 + 2] ^= 1;
         npy_write(p, f2, {R, 4}, rois.data());
       },
       "ROI 7 is ("},
      {"image.npy", zeros(npy_dtype::u1, {600, 999, 3}), "expected (600, 1000, 3)"},
  };
  for (const auto& c : cases) {
    const std::string dir = copy_of_frame_dir();
    c.change(dir + "/" + c.file);
    const run_output r = run_demo({"--input", dir, "--frames", "1", "--out", dir + "/x.png"});
    const std::string name = std::string(c.file) + ", " + c.expect + ": " + r.err;
    EXPECT_EQ(r.status, 1) << name;
    EXPECT_EQ(r.err.rfind("frcnn_demo: error: " + dir + "/" + c.file + ": ", 0), 0u) << name;
    EXPECT_TRUE(has(r.err, c.expect)) << name;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << name;
    EXPECT_FALSE(fs::exists(dir + "/x.png")) << name;
  }
  const run_output none = run_demo({"--input", "/nonexistent/frame"});
  EXPECT_EQ(none.status, 1);
  EXPECT_EQ(none.err, "frcnn_demo: error: /nonexistent/frame: no such directory\n");
}

#else

TEST(demo, not_built) { GTEST_SKIP() << "the tools are not part of this build"; }

#endif
