// ctest-labels: threaded
#include "thread_pool/thread_pool.h"

#include <dirent.h>
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

int thread_count_now() {
  int n = 0;
  if (DIR* d = opendir("/proc/self/task")) {
    while (dirent* e = readdir(d)) n += e->d_name[0] != '.';
    closedir(d);
  }
  return n;
}

// A joined thread may still be listed for an instant after pthread_join
// returns; give it up to two seconds to disappear.
int thread_count_settled(int expected) {
  int n = thread_count_now();
  for (int i = 0; i < 400 && n != expected; ++i) {
    usleep(5000);
    n = thread_count_now();
  }
  return n;
}

// Thread count before a pool is made. Sanitizer runtimes start helper
// threads with the first thread created: let that happen before counting.
int threads_before() {
  pthread_t first;
  if (pthread_create(&first, nullptr, [](void*) -> void* { return nullptr; }, nullptr) == 0) {
    pthread_join(first, nullptr);
  }
  // Wait until the count holds still (the joined thread may linger).
  int n = thread_count_now();
  for (int i = 0; i < 100; ++i) {
    usleep(5000);
    const int m = thread_count_now();
    if (m == n) break;
    n = m;
  }
  return n;
}

struct record {
  int32_t value;
  std::atomic<int32_t> runs{0};
  pthread_t ran_on;
  thread_task task;
};

int32_t run_record(void* arg) {
  record* r = static_cast<record*>(arg);
  r->runs.fetch_add(1, std::memory_order_relaxed);
  r->ran_on = pthread_self();
  return r->value * 3 + 1;
}

void init_records(std::vector<record>& recs) {
  for (size_t i = 0; i < recs.size(); ++i) {
    recs[i].value = static_cast<int32_t>(i);
    recs[i].runs = 0;
    recs[i].task = {run_record, &recs[i], -7};
  }
}

// Fails allocations chosen by index (counted from install), counts all.
struct alloc_failer {
  int count = 0;
  int fail_from = -1;  // first failing index, -1: none
  int fail_to = -1;    // last failing index (inclusive)
  static bool hook(size_t, void* user) {
    alloc_failer* s = static_cast<alloc_failer*>(user);
    int i = s->count++;
    return !(i >= s->fail_from && i <= s->fail_to);
  }
  void install() {
    ol::alloc_hooks h = {hook, this};
    ol::set_alloc_hooks(&h);
  }
  ~alloc_failer() { ol::set_alloc_hooks(nullptr); }
};

TEST(thread_pool, worker_count_limits) {
  {
    ol_test::stdout_capture cap;
    EXPECT_EQ(ol::thread_pool_create(0), nullptr);
    EXPECT_EQ(cap.end(), "thread number 0 less than 1\n");
  }
  {
    ol_test::stdout_capture cap;
    EXPECT_EQ(ol::thread_pool_create(33), nullptr);
    EXPECT_EQ(ol::thread_pool_create(255), nullptr);
    EXPECT_EQ(cap.end(), "thread number 33 exceed max 32\nthread number 255 exceed max 32\n");
  }
}

