#include "common/test_util.h"

#include <dirent.h>
#include <stdarg.h>
#include <unistd.h>

namespace ol_test {

std::string format(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  char buf[4096];
  vsnprintf(buf, sizeof buf, fmt, ap);
  va_end(ap);
  return buf;
}

int live_threads() {
  int n = 0;
  DIR* d = opendir("/proc/self/task");
  while (dirent* e = readdir(d))
    if (e->d_name[0] != '.') ++n;
  closedir(d);
  return n;
}

int settled_threads(int expected) {
  int n = live_threads();
  for (int i = 0; i < 200 && n != expected; ++i) {
    usleep(10000);
    n = live_threads();
  }
  return n;
}

int quiet_threads() {
  int n = live_threads(), same = 0;
  for (int i = 0; i < 200 && same < 5; ++i) {
    usleep(10000);
    const int m = live_threads();
    same = m == n ? same + 1 : 0;
    n = m;
  }
  return n;
}

}  // namespace ol_test
