// .npy layout: the magic "\x93NUMPY", a major and a minor version byte, the
// header length (2 bytes little-endian for 1.0, 4 bytes for 2.0 and 3.0),
// then a Python dict literal {'descr': ..., 'fortran_order': ..., 'shape':
// (...), } padded with spaces and a newline so that the data starts at a
// multiple of 64 bytes. The data follows, exactly count * itemsize bytes.
#include "demo/npy.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include <memory>

#include "demo/error.h"

namespace ol_demo {

std::string strf(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  char small[256];
  va_list ap2;
  va_copy(ap2, ap);
  const int n = vsnprintf(small, sizeof small, fmt, ap);
  va_end(ap);
  if (n < 0) {
    va_end(ap2);
    return std::string();
  }
  if (static_cast<size_t>(n) < sizeof small) {
    va_end(ap2);
    return std::string(small, static_cast<size_t>(n));
  }
  std::string s(static_cast<size_t>(n) + 1, '\0');
  vsnprintf(&s[0], s.size(), fmt, ap2);
  va_end(ap2);
  s.resize(static_cast<size_t>(n));
  return s;
}

const char* npy_dtype_name(npy_dtype t) {
  switch (t) {
    case npy_dtype::f2: return "float16";
    case npy_dtype::u2: return "uint16";
    case npy_dtype::i2: return "int16";
    case npy_dtype::u1: return "uint8";
    case npy_dtype::f4: return "float32";
    default: return "unsupported";
  }
}

size_t npy_dtype_size(npy_dtype t) {
  switch (t) {
    case npy_dtype::f2:
    case npy_dtype::u2:
    case npy_dtype::i2: return 2;
    case npy_dtype::u1: return 1;
    case npy_dtype::f4: return 4;
    default: return 0;
  }
}

static const char* npy_descr(npy_dtype t) {
  switch (t) {
    case npy_dtype::f2: return "<f2";
    case npy_dtype::u2: return "<u2";
    case npy_dtype::i2: return "<i2";
    case npy_dtype::u1: return "|u1";
    case npy_dtype::f4: return "<f4";
    default: return "";
  }
}

uint64_t npy_array::count() const {
  uint64_t n = 1;
  for (uint64_t d : shape) n *= d;
  return n;
}

std::string npy_array::shape_text() const {
  std::string s = "(";
  for (size_t i = 0; i < shape.size(); ++i) {
    if (i) s += ", ";
    s += std::to_string(shape[i]);
  }
  if (shape.size() == 1) s += ",";
  return s + ")";
}

namespace {

struct file_closer {
  void operator()(FILE* f) const { fclose(f); }
};
using file_ptr = std::unique_ptr<FILE, file_closer>;

// Parser of the header's dict literal. Only what NumPy writes is accepted:
// string keys; string, True/False and tuple-of-integers values.
class header_parser {
 public:
  header_parser(const std::string& text, const std::string& path) : s_(text), path_(path) {}

  void parse(npy_array* out) {
    bool have_descr = false, have_order = false, have_shape = false;
    bool fortran = false;
    ws();
    expect('{');
    for (;;) {
      ws();
      if (peek() == '}') break;
      const std::string key = string_lit();
      ws();
      expect(':');
      ws();
      if (key == "descr") {
        if (peek() != '\'' && peek() != '"') fail("structured dtypes are not supported");
        out->descr = string_lit();
        have_descr = true;
      } else if (key == "fortran_order") {
        fortran = bool_lit();
        have_order = true;
      } else if (key == "shape") {
        out->shape = tuple_lit();
        have_shape = true;
      } else {
        fail("unexpected header key '" + key + "'");
      }
      ws();
      if (peek() == ',') {
        ++i_;
        continue;
      }
      ws();
      if (peek() != '}') fail("malformed header");
    }
    if (!have_descr || !have_order || !have_shape)
      fail("header lacks 'descr', 'fortran_order' or 'shape'");
    if (fortran && out->shape.size() > 1)
      fail("Fortran-order data is not supported (save a C-contiguous array)");
  }

