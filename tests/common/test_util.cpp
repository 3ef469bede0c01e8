#include "common/test_util.h"

#include <stdarg.h>

namespace ol_test {

std::string format(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  char buf[4096];
  vsnprintf(buf, sizeof buf, fmt, ap);
  va_end(ap);
  return buf;
}

}  // namespace ol_test
