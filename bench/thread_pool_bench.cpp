// Cost of one batch through the pool (submit every task, then wait once per
// task), as a pipeline stage pays it per frame: batches of 10 (anchor bands,
// class suppression), 64 (the runs of anchors or ROIs a stage cuts its work
// into) and 300 (what one task per ROI after NMS would cost); with the
// calling thread asleep until all are back, or running queued tasks itself
// first as the stages do.
#include <benchmark/benchmark.h>

#include <vector>

#include "thread_pool/thread_pool.h"

namespace {

struct tiny_record {
  uint32_t in;
  uint32_t out;
  ol::thread_task task;
};

int32_t tiny_work(void* arg) {
  tiny_record* r = static_cast<tiny_record*>(arg);
  r->out = r->in * 2654435761u;
  return 0;
}

void bm_thread_pool_batch(benchmark::State& state) {
  const uint32_t workers = static_cast<uint32_t>(state.range(0));
  const uint32_t batch = static_cast<uint32_t>(state.range(1));
  const ol::while_waiting waiting =
      state.range(2) ? ol::while_waiting::run_queued : ol::while_waiting::sleep;
  ol::thread_pool* pool = ol::thread_pool_create(workers);
  if (pool == nullptr) {
    state.SkipWithError("thread_pool_create failed");
    return;
  }
  std::vector<tiny_record> recs(batch);
  for (uint32_t i = 0; i < batch; ++i) recs[i] = {i, 0, {tiny_work, &recs[i], 0}};
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        ol::dispatch_tasks(pool, recs.data(), batch, ol::on_refused::skip, nullptr, waiting));
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * batch);
  ol::thread_pool_destroy(pool);
}

BENCHMARK(bm_thread_pool_batch)
    ->ArgNames({"workers", "batch", "caller_runs"})
    ->ArgsProduct({{1, 2, 4}, {10, 64, 300}, {0, 1}})
    ->UseRealTime();

}  // namespace