 private:
  [[noreturn]] void fail(const std::string& what) const {
    throw demo_error(path_ + ": not a valid .npy file: " + what);
  }
  char peek() const { return i_ < s_.size() ? s_[i_] : '\0'; }
  void ws() {
    while (i_ < s_.size() && (s_[i_] == ' ' || s_[i_] == '\t' || s_[i_] == '\n' || s_[i_] == '\r'))
      ++i_;
  }
  void expect(char c) {
    if (peek() != c) fail(std::string("malformed header (expected '") + c + "')");
    ++i_;
  }
  std::string string_lit() {
    const char q = peek();
    if (q != '\'' && q != '"') fail("malformed header (expected a string)");
    ++i_;
    const size_t start = i_;
    while (i_ < s_.size() && s_[i_] != q) ++i_;
    if (i_ >= s_.size()) fail("malformed header (unterminated string)");
    return s_.substr(start, i_++ - start);
  }
  bool bool_lit() {
    if (s_.compare(i_, 4, "True") == 0) {
      i_ += 4;
      return true;
    }
    if (s_.compare(i_, 5, "False") == 0) {
      i_ += 5;
      return false;
    }
    fail("malformed header (expected True or False)");
  }
  std::vector<uint64_t> tuple_lit() {
    std::vector<uint64_t> dims;
    expect('(');
    for (;;) {
      ws();
      if (peek() == ')') {
        ++i_;
        return dims;
      }
      if (peek() < '0' || peek() > '9') fail("malformed shape");
      uint64_t v = 0;
      while (peek() >= '0' && peek() <= '9') {
        const uint64_t digit = static_cast<uint64_t>(peek() - '0');
        if (v > (UINT64_MAX - digit) / 10) fail("shape dimension too large");
        v = v * 10 + digit;
        ++i_;
      }
      // NumPy may append an 'L' to long integers in old files.
      if (peek() == 'L') ++i_;
      dims.push_back(v);
      if (dims.size() > 32) fail("too many dimensions");
      ws();
      if (peek() == ',') {
        ++i_;
      } else if (peek() != ')') {
        fail("malformed shape");
      }
    }
  }

