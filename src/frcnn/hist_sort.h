// Ordering of the proposal candidates, best score first.
//
// Histogram path: one bucket per 16-bit half pattern (65,536 buckets), a
// fixed visiting order of the patterns (descending value) built at init,
// and a resumable walk that emits only as many candidate numbers as asked.
// Comparison path: qsort_r over all candidates.
#ifndef OL_FRCNN_HIST_SORT_H
#define OL_FRCNN_HIST_SORT_H

#include <stdint.h>

namespace ol {

constexpr uint32_t k_hist_buckets = 65536;
constexpr uint32_t k_hist_inline = 64;       // inline slots per bucket
constexpr uint32_t k_hist_node_slots = 510;  // slots per 2,048-byte row node
constexpr uint32_t k_hist_node_bytes = 2048;

struct hist_row_node {
  hist_row_node* next;
  uint32_t slot[k_hist_node_slots];
};
static_assert(sizeof(hist_row_node) == k_hist_node_bytes, "row node is 2048 bytes");

struct hist_bucket {
  hist_row_node* head;
  hist_row_node* tail;
  uint32_t used;  // used slots of the tail node
};

// The histogram tables of one context (allocated by init, see context.cpp).
//
// Invariant kept by hist_insert and hist_reset: a bucket's bit in `occupied`
// is set exactly when its count is non-zero, and only such a bucket can have
// a chain. Init must therefore hand over `num`, `list` and `occupied` zeroed.
struct hist_tables {
  uint32_t* map;               // 65536 rows x 64 inline slots
  hist_bucket* list;           // 65536 overflow chains
  hist_row_node* free_nodes;   // spare row nodes, linked through next
  uint32_t* num;               // 65536 bucket counts (32-bit: never overflow)
  uint16_t* sort;              // 65536 patterns in visiting order
  uint64_t* occupied;          // 1024-word bitmap of non-empty buckets
  uint32_t cursor[4];          // walk position: order index, inline slot, node slot, node number
};

// Fills order[0..count) with the patterns 0..count-1 by descending value:
// +inf, positives, +0, -0, negatives, -inf, then the NaN patterns by
// increasing pattern (so 0xFFFF ends last, at the position the walk never
// visits). The result is the same on every platform.
void hist_build_order(uint16_t* order, unsigned count);
// Empties every bucket, returning chain nodes to the free list. Costs in
// proportion to the buckets filled since the last reset.
void hist_reset(hist_tables* t);
// Inserts candidates 0..M-1 keyed on their score patterns. Returns 0, or -1
// when a row node could not be allocated (after perror "hlist_alloc node"
// and "hlist_alloc_node err"): insertion then stops, candidates from there
// on are in no bucket and the counts match what was stored.
int hist_insert(hist_tables* t, const uint16_t* scores, uint32_t M);
// Writes up to n candidate numbers in visiting order (positions 0..65534 of
// `sort`; within a bucket by insertion order). restart starts from the best
// bucket, otherwise the walk resumes exactly where the last one stopped, so
// walks of a then b numbers give the same sequence as one walk of a + b.
// Returns the number written: fewer than n only when the visited buckets ran
// out (the cursor then stays at the end and a resumed walk writes nothing)
// or a chain was shorter than its count said (message printed, the cursor
// stays at that bucket). n = 0 writes nothing and leaves the cursor alone.
uint32_t hist_walk(uint32_t* out, uint32_t n, hist_tables* t, bool restart);
// Frees every row node (chains and free list); the free list ends empty and
// every bucket empty. Copes with tables that init only partly allocated
// (`num`, `occupied` NULL).
void hist_release(hist_tables* t);

// qsort_r comparator over u32 candidate numbers; arg points at the scores.
int score_desc_cmp(const void* a, const void* b, void* scores);
// qsort comparator over u16 half patterns (descending value).
int bucket_order_cmp(const void* a, const void* b);

// Orders candidates 0..M-1 into order_buf: all M on the comparison path,
// the best min(M, pre_nms_num) on the histogram path. M = 0 does nothing.
// The comparison path sorts stably with the ordering of score_desc_cmp on
// sort_scratch (M entries, owned by the context) so that a frame never
// allocates; without scratch it falls back to qsort_r. Returns how many
// numbers were written: M, or on the histogram path what the walk gave
// (fewer when candidates sit in the never-visited last bucket or could not
// be stored); entries past that keep older contents.
uint32_t rpn_sort(hist_tables* t, const uint16_t* scores, uint32_t pre_nms_num, uint32_t* order_buf,
              uint32_t M, bool use_qsort, uint32_t* sort_scratch = nullptr);

}  // namespace ol

#endif
