// Python module brennik_opt_layers: the library's operators and pipeline over
// NumPy arrays.
//
// Every argument is checked here before the library sees it: a wrong dtype
// raises TypeError, a wrong shape or a value outside what the library
// handles raises ValueError, each naming the argument, what was expected and
// what was given. Input arrays that are not C-contiguous and aligned are
// copied (never refused). Every buffer the library writes is allocated here,
// zero-filled, at the size the call needs. A failure the library reports
// (-1 or NULL) raises RuntimeError naming the call; its own message is on
// standard output as for any other caller (flushed before the exception).
// The GIL is released for the duration of every library call.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>
#include <stddef.h>
#include <stdio.h>
#include <unistd.h>

#include <climits>
#include <cmath>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "brennik_opt_layers.h"

namespace py = pybind11;

namespace {

using dims = std::vector<ssize_t>;

std::string shape_text(const dims& s) {
  std::string t = "(";
  for (size_t i = 0; i < s.size(); ++i)
    t += (i ? ", " : "") + (s[i] < 0 ? std::string("*") : std::to_string(s[i]));
  return t + (s.size() == 1 ? ",)" : ")");
}

dims shape_of(const py::array& a) { return dims(a.shape(), a.shape() + a.ndim()); }

// `obj` as an ndarray of dtype `dtype` ("float16", "uint16", ...), C-contiguous
// and aligned: a copy when the given array is not.
py::array input(py::handle obj, const std::string& arg, const char* dtype) {
  py::array a = py::array::ensure(obj);
  if (!a)
    throw py::type_error(arg + ": expected a numpy.ndarray of " + dtype + ", got " +
                         std::string(py::str(py::type::of(obj).attr("__name__"))));
  if (!a.dtype().equal(py::dtype(dtype)))
    throw py::type_error(arg + ": expected dtype " + dtype + ", got " +
                         std::string(py::str(a.dtype())));
  return py::module_::import("numpy").attr("require")(a, py::none(), "CA");
}

// Checks a's shape against `want` (-1: any extent) and returns it. With
// `batch`, one extra leading dimension of 1 (NCHW with N = 1) is accepted
// and left out of the result.
dims need_shape(const py::array& a, const std::string& arg, const dims& want,
                const std::string& legend, bool batch = false) {
  dims s = shape_of(a);
  if (batch && s.size() == want.size() + 1 && s[0] == 1) s.erase(s.begin());
  bool ok = s.size() == want.size();
  for (size_t i = 0; ok && i < s.size(); ++i) ok = want[i] < 0 || want[i] == s[i];
  if (!ok)
    throw py::value_error(arg + ": expected shape " + shape_text(want) + " " + legend + ", got " +
                          shape_text(shape_of(a)));
  return s;
}

long long in_range(const std::string& arg, long long v, long long lo, long long hi) {
  if (v < lo || v > hi)
    throw py::value_error(arg + ": expected " + std::to_string(lo) + " .. " + std::to_string(hi) +
                          ", got " + std::to_string(v));
  return v;
}

py::array zeros(const char* dtype, const dims& shape) {
  return py::module_::import("numpy").attr("zeros")(py::tuple(py::cast(shape)), dtype);
}

// The library's signatures take non-const pointers; it writes only the
// output arrays, which this module allocates.
template <class T>
T* ptr(const py::array& a) {
  return const_cast<T*>(static_cast<const T*>(a.data()));
}
half_float::half* hptr(const py::array& a) { return ptr<half_float::half>(a); }

// The first n rows of a (a view).
py::array rows(const py::array& a, ssize_t n) {
  return py::reinterpret_borrow<py::array>(py::object(a[py::slice(0, n, 1)]));
}

// Runs a library call without the GIL; flushes the library's messages so
// that they come out before anything Python prints next.
template <class F>
auto call(F f) {
  py::gil_scoped_release nogil;
  auto r = f();
  fflush(stdout);
  return r;
}

void check_status(long long status, const char* what) {
  if (status < 0) throw std::runtime_error(std::string(what) + " failed (returned -1)");
}

// ---- operators --------------------------------------------------------------

const char* const k_boxes_legend = "(roi_num, x1 y1 x2 y2)";

py::array nms_py(py::handle in_obj, float iou_threshold, std::optional<long long> max_out_arg) {
  py::array in = input(in_obj, "in_", "float16");
  const dims s = need_shape(in, "in_", {-1, 5}, "(count, x1 y1 x2 y2 score)");
  const long long count = in_range("in_ count (rows)", s[0], 0, 32767);
  const long long max_out = in_range("max_out", max_out_arg.value_or(count), 0, INT_MAX);
  // nms writes at most min(count, max_out) records.
  py::array out = zeros("float16", {std::min(count, max_out), 4});
  const int n = call([&] {
    return nms(hptr(out), hptr(in), static_cast<int>(count), iou_threshold,
               static_cast<int>(max_out));
  });
  check_status(n, "nms");
  return rows(out, n);
}

template <bool sign>
py::array roi_pooling_py(py::handle proposal_obj, py::handle fmap_obj, long long fmap_scale,
                         long long pool_w, long long pool_h, long long pool_pitch,
                         long long fmap_pitch) {
  const char* dtype = sign ? "int16" : "uint16";
  py::array proposal = input(proposal_obj, "proposal", "float16");
  py::array fmap = input(fmap_obj, "fmap", dtype);
  const dims b = need_shape(proposal, "proposal", {-1, 4}, k_boxes_legend);
  const dims f = need_shape(fmap, "fmap", {-1, -1, -1, 16}, "(fmap_d/16, fmap_h, fmap_w, 16)");
  in_range("fmap_scale", fmap_scale, 1, INT_MAX);
  in_range("pool_w", pool_w, 1, INT_MAX);
  in_range("pool_h", pool_h, 1, INT_MAX);
  in_range("pool_pitch", pool_pitch, INT_MIN, INT_MAX);
  in_range("fmap_pitch", fmap_pitch, INT_MIN, INT_MAX);
  // Box arithmetic is 16-bit: the map must fit it.
  in_range("fmap_h (fmap.shape[1])", f[1], 0, 32767);
  in_range("fmap_w (fmap.shape[2])", f[2], 0, 32767);
  in_range("fmap_d (16 * fmap.shape[0])", 16 * f[0], 0, INT_MAX);
  in_range("roi_num (proposal.shape[0])", b[0], 0, INT_MAX);
  py::array out = zeros(dtype, {b[0], f[0], pool_h, pool_w, 16});
  auto* fn = sign ? roi_pooling_sign : roi_pooling;
  const int rc = call([&] {
    return fn(hptr(proposal), ptr<unsigned short>(fmap), ptr<unsigned short>(out),
              static_cast<int>(b[0]), static_cast<int>(pool_w), static_cast<int>(pool_h),
              static_cast<int>(pool_pitch), static_cast<int>(fmap_scale),
              static_cast<int>(fmap_pitch), static_cast<int>(f[1]), static_cast<int>(f[2]),
              static_cast<int>(16 * f[0]));
  });
  check_status(rc, sign ? "roi_pooling_sign" : "roi_pooling");
  return out;
}

// An int16 channel-innermost map (fmap_h, fmap_w, channel); channel a
// non-zero multiple of 16.
dims int16_map(const py::array& fmap, const std::string& arg, const dims& want) {
  const dims f = need_shape(fmap, arg, want, "(fmap_h, fmap_w, channel)");
  if (f[2] == 0 || f[2] % 16 != 0 || f[2] > UINT_MAX)
    throw py::value_error(arg + ": channel (shape[2]) must be a non-zero multiple of 16, got " +
                          std::to_string(f[2]));
  in_range(arg + " fmap_h (shape[0])", f[0], 0, UINT_MAX);
  in_range(arg + " fmap_w (shape[1])", f[1], 0, UINT_MAX);
  return f;
}

// Box list of float32 (roi_num, 4) and the grid size of the align family.
ssize_t float_boxes(const py::array& proposal, long long out_w, long long out_h, const char* w_name,
                    const char* h_name) {
  const dims b = need_shape(proposal, "proposal", {-1, 4}, k_boxes_legend);
  in_range(w_name, out_w, 1, UINT_MAX);
  in_range(h_name, out_h, 1, UINT_MAX);
  return in_range("roi_num (proposal.shape[0])", b[0], 0, UINT_MAX);
}

py::array roi_align_py(py::handle fmap_obj, long long fmap_scale, py::handle proposal_obj,
                       long long pool_w, long long pool_h) {
  py::array fmap = input(fmap_obj, "fmap", "int16");
  py::array proposal = input(proposal_obj, "proposal", "float32");
  const dims f = int16_map(fmap, "fmap", {-1, -1, -1});
  in_range("fmap_scale", fmap_scale, 1, UINT_MAX);
  const ssize_t r = float_boxes(proposal, pool_w, pool_h, "pool_w", "pool_h");
  py::array out = zeros("int16", {r, pool_h, pool_w, f[2]});
  const int rc = call([&] {
    return roi_align_fmap_int16(ptr<short>(fmap), static_cast<unsigned>(fmap_scale),
                                ptr<float>(proposal), static_cast<unsigned>(r),
                                static_cast<unsigned>(f[1]), static_cast<unsigned>(f[0]),
                                static_cast<unsigned>(pool_w), static_cast<unsigned>(pool_h),
                                static_cast<unsigned>(f[2]), ptr<short>(out));
  });
  check_status(rc, "roi_align_fmap_int16");
  return out;
}

py::array roi_align_four_py(py::sequence fmap_seq, py::sequence scale_seq, py::handle proposal_obj,
                            long long img_w, long long img_h, long long pool_w, long long pool_h) {
  if (py::len(fmap_seq) != 3)
    throw py::value_error("fmap: expected 3 maps (pyramid levels 0, 1, 2), got " +
                          std::to_string(py::len(fmap_seq)));
  if (py::len(scale_seq) != 3)
    throw py::value_error("fmap_scale: expected 3 strides, got " +
                          std::to_string(py::len(scale_seq)));
  in_range("img_w", img_w, 0, UINT_MAX);
  in_range("img_h", img_h, 0, UINT_MAX);
  std::vector<py::array> maps;
  short* map_ptrs[3];
  unsigned scales[3];
  ssize_t channel = -1;
  for (int k = 0; k < 3; ++k) {
    const std::string arg = "fmap[" + std::to_string(k) + "]";
    const long long s = in_range("fmap_scale[" + std::to_string(k) + "]",
                                 scale_seq[static_cast<size_t>(k)].cast<long long>(), 1, UINT_MAX);
    maps.push_back(input(fmap_seq[static_cast<size_t>(k)], arg, "int16"));
    // Level k has img_h / stride rows and img_w / stride columns.
    channel = int16_map(maps.back(), arg, {img_h / s, img_w / s, channel})[2];
    map_ptrs[k] = ptr<short>(maps.back());
    scales[k] = static_cast<unsigned>(s);
  }
  py::array proposal = input(proposal_obj, "proposal", "float32");
  const ssize_t r = float_boxes(proposal, pool_w, pool_h, "pool_w", "pool_h");
  py::array out = zeros("int16", {r, pool_h, pool_w, channel});
  const int rc = call([&] {
    return roi_align_four_fmap_int16(map_ptrs, scales, ptr<float>(proposal),
                                     static_cast<unsigned>(r), static_cast<unsigned>(img_w),
                                     static_cast<unsigned>(img_h), static_cast<unsigned>(pool_w),
                                     static_cast<unsigned>(pool_h),
                                     static_cast<unsigned>(channel), ptr<short>(out));
  });
  check_status(rc, "roi_align_four_fmap_int16");
  return out;
}

py::array crop_and_resize_py(py::handle fmap_obj, float scale_x, float scale_y,
                             float extrapolation_value, py::handle proposal_obj, long long crop_w,
                             long long crop_h) {
  py::array fmap = input(fmap_obj, "fmap", "int16");
  py::array proposal = input(proposal_obj, "proposal", "float32");
  const dims f = int16_map(fmap, "fmap", {-1, -1, -1});
  const ssize_t r = float_boxes(proposal, crop_w, crop_h, "crop_w", "crop_h");
  py::array out = zeros("int16", {r, crop_h, crop_w, f[2]});
  const int rc = call([&] {
    return crop_and_resize_fmap_int16(ptr<short>(fmap), scale_x, scale_y, extrapolation_value,
                                      ptr<float>(proposal), static_cast<unsigned>(r),
                                      static_cast<unsigned>(f[1]), static_cast<unsigned>(f[0]),
                                      static_cast<unsigned>(crop_w), static_cast<unsigned>(crop_h),
                                      static_cast<unsigned>(f[2]), ptr<short>(out));
  });
  check_status(rc, "crop_and_resize_fmap_int16");
  return out;
}

// Shared by ps_roi_pooling and ps_roi_pooling_scale; `scale` holds
// roi_scale, bin_shift_factor, bin_stride_factor, or is NULL.
py::array ps_roi_pooling_any(py::handle fmap_obj, py::handle proposal_obj, long long pooled_w,
                             long long pooled_h, long long out_channels, float spatial_scale,
                             long long group_size, std::optional<long long> channels_arg,
                             std::optional<long long> out_pitch_arg,
                             const float* scale) {
  py::array fmap = input(fmap_obj, "fmap", "float32");
  py::array proposal = input(proposal_obj, "proposal", "float32");
  in_range("group_size", group_size, 1, 46340);
  if (pooled_w != group_size || pooled_h != group_size)
    throw py::value_error("pooled_w, pooled_h: expected both equal to group_size (" +
                          std::to_string(group_size) + "), got " + std::to_string(pooled_w) +
                          ", " + std::to_string(pooled_h));
  in_range("out_channels", out_channels, 1, INT_MAX / (group_size * group_size));
  const long long channels = group_size * group_size * out_channels;
  if (channels_arg.value_or(channels) != channels)
    throw py::value_error("channels: expected group_size^2 * out_channels = " +
                          std::to_string(channels) + ", got " + std::to_string(*channels_arg));
  const long long out_pitch = in_range("out_pitch", out_pitch_arg.value_or(out_channels),
                                       out_channels, INT_MAX);
  const dims f = need_shape(fmap, "fmap", {group_size * group_size, -1, -1, -1},
                            "(group_size^2, fmap_h, fmap_w, fmap_pitch)");
  in_range("fmap_h (fmap.shape[1])", f[1], 0, INT_MAX);
  in_range("fmap_w (fmap.shape[2])", f[2], 0, INT_MAX);
  in_range("fmap_pitch (fmap.shape[3])", f[3], out_channels, INT_MAX);
  const dims b = need_shape(proposal, "proposal", {-1, 4}, k_boxes_legend);
  in_range("roi_num (proposal.shape[0])", b[0], 0, INT_MAX);
  py::array out = zeros("float32", {b[0], pooled_h, pooled_w, out_pitch});
  const int rc = call([&] {
    const int iv[] = {static_cast<int>(f[2]),      static_cast<int>(f[1]),
                      static_cast<int>(channels),  static_cast<int>(f[3]),
                      static_cast<int>(b[0]),      static_cast<int>(pooled_w),
                      static_cast<int>(pooled_h),  static_cast<int>(out_channels),
                      static_cast<int>(out_pitch), static_cast<int>(group_size)};
    if (scale == nullptr)
      return ps_roi_pooling(ptr<float>(fmap), iv[0], iv[1], iv[2], iv[3], ptr<float>(proposal),
                            iv[4], ptr<float>(out), iv[5], iv[6], iv[7], iv[8], spatial_scale,
                            iv[9]);
    return ps_roi_pooling_scale(ptr<float>(fmap), iv[0], iv[1], iv[2], iv[3], ptr<float>(proposal),
                                iv[4], ptr<float>(out), iv[5], iv[6], iv[7], iv[8], spatial_scale,
                                iv[9], scale[0], scale[1], scale[2]);
  });
  check_status(rc, scale ? "ps_roi_pooling_scale" : "ps_roi_pooling");
  return out;
}

// ---- the descriptor ---------------------------------------------------------

// Fields by name: kind 'b' thread_num (u8), 'f' a flag bit, 'u' u32, 'r' f32.
struct field {
  const char* name;
  char kind;
  size_t offset;
  int bit;
};

#define OL_U32(n) {#n, 'u', offsetof(frcnn_desc, n), 0}
#define OL_F32(n) {#n, 'r', offsetof(frcnn_desc, n), 0}
const field k_fields[] = {
    {"thread_num", 'b', 0, 0},
    {"is_debug", 'f', 1, 0},
    {"fmap_sign", 'f', 1, 1},
    {"rcnn_bbox_share_location", 'f', 1, 2},
    {"is_anchor_bbox_suppress", 'f', 1, 3},
    {"is_rpn_cls_fg_minus_bg", 'f', 1, 4},
    {"is_rpn_cls_fg_only", 'f', 1, 5},
    {"is_filter_rpn_cls", 'f', 1, 6},
    {"is_apply_bbox_scale_factor", 'f', 1, 7},
    {"is_no_rcnn_bg_bbox", 'f', 2, 0},
    {"is_use_qsort", 'f', 2, 1},
    OL_U32(anchor_num), OL_U32(pre_nms_num), OL_U32(post_nms_num), OL_U32(class_num),
    OL_U32(img_h), OL_U32(img_w), OL_U32(fmap_scale), OL_U32(fmap_d), OL_U32(fmap_h),
    OL_U32(fmap_w), OL_U32(fmap_pitch), OL_U32(rpn_bbox_pitch), OL_U32(rpn_cls_pitch),
    OL_U32(min_size), OL_U32(pool_h), OL_U32(pool_w), OL_U32(pool_pitch),
    OL_U32(rcnn_bbox_pitch), OL_U32(rcnn_cls_pitch), OL_F32(pre_nms_iou), OL_F32(post_nms_iou),
    OL_F32(cls_prob), OL_F32(rpn_cls_threshold), OL_U32(bbox_type),
};
#undef OL_U32
#undef OL_F32

unsigned char* bytes(frcnn_desc& d) { return reinterpret_cast<unsigned char*>(&d); }

py::object get_field(const frcnn_desc& d, const field& f) {
  const unsigned char* p = reinterpret_cast<const unsigned char*>(&d) + f.offset;
  uint32_t u;
  float r;
  switch (f.kind) {
    case 'b': return py::int_(*p);
    case 'f': return py::bool_((*p >> f.bit) & 1u);
    case 'u': memcpy(&u, p, 4); return py::int_(u);
    default: memcpy(&r, p, 4); return py::float_(r);
  }
}

void set_field(frcnn_desc& d, const field& f, py::handle v) {
  unsigned char* p = bytes(d) + f.offset;
  const std::string arg = f.name;
  if (f.kind == 'r') {
    if (!py::isinstance<py::float_>(v) && !py::isinstance<py::int_>(v))
      throw py::type_error(arg + ": expected a float, got " +
                           std::string(py::str(py::type::of(v).attr("__name__"))));
    const float r = v.cast<float>();
    memcpy(p, &r, 4);
    return;
  }
  if (f.kind == 'f') {
    if (!py::isinstance<py::bool_>(v) && !py::isinstance<py::int_>(v))
      throw py::type_error(arg + ": expected a bool, got " +
                           std::string(py::str(py::type::of(v).attr("__name__"))));
    const long long b = in_range(arg, v.cast<long long>(), 0, 1);
    *p = static_cast<unsigned char>((*p & ~(1u << f.bit)) | (b << f.bit));
    return;
  }
  if (!py::isinstance<py::int_>(v) || py::isinstance<py::bool_>(v))
    throw py::type_error(arg + ": expected an int, got " +
                         std::string(py::str(py::type::of(v).attr("__name__"))));
  const long long x = in_range(arg, v.cast<long long>(), 0, f.kind == 'b' ? 255 : UINT32_MAX);
  if (f.kind == 'b') {
    *p = static_cast<unsigned char>(x);
  } else {
    const uint32_t u = static_cast<uint32_t>(x);
    memcpy(p, &u, 4);
  }
}

struct desc_py {
  frcnn_desc d{};
};

uint32_t ceil_div(uint32_t a, uint32_t b) { return b ? (a + b - 1) / b : 0; }

uint32_t rpn_cls_planes(const frcnn_desc& d) {
  return (d.is_rpn_cls_fg_minus_bg || !d.is_rpn_cls_fg_only) ? 2 * d.anchor_num : d.anchor_num;
}

uint32_t bbox_sets(const frcnn_desc& d) {
  if (d.rcnn_bbox_share_location) return 1;
  return d.class_num - (d.is_no_rcnn_bg_bbox && d.class_num ? 1 : 0);
}

// Defaults: a VGG16-sized Faster R-CNN at 600x1000 with the 21 classes of
// Pascal VOC; sizes and pitches not given follow from the given ones.
desc_py make_desc(const py::kwargs& kw) {
  desc_py r;
  frcnn_desc& d = r.d;
  const unsigned cpus = std::thread::hardware_concurrency();
  d.thread_num = static_cast<uint8_t>(std::min(32u, std::max(1u, cpus)));
  d.anchor_num = 9;
  d.pre_nms_num = 6000;
  d.post_nms_num = 300;
  d.class_num = 21;
  d.img_h = 600;
  d.img_w = 1000;
  d.fmap_scale = 16;
  d.fmap_d = 512;
  d.min_size = 16;
  d.pool_h = d.pool_w = 7;
  d.pre_nms_iou = 0.7f;
  d.post_nms_iou = 0.3f;
  d.cls_prob = 0.5f;
  d.bbox_scale_factor = {1.0f, 1.0f, 1.0f, 1.0f};
  for (auto item : kw) {
    const std::string key = py::str(item.first);
    if (key == "bbox_scale_factor") {
      const auto v = item.second.cast<std::vector<float>>();
      if (v.size() != 4)
        throw py::value_error("bbox_scale_factor: expected 4 floats (center_x, center_y, width, "
                              "height), got " + std::to_string(v.size()));
      d.bbox_scale_factor = {v[0], v[1], v[2], v[3]};
      continue;
    }
    const field* f = nullptr;
    for (const field& c : k_fields)
      if (key == c.name) f = &c;
    if (f == nullptr) throw py::type_error("FrcnnDesc: unknown field '" + key + "'");
    set_field(d, *f, item.second);
  }
  auto given = [&](const char* k) { return kw.contains(k); };
  if (!given("fmap_h")) d.fmap_h = ceil_div(d.img_h, d.fmap_scale);
  if (!given("fmap_w")) d.fmap_w = ceil_div(d.img_w, d.fmap_scale);
  if (!given("fmap_pitch")) d.fmap_pitch = d.fmap_w;
  if (!given("rpn_bbox_pitch")) d.rpn_bbox_pitch = d.fmap_pitch;
  if (!given("rpn_cls_pitch")) d.rpn_cls_pitch = d.fmap_w;
  if (!given("pool_pitch")) d.pool_pitch = d.pool_w;
  if (!given("rcnn_cls_pitch")) d.rcnn_cls_pitch = d.class_num;
  if (!given("rcnn_bbox_pitch")) d.rcnn_bbox_pitch = 4 * bbox_sets(d);
  return r;
}

// What the library can run and the arrays of this module can describe:
// raises ValueError naming the field otherwise.
void check_desc(const frcnn_desc& d) {
  auto fail = [](const std::string& what) { throw py::value_error("FrcnnDesc: " + what); };
  auto most = [&](const char* name, uint64_t v, uint64_t hi) {
    if (v > hi) fail(std::string(name) + " must be at most " + std::to_string(hi) + ", got " +
                     std::to_string(v));
  };
  most("img_h", d.img_h, 32767);
  most("img_w", d.img_w, 32767);
  most("pre_nms_num", d.pre_nms_num, 32767);
  most("post_nms_num", d.post_nms_num, 32767);
  most("fmap_h", d.fmap_h, 32767);
  most("fmap_w", d.fmap_w, 32767);
  const uint64_t n = uint64_t{d.anchor_num} * d.fmap_h * d.fmap_w;
  most("anchor_num * fmap_h * fmap_w", n, (uint64_t{1} << 32) / 20 - 1);
  most("post_nms_num * class_num", uint64_t{d.post_nms_num} * d.class_num,
       (uint64_t{1} << 28) - 1);
  most("post_nms_num * pool_h * pool_w * fmap_d",
       uint64_t{d.post_nms_num} * d.pool_h * d.pool_w * d.fmap_d, UINT32_MAX);
  if (d.fmap_scale < 1) fail("fmap_scale must be at least 1, got 0");
  if (d.fmap_d % 16 != 0) fail("fmap_d must be a multiple of 16, got " + std::to_string(d.fmap_d));
  if (d.rpn_cls_pitch < d.fmap_w || d.fmap_pitch < d.fmap_w)
    fail("rpn_cls_pitch and fmap_pitch must be at least fmap_w (" + std::to_string(d.fmap_w) +
         "), got " + std::to_string(d.rpn_cls_pitch) + " and " + std::to_string(d.fmap_pitch));
  if (d.rcnn_cls_pitch < d.class_num)
    fail("rcnn_cls_pitch must be at least class_num (" + std::to_string(d.class_num) + "), got " +
         std::to_string(d.rcnn_cls_pitch));
  if (d.rcnn_bbox_pitch < 4ull * bbox_sets(d))
    fail("rcnn_bbox_pitch must be at least " + std::to_string(4ull * bbox_sets(d)) +
         " (4 deltas per box set), got " + std::to_string(d.rcnn_bbox_pitch));
}

// Captures what f() writes to file descriptor 1 (the C library's stdout and
// anything else in the process writing there meanwhile).
template <class F>
std::string capture_stdout(F f) {
  static std::mutex capture_mutex;
  std::lock_guard<std::mutex> lock(capture_mutex);
  FILE* tmp = tmpfile();
  if (tmp == nullptr) throw std::runtime_error("tmpfile failed");
  fflush(stdout);
  const int saved = dup(1);
  dup2(fileno(tmp), 1);
  try {
    f();
  } catch (...) {
    fflush(stdout);
    dup2(saved, 1);
    close(saved);
    fclose(tmp);
    throw;
  }
  fflush(stdout);
  dup2(saved, 1);
  close(saved);
  std::string text;
  rewind(tmp);
  char buf[4096];
  size_t got;
  while ((got = fread(buf, 1, sizeof buf, tmp)) > 0) text.append(buf, got);
  fclose(tmp);
  return text;
}

// The library's configuration text: printed by an init of the record with
// is_debug set, captured, and the context released again. The text is the
// first 9 lines (10 with is_apply_bbox_scale_factor); what follows it
// (the messages of a failing init, e.g. for thread_num 0) is dropped.
std::string dump_desc(const frcnn_desc& d, const std::vector<float>& anchors) {
  frcnn_desc copy = d;
  copy.is_debug = 1;
  std::vector<float> a = anchors;
  std::string text = capture_stdout([&] {
    void* h = opt_layers_instance_frcnn_init(&copy, a.data());
    if (h != nullptr) opt_layers_instance_frcnn_exit(h);
  });
  size_t lines = d.is_apply_bbox_scale_factor ? 10 : 9, end = 0;
  while (lines-- > 0 && end != std::string::npos) {
    end = text.find('\n', end);
    if (end != std::string::npos) ++end;
  }
  return end == std::string::npos ? text : text.substr(0, end);
}

// ---- the pipeline -----------------------------------------------------------

class pipeline {
 public:
  pipeline(const desc_py& desc, py::handle anchors_obj) : d_(desc.d) {
    check_desc(d_);
    py::array anchors = input(anchors_obj, "base_anchors", "float32");
    need_shape(anchors, "base_anchors", {static_cast<ssize_t>(d_.anchor_num), 4},
               "(anchor_num, x1 y1 x2 y2)");
    handle_ = call([&] { return opt_layers_instance_frcnn_init(&d_, ptr<float>(anchors)); });
    if (handle_ == nullptr) throw std::runtime_error("opt_layers_instance_frcnn_init failed");
  }
  ~pipeline() {
    if (handle_ != nullptr) opt_layers_instance_frcnn_exit(handle_);
  }

