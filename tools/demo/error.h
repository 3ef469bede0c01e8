// The one error type of the demo: a single line, usually "<file>: <fault>".
#ifndef OL_DEMO_ERROR_H
#define OL_DEMO_ERROR_H

#include <stdexcept>
#include <string>

namespace ol_demo {

class demo_error : public std::runtime_error {
 public:
  explicit demo_error(const std::string& what) : std::runtime_error(what) {}
};

// printf into a std::string.
std::string strf(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

}  // namespace ol_demo

#endif
