#include "common/test_util.h"

#include <dirent.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
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
class watchdog : public testing::EmptyTestEventListener {
 public:
  // The state outlives the listener (gtest deletes it at exit while the
  // thread still waits): it is never freed.
  explicit watchdog(int seconds) : s_(new state) {
    s_->limit = seconds;
    state* s = s_;
    std::thread([s] { s->run(); }).detach();
  }
  void OnTestStart(const testing::TestInfo& t) override {
    std::lock_guard<std::mutex> l(s_->m);
    s_->name = std::string(t.test_suite_name()) + "." + t.name();
    s_->due = std::chrono::steady_clock::now() + std::chrono::seconds(s_->limit);
    s_->armed = true;
    s_->cv.notify_one();
  }
  void OnTestEnd(const testing::TestInfo&) override {
    std::lock_guard<std::mutex> l(s_->m);
    s_->armed = false;
  }

 private:
  struct state {
    int limit = 0;
    std::mutex m;
    std::condition_variable cv;
    std::string name;
    std::chrono::steady_clock::time_point due;
    bool armed = false;
    void run() {
      std::unique_lock<std::mutex> l(m);
      for (;;) {
        if (!armed) {
          cv.wait(l);
        } else if (cv.wait_until(l, due) == std::cv_status::timeout && armed &&
                   std::chrono::steady_clock::now() >= due) {
          fprintf(stderr, "%s: no result after %d s (deadlock or lost wake-up?)\n", name.c_str(),
                  limit);
          _exit(3);
        }
      }
    }
  };
  state* s_;
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