// Every worker exists at once and is joined by destroy; results do not
// depend on the number of workers; workers run on the small fixed stack.
TEST(thread_pool, one_and_thirty_two_workers) {
  const int before = threads_before();
  for (uint32_t n : {1u, 32u}) {
    ol_test::stdout_capture cap;
    thread_pool* pool = ol::thread_pool_create(n);
    ASSERT_NE(pool, nullptr);
    EXPECT_EQ(thread_count_now(), before + static_cast<int>(n));

    // n tasks that each wait until all n run together: only n live workers
    // can release them (a deadline keeps a failure from hanging).
    struct meeting {
      uint32_t need;
      std::atomic<uint32_t> arrived{0};
      std::atomic<uint32_t> met{0};
    } m;
    m.need = n;
    std::vector<thread_task> meet(n);
    for (auto& t : meet) {
      t = {+[](void* a) -> int32_t {
             meeting* m = static_cast<meeting*>(a);
             m->arrived.fetch_add(1);
             for (int i = 0; i < 100000 && m->arrived.load() < m->need; ++i) usleep(200);
             if (m->arrived.load() < m->need) return -1;
             m->met.fetch_add(1);
             return 0;
           },
           &m, 1};
    }
    for (auto& t : meet) ASSERT_EQ(ol::thread_pool_add_task(pool, &t), 0);
    for (uint32_t i = 0; i < n; ++i) ASSERT_NE(ol::thread_pool_wait(pool), nullptr);
    EXPECT_EQ(m.met.load(), n);

    // Stack size of a worker.
    struct stack_probe {
      size_t bytes = 0;
      thread_task task;
    } probe;
    probe.task = {+[](void* a) -> int32_t {
                    pthread_attr_t attr;
                    if (pthread_getattr_np(pthread_self(), &attr) != 0) return -1;
                    pthread_attr_getstacksize(&attr, &static_cast<stack_probe*>(a)->bytes);
                    pthread_attr_destroy(&attr);
                    return 0;
                  },
                  &probe, 1};
    ASSERT_EQ(ol::thread_pool_add_task(pool, &probe.task), 0);
    EXPECT_EQ(ol::thread_pool_wait(pool), &probe.task);
    EXPECT_EQ(probe.task.retval, 0);
#ifdef __SANITIZE_THREAD__
    EXPECT_GE(probe.bytes, ol::k_worker_stack_bytes);  // the runtime adds its own share
#else
    EXPECT_EQ(probe.bytes, ol::k_worker_stack_bytes);
#endif

    std::vector<record> recs(257);
    init_records(recs);
    EXPECT_EQ(ol::dispatch_tasks(pool, recs.data(), 257, ol::on_refused::skip), 257u);
    for (size_t i = 0; i < recs.size(); ++i) {
      EXPECT_EQ(recs[i].runs.load(), 1);
      EXPECT_EQ(recs[i].task.retval, static_cast<int32_t>(i) * 3 + 1);
    }
    ol::thread_pool_destroy(pool);
    EXPECT_EQ(thread_count_settled(before), before);
    EXPECT_EQ(cap.end(), "");
  }
}

TEST(thread_pool, each_task_comes_back_once) {
  thread_pool* pool = ol::thread_pool_create(4);
  ASSERT_NE(pool, nullptr);
  std::vector<record> recs(500);
  init_records(recs);
  for (auto& r : recs) ASSERT_EQ(ol::thread_pool_add_task(pool, &r.task), 0);
  std::set<thread_task*> back;
  for (size_t i = 0; i < recs.size(); ++i) {
    thread_task* t = ol::thread_pool_wait(pool);
    ASSERT_NE(t, nullptr);
    EXPECT_TRUE(back.insert(t).second) << "task returned twice";
  }
  for (auto& r : recs) {
    EXPECT_EQ(back.count(&r.task), 1u);
    EXPECT_EQ(r.runs.load(), 1);
    EXPECT_FALSE(pthread_equal(r.ran_on, pthread_self()));
  }
  ol::thread_pool_destroy(pool);

  // One worker finishes tasks in the order they were queued.
  pool = ol::thread_pool_create(1);
  ASSERT_NE(pool, nullptr);
  init_records(recs);
  for (auto& r : recs) ASSERT_EQ(ol::thread_pool_add_task(pool, &r.task), 0);
  for (auto& r : recs) EXPECT_EQ(ol::thread_pool_wait(pool), &r.task);
  ol::thread_pool_destroy(pool);
}

TEST(thread_pool, null_function_comes_back_unrun) {
  thread_pool* pool = ol::thread_pool_create(2);
  ASSERT_NE(pool, nullptr);
  thread_task t = {nullptr, nullptr, 1234};
  ol_test::stdout_capture cap;
  ASSERT_EQ(ol::thread_pool_add_task(pool, &t), 0);
  EXPECT_EQ(ol::thread_pool_wait(pool), &t);
  EXPECT_EQ(cap.end(), "error: invalid task\n");
  EXPECT_EQ(t.retval, 1234);
  ol::thread_pool_destroy(pool);
}