  void close() {
    call([&] {
      std::lock_guard<std::mutex> lock(m_);
      if (handle_ != nullptr) opt_layers_instance_frcnn_exit(handle_);
      handle_ = nullptr;
      return 0;
    });
  }
  bool closed() const { return handle_ == nullptr; }

  py::array prenms(py::handle rpn_cls, py::handle rpn_bbox) {
    rpn rpn_in(d_, rpn_cls, rpn_bbox);
    py::array out = zeros("float16", {d_.pre_nms_num, 5});
    const int k = run("opt_layers_instance_frcnn_prenms", [&](void* h) {
      half_float::half* records = nullptr;
      const int n = opt_layers_instance_frcnn_prenms(h, rpn_in.cls(), rpn_in.bbox(), &records);
      // The records live in the context until its next stage call: copy
      // them while this call still holds the handle.
      if (n > 0) memcpy(ptr<uint16_t>(out), records, std::min<size_t>(n, d_.pre_nms_num) * 10);
      return n;
    });
    return rows(out, k);
  }

  py::array prenms_nms(py::handle rpn_cls, py::handle rpn_bbox) {
    rpn rpn_in(d_, rpn_cls, rpn_bbox);
    py::array rois = zeros("float16", {d_.post_nms_num, 4});
    const int r = run("opt_layers_instance_frcnn_prenms_nms", [&](void* h) {
      return opt_layers_instance_frcnn_prenms_nms(h, rpn_in.cls(), rpn_in.bbox(), hptr(rois));
    });
    return rows(rois, r);
  }

