// The demo's own contract: frame directories round-trip through --dump and
// --input, and bad options or malformed inputs give one line on standard
// error and a failure status, never a crash.
#include <gtest/gtest.h>

#ifdef OL_HAVE_DEMO_LIB

#include <stdlib.h>

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
#include "demo/scene.h"
#include "common/test_util.h"

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
  testing::internal::CaptureStderr();
  ol_test::stdout_capture out;
  const int status = demo_main(static_cast<int>(args.size()), argv.data());
  fflush(stderr);
  return {status, out.end(), testing::internal::GetCapturedStderr()};
}

bool has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// The bundled frame run once, and written as a frame directory (each test
// copies it before changing anything).
struct bundled {
  frame f = make_bundled_frame(2);
  std::string dir = temp_dir("frame");
  bundled() {
    pipeline p(f.desc, f.base_anchors);
    run_frame(p, f);
    dump_frame_dir(f, dir, p.roi_features().data());
  }
};
const bundled& bundled_run() {
  static const bundled b;
  return b;
}

std::string read_file(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void write_file(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

const char* const k_all_found = "recall 1.00 (7 of 7 objects), precision 1.00";

}  // namespace

// The bundled run prints its report and draws, and its --dump loads back to
// the same frame. Without the second stage's outputs, --input writes the
// pipeline's ROIs and pooled features for the application; with them, it
// runs the whole frame, and --dump writes the pipeline's ROIs (no rois.npy
// given) and no image (none given), which load back once more.
TEST(demo_command, dump_input_round_trip) {
  const bundled& b = bundled_run();
  const run_output help = run_demo({"--help"});
  EXPECT_TRUE(help.status == 0 && has(help.out, "rcnn_bbox.npy"));
  const std::string dir = temp_dir("cmd"), png = dir + "/out.png", dumped = dir + "/dumped";
  run_output r = run_demo({"--frames", "3", "--threads", "2", "--out", png, "--proposals", "--dump", dumped});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");
  for (const char* s : {"threads 2,", "proposals: 6000 before NMS, ", "detections (probability > 0.50): 7",
                        k_all_found, "stage times over 3 frames", "all 3 frames gave the same"})
    EXPECT_TRUE(has(r.out, s)) << s << "\n" << r.out;
  // A PNG of the image's size (big-endian width and height at 16 and 20).
  const std::string bytes = read_file(png);
  EXPECT_EQ(bytes.substr(0, 8), std::string("\x89PNG\r\n\x1a\n", 8));
  EXPECT_EQ(bytes.substr(16, 8), std::string("\0\0\x03\xe8\0\0\x02\x58", 8));
  for (const fs::directory_entry& e : fs::directory_iterator(b.dir))  // the same files, byte for byte
    EXPECT_EQ(read_file(fs::path(dumped) / e.path().filename()), read_file(e.path())) << e.path();

  for (const char* name : {"/rcnn_cls.npy", "/rcnn_bbox.npy", "/rois.npy", "/roi_features.npy"})
    fs::remove(dumped + name);
  r = run_demo({"--input", dumped, "--frames", "1"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(has(r.out, "first stage only")) << r.out;
  for (const char* name : {"/rois.npy", "/roi_features.npy"})
    EXPECT_EQ(read_file(dumped + name), read_file(b.dir + name)) << name;

  for (const char* name : {"/rcnn_cls.npy", "/rcnn_bbox.npy"}) fs::copy_file(b.dir + name, dumped + name);
  for (const char* name : {"/rois.npy", "/image.npy"}) fs::remove(dumped + name);
  r = run_demo({"--input", dumped, "--frames", "2", "--qsort", "--dump", dir + "/again"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(has(r.out, k_all_found) && has(r.out, "comparison sort")) << r.out;
  EXPECT_EQ(read_file(dir + "/again/rois.npy"), read_file(b.dir + "/rois.npy"));
  EXPECT_FALSE(fs::exists(dir + "/again/image.npy"));
  r = run_demo({"--input", dir + "/again", "--frames", "1"});  // the ROIs given this time
  EXPECT_TRUE(r.status == 0 && has(r.out, k_all_found)) << r.err;
}

// Bad options, and each file of a good frame directory damaged in turn: the
// demo stops with status 1 and one line on standard error (for an option the
// whole line given, and nothing on standard output; for a file naming the
// file and holding the fault), and draws nothing.
TEST(demo_command, bad_options_and_malformed_inputs_fail_with_one_line) {
  const bundled& b = bundled_run();
  const frcnn_desc& d = b.f.desc;
  const uint32_t R = static_cast<uint32_t>(b.f.rois.size() / 4);
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
  const npy_dtype f2 = npy_dtype::f2;
  const std::string c1 = "False, 'shape': (1,), }";
  const struct {
    const char* file;  // "": no file changed, `args` added to the command line
    edit change;
    const char* expect;
    std::vector<std::string> args = {};
  } cases[] = {
      {"", {}, "--threads expects a whole number from 1 to 32, not '0' (see --help)", {"--threads", "0"}},
      {"", {}, "--threads expects a whole number from 1 to 32, not '33' (see --help)", {"--threads", "33"}},
      {"", {}, "--frames expects a whole number from 1 to 1000000, not 'x' (see --help)", {"--frames", "x"}},
      {"", {}, "--frames needs a value (see --help)", {"--frames"}},
      {"", {}, "unknown option '--bogus' (see --help)", {"--bogus"}},
      {"", {}, "--out needs a file name (see --help)", {"--out", ""}},
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
      {"fmap.npy", zeros(npy_dtype::u2, {4, d.fmap_h, d.fmap_w - 1, 16}),
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
    SCOPED_TRACE(c.expect);
    const std::string dir = temp_dir("case"), file = dir + "/" + c.file;
    fs::copy(b.dir, dir, fs::copy_options::recursive);
    if (c.change) c.change(file);
    std::vector<std::string> args = {"--input", dir, "--frames", "1", "--out", dir + "/x.png"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const run_output r = run_demo(args);
    EXPECT_EQ(r.status, 1);
    EXPECT_FALSE(fs::exists(dir + "/x.png"));
    if (c.change)  // one line naming the file and holding the fault
      EXPECT_TRUE(r.err.rfind("frcnn_demo: error: " + file + ": ", 0) == 0 && has(r.err, c.expect) &&
                  std::count(r.err.begin(), r.err.end(), '\n') == 1) << r.err;
    else
      EXPECT_EQ(r.out + r.err, std::string("frcnn_demo: error: ") + c.expect + "\n");
  }
  EXPECT_EQ(run_demo({"--input", "/nonexistent/frame"}).err,
            "frcnn_demo: error: /nonexistent/frame: no such directory\n");
}

#else

TEST(demo, not_built) { GTEST_SKIP() << "the tools are not part of this build"; }

#endif
