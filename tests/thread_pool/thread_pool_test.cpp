// The worker pool: its messages, every task back exactly once on 1 and 32
// workers, refused tasks and allocation failures. (The failures of create
// and a destroy that needs no memory are exercised through init and exit of
// the pipeline context.)
// ctest-labels: threaded
#include "thread_pool/thread_pool.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <set>
#include <vector>

#include "common/alloc.h"
#include "common/test_util.h"

namespace {

using ol::thread_pool;
using ol::thread_task;

struct record {
  int32_t value;
  std::atomic<int32_t> runs{0};
  pthread_t ran_on;
  thread_task task;
};

// n records, each unrun (runs 0, retval -7); run, record i returns i * 3 + 1.
std::vector<record> records(size_t n) {
  std::vector<record> recs(n);
  for (size_t i = 0; i < n; ++i) {
    recs[i].value = static_cast<int32_t>(i);
    recs[i].runs = 0;
    recs[i].task = {[](void* arg) -> int32_t {
                      record* r = static_cast<record*>(arg);
                      r->runs.fetch_add(1, std::memory_order_relaxed);
                      r->ran_on = pthread_self();
                      return r->value * 3 + 1;
                    },
                    &recs[i], -7};
  }
  return recs;
}

// Counts the library's allocations from construction on and fails those
// with index in [from, to].
constexpr int k_all = 1 << 30;
struct alloc_failer {
  int count = 0, from, to;
  explicit alloc_failer(int from_ = -1, int to_ = -1) : from(from_), to(to_) {
    ol::alloc_hooks h = {hook, this};
    ol::set_alloc_hooks(&h);
  }
  static bool hook(size_t, void* user) {
    alloc_failer* s = static_cast<alloc_failer*>(user);
    const int i = s->count++;
    return i < s->from || i > s->to;
  }
  void remove() { ol::set_alloc_hooks(nullptr); }
  ~alloc_failer() { remove(); }
};

// Tasks that each note the stack size of their worker and wait until the
// gate is opened (the test's deadline ends a run that never opens it).
struct gate {
  std::atomic<uint32_t> arrived{0}, other_stacks{0};
  std::atomic<int> open{0};
  std::vector<thread_task> tasks;
  explicit gate(uint32_t n) : tasks(n, {run, this, 1}) {}
  static int32_t run(void* a) {
    gate* g = static_cast<gate*>(a);
    pthread_attr_t attr;
    size_t bytes = 0;
    if (pthread_getattr_np(pthread_self(), &attr) == 0) {
      pthread_attr_getstacksize(&attr, &bytes);
      pthread_attr_destroy(&attr);
    }
#ifdef __SANITIZE_THREAD__
    g->other_stacks += bytes < ol::k_worker_stack_bytes;  // the runtime adds its own share
#else
    g->other_stacks += bytes != ol::k_worker_stack_bytes;
#endif
    g->arrived.fetch_add(1);
    while (!g->open.load()) usleep(200);
    return 0;
  }
};

// Every worker exists and runs at once, on the small fixed stack, and is
// joined by destroy; every accepted task comes back exactly once, run on a
// worker (in queue order with one worker).
TEST(thread_pool, one_and_thirty_two_workers) {
  // Sanitizer runtimes start helper threads with the first thread created:
  // let that happen before taking the baseline.
  ol::thread_pool_destroy(ol::thread_pool_create(1));
  const int before = ol_test::quiet_threads();
  for (uint32_t n : {1u, 32u}) {
    ol_test::stdout_capture cap;
    thread_pool* pool = ol::thread_pool_create(n);
    ASSERT_NE(pool, nullptr);
    EXPECT_EQ(ol_test::live_threads(), before + static_cast<int>(n));
    // A gate holds every worker at once; the records queue up behind it and
    // all run before the first wait, so with one worker both queues must keep
    // the order by themselves.
    std::vector<record> recs = records(500);
    gate held(n);
    for (auto& t : held.tasks) ASSERT_EQ(ol::thread_pool_add_task(pool, &t), 0);
    while (held.arrived.load() < n) usleep(200);  // each task on its own worker
    EXPECT_EQ(held.other_stacks.load(), 0u);
    // A prepared batch allocates nothing, even all queued behind busy
    // workers; a larger one cannot be prepared while the heap refuses.
    ASSERT_EQ(ol::thread_pool_prepare(pool, 500), 0);
    alloc_failer none(0, k_all);
    for (auto& r : recs) ASSERT_EQ(ol::thread_pool_add_task(pool, &r.task), 0);
    EXPECT_EQ(none.count, 0);
    EXPECT_EQ(ol::thread_pool_prepare(pool, 501), -1);
    none.remove();
    // Every node now in use: a task whose done node (allocation 0) or task
    // node (allocation 1) cannot be had is refused and leaves no node reserved.
    std::vector<record> refused = records(2);
    for (int which = 0; which < 2; ++which) {
      alloc_failer f(which, which);
      EXPECT_EQ(ol::thread_pool_add_task(pool, &refused[which].task), -1);
      f.remove();
      EXPECT_EQ(f.count, which + 1);
      EXPECT_EQ(pool->done_queue->reserved, n + recs.size());
    }
    held.open.store(1);
    for (auto& r : recs)
      while (r.runs.load() == 0) usleep(200);
    std::set<thread_task*> back;
    for (size_t i = 0; i < n + recs.size(); ++i) {
      thread_task* t = ol::thread_pool_wait(pool);
      EXPECT_TRUE(back.insert(t).second) << "task returned twice";
      EXPECT_TRUE(n > 1 || t == (i ? &recs[i - 1].task : &held.tasks[0])) << "out of queue order";
    }
    for (size_t i = 0; i < recs.size(); ++i) {
      EXPECT_EQ(recs[i].runs.load(), 1);
      EXPECT_EQ(recs[i].task.retval, static_cast<int32_t>(i) * 3 + 1);
      EXPECT_FALSE(pthread_equal(recs[i].ran_on, pthread_self()));
    }
    EXPECT_EQ(refused[0].runs + refused[1].runs, 0);
    EXPECT_EQ(pool->done_queue->reserved, 0u);
    EXPECT_EQ(pool->task_queue->reserved, n);  // the stop nodes
    ol::thread_pool_destroy(pool);
    EXPECT_EQ(ol_test::settled_threads(before), before);
    EXPECT_EQ(cap.end(), "fatal: no memory for simple node\nfatal: no memory for simple node\n"
                         "fatal: no memory for simple node\n");
  }
}

// A task refused for want of memory prints "fatal: add task fail" and runs
// on the caller when asked to; the accepted ones run on workers and are all
// waited for. A task with a NULL function comes back unrun ("error: invalid
// task"); a NULL task (queued, it would stop a worker) and a NULL pool are
// refused with "error: invalid params", and destroying NULL does nothing.
TEST(thread_pool, refused_tasks_and_arguments) {
  for (ol::on_refused mode : {ol::on_refused::skip, ol::on_refused::run_inline}) {
    const bool inline_run = mode == ol::on_refused::run_inline;
    thread_pool* pool = ol::thread_pool_create(2);
    ASSERT_NE(pool, nullptr);
    std::vector<record> recs = records(3);
    ol_test::stdout_capture cap;
    alloc_failer f(2, 2);  // task 0 takes allocations 0 and 1
    EXPECT_EQ(ol::dispatch_tasks(pool, recs.data(), 3, mode), 2u);
    f.remove();
    for (size_t i = 0; i < recs.size(); ++i) {
      const bool refused = i == 1, ran = !refused || inline_run;
      EXPECT_EQ(recs[i].runs.load(), ran ? 1 : 0) << i;
      EXPECT_EQ(recs[i].task.retval, ran ? int32_t(i) * 3 + 1 : -7) << i;
      EXPECT_TRUE(!ran || (pthread_equal(recs[i].ran_on, pthread_self()) != 0) == refused) << i;
    }
    thread_task null_func = {nullptr, nullptr, 1234};
    ASSERT_EQ(ol::thread_pool_add_task(pool, &null_func), 0);
    EXPECT_EQ(ol::thread_pool_wait(pool), &null_func);
    EXPECT_EQ(null_func.retval, 1234);
    EXPECT_EQ(ol::thread_pool_add_task(pool, nullptr), -1);
    ol::thread_pool_destroy(pool);
    ol::thread_pool_destroy(nullptr);
    EXPECT_EQ(ol::thread_pool_add_task(nullptr, &null_func), -1);
    EXPECT_EQ(ol::thread_pool_wait(nullptr), nullptr);
    EXPECT_EQ(ol::thread_pool_prepare(nullptr, 1), -1);
    EXPECT_EQ(cap.end(), "fatal: no memory for simple node\nfatal: add task fail\nerror: invalid task\n"
                         "error: invalid params\nerror: invalid params\nerror: invalid params\n"
                         "error: invalid params\n");
  }
}

}  // namespace