  py::tuple pre_nms_roi(py::handle rpn_cls, py::handle rpn_bbox, py::handle fmap_obj) {
    rpn rpn_in(d_, rpn_cls, rpn_bbox);
    const char* dtype = d_.fmap_sign ? "int16" : "uint16";
    py::array fmap = input(fmap_obj, "fmap", dtype);
    need_shape(fmap, "fmap", {d_.fmap_d / 16, d_.fmap_h, d_.fmap_w, 16},
               "(fmap_d/16, fmap_h, fmap_w, 16)", true);
    py::array rois = zeros("float16", {d_.post_nms_num, 4});
    py::array feats = zeros(dtype, {d_.post_nms_num, d_.fmap_d / 16, d_.pool_h, d_.pool_w, 16});
    const int r = run("opt_layers_instance_frcnn_pre_nms_roi", [&](void* h) {
      return opt_layers_instance_frcnn_pre_nms_roi(h, rpn_in.cls(), rpn_in.bbox(),
                                                   ptr<unsigned short>(fmap),
                                                   ptr<unsigned short>(feats), hptr(rois));
    });
    return py::make_tuple(rows(rois, r), rows(feats, r));
  }

  py::tuple post_nms(py::handle cls_obj, py::handle bbox_obj, py::handle rois_obj) {
    py::array rois = input(rois_obj, "rois", "float16");
    const ssize_t r = need_shape(rois, "rois", {-1, 4}, "(roi_num, x1 y1 x2 y2)")[0];
    in_range("roi_num (rois.shape[0])", r, 0, d_.post_nms_num);
    py::array cls = input(cls_obj, "rcnn_cls", "float16");
    need_shape(cls, "rcnn_cls", {r, d_.rcnn_cls_pitch}, "(roi_num, rcnn_cls_pitch)");
    py::array bbox = input(bbox_obj, "rcnn_bbox", "float16");
    need_shape(bbox, "rcnn_bbox", {r, d_.rcnn_bbox_pitch}, "(roi_num, rcnn_bbox_pitch)");
    const size_t c_num = d_.class_num, p_num = d_.post_nms_num;
    // One spare element: the table is never empty, so its address is never
    // that of an empty allocation.
    py::array table = zeros("float16", {static_cast<ssize_t>(c_num + 5 * p_num * c_num + 1)});
    run("opt_layers_instance_frcnn_post_nms", [&](void* h) {
      return opt_layers_instance_frcnn_post_nms(h, hptr(cls), hptr(bbox), hptr(rois), hptr(table),
                                                static_cast<unsigned>(r));
    });
    table = rows(table, static_cast<ssize_t>(c_num + 5 * p_num * c_num));
    // Per class: count (a half, exact up to 2048) then records of 5 halves.
    const uint16_t* t = static_cast<const uint16_t*>(table.data());
    py::list per_class;
    for (size_t c = 0; c < c_num; ++c) {
      py::list dets;
      const float count = opt_layers_half::to_float(t[c]);
      const size_t n = count > 0 ? static_cast<size_t>(std::min(count, float(p_num))) : 0;
      for (size_t k = 0; k < n; ++k) {
        const uint16_t* rec = t + c_num + 5 * (p_num * c + k);
        auto f = [&](int i) { return opt_layers_half::to_float(rec[i]); };
        dets.append(py::make_tuple(py::make_tuple(f(0), f(1), f(2), f(3)), f(4)));
      }
      per_class.append(dets);
    }
    return py::make_tuple(table, per_class);
  }

