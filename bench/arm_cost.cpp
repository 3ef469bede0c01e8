// Cost driver: runs one workload a given number of times, for instruction
// counts under qemu-aarch64 (scripts/arm_cost.sh takes the difference of two
// repetition counts), and prints an FNV-1a digest of every output so that
// two builds can be checked for identical results.
//
//   ol_arm_cost WORKLOAD [--reps N] [--threads N] [--digest]
//   ol_arm_cost --list
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "frcnn/head_stage.h"
#include "workloads.h"

namespace {

using namespace ol_bench;

// FNV-1a (64-bit) over bytes.
struct digest {
  uint64_t h = 0xcbf29ce484222325ull;
  template <typename T>
  void add(const T* p, size_t n) {
    const unsigned char* b = reinterpret_cast<const unsigned char*>(p);
    for (size_t i = 0; i < n * sizeof(T); ++i) h = (h ^ b[i]) * 0x100000001b3ull;
  }
  template <typename T>
  void add(const std::vector<T>& v) {
    add(v.data(), v.size());
  }
};

// One workload: prepared once, then `call` per repetition; `hash` adds its
// outputs (return values included) to a digest.
struct workload {
  std::function<int()> call;
  std::function<void(digest&)> hash;
};

using maker = std::function<workload(uint32_t threads)>;

std::shared_ptr<vgg16_frame> frame(uint32_t threads, uint32_t depth) {
  return std::make_shared<vgg16_frame>(threads, depth);
}

void hash_frame(const vgg16_frame& f, digest& d) {
  d.add(&f.rois, 1);
  d.add(f.nms_out);
  d.add(f.roi_result);
  d.add(f.rcnn_result);
}

// A call on the VGG16 frame (after one pre_nms_roi when post_nms needs its
// ROIs); the digest covers every output of the frame.
workload on_frame(uint32_t threads, uint32_t depth, std::function<int(vgg16_frame&)> call,
                  bool after_pre_nms_roi = false) {
  auto f = frame(threads, depth);
  if (after_pre_nms_roi) f->pre_nms_roi();
  return {[f, call] { return call(*f); }, [f](digest& d) { hash_frame(*f, d); }};
}

// A call on an operator workload W; the digest covers its `out`.
template <typename W, typename... A>
workload on_op(std::function<int(W&)> call, A... args) {
  auto w = std::make_shared<W>(args...);
  return {[w, call] { return call(*w); }, [w](digest& d) { d.add(w->out); }};
}

int whole_frame(vgg16_frame& f) { return f.pre_nms_roi() + f.post_nms(); }

const struct {
  const char* name;
  const char* what;
  maker make;
} k_workloads[] = {
    {"frame", "VGG16 frame: pre_nms_roi + post_nms, 512 channels",
     [](uint32_t t) { return on_frame(t, 512, whole_frame); }},
    {"frame64", "VGG16 frame: pre_nms_roi + post_nms, 64 channels",
     [](uint32_t t) { return on_frame(t, 64, whole_frame); }},
    {"prenms_nms", "VGG16 frame: prenms_nms (6000 -> 300)",
     [](uint32_t t) { return on_frame(t, 512, [](vgg16_frame& f) { return f.prenms_nms(); }); }},
    {"pre_nms_roi", "VGG16 frame: pre_nms_roi, 512 channels",
     [](uint32_t t) { return on_frame(t, 512, [](vgg16_frame& f) { return f.pre_nms_roi(); }); }},
    {"post_nms", "VGG16 frame: post_nms, 21 classes",
     [](uint32_t t) {
       return on_frame(t, 512, [](vgg16_frame& f) { return f.post_nms(); }, true);
     }},
    {"roi_pooling", "roi_pooling: 300 ROIs (16..600 px), 512 channels, 38x63, 7x7",
     [](uint32_t) { return on_op<pool_workload>([](pool_workload& w) { return w.run(false); }); }},
    {"roi_pooling_issue", "roi_pooling: as roi_pooling, ROIs of 30/73/384 px at 5/50/95 pct",
     [](uint32_t) {
       return on_op<pool_workload>([](pool_workload& w) { return w.run(false); }, true);
     }},
    {"roi_pool_stage", "the pooling stage on the roi_pooling workload, --threads workers",
     [](uint32_t t) {
       auto pool = std::shared_ptr<ol::thread_pool>(ol::thread_pool_create(t), ol::thread_pool_destroy);
       return on_op<pool_workload>([pool](pool_workload& w) {
         using pw = pool_workload;
         ol::frcnn_roi_pool(pool.get(), w.boxes.data(), w.fmap.data(), w.out.data(), pw::rois,
                            pw::depth, pw::map_h, pw::map_w, pw::map_w, pw::stride, false,
                            pw::pool, pw::pool, pw::pool);
         return 0;
       });
     }},
    {"roi_pooling_sign", "roi_pooling_sign: as roi_pooling",
     [](uint32_t) { return on_op<pool_workload>([](pool_workload& w) { return w.run(true); }); }},
    {"roi_align_fmap_int16", "roi_align_fmap_int16: 300 ROIs x 256 channels, 50x84, 7x7",
     [](uint32_t) {
       return on_op<align_workload>([](align_workload& w) { return w.roi_align(); });
     }},
    {"roi_align_four_fmap_int16", "roi_align_four_fmap_int16: 1000 ROIs x 256 channels, 3 levels",
     [](uint32_t) {
       return on_op<align_four_workload>([](align_four_workload& w) { return w.run(); });
     }},
    {"crop_and_resize_fmap_int16", "crop_and_resize_fmap_int16: 300 boxes x 256 channels, 14x14",
     [](uint32_t) {
       return on_op<align_workload>([](align_workload& w) { return w.crop_and_resize(); });
     }},
    {"ps_roi_pooling", "ps_roi_pooling: R-FCN, 300 ROIs, 7x7 groups of 21",
     [](uint32_t) { return on_op<ps_workload>([](ps_workload& w) { return w.run(); }); }},
    {"nms", "nms: the frame's 6000 proposals -> 300 at IoU 0.7",
     [](uint32_t t) {
       auto f = frame(t, 16);
       half_float::half* props = nullptr;
       const int n = opt_layers_instance_frcnn_prenms(f->h, hp(f->rpn.cls), hp(f->rpn.bbox), &props);
       auto in = std::make_shared<std::vector<uint16_t>>(
           reinterpret_cast<uint16_t*>(props), reinterpret_cast<uint16_t*>(props) + 5 * (n > 0 ? n : 0));
       auto out = std::make_shared<std::vector<uint16_t>>(4 * 300);
       auto kept = std::make_shared<int>(0);
       return workload{[in, out, kept, n] {
                         return *kept = nms(hp(*out), hp(*in), n, 0.7f, 300);
                       },
                       [out, kept](digest& d) {
                         d.add(kept.get(), 1);
                         d.add(*out);
                       }};
     }},
};

int usage() {
  fprintf(stderr, "usage: ol_arm_cost WORKLOAD [--reps N] [--threads N] [--digest]\n");
  for (const auto& w : k_workloads) fprintf(stderr, "  %-28s %s\n", w.name, w.what);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  const char* name = nullptr;
  long reps = 1, threads = 1;
  bool want_digest = false;
  for (int i = 1; i < argc; ++i) {
    if (!strcmp(argv[i], "--reps") && i + 1 < argc) {
      reps = atol(argv[++i]);
    } else if (!strcmp(argv[i], "--threads") && i + 1 < argc) {
      threads = atol(argv[++i]);
    } else if (!strcmp(argv[i], "--digest")) {
      want_digest = true;
    } else if (!strcmp(argv[i], "--list")) {
      for (const auto& w : k_workloads) printf("%s\n", w.name);
      return 0;
    } else if (argv[i][0] != '-' && !name) {
      name = argv[i];
    } else {
      return usage();
    }
  }
  if (!name || reps < 0 || threads < 1 || threads > 32) return usage();
  for (const auto& w : k_workloads) {
    if (strcmp(w.name, name) != 0) continue;
    workload run = w.make(static_cast<uint32_t>(threads));
    for (long r = 0; r < reps; ++r) {
      if (run.call() < 0) {
        fprintf(stderr, "%s: the call failed\n", name);
        return 1;
      }
    }
    if (want_digest) {
      digest d;
      run.hash(d);
      printf("%s %016llx\n", name, static_cast<unsigned long long>(d.h));
    }
    return 0;
  }
  return usage();
}