// wait with nothing finished blocks until a task finishes.
TEST(thread_pool, wait_blocks_until_a_task_finishes) {
  thread_pool* pool = ol::thread_pool_create(2);
  ASSERT_NE(pool, nullptr);
  struct waiter {
    thread_pool* pool;
    std::atomic<thread_task*> got{nullptr};
  } w;
  w.pool = pool;
  pthread_t th;
  ASSERT_EQ(pthread_create(
                &th, nullptr,
                [](void* a) -> void* {
                  waiter* w = static_cast<waiter*>(a);
                  w->got.store(ol::thread_pool_wait(w->pool));
                  return nullptr;
                },
                &w),
            0);
  usleep(50000);
  EXPECT_EQ(w.got.load(), nullptr);
  std::vector<record> recs(1);
  init_records(recs);
  ASSERT_EQ(ol::thread_pool_add_task(pool, &recs[0].task), 0);
  pthread_join(th, nullptr);
  EXPECT_EQ(w.got.load(), &recs[0].task);
  EXPECT_EQ(recs[0].task.retval, 1);
  ol::thread_pool_destroy(pool);
}

uint32_t reserved_nodes(ol::simple_queue* q) {
  pthread_mutex_lock(&q->mutex);
  uint32_t r = q->reserved;
  pthread_mutex_unlock(&q->mutex);
  return r;
}

// Holds every worker that takes one of its tasks until opened.
struct gate {
  std::atomic<uint32_t> running{0};
  std::atomic<int> open{0};
  std::vector<thread_task> tasks;
  explicit gate(uint32_t n) : tasks(n) {
    for (auto& t : tasks) {
      t = {+[](void* a) -> int32_t {
             gate* g = static_cast<gate*>(a);
             g->running.fetch_add(1);
             while (!g->open.load()) usleep(200);
             return 0;
           },
           this, 0};
    }
  }
  // Queues one task per worker and returns once all workers hold one.
  void hold(thread_pool* pool) {
    for (auto& t : tasks) ASSERT_EQ(ol::thread_pool_add_task(pool, &t), 0);
    while (running.load() < tasks.size()) usleep(200);
  }
};

// Long runs of small batches, as the pipeline does per frame: nothing is
// lost or run twice, and once warm the pool allocates nothing.
TEST(thread_pool, many_batches) {
  for (uint32_t workers : {1u, 4u}) {
    for (uint32_t batch : {10u, 300u}) {
      thread_pool* pool = ol::thread_pool_create(workers);
      ASSERT_NE(pool, nullptr);
      std::vector<record> recs(batch);
      init_records(recs);
      ASSERT_EQ(ol::thread_pool_prepare(pool, batch), 0);
      alloc_failer counter;  // fails nothing, counts
      counter.install();
      const uint32_t rounds = (100000 + batch - 1) / batch;
      uint64_t bad = 0;
      for (uint32_t round = 0; round < rounds; ++round) {
        for (uint32_t i = 0; i < batch; ++i) {
          recs[i].value = static_cast<int32_t>(round * batch + i);
          recs[i].runs.store(0, std::memory_order_relaxed);
          recs[i].task.retval = -7;
        }
        if (ol::dispatch_tasks(pool, recs.data(), batch, ol::on_refused::skip) != batch) ++bad;
        for (uint32_t i = 0; i < batch; ++i) {
          bad += recs[i].runs.load(std::memory_order_relaxed) != 1;
          bad += recs[i].task.retval != recs[i].value * 3 + 1;
        }
      }
      EXPECT_EQ(bad, 0u) << workers << " workers, batch " << batch;
      EXPECT_EQ(counter.count, 0) << "allocations in steady state";
      ol::set_alloc_hooks(nullptr);
      ol::thread_pool_destroy(pool);
    }
  }
}

