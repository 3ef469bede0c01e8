#include "thread_pool/thread_pool.h"

#include <stdio.h>

#include "common/alloc.h"

namespace ol {

// ---- simple_queue ------------------------------------------------------

simple_queue* simple_queue_create() {
  simple_queue* q = static_cast<simple_queue*>(ol_calloc(1, sizeof(simple_queue)));
  if (q == nullptr) {
    puts("fatal: no memory");
    return nullptr;
  }
  q->size = 0;
  q->wake_at = 0;
  q->anchor.next = &q->anchor;
  q->anchor.prev = &q->anchor;
  q->free_nodes = nullptr;
  pthread_mutex_init(&q->mutex, nullptr);
  pthread_cond_init(&q->not_empty, nullptr);
  return q;
}

void simple_queue_destroy(simple_queue* q) {
  if (q == nullptr) return;
  // Items are the caller's: free the nodes only.
  for (simple_node* n = q->anchor.prev; n != &q->anchor;) {
    simple_node* older = n->prev;
    ol_free(n);
    n = older;
  }
  while (q->free_nodes != nullptr) {
    simple_node* n = q->free_nodes;
    q->free_nodes = n->prev;
    ol_free(n);
  }
  pthread_mutex_destroy(&q->mutex);
  pthread_cond_destroy(&q->not_empty);
  ol_free(q);
}

namespace {

simple_node* pop_free(simple_queue* q) {
  simple_node* n = q->free_nodes;
  q->free_nodes = n->prev;
  --q->free_count;
  return n;
}

void push_free(simple_queue* q, simple_node* n) {
  n->prev = q->free_nodes;
  q->free_nodes = n;
  ++q->free_count;
}

// Links `node` as the newest item and, unless told not to, wakes one taker
// once the queue holds wake_at items. Called locked.
void link_newest(simple_queue* q, simple_node* node, void* item, bool wake = true) {
  node->data = item;
  node->next = &q->anchor;
  node->prev = q->anchor.prev;
  q->anchor.prev->next = node;
  q->anchor.prev = node;
  ++q->size;
  if (wake && q->size >= q->wake_at) pthread_cond_signal(&q->not_empty);
}

// Unlinks the oldest node of a non-empty queue, recycles it and returns its
// item. Called locked.
void* unlink_oldest(simple_queue* q) {
  simple_node* oldest = q->anchor.next;
  q->anchor.next = oldest->next;
  oldest->next->prev = &q->anchor;
  --q->size;
  push_free(q, oldest);
  return oldest->data;
}

}  // namespace

int simple_queue_put(simple_queue* q, void* item) { return simple_queue_put_quiet(q, item, true); }

int simple_queue_put_quiet(simple_queue* q, void* item, bool wake) {
  pthread_mutex_lock(&q->mutex);
  simple_node* node;
  // Free nodes beyond the reserved ones may be used by an ordinary put.
  if (q->free_count > q->reserved) {
    node = pop_free(q);
  } else {
    node = static_cast<simple_node*>(ol_malloc(sizeof(simple_node)));
    if (node == nullptr) {
      puts("fatal: no memory for simple node");
      pthread_mutex_unlock(&q->mutex);
      return -1;
    }
  }
  link_newest(q, node, item, wake);
  pthread_mutex_unlock(&q->mutex);
  return 0;
}

void simple_queue_wake(simple_queue* q, uint32_t items) {
  if (items == 0) return;
  pthread_mutex_lock(&q->mutex);
  if (items == 1) {
    pthread_cond_signal(&q->not_empty);
  } else {
    pthread_cond_broadcast(&q->not_empty);
  }
  pthread_mutex_unlock(&q->mutex);
}

// Allocates free nodes until `count` of them are not promised to reserved
// puts. Called locked; false (with the message) when the heap refuses.
static bool grow_locked(simple_queue* q, uint32_t count) {
  while (q->free_count - q->reserved < count) {
    simple_node* node = static_cast<simple_node*>(ol_malloc(sizeof(simple_node)));
    if (node == nullptr) {
      puts("fatal: no memory for simple node");
      return false;
    }
    push_free(q, node);
  }
  return true;
}

int simple_queue_reserve(simple_queue* q) {
  pthread_mutex_lock(&q->mutex);
  const bool ok = grow_locked(q, 1);
  if (ok) ++q->reserved;
  pthread_mutex_unlock(&q->mutex);
  return ok ? 0 : -1;
}

void simple_queue_put_reserved(simple_queue* q, void* item) {
  pthread_mutex_lock(&q->mutex);
  --q->reserved;
  link_newest(q, pop_free(q), item);
  pthread_mutex_unlock(&q->mutex);
}

void simple_queue_unreserve(simple_queue* q) {
  pthread_mutex_lock(&q->mutex);
  --q->reserved;
  pthread_mutex_unlock(&q->mutex);
}

int simple_queue_grow(simple_queue* q, uint32_t count) {
  pthread_mutex_lock(&q->mutex);
  const bool ok = grow_locked(q, count);
  pthread_mutex_unlock(&q->mutex);
  return ok ? 0 : -1;
}

void* simple_queue_take(simple_queue* q) { return simple_queue_take_at_least(q, 1); }

void* simple_queue_take_at_least(simple_queue* q, uint32_t count) {
  pthread_mutex_lock(&q->mutex);
  if (q->size < count) {
    q->wake_at = count;
    while (q->size < count) pthread_cond_wait(&q->not_empty, &q->mutex);
    q->wake_at = 0;
  }
  if (q->anchor.next == &q->anchor) {
    puts("fatal error: corruptted queue.");
    pthread_mutex_unlock(&q->mutex);
    return nullptr;
  }
  void* item = unlink_oldest(q);
  pthread_mutex_unlock(&q->mutex);
  return item;
}

void* simple_queue_try_take_in(simple_queue* q, uintptr_t lo, uintptr_t hi) {
  pthread_mutex_lock(&q->mutex);
  // A stop item is NULL and never taken here.
  const void* oldest = q->size > 0 ? q->anchor.next->data : nullptr;
  const uintptr_t at = reinterpret_cast<uintptr_t>(oldest);
  void* item = oldest != nullptr && at >= lo && at < hi ? unlink_oldest(q) : nullptr;
  pthread_mutex_unlock(&q->mutex);
  return item;
}

// ---- thread_pool -------------------------------------------------------

namespace {

// Stops `running` workers: sets shutdown, queues one stop item per worker
// (on the nodes set aside at create, so this cannot fail for lack of
// memory) and joins them in index order.
void stop_workers(thread_pool* pool, uint32_t running) {
  pool->shutdown.store(1, std::memory_order_release);
  for (uint32_t i = 0; i < running; ++i) simple_queue_put_reserved(pool->task_queue, nullptr);
  for (uint32_t i = 0; i < running; ++i) pthread_join(pool->threads[i], nullptr);
}

void free_pool(thread_pool* pool) {
  simple_queue_destroy(pool->task_queue);
  simple_queue_destroy(pool->done_queue);
  ol_free(pool);
}

bool pool_usable(const thread_pool* pool) {
  return pool != nullptr && pool->task_queue != nullptr && pool->started == 1;
}

// What a worker does with a task it took.
void run_task(thread_task* task) {
  if (task->func == nullptr) {
    puts("error: invalid task");
  } else {
    task->retval = task->func(task->arg);
  }
}

}  // namespace

void* thread_pool_worker(void* arg) {
  thread_pool* pool = static_cast<thread_pool*>(arg);
  if (pool->shutdown.load(std::memory_order_acquire)) return nullptr;
  for (;;) {
    thread_task* task = static_cast<thread_task*>(simple_queue_take(pool->task_queue));
    if (task == nullptr) return nullptr;  // stop item
    run_task(task);
    // The node was set aside when the task was accepted, so the task always
    // comes back, also when its func was NULL.
    simple_queue_put_reserved(pool->done_queue, task);
    if (pool->shutdown.load(std::memory_order_acquire)) return nullptr;
  }
}

thread_pool* thread_pool_create(uint32_t thread_count) {
  if (thread_count == 0) {
    printf("thread number %d less than 1\n", 0);
    return nullptr;
  }
  if (thread_count > k_thread_pool_max) {
    printf("thread number %d exceed max %d\n", static_cast<int>(thread_count),
           static_cast<int>(k_thread_pool_max));
    return nullptr;
  }
  thread_pool* pool = static_cast<thread_pool*>(ol_calloc(1, sizeof(thread_pool)));
  if (pool == nullptr) {
    puts("fatal: no memory");
    return nullptr;
  }
  pool->shutdown.store(0, std::memory_order_relaxed);
  pool->thread_count = thread_count;
  pool->task_queue = simple_queue_create();
  pool->done_queue = pool->task_queue ? simple_queue_create() : nullptr;
  if (pool->task_queue == nullptr || pool->done_queue == nullptr) {
    free_pool(pool);
    return nullptr;
  }
  // One node per worker for its stop item, so that destroy never allocates.
  for (uint32_t i = 0; i < thread_count; ++i) {
    if (simple_queue_reserve(pool->task_queue) != 0) {
      free_pool(pool);
      return nullptr;
    }
  }
  // Workers get a small fixed stack whatever the platform default is: the
  // stages keep their large scratch in the context. Should the size be
  // refused, the default stack is used.
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setstacksize(&attr, k_worker_stack_bytes);
  for (uint32_t i = 0; i < thread_count; ++i) {
    if (pthread_create(&pool->threads[i], &attr, thread_pool_worker, pool) != 0) {
      puts("fatal: pthread_create fail");
      pthread_attr_destroy(&attr);
      stop_workers(pool, i);
      free_pool(pool);
      return nullptr;
    }
  }
  pthread_attr_destroy(&attr);
  pool->started = 1;
  return pool;
}

int thread_pool_add_task(thread_pool* pool, thread_task* task) {
  return thread_pool_add_task(pool, task, true);
}

void thread_pool_wake(thread_pool* pool, uint32_t queued) {
  if (pool_usable(pool)) simple_queue_wake(pool->task_queue, queued);
}

int thread_pool_add_task(thread_pool* pool, thread_task* task, bool wake) {
  // A NULL task is refused: queued, it would be taken for a stop item and
  // end a worker.
  if (!pool_usable(pool) || task == nullptr) {
    puts("error: invalid params");
    return -1;
  }
  // Set aside the node that will hand the task back before queueing it, so
  // an accepted task can never be lost; a task that cannot get both nodes is
  // refused instead.
  if (simple_queue_reserve(pool->done_queue) != 0) return -1;
  if (simple_queue_put_quiet(pool->task_queue, task, wake) != 0) {
    simple_queue_unreserve(pool->done_queue);
    return -1;
  }
  return 0;
}

thread_task* thread_pool_wait(thread_pool* pool) {
  if (!pool_usable(pool)) {
    puts("error: invalid params");
    return nullptr;
  }
  return static_cast<thread_task*>(simple_queue_take(pool->done_queue));
}

void thread_pool_wait_many(thread_pool* pool, uint32_t count) {
  if (count == 0) return;
  if (!pool_usable(pool)) {
    for (uint32_t i = 0; i < count; ++i) puts("error: invalid params");
    return;
  }
  for (uint32_t left = count; left > 0; --left) simple_queue_take_at_least(pool->done_queue, left);
}

void thread_pool_run_and_wait(thread_pool* pool, const void* records, const void* records_end,
                              uint32_t count) {
  if (count > 0 && pool_usable(pool)) {
    const uintptr_t lo = reinterpret_cast<uintptr_t>(records);
    const uintptr_t hi = reinterpret_cast<uintptr_t>(records_end);
    while (count > 0) {
      thread_task* task =
          static_cast<thread_task*>(simple_queue_try_take_in(pool->task_queue, lo, hi));
      if (task == nullptr) break;
      run_task(task);
      simple_queue_unreserve(pool->done_queue);
      --count;
    }
  }
  thread_pool_wait_many(pool, count);
}

int thread_pool_prepare(thread_pool* pool, uint32_t tasks) {
  if (!pool_usable(pool)) {
    puts("error: invalid params");
    return -1;
  }
  // A batch holds one done node per task from submission on, and at most
  // one task node per task.
  if (simple_queue_grow(pool->done_queue, tasks) != 0) return -1;
  return simple_queue_grow(pool->task_queue, tasks);
}

void thread_pool_destroy(thread_pool* pool) {
  if (pool == nullptr) return;
  if (pool->started == 1) {
    stop_workers(pool, pool->thread_count);
    pool->started = 0;
  }
  free_pool(pool);
}

}  // namespace ol
