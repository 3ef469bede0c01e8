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
#include "demo/error.h"
#include "demo/frame_io.h"
#include "demo/npy.h"
#include "demo/pipeline.h"
#include "demo/render.h"
#include "demo/scene.h"

namespace fs = std::filesystem;
using namespace ol_demo;

namespace {

// Directories made by the tests, removed when the program ends.
class temp_dirs : public testing::Environment {
 public:
  static std::vector<std::string>& list() {
    static std::vector<std::string> dirs;
    return dirs;
  }
  void TearDown() override {
    std::error_code ec;
    for (const std::string& d : list()) fs::remove_all(d, ec);
  }
};
testing::Environment* const k_temp_dirs = testing::AddGlobalTestEnvironment(new temp_dirs);

// A fresh directory under the test's temporary directory.
std::string temp_dir(const char* tag) {
  std::string tmpl = (fs::path(testing::TempDir()) / (std::string("ol_demo_") + tag + "_XXXXXX"))
                         .string();
  std::vector<char> buf(tmpl.begin(), tmpl.end());
  buf.push_back('\0');
  if (mkdtemp(buf.data()) == nullptr) ADD_FAILURE() << "mkdtemp failed for " << tmpl;
  temp_dirs::list().push_back(buf.data());
  return buf.data();
}

struct run_output {
  int status;
  std::string out;
  std::string err;
};

run_output run_demo(std::vector<std::string> args) {
  args.insert(args.begin(), "frcnn_demo");
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(&a[0]);
  argv.push_back(nullptr);
  fflush(stdout);
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  run_output r;
  r.status = demo_main(static_cast<int>(args.size()), argv.data());
  fflush(stdout);
  fflush(stderr);
  r.out = testing::internal::GetCapturedStdout();
  r.err = testing::internal::GetCapturedStderr();
  return r;
}

// The bundled frame run once, and written as a frame directory (shared by
// the tests that need files; each copies it before changing anything).
struct bundled {
  frame f;
  frame_result result;
  std::vector<uint16_t> rcnn_result;
  std::string dir;
};

const bundled& bundled_run() {
  static bundled* b = [] {
    bundled* x = new bundled;
    x->f = make_bundled_frame(2);
    pipeline p(x->f.desc, x->f.base_anchors);
    x->result = run_frame(p, x->f);
    x->rcnn_result = p.rcnn_result();
    x->dir = temp_dir("frame");
    dump_frame_dir(x->f, x->dir, p.roi_features().data());
    return x;
  }();
  return *b;
}

std::string copy_of_frame_dir() {
  const std::string dir = temp_dir("case");
  fs::copy(bundled_run().dir, dir, fs::copy_options::recursive | fs::copy_options::overwrite_existing);
  return dir;
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void write_file(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::vector<uint16_t> run_loaded(frame& f) {
  pipeline p(f.desc, f.base_anchors);
  run_frame(p, f);
  return p.rcnn_result();
}

}  // namespace

// ---- the bundled scene -----------------------------------------------------

TEST(demo_scene, finds_every_object_without_false_positives) {
  const bundled& b = bundled_run();
  const frcnn_desc& d = b.f.desc;
  EXPECT_EQ(b.result.proposals, d.pre_nms_num);
  EXPECT_GT(b.result.rois, 100u);
  EXPECT_LE(b.result.rois, d.post_nms_num);

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
}

TEST(demo_scene, clutter_stays_below_the_threshold) {
  // The clutter object draws ROIs but the second stage never believes them.
  const bundled& b = bundled_run();
  const scene& s = b.f.synthetic_scene;
  const scene_object* clutter = nullptr;
  for (const scene_object& o : s.objects)
    if (o.cls == 0) clutter = &o;
  ASSERT_NE(clutter, nullptr);
  uint32_t near_clutter = 0;
  for (uint32_t i = 0; i < b.result.rois; ++i) {
    const uint16_t* r = &b.f.rois[4 * i];
    const float u = iou_inclusive(opt_layers_half::to_float(r[0]), opt_layers_half::to_float(r[1]),
                                  opt_layers_half::to_float(r[2]), opt_layers_half::to_float(r[3]),
                                  clutter->x1, clutter->y1, clutter->x2, clutter->y2);
    if (u > 0.5f) ++near_clutter;
  }
  EXPECT_GT(near_clutter, 0u);
  for (const detection& det : b.result.detections)
    EXPECT_LT(iou_inclusive(det.x1, det.y1, det.x2, det.y2, clutter->x1, clutter->y1, clutter->x2,
                            clutter->y2),
              0.1f);
}

TEST(demo_scene, same_detections_for_any_thread_count_and_either_sort) {
  const bundled& b = bundled_run();
  for (uint8_t threads : {1, 4}) {
    for (bool use_qsort : {false, true}) {
      frame f = make_bundled_frame(threads);
      f.desc.is_use_qsort = use_qsort;
      EXPECT_EQ(run_loaded(f), b.rcnn_result) << int(threads) << " threads, qsort " << use_qsort;
      EXPECT_EQ(f.rois, b.f.rois);
    }
  }
}

TEST(demo_scene, frame_is_deterministic) {
  const frame a = make_bundled_frame(1), c = make_bundled_frame(3);
  EXPECT_EQ(a.rpn_cls, c.rpn_cls);
  EXPECT_EQ(a.rpn_bbox, c.rpn_bbox);
  EXPECT_EQ(a.fmap, c.fmap);
  EXPECT_EQ(a.image.pixels, c.image.pixels);
  // Pad columns of the RPN planes stay zero; scores are a softmax pair.
  const frcnn_desc& d = a.desc;
  const size_t plane = static_cast<size_t>(d.fmap_h) * d.rpn_cls_pitch;
  for (uint32_t y = 0; y < d.fmap_h; ++y) EXPECT_EQ(a.rpn_cls[y * d.rpn_cls_pitch + d.fmap_w], 0);
  for (size_t i = 0; i < d.anchor_num * plane; i += 97) {
    if (i % d.rpn_cls_pitch >= d.fmap_w) continue;
    const float bg = opt_layers_half::to_float(a.rpn_cls[i]);
    const float fg = opt_layers_half::to_float(a.rpn_cls[i + d.anchor_num * plane]);
    EXPECT_NEAR(bg + fg, 1.0f, 1e-3f);
  }
}

// ---- .npy files ------------------------------------------------------------

TEST(demo_npy, write_then_read_keeps_type_shape_and_bytes) {
  const std::string dir = temp_dir("npy");
  const std::vector<uint16_t> v = {1, 2, 3, 0x3C00, 0xFFFF, 0x8000};
  struct shape_case {
    std::vector<uint64_t> shape;
  };
  for (const auto& shape : std::vector<std::vector<uint64_t>>{{6}, {2, 3}, {1, 2, 3}, {6, 1}}) {
    const std::string path = dir + "/a.npy";
    npy_write(path, npy_dtype::u2, shape, v.data());
    const std::string bytes = read_file(path);
    ASSERT_GE(bytes.size(), 10u);
    const size_t header = 10 + (static_cast<uint8_t>(bytes[8]) | static_cast<uint8_t>(bytes[9]) << 8);
    EXPECT_EQ(header % 64, 0u) << "data must start on a 64-byte boundary";
    EXPECT_EQ(bytes[header - 1], '\n');
    const npy_array a = npy_read(path);
    EXPECT_EQ(a.dtype, npy_dtype::u2);
    EXPECT_EQ(a.shape, shape);
    ASSERT_EQ(a.data.size(), 12u);
    EXPECT_EQ(memcmp(a.data.data(), v.data(), 12), 0);
  }
  // The header text of a one-dimensional array keeps Python's tuple comma.
  npy_write(dir + "/b.npy", npy_dtype::f2, {6}, v.data());
  EXPECT_NE(read_file(dir + "/b.npy").find("'shape': (6,)"), std::string::npos);
}

TEST(demo_npy, reads_version_2_and_numpy_spacing) {
  const std::string dir = temp_dir("npy2");
  // As NumPy writes a version 2.0 file: 4-byte header length.
  std::string dict = "{'descr': '<i2', 'fortran_order': False, 'shape': (2L, 1), }";
  dict.append(64 - (12 + dict.size() + 1) % 64, ' ');
  dict += '\n';
  std::string file = std::string("\x93NUMPY\x02\x00", 8);
  const uint32_t n = static_cast<uint32_t>(dict.size());
  file += std::string(reinterpret_cast<const char*>(&n), 4) + dict + std::string("\x05\x00\xFF\xFF", 4);
  write_file(dir + "/v2.npy", file);
  const npy_array a = npy_read(dir + "/v2.npy");
  EXPECT_EQ(a.dtype, npy_dtype::i2);
  EXPECT_EQ(a.shape, (std::vector<uint64_t>{2, 1}));
  int16_t x[2];
  memcpy(x, a.data.data(), 4);
  EXPECT_EQ(x[0], 5);
  EXPECT_EQ(x[1], -1);
}

TEST(demo_npy, malformed_files_name_the_fault) {
  const std::string dir = temp_dir("npybad");
  auto header = [](const std::string& dict) {
    return std::string("\x93NUMPY\x01\x00", 8) + static_cast<char>(dict.size()) + '\0' + dict;
  };
  const struct {
    const char* name;
    std::string bytes;
    const char* expect;
  } cases[] = {
      {"empty", "", "bad magic"},
      {"magic", "PK\x03\x04 not numpy at all", "bad magic"},
      {"version", std::string("\x93NUMPY\x07\x00\x10\x00", 10), "format version 7"},
      {"short_header", header("{'descr': '<f2'").substr(0, 12), "truncated .npy header"},
      {"no_shape", header("{'descr': '<f2', 'fortran_order': False}\n"), "lacks"},
      {"fortran", header("{'descr': '<f2', 'fortran_order': True, 'shape': (2, 2), }\n") +
                      std::string(8, '\0'),
       "Fortran"},
      {"big_endian", header("{'descr': '>f2', 'fortran_order': False, 'shape': (1,), }\n") + "ab",
       "big-endian"},
      {"object", header("{'descr': '|O', 'fortran_order': False, 'shape': (1,), }\n") + "12345678",
       "unsupported dtype '|O'"},
      {"structured",
       header("{'descr': [('a', '<f2')], 'fortran_order': False, 'shape': (1,), }\n") + "ab",
       "structured"},
      {"huge", header("{'descr': '<f2', 'fortran_order': False, 'shape': (4294967296, 4096), }\n"),
       "truncated"},
      {"overflow",
       header("{'descr': '<f2', 'fortran_order': False, 'shape': (4294967296, 4294967296), }\n"),
       "too large"},
      {"bad_shape", header("{'descr': '<f2', 'fortran_order': False, 'shape': (2, x), }\n"),
       "malformed shape"},
      {"extra", header("{'descr': '<f2', 'fortran_order': False, 'shape': (1,), }\n") + "abcd",
       "2 bytes of data after the array"},
  };
  for (const auto& c : cases) {
    const std::string path = dir + "/" + c.name + ".npy";
    write_file(path, c.bytes);
    try {
      npy_read(path);
      ADD_FAILURE() << c.name << ": read without error";
    } catch (const demo_error& e) {
      const std::string what = e.what();
      EXPECT_EQ(what.rfind(path + ": ", 0), 0u) << what;
      EXPECT_NE(what.find(c.expect), std::string::npos) << c.name << ": " << what;
      EXPECT_EQ(what.find('\n'), std::string::npos) << what;
    }
  }
}

// ---- frame directories -----------------------------------------------------

TEST(demo_frame_dir, dump_and_load_round_trip) {
  const bundled& b = bundled_run();
  frame f = load_frame_dir(b.dir, 2);
  EXPECT_EQ(memcmp(&f.desc, &b.f.desc, sizeof f.desc), 0) << config_json(f);
  EXPECT_EQ(f.base_anchors, b.f.base_anchors);
  EXPECT_EQ(f.rpn_cls, b.f.rpn_cls);
  EXPECT_EQ(f.rpn_bbox, b.f.rpn_bbox);
  EXPECT_EQ(f.fmap, b.f.fmap);
  EXPECT_EQ(f.rcnn_cls, b.f.rcnn_cls);
  EXPECT_EQ(f.rcnn_bbox, b.f.rcnn_bbox);
  EXPECT_EQ(f.rois, b.f.rois);
  EXPECT_EQ(f.class_names, b.f.class_names);
  EXPECT_EQ(f.image.pixels, b.f.image.pixels);
  ASSERT_EQ(f.ground_truth.size(), b.f.ground_truth.size());
  for (size_t i = 0; i < f.ground_truth.size(); ++i)
    EXPECT_EQ(memcmp(&f.ground_truth[i], &b.f.ground_truth[i], sizeof(labelled_box)), 0);
  EXPECT_EQ(run_loaded(f), b.rcnn_result);
}

TEST(demo_frame_dir, config_values_survive_text) {
  // Every field set to an unusual value comes back bit for bit.
  frame f = bundled_run().f;
  frcnn_desc& d = f.desc;
  d.thread_num = 3;
  d.is_debug = 1;
  d.fmap_sign = 1;
  d.rcnn_bbox_share_location = 1;
  d.is_anchor_bbox_suppress = 1;
  d.is_rpn_cls_fg_minus_bg = 1;
  d.is_filter_rpn_cls = 1;
  d.is_apply_bbox_scale_factor = 1;
  d.is_no_rcnn_bg_bbox = 1;
  d.is_use_qsort = 1;
  d.rpn_bbox_pitch = 123;
  d.pool_pitch = 9;
  d.pre_nms_iou = 0.3f;
  d.rpn_cls_threshold = -0.37f;
  d.cls_prob = -0.0f;
  d.bbox_scale_factor = {0.1f, 1e-7f, 0.2f, 12345.678f};
  d.bbox_type = 1;
  f.base_anchors[5] = 0.1f;
  const std::string dir = temp_dir("cfg");
  const std::string text = config_json(f);
  write_file(dir + "/config.json", text);
  frame g;
  read_config(dir + "/config.json", 1, &g);
  EXPECT_EQ(memcmp(&g.desc, &d, sizeof d), 0) << text;
  EXPECT_EQ(g.base_anchors, f.base_anchors);
  EXPECT_NE(text.find("\"pre_nms_iou\": 0.3,"), std::string::npos) << text;
  EXPECT_NE(text.find("\"rpn_cls_threshold\": -0.37,"), std::string::npos) << text;
  EXPECT_NE(text.find("[-84, -40, 99, 55]"), std::string::npos) << text;

  // Optional fields take their defaults; flags may be 0 or 1.
  write_file(dir + "/config.json",
             "{\"anchor_num\": 1, \"pre_nms_num\": 10, \"post_nms_num\": 5, \"class_num\": 2, "
             "\"img_h\": 64, \"img_w\": 64, \"fmap_scale\": 16, \"fmap_d\": 16, \"fmap_h\": 4, "
             "\"fmap_w\": 4, \"fmap_pitch\": 4, \"rpn_cls_pitch\": 4, \"min_size\": 0, "
             "\"pool_h\": 2, \"pool_w\": 3, \"rcnn_bbox_pitch\": 8, \"rcnn_cls_pitch\": 2, "
             "\"pre_nms_iou\": 0.7, \"post_nms_iou\": 0.3, \"cls_prob\": 0.5, "
             "\"rpn_cls_threshold\": 0, \"bbox_type\": 0, \"is_use_qsort\": 1, "
             "\"base_anchors\": [[0, 0, 15, 15]]}");
  frame h;
  read_config(dir + "/config.json", 7, &h);
  EXPECT_EQ(h.desc.thread_num, 7);
  EXPECT_EQ(h.desc.rpn_bbox_pitch, 4u);
  EXPECT_EQ(h.desc.pool_pitch, 3u);
  EXPECT_EQ(h.desc.is_use_qsort, 1);
  EXPECT_EQ(h.desc.bbox_scale_factor.height, 1.0f);
  EXPECT_FALSE(h.have_ground_truth);
}

TEST(demo_frame_dir, first_stage_only_then_second_stage) {
  const bundled& b = bundled_run();
  const std::string dir = copy_of_frame_dir();
  for (const char* name : {"rcnn_cls.npy", "rcnn_bbox.npy", "rois.npy", "roi_features.npy"})
    fs::remove(dir + "/" + name);
  run_output r = run_demo({"--input", dir, "--frames", "1"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("first stage only"), std::string::npos) << r.out;
  const npy_array rois = npy_read(dir + "/rois.npy");
  EXPECT_EQ(rois.shape, (std::vector<uint64_t>{b.result.rois, 4}));
  EXPECT_EQ(memcmp(rois.data.data(), b.f.rois.data(), rois.data.size()), 0);
  const npy_array features = npy_read(dir + "/roi_features.npy");
  EXPECT_EQ(features.dtype, npy_dtype::u2);
  EXPECT_EQ(features.shape, (std::vector<uint64_t>{b.result.rois, 4, 7, 7, 16}));

  // The application's second stage then saves its outputs beside them.
  fs::copy_file(b.dir + "/rcnn_cls.npy", dir + "/rcnn_cls.npy");
  fs::copy_file(b.dir + "/rcnn_bbox.npy", dir + "/rcnn_bbox.npy");
  r = run_demo({"--input", dir, "--frames", "2", "--out", dir + "/p.png"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("recall 1.00 (7 of 7 objects), precision 1.00"), std::string::npos) << r.out;
}

// ---- the command -----------------------------------------------------------

TEST(demo_command, bundled_run_prints_and_draws) {
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
    EXPECT_NE(r.out.find(s), std::string::npos) << s << "\n" << r.out;
  // A PNG of the image's size.
  const std::string bytes = read_file(png);
  ASSERT_GT(bytes.size(), 24u);
  EXPECT_EQ(bytes.substr(0, 8), std::string("\x89PNG\r\n\x1a\n", 8));
  auto be32 = [&](size_t at) {
    return static_cast<uint32_t>(static_cast<uint8_t>(bytes[at]) << 24 |
                                 static_cast<uint8_t>(bytes[at + 1]) << 16 |
                                 static_cast<uint8_t>(bytes[at + 2]) << 8 |
                                 static_cast<uint8_t>(bytes[at + 3]));
  };
  EXPECT_EQ(be32(16), 1000u);
  EXPECT_EQ(be32(20), 600u);
  // The dump reads back to the same run, with the qsort ordering too.
  const run_output again = run_demo({"--input", dir + "/dumped", "--frames", "1", "--qsort",
                                     "--out", dir + "/again.png"});
  ASSERT_EQ(again.status, 0) << again.err;
  EXPECT_NE(again.out.find("recall 1.00 (7 of 7 objects), precision 1.00"), std::string::npos);
  EXPECT_NE(again.out.find("comparison sort"), std::string::npos);
}

TEST(demo_command, input_without_rois_dumps_the_pipelines_rois) {
  const bundled& b = bundled_run();
  const std::string dir = copy_of_frame_dir();
  fs::remove(dir + "/rois.npy");
  fs::remove(dir + "/image.npy");
  const run_output r = run_demo(
      {"--input", dir, "--frames", "1", "--out", dir + "/p.png", "--dump", dir + "/again"});
  ASSERT_EQ(r.status, 0) << r.err;
  const npy_array rois = npy_read(dir + "/again/rois.npy");
  ASSERT_EQ(rois.data.size(), b.f.rois.size() * 2);
  EXPECT_EQ(memcmp(rois.data.data(), b.f.rois.data(), rois.data.size()), 0);
  EXPECT_FALSE(fs::exists(dir + "/again/image.npy"));
  EXPECT_TRUE(fs::exists(dir + "/p.png"));
}

TEST(demo_command, picture_marks_detections) {
  const bundled& b = bundled_run();
  const evaluation e = evaluate(b.result.detections, b.f.ground_truth, 0.5f);
  picture_input in;
  in.f = &b.f;
  in.detections = &b.result.detections;
  in.eval = &e;
  const rgb_image img = draw_picture(in);
  ASSERT_EQ(img.width, 1000);
  ASSERT_EQ(img.height, 600);
  for (const detection& d : b.result.detections) {
    // The bottom edge of every box is drawn in the highlight colour.
    const int x = static_cast<int>((d.x1 + d.x2) / 2), y = static_cast<int>(lroundf(d.y2)) - 1;
    const uint8_t* p = &img.pixels[(static_cast<size_t>(y) * img.width + x) * 3];
    EXPECT_EQ(p[0], 255);
    EXPECT_EQ(p[1], 214);
    EXPECT_EQ(p[2], 0);
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
  in.f = &f;
  in.detections = &dets;
  in.eval = &e2;
  in.caption = std::string(400, 'x') + "\xE2\x9C\x93";
  const rgb_image odd = draw_picture(in);
  EXPECT_EQ(odd.width, 1000);
  EXPECT_EQ(odd.height, 600);
}

TEST(demo_command, options_and_usage) {
  const run_output help = run_demo({"--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.out.find("rcnn_bbox.npy"), std::string::npos);
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
// with one line naming the file and the fault.
TEST(demo_command, malformed_inputs_fail_with_one_line) {
  const bundled& b = bundled_run();
  const frcnn_desc& d = b.f.desc;
  using edit = std::function<void(const std::string& dir)>;
  auto rewrite_npy = [](const std::string& path, npy_dtype t, std::vector<uint64_t> shape) {
    uint64_t n = 1;
    for (uint64_t s : shape) n *= s;
    std::vector<uint8_t> zero(static_cast<size_t>(n * npy_dtype_size(t)), 0);
    npy_write(path, t, shape, zero.data());
  };
  auto replace_in = [](const std::string& path, const std::string& from, const std::string& to) {
    std::string s = read_file(path);
    const size_t at = s.find(from);
    ASSERT_NE(at, std::string::npos) << from;
    write_file(path, s.replace(at, from.size(), to));
  };
  const uint32_t R = b.result.rois;
  const struct {
    const char* name;
    edit change;
    const char* file;
    const char* expect;
  } cases[] = {
      {"truncated npy",
       [](const std::string& dir) {
         const std::string s = read_file(dir + "/rpn_cls.npy");
         write_file(dir + "/rpn_cls.npy", s.substr(0, s.size() - 100));
       },
       "rpn_cls.npy", "truncated"},
      {"wrong dtype",
       [&](const std::string& dir) {
         rewrite_npy(dir + "/rpn_bbox.npy", npy_dtype::f4, {4ull * d.anchor_num, d.fmap_h, d.fmap_pitch});
       },
       "rpn_bbox.npy", "dtype float32 ('<f4'), expected float16"},
      {"wrong shape",
       [&](const std::string& dir) {
         rewrite_npy(dir + "/fmap.npy", npy_dtype::u2, {4, d.fmap_h, d.fmap_w - 1, 16});
       },
       "fmap.npy", "shape (4, 38, 62, 16), expected (4, 38, 63, 16)"},
      {"pitch shape",
       [&](const std::string& dir) {
         rewrite_npy(dir + "/rpn_cls.npy", npy_dtype::f2, {2ull * d.anchor_num, d.fmap_h, d.fmap_w});
       },
       "rpn_cls.npy", "expected (18, 38, 64)"},
      {"signedness",
       [&](const std::string& dir) {
         rewrite_npy(dir + "/fmap.npy", npy_dtype::i2, {4, d.fmap_h, d.fmap_w, 16});
       },
       "fmap.npy", "dtype int16 but config.json has fmap_sign false"},
      {"bad json",
       [&](const std::string& dir) { replace_in(dir + "/config.json", "\"img_h\": 600,", "\"img_h\": 600,,"); },
       "config.json", "invalid JSON: parse error"},
      {"not an object", [](const std::string& dir) { write_file(dir + "/config.json", "[1, 2]"); },
       "config.json", "top level must be a JSON object"},
      {"missing field",
       [&](const std::string& dir) { replace_in(dir + "/config.json", "\"fmap_h\": 38,", ""); },
       "config.json", "missing field 'fmap_h'"},
      {"unknown field",
       [&](const std::string& dir) { replace_in(dir + "/config.json", "\"fmap_h\"", "\"fmap_hh\""); },
       "config.json", "unknown field 'fmap_hh'"},
      {"negative",
       [&](const std::string& dir) { replace_in(dir + "/config.json", "\"min_size\": 16", "\"min_size\": -1"); },
       "config.json", "'min_size' must be an integer"},
      {"inconsistent pitch",
       [&](const std::string& dir) {
         replace_in(dir + "/config.json", "\"rcnn_bbox_pitch\": 20", "\"rcnn_bbox_pitch\": 12");
       },
       "config.json", "rcnn_bbox_pitch must be at least 20"},
      {"anchors",
       [&](const std::string& dir) { replace_in(dir + "/config.json", "[-84, -40, 99, 55],", ""); },
       "config.json", "'base_anchors' must be a list of anchor_num (9) boxes"},
      {"missing file", [](const std::string& dir) { fs::remove(dir + "/rpn_bbox.npy"); },
       "rpn_bbox.npy", "missing file"},
      {"missing config", [](const std::string& dir) { fs::remove(dir + "/config.json"); },
       "config.json", "missing file"},
      {"one rcnn file", [](const std::string& dir) { fs::remove(dir + "/rcnn_bbox.npy"); },
       "rcnn_bbox.npy", "missing file (rcnn_cls.npy and rcnn_bbox.npy go together)"},
      {"not npy", [](const std::string& dir) { write_file(dir + "/rcnn_cls.npy", "{}\n"); },
       "rcnn_cls.npy", "bad magic"},
      {"rcnn rows",
       [&](const std::string& dir) {
         fs::remove(dir + "/rois.npy");
         rewrite_npy(dir + "/rcnn_cls.npy", npy_dtype::f2, {R - 1, d.rcnn_cls_pitch});
         rewrite_npy(dir + "/rcnn_bbox.npy", npy_dtype::f2, {R - 1, d.rcnn_bbox_pitch});
       },
       "rcnn_cls.npy",
       "holds 299 ROI rows but the pipeline produced 300 ROIs"},
      {"rcnn_bbox rows",
       [&](const std::string& dir) {
         rewrite_npy(dir + "/rcnn_bbox.npy", npy_dtype::f2, {R - 1, d.rcnn_bbox_pitch});
       },
       "rcnn_bbox.npy", "shape (299, 20), expected (300, 20)"},
      {"other rois",
       [&](const std::string& dir) {
         std::vector<uint16_t> rois = b.f.rois;
         rois[4 * 7 + 2] ^= 1;
         npy_write(dir + "/rois.npy", npy_dtype::f2, {R, 4}, rois.data());
       },
       "rois.npy", "ROI 7 is ("},
      {"image size",
       [&](const std::string& dir) { rewrite_npy(dir + "/image.npy", npy_dtype::u1, {600, 999, 3}); },
       "image.npy", "expected (600, 1000, 3)"},
  };
  for (const auto& c : cases) {
    const std::string dir = copy_of_frame_dir();
    c.change(dir);
    const run_output r = run_demo({"--input", dir, "--frames", "1", "--out", dir + "/x.png"});
    EXPECT_EQ(r.status, 1) << c.name;
    const std::string prefix = "frcnn_demo: error: " + dir + "/" + c.file + ": ";
    EXPECT_EQ(r.err.rfind(prefix, 0), 0u) << c.name << ": " << r.err;
    EXPECT_NE(r.err.find(c.expect), std::string::npos) << c.name << ": " << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << c.name << ": " << r.err;
    EXPECT_FALSE(fs::exists(dir + "/x.png")) << c.name;
  }
  const run_output none = run_demo({"--input", "/nonexistent/frame"});
  EXPECT_EQ(none.status, 1);
  EXPECT_EQ(none.err, "frcnn_demo: error: /nonexistent/frame: no such directory\n");
}

#else

TEST(demo, not_built) { GTEST_SKIP() << "the tools are not part of this build"; }

#endif