// After prepare(n), a batch of n allocates nothing even in the worst case:
// all n queued while every worker is busy.
TEST(thread_pool, prepared_pool_does_not_allocate) {
  thread_pool* pool = ol::thread_pool_create(2);
  ASSERT_NE(pool, nullptr);
  std::vector<record> recs(300);
  init_records(recs);
  gate g(2);
  // The gate tasks are part of the batch.
  ASSERT_EQ(ol::thread_pool_prepare(pool, 302), 0);
  alloc_failer all;
  all.fail_from = 0;
  all.fail_to = 1 << 30;
  all.install();
  g.hold(pool);
  for (auto& r : recs) ASSERT_EQ(ol::thread_pool_add_task(pool, &r.task), 0);
  g.open.store(1);
  for (int i = 0; i < 302; ++i) ASSERT_NE(ol::thread_pool_wait(pool), nullptr);
  ol::set_alloc_hooks(nullptr);
  EXPECT_EQ(all.count, 0);
  for (auto& r : recs) EXPECT_EQ(r.runs.load(), 1);
  // Growing again to a size already reached allocates nothing.
  all.install();
  EXPECT_EQ(ol::thread_pool_prepare(pool, 302), 0);
  ol::set_alloc_hooks(nullptr);
  {
    ol_test::stdout_capture cap;
    EXPECT_EQ(ol::thread_pool_prepare(nullptr, 1), -1);
    all.install();
    EXPECT_EQ(ol::thread_pool_prepare(pool, 303), -1);
    ol::set_alloc_hooks(nullptr);
    EXPECT_EQ(cap.end(), "error: invalid params\nfatal: no memory for simple node\n");
  }
  ol::thread_pool_destroy(pool);
}

TEST(thread_pool, bad_params) {
  thread_task t = {run_record, nullptr, 0};
  ol_test::stdout_capture cap;
  ol::thread_pool_destroy(nullptr);
  EXPECT_EQ(ol::thread_pool_add_task(nullptr, &t), -1);
  EXPECT_EQ(ol::thread_pool_wait(nullptr), nullptr);
  thread_pool* pool = ol::thread_pool_create(1);
  ASSERT_NE(pool, nullptr);
  // A NULL task would stop a worker: refused.
  EXPECT_EQ(ol::thread_pool_add_task(pool, nullptr), -1);
  ol::thread_pool_destroy(pool);
  EXPECT_EQ(cap.end(), "error: invalid params\nerror: invalid params\nerror: invalid params\n");
}

// Fail each allocation of create in turn: the message of the failing
// allocation, NULL, no thread left running, nothing leaked (LeakSanitizer).
TEST(thread_pool, create_allocation_failures) {
  const uint32_t n = 3;
  const int before = threads_before();
  for (int k = 0;; ++k) {
    alloc_failer f;
    f.fail_from = f.fail_to = k;
    f.install();
    ol_test::stdout_capture cap;
    thread_pool* pool = ol::thread_pool_create(n);
    ol::set_alloc_hooks(nullptr);
    std::string out = cap.end();
    if (k >= f.count) {  // no allocation failed
      ASSERT_NE(pool, nullptr);
      EXPECT_EQ(out, "");
      EXPECT_EQ(k, 3 + static_cast<int>(n));  // pool, two queues, a stop node per worker
      ol::thread_pool_destroy(pool);
      break;
    }
    EXPECT_EQ(pool, nullptr) << "allocation " << k;
    // The pool and its two queues, then the stop nodes.
    EXPECT_EQ(out, k < 3 ? "fatal: no memory\n" : "fatal: no memory for simple node\n")
        << "allocation " << k;
    EXPECT_EQ(thread_count_now(), before);
    ASSERT_LT(k, 20);
  }
}

// Stopping the workers needs no memory: destroy works with every allocation
// failing (a stop item that cannot be queued would hang destroy).
TEST(thread_pool, destroy_without_memory) {
  const int before = threads_before();
  thread_pool* pool = ol::thread_pool_create(4);
  ASSERT_NE(pool, nullptr);
  alloc_failer f;
  f.fail_from = 0;
  f.fail_to = 1 << 30;
  f.install();
  ol_test::stdout_capture cap;
  ol::thread_pool_destroy(pool);
  EXPECT_EQ(cap.end(), "");
  EXPECT_EQ(f.count, 0);
  EXPECT_EQ(thread_count_settled(before), before);
}

