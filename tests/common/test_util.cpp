#include "common/test_util.h"

#include <dirent.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

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

void on_small_stack(const std::function<void()>& fn) {
  pthread_attr_t attr;
  ASSERT_EQ(pthread_attr_init(&attr), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&attr, 128 * 1024), 0);
  pthread_t t;
  auto tramp = [](void* arg) -> void* {
    (*static_cast<const std::function<void()>*>(arg))();
    return nullptr;
  };
  ASSERT_EQ(pthread_create(&t, &attr, tramp, const_cast<std::function<void()>*>(&fn)), 0);
  pthread_join(t, nullptr);
  pthread_attr_destroy(&attr);
}

namespace {

// Every test of every program runs under a deadline: a test that has not
// finished after OL_TEST_DEADLINE seconds (default 10; the build sets more
// for emulated and sanitized runs) ends the program with a failure, so a
// lost lock or a lost wake-up fails within seconds instead of hanging.
// A detached thread looks at the running test's due time ten times a
// second; the name it prints is written before the due time is published.
std::atomic<int64_t> g_due_ms{0};  // 0: no test running
char g_test_name[512];

int64_t now_ms() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

class watchdog : public testing::EmptyTestEventListener {
 public:
  explicit watchdog(int seconds) : limit_(seconds) {
    std::thread([seconds] {
      for (;;) {
        usleep(100000);
        const int64_t due = g_due_ms.load();
        if (due != 0 && now_ms() >= due) {
          fprintf(stderr, "%s: no result after %d s (deadlock or lost wake-up?)\n", g_test_name,
                  seconds);
          _exit(3);
        }
      }
    }).detach();
  }
  void OnTestStart(const testing::TestInfo& t) override {
    snprintf(g_test_name, sizeof g_test_name, "%s.%s", t.test_suite_name(), t.name());
    g_due_ms = now_ms() + 1000 * int64_t{limit_};
  }
  void OnTestEnd(const testing::TestInfo&) override { g_due_ms = 0; }

 private:
  int limit_;
};

}  // namespace

}  // namespace ol_test

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  const char* env = getenv("OL_TEST_DEADLINE");
  testing::UnitTest::GetInstance()->listeners().Append(
      new ol_test::watchdog(env ? atoi(env) : 10));
  return RUN_ALL_TESTS();
}
