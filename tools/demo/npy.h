// Reading and writing NumPy .npy files (format versions 1.0, 2.0 and 3.0),
// for the handful of little-endian element types the demo exchanges.
#ifndef OL_DEMO_NPY_H
#define OL_DEMO_NPY_H

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

namespace ol_demo {

// Element types, by their NumPy descriptors.
enum class npy_dtype {
  f2,  // '<f2': IEEE binary16 (kept as raw 16-bit patterns)
  u2,  // '<u2'
  i2,  // '<i2'
  u1,  // '|u1'
  f4,  // '<f4' (read only to name it in errors)
  other,
};

const char* npy_dtype_name(npy_dtype t);
size_t npy_dtype_size(npy_dtype t);

struct npy_array {
  npy_dtype dtype = npy_dtype::other;
  std::string descr;           // as written in the header, e.g. "<f2"
  std::vector<uint64_t> shape;
  std::vector<uint8_t> data;   // element bytes, little-endian, C order

  uint64_t count() const;
  std::string shape_text() const;  // "(2, 38, 64)"
};

// Reads a whole .npy file. Throws demo_error naming the file and the fault
// (missing or unreadable file, bad magic or header, big-endian or Fortran
// order data, a size that does not match the shape).
npy_array npy_read(const std::string& path);

// Writes a C-order little-endian array. Throws demo_error on an I/O fault.
void npy_write(const std::string& path, npy_dtype dtype, const std::vector<uint64_t>& shape,
               const void* data);

}  // namespace ol_demo

#endif