// A task whose queue nodes cannot be had is refused; accepted tasks still
// all come back and the pool keeps working.
TEST(thread_pool, add_task_allocation_failures) {
  thread_pool* pool = ol::thread_pool_create(1);
  ASSERT_NE(pool, nullptr);
  std::vector<record> recs(6);
  init_records(recs);
  // With the only worker held, the free nodes of both queues are known: the
  // next task takes the task node the gate left, the one after needs a new
  // done node (allocation 0) and a new task node (allocation 1).
  gate g(1);
  g.hold(pool);
  ASSERT_EQ(ol::thread_pool_add_task(pool, &recs[0].task), 0);
  for (int which = 0; which < 2; ++which) {
    alloc_failer f;
    f.fail_from = f.fail_to = which;
    f.install();
    ol_test::stdout_capture cap;
    EXPECT_EQ(ol::thread_pool_add_task(pool, &recs[2 + which].task), -1);
    ol::set_alloc_hooks(nullptr);
    EXPECT_EQ(cap.end(), "fatal: no memory for simple node\n") << which;
    EXPECT_EQ(f.count, which + 1);
    // Only the accepted tasks hold done nodes.
    EXPECT_EQ(reserved_nodes(pool->done_queue), 2u);
  }
  g.open.store(1);
  ASSERT_EQ(ol::thread_pool_add_task(pool, &recs[4].task), 0);
  std::set<thread_task*> back;
  for (int i = 0; i < 3; ++i) back.insert(ol::thread_pool_wait(pool));
  EXPECT_EQ(back, (std::set<thread_task*>{&g.tasks[0], &recs[0].task, &recs[4].task}));
  EXPECT_EQ(recs[2].runs.load(), 0);
  EXPECT_EQ(recs[3].runs.load(), 0);
  EXPECT_EQ(reserved_nodes(pool->done_queue), 0u);
  EXPECT_EQ(reserved_nodes(pool->task_queue), 1u);  // the stop node

  // Later batches work, also with every allocation failing once warm.
  ASSERT_EQ(ol::thread_pool_prepare(pool, 6), 0);
  alloc_failer all;
  all.fail_from = 0;
  all.fail_to = 1 << 30;
  all.install();
  init_records(recs);
  EXPECT_EQ(ol::dispatch_tasks(pool, recs.data(), 6, ol::on_refused::skip), 6u);
  ol::set_alloc_hooks(nullptr);
  EXPECT_EQ(all.count, 0);
  for (auto& r : recs) EXPECT_EQ(r.runs.load(), 1);
  ol::thread_pool_destroy(pool);
}

TEST(thread_pool, dispatch_refused_tasks) {
  std::vector<record> recs(3);
  init_records(recs);
  {
    ol_test::stdout_capture cap;
    EXPECT_EQ(ol::dispatch_tasks<record>(nullptr, recs.data(), 3, ol::on_refused::skip), 0u);
    std::string line = "error: invalid params\nfatal: add task fail\n";
    EXPECT_EQ(cap.end(), line + line + line);
    for (auto& r : recs) EXPECT_EQ(r.runs.load(), 0);
  }
  {
    ol_test::stdout_capture cap;
    EXPECT_EQ(ol::dispatch_tasks<record>(nullptr, recs.data(), 3, ol::on_refused::run_inline), 0u);
    cap.end();
    for (size_t i = 0; i < recs.size(); ++i) {
      EXPECT_EQ(recs[i].runs.load(), 1);
      EXPECT_EQ(recs[i].task.retval, static_cast<int32_t>(i) * 3 + 1);
      EXPECT_TRUE(pthread_equal(recs[i].ran_on, pthread_self()));
    }
  }
  // On a real pool: the task refused for lack of memory runs on the caller,
  // the others on workers.
  thread_pool* pool = ol::thread_pool_create(2);
  ASSERT_NE(pool, nullptr);
  init_records(recs);
  alloc_failer f;
  f.fail_from = f.fail_to = 2;  // task 0 takes allocations 0 and 1
  f.install();
  ol_test::stdout_capture cap;
  EXPECT_EQ(ol::dispatch_tasks(pool, recs.data(), 3, ol::on_refused::run_inline), 2u);
  ol::set_alloc_hooks(nullptr);
  EXPECT_EQ(cap.end(), "fatal: no memory for simple node\nfatal: add task fail\n");
  for (size_t i = 0; i < recs.size(); ++i) {
    EXPECT_EQ(recs[i].runs.load(), 1);
    EXPECT_EQ(pthread_equal(recs[i].ran_on, pthread_self()) != 0, i == 1) << i;
  }
  ol::thread_pool_destroy(pool);
}

}  // namespace
