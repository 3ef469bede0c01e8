#include "demo/demo_main.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "demo/error.h"
#include "demo/frame_io.h"
#include "demo/pipeline.h"
#include "demo/render.h"

namespace ol_demo {

namespace {

const char k_usage[] =
    "usage: frcnn_demo [options]\n"
    "\n"
    "Runs the Faster R-CNN post-processing pipeline of libbrennik_opt_layers on one\n"
    "frame through its exported interface (init, pre_nms_roi, post_nms, exit), prints\n"
    "the configuration, the proposal and ROI counts, the detections and the time of\n"
    "each stage, and draws the detections into a PNG picture.\n"
    "\n"
    "Without --input the frame is the bundled synthetic scene: objects of four\n"
    "classes at known boxes, with the network outputs a well-trained detector would\n"
    "give; recall and precision at IoU 0.5 are printed.\n"
    "\n"
    "options:\n"
    "  --threads N   worker threads of the pipeline (1..32; default: the number of\n"
    "                CPUs, or thread_num of config.json)\n"
    "  --qsort       order the RPN scores with the comparison sort (is_use_qsort)\n"
    "  --frames N    repetitions timed (default 300)\n"
    "  --out PATH    the picture (default frcnn_demo.png)\n"
    "  --proposals   also draw the ROIs (proposals after NMS), faintly\n"
    "  --input DIR   run on tensors dumped by an application (see below)\n"
    "  --dump DIR    write the frame in the --input format and go on\n"
    "  --help        this text\n"
    "\n"
    "The --input directory:\n"
    "  config.json    frcnn_desc fields by name (thread_num, rpn_bbox_pitch,\n"
    "                 pool_pitch, bbox_scale_factor and the flags are optional),\n"
    "                 \"base_anchors\": [[x1, y1, x2, y2], ...] (anchor_num boxes),\n"
    "                 optional \"class_names\" and \"ground_truth\":\n"
    "                 [{\"class\": c, \"box\": [x1, y1, x2, y2]}, ...]\n"
    "  rpn_cls.npy    float16 (P, fmap_h, rpn_cls_pitch); P = 2*anchor_num, or\n"
    "                 anchor_num with is_rpn_cls_fg_only alone\n"
    "  rpn_bbox.npy   float16 (4*anchor_num, fmap_h, fmap_pitch)\n"
    "  fmap.npy       uint16, or int16 with fmap_sign: (fmap_d/16, fmap_h, fmap_w, 16)\n"
    "  rcnn_cls.npy   float16 (R, rcnn_cls_pitch)  the second stage's outputs for\n"
    "  rcnn_bbox.npy  float16 (R, rcnn_bbox_pitch) the R ROIs of the first stage\n"
    "  rois.npy       optional float16 (R, 4): the ROIs the second stage ran on\n"
    "  image.npy      optional uint8 (img_h, img_w, 3): drawn under the detections\n"
    "The RPN tensors may have a leading batch dimension of 1. Without rcnn_cls.npy\n"
    "and rcnn_bbox.npy the demo runs the first stage only and writes rois.npy and\n"
    "roi_features.npy (R, fmap_d/16, pool_h, pool_w, 16) into DIR: run the second\n"
    "stage on them, save its outputs there and run the demo again.\n";

struct options {
  int threads = 0;  // 0: default
  bool qsort = false;
  long frames = 300;
  std::string out = "frcnn_demo.png";
  bool proposals = false;
  std::string input;
  std::string dump;
  bool help = false;
};

[[noreturn]] void usage_error(const std::string& what) {
  throw demo_error(what + " (see --help)");
}

long parse_count(const char* opt, const char* text, long lo, long hi) {
  char* end = nullptr;
  errno = 0;
  const long v = strtol(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || v < lo || v > hi)
    usage_error(strf("%s expects a whole number from %ld to %ld, not '%s'", opt, lo, hi, text));
  return v;
}

options parse_options(int argc, char** argv) {
  options o;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    auto value = [&]() -> const char* {
      if (i + 1 >= argc) usage_error(a + " needs a value");
      return argv[++i];
    };
    if (a == "--help" || a == "-h") {
      o.help = true;
    } else if (a == "--threads") {
      o.threads = static_cast<int>(parse_count("--threads", value(), 1, 32));
    } else if (a == "--qsort") {
      o.qsort = true;
    } else if (a == "--frames") {
      o.frames = parse_count("--frames", value(), 1, 1000000);
    } else if (a == "--out") {
      o.out = value();
      if (o.out.empty()) usage_error("--out needs a file name");
    } else if (a == "--proposals") {
      o.proposals = true;
    } else if (a == "--input") {
      o.input = value();
    } else if (a == "--dump") {
      o.dump = value();
    } else {
      usage_error("unknown option '" + a + "'");
    }
  }
  return o;
}

uint8_t default_threads() {
  const unsigned n = std::thread::hardware_concurrency();
  return static_cast<uint8_t>(std::min(32u, std::max(1u, n)));
}

void print_configuration(const frame& f) {
  const frcnn_desc& d = f.desc;
  printf("configuration (%s):\n", f.source.c_str());
  printf("  threads %u, RPN score ordering: %s\n", d.thread_num,
         d.is_use_qsort ? "comparison sort (qsort)" : "histogram sort");
  printf("  image %ux%u (w x h), feature map %ux%u cells at stride %u, %u channels\n", d.img_w,
         d.img_h, d.fmap_w, d.fmap_h, d.fmap_scale, d.fmap_d);
  const char* mode = d.is_rpn_cls_fg_minus_bg ? "foreground minus background"
                     : d.is_rpn_cls_fg_only   ? "foreground only"
                                              : "two-class planes";
  printf("  anchors: %u per cell, %u positions; RPN scores: %s, ", d.anchor_num,
         d.anchor_num * d.fmap_h * d.fmap_w, mode);
  if (d.is_filter_rpn_cls)
    printf("threshold %g\n", static_cast<double>(d.rpn_cls_threshold));
  else
    printf("no threshold\n");
  printf("  proposals: %u before NMS, %u after (IoU %.2f), min size %u, bbox type %u\n",
         d.pre_nms_num, d.post_nms_num, static_cast<double>(d.pre_nms_iou), d.min_size,
         d.bbox_type);
  printf("  pooling %ux%u; head: %u classes", d.pool_h, d.pool_w, d.class_num);
  if (!f.class_names.empty()) {
    printf(" (");
    for (size_t i = 0; i < f.class_names.size(); ++i)
      printf("%s%s", i ? ", " : "", f.class_names[i].c_str());
    printf(")");
  }
  printf(", class NMS IoU %.2f, probability > %.2f\n", static_cast<double>(d.post_nms_iou),
         static_cast<double>(d.cls_prob));
  printf("  pitches: rpn_cls %u, rpn_bbox %u (fmap_pitch), rcnn_cls %u, rcnn_bbox %u\n",
         d.rpn_cls_pitch, d.fmap_pitch, d.rcnn_cls_pitch, d.rcnn_bbox_pitch);
  std::string flags;
  auto add = [&](bool on, const char* name) {
    if (on) flags += std::string(flags.empty() ? "" : ", ") + name;
  };
  add(d.is_debug, "is_debug");
  add(d.fmap_sign, "fmap_sign");
  add(d.rcnn_bbox_share_location, "rcnn_bbox_share_location");
  add(d.is_anchor_bbox_suppress, "is_anchor_bbox_suppress");
  add(d.is_no_rcnn_bg_bbox, "is_no_rcnn_bg_bbox");
  add(d.is_apply_bbox_scale_factor, "is_apply_bbox_scale_factor");
  printf("  other flags: %s\n", flags.empty() ? "none" : flags.c_str());
  if (d.is_apply_bbox_scale_factor)
    printf("  bbox scale factors: %g %g %g %g\n",
           static_cast<double>(d.bbox_scale_factor.center_x),
           static_cast<double>(d.bbox_scale_factor.center_y),
           static_cast<double>(d.bbox_scale_factor.width),
           static_cast<double>(d.bbox_scale_factor.height));
}

void print_detections(const frame& f, const std::vector<detection>& dets, const evaluation* e) {
  printf("detections (probability > %.2f): %zu\n", static_cast<double>(f.desc.cls_prob),
         dets.size());
  if (!dets.empty())
    printf("   #  %-12s %7s %8s %8s %8s %8s%s\n", "class", "score", "x1", "y1", "x2", "y2",
           e ? "  match" : "");
  for (size_t i = 0; i < dets.size(); ++i) {
    const detection& d = dets[i];
    printf("  %2zu  %-12s %7.4f %8.1f %8.1f %8.1f %8.1f", i + 1, class_name(f, d.cls).c_str(),
           static_cast<double>(d.score), static_cast<double>(d.x1), static_cast<double>(d.y1),
           static_cast<double>(d.x2), static_cast<double>(d.y2));
    if (e != nullptr) {
      const int m = e->match[i];
      if (m >= 0) {
        const labelled_box& g = f.ground_truth[static_cast<size_t>(m)];
        printf("  object %d (IoU %.3f)", m + 1,
               static_cast<double>(iou_inclusive(d.x1, d.y1, d.x2, d.y2, g.x1, g.y1, g.x2, g.y2)));
      } else {
        printf("  false positive");
      }
    }
    printf("\n");
  }
}

struct timing {
  const char* name;
  std::vector<double> ms;
};

void print_times(std::vector<timing>& t, long frames) {
  printf("stage times over %ld frame%s (ms)                median      p99\n", frames,
         frames == 1 ? "" : "s");
  for (timing& s : t) {
    std::vector<double>& v = s.ms;
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    const double median = n % 2 ? v[n / 2] : 0.5 * (v[n / 2 - 1] + v[n / 2]);
    size_t p = (99 * n + 99) / 100;  // ceil(0.99 n)
    const double p99 = v[std::max<size_t>(p, 1) - 1];
    printf("  %-42s %8.3f %8.3f\n", s.name, median, p99);
  }
}

using clock_type = std::chrono::steady_clock;
double ms_between(clock_type::time_point a, clock_type::time_point b) {
  return std::chrono::duration<double, std::milli>(b - a).count();
}

int run(int argc, char** argv) {
  const options o = parse_options(argc, argv);
  if (o.help) {
    fputs(k_usage, stdout);
    return 0;
  }
  setvbuf(stdout, nullptr, _IOLBF, 0);

  opt_layers_version v{};
  if (opt_layers_get_version(&v) == 0)
    printf("libbrennik_opt_layers %u.%u.%u%s%s\n", v.major, v.minor, v.patch,
           v.description ? ": " : "", v.description ? v.description : "");

  frame f = o.input.empty() ? make_bundled_frame(default_threads())
                            : load_frame_dir(o.input, default_threads());
  if (o.threads > 0) f.desc.thread_num = static_cast<uint8_t>(o.threads);
  if (o.qsort) f.desc.is_use_qsort = 1;
  print_configuration(f);

  pipeline p(f.desc, f.base_anchors);

  if (!f.have_rcnn && !f.synthetic) {
    // First stage only: hand the ROIs and pooled features to the
    // application's second stage.
    if (!o.dump.empty())
      throw demo_error(o.dump + ": nothing to dump: " + f.source + " has no second-stage outputs");
    const uint32_t k = p.proposals(f);
    const uint32_t r = p.first_stage(f);
    printf("proposals: %u before NMS, %u ROIs after NMS\n", k, r);
    write_first_stage(f, o.input, p.rois().data(), r, p.roi_features().data());
    printf("first stage only (no rcnn_cls.npy / rcnn_bbox.npy): wrote %s and %s;\n"
           "run the second stage on them, save rcnn_cls.npy and rcnn_bbox.npy in %s and run "
           "again\n",
           (std::filesystem::path(o.input) / "rois.npy").string().c_str(),
           (std::filesystem::path(o.input) / "roi_features.npy").string().c_str(),
           o.input.c_str());
    return 0;
  }

  const frame_result first = run_frame(p, f);
  printf("proposals: %u before NMS, %u ROIs after NMS\n", first.proposals, first.rois);
  if (!o.dump.empty()) {
    dump_frame_dir(f, o.dump, p.roi_features().data());
    printf("frame written to %s\n", o.dump.c_str());
  }

  evaluation e;
  const bool judged = f.have_ground_truth;
  if (judged) e = evaluate(first.detections, f.ground_truth, 0.5f);
  print_detections(f, first.detections, judged ? &e : nullptr);
  if (judged)
    printf("recall %.2f (%u of %u objects), precision %.2f (%u of %u detections) at IoU 0.5\n",
           static_cast<double>(e.recall()), e.found, e.ground_truth,
           static_cast<double>(e.precision()), e.true_positives, e.detections);

  // Timed repetitions. Every repetition must reproduce the first one's
  // detection table exactly.
  const std::vector<uint16_t> reference = p.rcnn_result();
  std::vector<uint16_t> nms_out(4 * static_cast<size_t>(f.desc.post_nms_num));
  const int max_out = static_cast<int>(f.desc.post_nms_num);
  std::vector<timing> t = {{"proposals (prenms)", {}},
                           {"RPN NMS alone (nms operator)", {}},
                           {"proposals + NMS + pooling (pre_nms_roi)", {}},
                           {"head decode + class NMS (post_nms)", {}},
                           {"frame (pre_nms_roi + post_nms)", {}}};
  for (timing& s : t) s.ms.reserve(static_cast<size_t>(o.frames));
  for (long i = 0; i < o.frames; ++i) {
    const auto t0 = clock_type::now();
    const uint32_t k = p.proposals(f);
    const auto t1 = clock_type::now();
    const int r_alone =
        nms(reinterpret_cast<half_float::half*>(nms_out.data()),
            reinterpret_cast<half_float::half*>(const_cast<uint16_t*>(p.proposal_records())),
            static_cast<int>(k), f.desc.pre_nms_iou, max_out);
    const auto t2 = clock_type::now();
    const uint32_t r = p.first_stage(f);
    const auto t3 = clock_type::now();
    if (r != first.rois || r_alone != static_cast<int>(r))
      throw demo_error(strf("frame %ld: %u ROIs (nms operator: %d), the first frame had %u", i + 1,
                            r, r_alone, first.rois));
    p.second_stage(f, r);
    const auto t4 = clock_type::now();
    if (p.rcnn_result() != reference)
      throw demo_error(strf("frame %ld: the detection table differs from the first frame's", i + 1));
    t[0].ms.push_back(ms_between(t0, t1));
    t[1].ms.push_back(ms_between(t1, t2));
    t[2].ms.push_back(ms_between(t2, t3));
    t[3].ms.push_back(ms_between(t3, t4));
    t[4].ms.push_back(ms_between(t2, t4));
  }
  print_times(t, o.frames);
  printf("all %ld frames gave the same detections\n", o.frames);

  picture_input pic;
  pic.f = &f;
  pic.detections = &first.detections;
  pic.eval = judged ? &e : nullptr;
  if (o.proposals) {
    pic.rois = p.rois().data();
    pic.roi_count = first.rois;
  }
  pic.caption = strf("%zu detections", first.detections.size());
  if (judged)
    pic.caption += strf(", recall %.2f, precision %.2f at IoU 0.5", static_cast<double>(e.recall()),
                        static_cast<double>(e.precision()));
  if (o.proposals) pic.caption += strf(" (%u ROIs drawn faintly)", first.rois);
  write_png(o.out, draw_picture(pic));
  std::error_code ec;
  const std::filesystem::path abs = std::filesystem::absolute(o.out, ec);
  printf("picture: %s\n", (ec ? o.out : abs.string()).c_str());
  return 0;
}

std::string one_line(std::string s) {
  std::replace(s.begin(), s.end(), '\n', ' ');
  return s;
}

}  // namespace

int demo_main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const demo_error& e) {
    fflush(stdout);
    fprintf(stderr, "frcnn_demo: error: %s\n", one_line(e.what()).c_str());
  } catch (const std::bad_alloc&) {
    fflush(stdout);
    fprintf(stderr, "frcnn_demo: error: out of memory\n");
  } catch (const std::exception& e) {
    fflush(stdout);
    fprintf(stderr, "frcnn_demo: error: %s\n", one_line(e.what()).c_str());
  }
  return 1;
}

}  // namespace ol_demo