  const std::string& s_;
  const std::string& path_;
  size_t i_ = 0;
};

npy_dtype dtype_of(const std::string& descr) {
  if (descr == "<f2") return npy_dtype::f2;
  if (descr == "<u2") return npy_dtype::u2;
  if (descr == "<i2") return npy_dtype::i2;
  if (descr == "|u1" || descr == "<u1" || descr == "u1") return npy_dtype::u1;
  if (descr == "<f4") return npy_dtype::f4;
  return npy_dtype::other;
}

}  // namespace

npy_array npy_read(const std::string& path) {
  file_ptr f(fopen(path.c_str(), "rb"));
  if (!f) {
    if (errno == ENOENT) throw demo_error(path + ": missing file");
    throw demo_error(path + ": cannot open: " + strerror(errno));
  }
  if (fseek(f.get(), 0, SEEK_END) != 0) throw demo_error(path + ": cannot read (not a file?)");
  const long end = ftell(f.get());
  if (end < 0 || fseek(f.get(), 0, SEEK_SET) != 0)
    throw demo_error(path + ": cannot read (not a file?)");
  const uint64_t file_size = static_cast<uint64_t>(end);

  unsigned char pre[12];
  const size_t got = fread(pre, 1, sizeof pre, f.get());
  if (got < 10 || memcmp(pre, "\x93NUMPY", 6) != 0)
    throw demo_error(path + ": not a .npy file (bad magic)");
  const unsigned major = pre[6];
  uint64_t header_len;
  uint64_t data_offset;
  if (major == 1) {
    header_len = pre[8] | (static_cast<uint64_t>(pre[9]) << 8);
    data_offset = 10 + header_len;
  } else if (major == 2 || major == 3) {
    if (got < 12) throw demo_error(path + ": truncated .npy header");
    header_len = pre[8] | (static_cast<uint64_t>(pre[9]) << 8) |
                 (static_cast<uint64_t>(pre[10]) << 16) | (static_cast<uint64_t>(pre[11]) << 24);
    data_offset = 12 + header_len;
  } else {
    throw demo_error(path + strf(": unsupported .npy format version %u", major));
  }
  if (data_offset > file_size || header_len > (1u << 20))
    throw demo_error(path + ": truncated .npy header");
  std::string header(static_cast<size_t>(header_len), '\0');
  if (fseek(f.get(), static_cast<long>(data_offset - header_len), SEEK_SET) != 0 ||
      fread(&header[0], 1, header.size(), f.get()) != header.size())
    throw demo_error(path + ": truncated .npy header");

  npy_array a;
  header_parser(header, path).parse(&a);
  a.dtype = dtype_of(a.descr);
  if (a.dtype == npy_dtype::other) {
    if (!a.descr.empty() && a.descr[0] == '>')
      throw demo_error(path + ": big-endian data ('" + a.descr + "') is not supported");
    throw demo_error(path + ": unsupported dtype '" + a.descr + "'");
  }
  const uint64_t item = npy_dtype_size(a.dtype);
  uint64_t bytes = item;
  for (uint64_t d : a.shape) {
    if (d != 0 && bytes > UINT64_MAX / d) throw demo_error(path + ": shape too large");
    bytes *= d;
  }
  const uint64_t have = file_size - data_offset;
  if (have < bytes)
    throw demo_error(path + strf(": truncated: shape %s of %s needs %llu data bytes, the file has "
                                 "%llu",
                                 a.shape_text().c_str(), npy_dtype_name(a.dtype),
                                 static_cast<unsigned long long>(bytes),
                                 static_cast<unsigned long long>(have)));
  if (have > bytes)
    throw demo_error(path + strf(": %llu bytes of data after the array (shape %s of %s)",
                                 static_cast<unsigned long long>(have - bytes),
                                 a.shape_text().c_str(), npy_dtype_name(a.dtype)));
  a.data.resize(static_cast<size_t>(bytes));
  if (bytes != 0 && fread(a.data.data(), 1, a.data.size(), f.get()) != a.data.size())
    throw demo_error(path + ": read error");
  return a;
}

void npy_write(const std::string& path, npy_dtype dtype, const std::vector<uint64_t>& shape,
               const void* data) {
  std::string dict = std::string("{'descr': '") + npy_descr(dtype) +
                     "', 'fortran_order': False, 'shape': (";
  uint64_t count = 1;
  for (size_t i = 0; i < shape.size(); ++i) {
    if (i) dict += ", ";
    dict += std::to_string(shape[i]);
    count *= shape[i];
  }
  if (shape.size() == 1) dict += ",";
  dict += "), }";
  // Pad with spaces and end with a newline so the data starts at a multiple
  // of 64 bytes (10 bytes of magic, version and length precede the header).
  size_t total = 10 + dict.size() + 1;
  dict.append((64 - total % 64) % 64, ' ');
  dict += '\n';
  if (dict.size() > 65535) throw demo_error(path + ": header too long");

  file_ptr f(fopen(path.c_str(), "wb"));
  if (!f) throw demo_error(path + ": cannot create: " + strerror(errno));
  unsigned char pre[10] = {0x93, 'N', 'U', 'M', 'P', 'Y', 1, 0,
                           static_cast<unsigned char>(dict.size() & 0xFF),
                           static_cast<unsigned char>(dict.size() >> 8)};
  const size_t bytes = static_cast<size_t>(count * npy_dtype_size(dtype));
  bool ok = fwrite(pre, 1, sizeof pre, f.get()) == sizeof pre &&
            fwrite(dict.data(), 1, dict.size(), f.get()) == dict.size() &&
            (bytes == 0 || fwrite(data, 1, bytes, f.get()) == bytes);
  ok = (fclose(f.release()) == 0) && ok;
  if (!ok) throw demo_error(path + ": write error");
}

}  // namespace ol_demo