  const frcnn_desc& desc() const { return d_; }

 private:
  // The two RPN tensors, checked against the descriptor.
  struct rpn {
    py::array c, b;
    rpn(const frcnn_desc& d, py::handle cls_obj, py::handle bbox_obj)
        : c(input(cls_obj, "rpn_cls", "float16")), b(input(bbox_obj, "rpn_bbox", "float16")) {
      need_shape(c, "rpn_cls", {rpn_cls_planes(d), d.fmap_h, d.rpn_cls_pitch},
                 "(score planes, fmap_h, rpn_cls_pitch)", true);
      need_shape(b, "rpn_bbox", {4 * static_cast<ssize_t>(d.anchor_num), d.fmap_h, d.fmap_pitch},
                 "(4*anchor_num, fmap_h, fmap_pitch)", true);
    }
    half_float::half* cls() { return hptr(c); }
    half_float::half* bbox() { return hptr(b); }
  };

  // Runs one stage call on the handle without the GIL, holding this
  // object's lock (one frame at a time per handle; close() waits for it).
  template <class F>
  int run(const char* what, F f) {
    const int r = call([&] {
      std::lock_guard<std::mutex> lock(m_);
      return handle_ == nullptr ? INT_MIN : f(handle_);
    });
    if (r == INT_MIN) throw py::value_error("Pipeline is closed");
    check_status(r, what);
    return r;
  }

