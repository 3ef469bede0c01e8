// A fixed set of POSIX worker threads fed by a blocking FIFO of tasks, with a
// second FIFO that hands finished tasks back to the submitter.
//
// Usage: thread_pool_create once; then any number of batches, each a series
// of thread_pool_add_task calls followed by exactly one thread_pool_wait per
// accepted task (or one thread_pool_wait_many or thread_pool_run_and_wait
// for all of them); finally thread_pool_destroy with nothing outstanding. Two
// batches must not be in flight on one pool at the same time.
#ifndef OL_THREAD_POOL_H
#define OL_THREAD_POOL_H

#include <pthread.h>
#include <stdint.h>
#include <stdio.h>

#include <atomic>

namespace ol {

struct simple_node {
  void* data;
  simple_node* next;  // newer neighbour (toward the anchor)
  simple_node* prev;  // older neighbour; also the free-list link
};

// Unbounded blocking FIFO of void* items; nodes are recycled, never freed
// before the queue is destroyed.
struct simple_queue {
  uint32_t size;
  simple_node anchor;  // anchor.next = oldest, anchor.prev = newest
  simple_node* free_nodes;
  uint32_t free_count;  // nodes on free_nodes
  uint32_t reserved;    // free nodes promised to future puts (see simple_queue_reserve)
  uint32_t wake_at;     // a put signals once size reaches this (0: at 1; see take_at_least)
  pthread_mutex_t mutex;
  pthread_cond_t not_empty;
};

simple_queue* simple_queue_create();
void simple_queue_destroy(simple_queue* queue);
// Returns 0 when queued, -1 when no node could be had ("fatal: no memory for
// simple node"); the item is then not queued.
int simple_queue_put(simple_queue* queue, void* item);
// simple_queue_put that wakes no waiter when wake is false (see
// simple_queue_wake).
int simple_queue_put_quiet(simple_queue* queue, void* item, bool wake);
// Wakes waiters for `items` items put quietly: one for one item, all for
// more.
void simple_queue_wake(simple_queue* queue, uint32_t items);
void* simple_queue_take(simple_queue* queue);
// Takes the oldest item once the queue holds at least `count` (>= 1) items.
// Puts wake the waiter only when that many are there, so a thread that
// collects a known number of items sleeps and is woken once, not once per
// item. A waiter for more than one item must be the queue's only waiter.
void* simple_queue_take_at_least(simple_queue* queue, uint32_t count);
// Takes the oldest item without waiting if its address lies in [lo, hi);
// NULL otherwise (an empty queue, a NULL item or one outside the range).
void* simple_queue_try_take_in(simple_queue* queue, uintptr_t lo, uintptr_t hi);
// Makes sure a later put can take a node without allocating: on success one
// free node is set aside for it (0), or -1 when no node could be allocated.
int simple_queue_reserve(simple_queue* queue);
// A put that uses a node set aside by simple_queue_reserve; never fails.
void simple_queue_put_reserved(simple_queue* queue, void* item);
// Gives back a node set aside by simple_queue_reserve and not used; it stays
// on the free list for later puts.
void simple_queue_unreserve(simple_queue* queue);
// Allocates free nodes until `count` puts can follow without allocating;
// 0, or -1 ("fatal: no memory for simple node").
int simple_queue_grow(simple_queue* queue, uint32_t count);

struct thread_task {
  int32_t (*func)(void* arg);
  void* arg;
  int32_t retval;
};

constexpr uint32_t k_thread_pool_max = 32;
// Stack size of every worker thread. Work scratch lives in the context, so
// workers need little stack.
constexpr size_t k_worker_stack_bytes = 128 * 1024;

// task_queue keeps thread_count free nodes reserved for the stop items of
// thread_pool_destroy, so stopping the workers never needs memory.
struct thread_pool {
  simple_queue* task_queue;
  simple_queue* done_queue;
  std::atomic<uint32_t> shutdown;
  uint32_t started;
  uint32_t thread_count;
  pthread_t threads[k_thread_pool_max];
};

thread_pool* thread_pool_create(uint32_t thread_count);
// 0 when accepted, -1 when refused ("error: invalid params" for a bad pool
// or a NULL task; "fatal: no memory for simple node" when no queue node can
// be had). An accepted task is guaranteed to come back through
// thread_pool_wait.
int thread_pool_add_task(thread_pool* pool, thread_task* task);
// thread_pool_add_task that, with wake false, leaves sleeping workers asleep
// (workers already awake still take the task). A batch submitted this way
// ends with thread_pool_wake for the number accepted: with tasks of a few
// microseconds, workers woken one put at a time go back to sleep between
// puts, and each wake-up costs the submitter a system call.
int thread_pool_add_task(thread_pool* pool, thread_task* task, bool wake);
void thread_pool_wake(thread_pool* pool, uint32_t queued);
thread_task* thread_pool_wait(thread_pool* pool);
// The same as `count` calls of thread_pool_wait by the thread that made the
// batch, for a batch with `count` tasks still to come back: it returns when
// all of them have. The caller sleeps until the last one is done instead of
// being woken by every one of them (a wake-up of a sleeping thread costs the
// worker that does it a system call, and tens of microseconds on a virtual
// machine).
void thread_pool_wait_many(thread_pool* pool, uint32_t count);
// thread_pool_wait_many for a batch whose thread_task records all lie in
// [records, records_end), in which the calling thread first runs, oldest
// first, the tasks of the batch that no worker has taken yet, and then
// sleeps only for those the workers hold. Woken workers take a while to
// start (tens of microseconds on a virtual machine); the caller is already
// running. Only tasks of this batch are taken: never a stop item of
// thread_pool_destroy, never another submitter's task. A task run here is
// handled as a worker handles it (NULL func: "error: invalid task"), and
// the done node set aside for it is given back.
//
// Tasks are written for the workers' 128 KiB stacks and may run on the
// caller's stack instead: a stage already runs a task that the pool refuses
// on the calling thread (dispatch_tasks), so every stage task must fit the
// stack of whichever thread calls the stage.
void thread_pool_run_and_wait(thread_pool* pool, const void* records, const void* records_end,
                              uint32_t count);
// Grows both queues so that batches of up to `tasks` tasks never allocate
// (otherwise they grow, batch by batch, to the most tasks ever in flight).
// 0, or -1 ("error: invalid params", "fatal: no memory for simple node").
int thread_pool_prepare(thread_pool* pool, uint32_t tasks);
void thread_pool_destroy(thread_pool* pool);
void* thread_pool_worker(void* pool);

// Most tasks a stage cuts one batch of per-item work (anchors, ROIs) into:
// enough to balance the largest pool, few enough that the task records fit
// the calling thread's stack and the queues never grow past what init
// prepared.
constexpr uint32_t k_stage_tasks = 64;

// Items [*begin, *end) of part k when n items are cut into `parts` parts as
// evenly as possible, in order.
inline void split_range(uint32_t n, uint32_t parts, uint32_t k, uint32_t* begin, uint32_t* end) {
  *begin = static_cast<uint32_t>(static_cast<uint64_t>(n) * k / parts);
  *end = static_cast<uint32_t>(static_cast<uint64_t>(n) * (k + 1) / parts);
}

// How a refused task is handled by dispatch_tasks: skipped, run on the
// calling thread, or run on the calling thread with one message for all the
// refused tasks of the call (work that the caller sees as one unit).
enum class on_refused { skip, run_inline, run_inline_report_once };

// What the calling thread of dispatch_tasks does while the accepted tasks
// run: sleeps until they are all back (every accepted task runs on a
// worker), or runs those still queued itself first (thread_pool_run_and_wait).
// The stages of the pipeline run queued ones: their batches are short, and
// a caller that sleeps at once waits for workers to wake up.
enum class while_waiting { sleep, run_queued };

// Submits the thread_task member `task` of records[0..count), printing
// "fatal: add task fail" for refused ones (and running them on the calling
// thread when asked to), then waits once per accepted task as `waiting`
// says. The stages of the pipeline dispatch their short batches through
// this. Returns the number accepted.
// With run_inline_report_once, *reported_before (when given) says whether
// the unit of work already printed its line in an earlier call, and is set
// when this call prints it.
template <class Record>
uint32_t dispatch_tasks(thread_pool* pool, Record* records, uint32_t count, on_refused refused,
                        bool* reported_before = nullptr,
                        while_waiting waiting = while_waiting::sleep) {
  uint32_t accepted = 0;
  bool reported = reported_before != nullptr && *reported_before;
  for (uint32_t i = 0; i < count; ++i) {
    thread_task* t = &records[i].task;
    if (thread_pool_add_task(pool, t, false) == 0) {
      ++accepted;
    } else {
      if (!reported || refused != on_refused::run_inline_report_once) puts("fatal: add task fail");
      reported = true;
      if (refused != on_refused::skip && t->func) t->retval = t->func(t->arg);
    }
  }
  thread_pool_wake(pool, accepted);
  if (waiting == while_waiting::run_queued) {
    thread_pool_run_and_wait(pool, records, records + count, accepted);
  } else {
    thread_pool_wait_many(pool, accepted);
  }
  if (reported_before != nullptr) *reported_before = reported;
  return accepted;
}

}  // namespace ol

#endif