  frcnn_desc d_;
  void* handle_ = nullptr;
  std::mutex m_;
};

}  // namespace

PYBIND11_MODULE(brennik_opt_layers, m) {
  m.doc() = R"doc(Faster R-CNN post-processing and 16-bit feature-map operators of
libbrennik_opt_layers over NumPy arrays.

Layouts (C order; inputs that are not C-contiguous are copied):
  boxes of nms                 float16 (count, 5): x1 y1 x2 y2 score, best first,
                               inclusive sizes (width x2 - x1 + 1)
  boxes of roi_pooling(_sign)  float16 (roi_num, 4): x1 y1 x2 y2 image pixels
  boxes of the other operators float32 (roi_num, 4)
  16-channel-blocked map       uint16 / int16 (fmap_d/16, fmap_h, fmap_w, 16)
  channel-innermost map        int16 (fmap_h, fmap_w, channel), channel % 16 == 0
  position-sensitive map       float32 (group_size^2, fmap_h, fmap_w, fmap_pitch)
Wrong dtypes raise TypeError, wrong shapes or values ValueError, a failure
reported by the library RuntimeError (its message is on standard output).
The GIL is released during every library call.)doc";

  m.def("version", [] {
    opt_layers_version v{};
    check_status(opt_layers_get_version(&v), "opt_layers_get_version");
    py::dict r;
    r["major"] = v.major;
    r["minor"] = v.minor;
    r["patch"] = v.patch;
    r["build_date"] = v.build_date;
    r["description"] = v.description ? v.description : "";
    return r;
  }, "The version record: dict of major, minor, patch, build_date (0xYYYYMMDD), description.");

  m.def("nms", &nms_py, py::arg("in_"), py::arg("iou_threshold"), py::arg("max_out") = py::none(),
        R"doc(Greedy NMS. in_: float16 (count, 5) records x1 y1 x2 y2 score in priority order
(count <= 32767), inclusive box sizes. A box is dropped when its IoU with an earlier
kept box is above iou_threshold. Returns the kept boxes, float16 (kept, 4), in input
order, at most max_out (default: count).)doc");

  const char* pool_doc = R"doc(Max ROI pooling. proposal: float16 (roi_num, 4) image pixels; fmap:
(fmap_d/16, fmap_h, fmap_w, 16) with fmap_h, fmap_w <= 32767; fmap_scale: stride >= 1.
Returns (roi_num, fmap_d/16, pool_h, pool_w, 16) of fmap's dtype. pool_pitch and
fmap_pitch are passed on and unused.)doc";
  m.def("roi_pooling", &roi_pooling_py<false>, py::arg("proposal"), py::arg("fmap"),
        py::arg("fmap_scale"), py::arg("pool_w"), py::arg("pool_h"), py::arg("pool_pitch") = 0,
        py::arg("fmap_pitch") = 0,
        (std::string(pool_doc) + "\nfmap is uint16, compared unsigned; an empty bin gives 0.")
            .c_str());
  m.def("roi_pooling_sign", &roi_pooling_py<true>, py::arg("proposal"), py::arg("fmap"),
        py::arg("fmap_scale"), py::arg("pool_w"), py::arg("pool_h"), py::arg("pool_pitch") = 0,
        py::arg("fmap_pitch") = 0,
        (std::string(pool_doc) + "\nfmap is int16, compared signed; an empty bin gives -32768.")
            .c_str());

  m.def("roi_align_fmap_int16", &roi_align_py, py::arg("fmap"), py::arg("fmap_scale"),
        py::arg("proposal"), py::arg("pool_w"), py::arg("pool_h"),
        R"doc(ROI align, one bilinear sample per cell centre, Q13 weights. fmap: int16
(fmap_h, fmap_w, channel); proposal: float32 (roi_num, 4) image pixels; fmap_scale: stride.
Returns int16 (roi_num, pool_h, pool_w, channel).)doc");
  m.def("roi_align_four_fmap_int16", &roi_align_four_py, py::arg("fmap"), py::arg("fmap_scale"),
        py::arg("proposal"), py::arg("img_w"), py::arg("img_h"), py::arg("pool_w"),
        py::arg("pool_h"),
        R"doc(ROI align over three pyramid levels. fmap: 3 int16 maps, level k of shape
(img_h // fmap_scale[k], img_w // fmap_scale[k], channel); fmap_scale: 3 strides. Each box
takes its level from its size. Returns int16 (roi_num, pool_h, pool_w, channel).)doc");
  m.def("crop_and_resize_fmap_int16", &crop_and_resize_py, py::arg("fmap"), py::arg("scale_x"),
        py::arg("scale_y"), py::arg("extrapolation_value"), py::arg("proposal"), py::arg("crop_w"),
        py::arg("crop_h"),
        R"doc(Crop and resize (edge-to-edge bilinear). fmap: int16 (fmap_h, fmap_w, channel);
proposal: float32 (roi_num, 4), multiplied by scale_x / scale_y and divided by the map size.
Samples outside the map take extrapolation_value (and print a line each). Returns int16
(roi_num, crop_h, crop_w, channel).)doc");

  const char* ps_doc = R"doc(Position-sensitive average ROI pooling. fmap: float32
(group_size^2, fmap_h, fmap_w, fmap_pitch), fmap_pitch >= out_channels; proposal: float32
(roi_num, 4); pooled_w == pooled_h == group_size; channels, when given, must equal
group_size^2 * out_channels. Returns float32 (roi_num, pooled_h, pooled_w, out_pitch),
out_pitch defaulting to out_channels; floats past out_channels are 0.)doc";
  m.def("ps_roi_pooling",
        [](py::handle fmap, py::handle proposal, long long pooled_w, long long pooled_h,
           long long out_channels, float spatial_scale, long long group_size,
           std::optional<long long> channels, std::optional<long long> out_pitch) {
          return ps_roi_pooling_any(fmap, proposal, pooled_w, pooled_h, out_channels,
                                    spatial_scale, group_size, channels, out_pitch, nullptr);
        },
        py::arg("fmap"), py::arg("proposal"), py::arg("pooled_w"), py::arg("pooled_h"),
        py::arg("out_channels"), py::arg("spatial_scale"), py::arg("group_size"),
        py::arg("channels") = py::none(), py::arg("out_pitch") = py::none(), ps_doc);
  m.def("ps_roi_pooling_scale",
        [](py::handle fmap, py::handle proposal, long long pooled_w, long long pooled_h,
           long long out_channels, float spatial_scale, long long group_size, float roi_scale,
           float bin_shift_factor, float bin_stride_factor, std::optional<long long> channels,
           std::optional<long long> out_pitch) {
          const float s[3] = {roi_scale, bin_shift_factor, bin_stride_factor};
          return ps_roi_pooling_any(fmap, proposal, pooled_w, pooled_h, out_channels,
                                    spatial_scale, group_size, channels, out_pitch, s);
        },
        py::arg("fmap"), py::arg("proposal"), py::arg("pooled_w"), py::arg("pooled_h"),
        py::arg("out_channels"), py::arg("spatial_scale"), py::arg("group_size"),
        py::arg("roi_scale"), py::arg("bin_shift_factor"), py::arg("bin_stride_factor"),
        py::arg("channels") = py::none(), py::arg("out_pitch") = py::none(),
        (std::string(ps_doc) + "\nThe box is first scaled by roi_scale about its centre; bins move "
                               "back by (bin_shift_factor - 1) / 2 bins and are bin_stride_factor "
                               "bins apart.").c_str());

  auto desc_cls = py::class_<desc_py>(m, "FrcnnDesc", R"doc(The pipeline configuration (frcnn_desc).
FrcnnDesc(**fields): keyword arguments with the record's field names; flags are bools,
bbox_scale_factor a 4-tuple (center_x, center_y, width, height). Defaults: a VGG16-sized
first stage at 600x1000 (9 anchors, stride 16, 512 channels, 6000/300 proposals, IoU
0.7/0.3, 7x7 pooling), 21 classes, cls_prob 0.5, one worker per CPU (at most 32).
Not given: fmap_h/fmap_w = ceil(img / fmap_scale), fmap_pitch = rpn_cls_pitch = fmap_w,
rpn_bbox_pitch = fmap_pitch, pool_pitch = pool_w, rcnn_cls_pitch = class_num,
rcnn_bbox_pitch = 4 * box sets.)doc");
  desc_cls.def(py::init(&make_desc))
      .def("dump", [](const desc_py& d) {
            check_desc(d.d);
            std::vector<float> anchors(4 * static_cast<size_t>(d.d.anchor_num), 0.0f);
            return dump_desc(d.d, anchors);
          },
          "The library's configuration text (what init prints with is_debug set).")
      .def_property(
          "bbox_scale_factor",
          [](const desc_py& d) {
            const auto& s = d.d.bbox_scale_factor;
            return py::make_tuple(s.center_x, s.center_y, s.width, s.height);
          },
          [](desc_py& d, const std::vector<float>& v) {
            if (v.size() != 4) throw py::value_error("bbox_scale_factor: expected 4 floats");
            d.d.bbox_scale_factor = {v[0], v[1], v[2], v[3]};
          })
      .def("__repr__", [](const desc_py& d) {
        std::string s = "FrcnnDesc(";
        for (const field& f : k_fields)
          s += std::string(f.name) + "=" + std::string(py::repr(get_field(d.d, f))) + ", ";
        return s + "bbox_scale_factor=" +
               std::string(py::repr(py::cast(d).attr("bbox_scale_factor"))) + ")";
      });
  for (const field& f : k_fields)
    desc_cls.def_property(
        f.name, [&f](const desc_py& d) { return get_field(d.d, f); },
        [&f](desc_py& d, py::handle v) { set_field(d.d, f, v); });

  py::class_<pipeline>(m, "Pipeline", R"doc(One pipeline context (instance handle).
Pipeline(desc, base_anchors): base_anchors float32 (anchor_num, 4). Released by close(),
by leaving a with-block, or when garbage-collected. One frame at a time per object;
several objects run on several threads at once.
  rpn_cls   float16 (2*anchor_num, fmap_h, rpn_cls_pitch); anchor_num planes with
            is_rpn_cls_fg_only without is_rpn_cls_fg_minus_bg
  rpn_bbox  float16 (4*anchor_num, fmap_h, fmap_pitch)
  fmap      uint16 (int16 with fmap_sign) (fmap_d/16, fmap_h, fmap_w, 16)
  (the three may carry a leading batch dimension of 1)
  rcnn_cls  float16 (roi_num, rcnn_cls_pitch); rcnn_bbox float16 (roi_num, rcnn_bbox_pitch))doc")
      .def(py::init<const desc_py&, py::handle>(), py::arg("desc"), py::arg("base_anchors"))
      .def("close", &pipeline::close, "Releases the context (idempotent).")
      .def_property_readonly("closed", &pipeline::closed)
      .def_property_readonly("desc", [](const pipeline& p) { return desc_py{p.desc()}; })
      .def("__enter__", [](py::object self) { return self; })
      .def("__exit__", [](pipeline& p, py::args) { p.close(); })
      .def("prenms", &pipeline::prenms, py::arg("rpn_cls"), py::arg("rpn_bbox"),
           "Proposal stage: float16 (K, 5) proposals x1 y1 x2 y2 score, best first.")
      .def("prenms_nms", &pipeline::prenms_nms, py::arg("rpn_cls"), py::arg("rpn_bbox"),
           "Proposals and NMS: float16 (R, 4) ROIs, R <= post_nms_num.")
      .def("pre_nms_roi", &pipeline::pre_nms_roi, py::arg("rpn_cls"), py::arg("rpn_bbox"),
           py::arg("fmap"),
           "Proposals, NMS and pooling: (rois float16 (R, 4), features (R, fmap_d/16, pool_h, "
           "pool_w, 16) of fmap's dtype).")
      .def("post_nms", &pipeline::post_nms, py::arg("rcnn_cls"), py::arg("rcnn_bbox"),
           py::arg("rois"),
           "Head decode and class suppression: (table, per_class). table: float16 "
           "(class_num + 5*post_nms_num*class_num,), class_num counts then per class c "
           "post_nms_num records x1 y1 x2 y2 score at class_num + 5*post_nms_num*c. "
           "per_class: class_num lists of ((x1, y1, x2, y2), score).");
}
