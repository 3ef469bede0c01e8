#include "frcnn/hist_sort.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "brennik_opt_layers.h"
#include "common/alloc.h"

namespace ol {

namespace {

constexpr uint32_t k_last_position = k_hist_buckets - 1;  // never visited by the walk
constexpr uint32_t k_occupied_words = k_hist_buckets / 64;

inline bool is_nan_pattern(uint16_t p) { return (p & 0x7FFFu) > 0x7C00u; }


// Deterministic total order used to build the visiting order: the NaN
// patterns after every other pattern, the others by bucket_order_cmp, and
// patterns that compare equal (+0 and -0, NaN with NaN) by increasing
// pattern. The platform qsort therefore has exactly one possible result,
// the one a stable sort of the ascending pattern list would give.
int bucket_order_total_cmp(const void* a, const void* b) {
  const uint16_t pa = *static_cast<const uint16_t*>(a);
  const uint16_t pb = *static_cast<const uint16_t*>(b);
  const bool na = is_nan_pattern(pa);
  const bool nb = is_nan_pattern(pb);
  if (na != nb) return na ? 1 : -1;
  if (!na) {
    const int c = bucket_order_cmp(a, b);
    if (c != 0) return c;
  }
  return (pa > pb) - (pa < pb);
}

// ---- row nodes ------------------------------------------------------------

// Takes a node from the free list, or allocates one; its link is cleared.
hist_row_node* take_node(hist_tables* t) {
  hist_row_node* node = t->free_nodes;
  if (node != nullptr) {
    t->free_nodes = node->next;
  } else {
    node = static_cast<hist_row_node*>(ol_malloc(k_hist_node_bytes));
    if (node == nullptr) {
      perror("hlist_alloc node");
      return nullptr;
    }
  }
  node->next = nullptr;
  return node;
}

// Moves the chain of bucket b, whole, to the front of the free list and
// empties the record.
void return_chain(hist_tables* t, hist_bucket* b) {
  hist_row_node* last = b->head;
  while (last->next != nullptr) last = last->next;
  last->next = t->free_nodes;
  t->free_nodes = b->head;
  b->head = nullptr;
  b->tail = nullptr;
  b->used = 0;
}

// Appends candidate i to the chain of bucket key. False when no node could
// be had (nothing is stored then).
__attribute__((noinline)) bool chain_append(hist_tables* t, uint32_t key, uint32_t i) {
  hist_bucket* b = &t->list[key];
  uint32_t slot;
  if (b->head == nullptr) {
    hist_row_node* node = take_node(t);
    if (node == nullptr) return false;
    b->head = node;
    b->tail = node;
    slot = b->used;  // 0 after a reset
  } else if (b->used < k_hist_node_slots) {
    slot = b->used;
  } else {
    if (b->tail->next != nullptr) {
      b->tail = b->tail->next;
    } else {
      hist_row_node* node = take_node(t);
      if (node == nullptr) return false;
      b->tail->next = node;
      b->tail = node;
    }
    slot = 0;
  }
  b->tail->slot[slot] = i;
  b->used = slot + 1;
  return true;
}

// ---- skipping empty buckets in the walk -------------------------------------

// Smallest occupied key in [k, 65535], or 65536 when there is none.
uint32_t occupied_at_or_above(const uint64_t* occ, uint32_t k) {
  uint32_t w = k >> 6;
  uint64_t bits = occ[w] & (~0ull << (k & 63));
  while (bits == 0) {
    if (++w == k_occupied_words) return k_hist_buckets;
    bits = occ[w];
  }
  return w * 64 + static_cast<uint32_t>(__builtin_ctzll(bits));
}

// Largest occupied key in [0, k], or -1 when there is none.
int32_t occupied_at_or_below(const uint64_t* occ, uint32_t k) {
  uint32_t w = k >> 6;
  uint64_t bits = occ[w] & (~0ull >> (63 - (k & 63)));
  while (bits == 0) {
    if (w == 0) return -1;
    bits = occ[--w];
  }
  return static_cast<int32_t>(w * 64 + 63 - static_cast<uint32_t>(__builtin_clzll(bits)));
}

typedef uint16_t u16x8 __attribute__((vector_size(16)));
typedef uint64_t u64x2 __attribute__((vector_size(16)));

// How many leading entries of s[0..len) continue the run first, first + d,
// first + 2d, ... (d is +1 or 0xFFFF, arithmetic modulo 2^16). Eight
// entries per vector compare.
uint32_t run_prefix(const uint16_t* s, uint32_t len, uint16_t first, uint16_t d) {
  u16x8 expect;
  for (int l = 0; l < 8; ++l) expect[l] = static_cast<uint16_t>(first + l * d);
  const u16x8 step = u16x8{} + static_cast<uint16_t>(8 * d);
  uint32_t i = 0;
  for (; i + 8 <= len; i += 8) {
    u16x8 v;
    memcpy(&v, s + i, sizeof v);
    const auto eq = v == expect;
    u64x2 m;
    memcpy(&m, &eq, sizeof m);
    if ((m[0] & m[1]) != ~0ull) break;
    expect += step;
  }
  uint16_t e = static_cast<uint16_t>(first + i * d);
  while (i < len && s[i] == e) {
    ++i;
    e = static_cast<uint16_t>(e + d);
  }
  return i;
}

// Position p (< 65535) holds an empty bucket. Returns the next position
// worth looking at: positions in between are known to hold empty buckets.
//
// The visiting order consists of long runs of consecutive patterns (the
// positive patterns descending, the negative ones ascending, the NaN
// patterns ascending). Along such a run the next non-empty bucket is found
// in the occupancy bitmap, and the order entries up to it are checked to
// really continue the run, so any order stays handled correctly.
uint32_t next_position_to_visit(const hist_tables* t, uint32_t p) {
  if (p + 1 >= k_last_position) return k_last_position;
  const uint16_t key = t->sort[p];
  const uint16_t nxt = t->sort[p + 1];
  uint16_t d;
  uint32_t span;  // keys key + d .. key + span*d, the last being occupied if found
  bool found;
  if (key != 0xFFFFu && nxt == key + 1u) {
    d = 1;
    const uint32_t k2 = occupied_at_or_above(t->occupied, key + 1u);
    found = k2 < k_hist_buckets;
    span = found ? k2 - key : 0xFFFFu - key;
  } else if (key != 0 && nxt == key - 1u) {
    d = 0xFFFFu;
    const int32_t k2 = occupied_at_or_below(t->occupied, key - 1u);
    found = k2 >= 0;
    span = found ? key - static_cast<uint32_t>(k2) : key;
  } else {
    return p + 1;
  }
  const uint32_t avail = k_last_position - (p + 1);
  const uint32_t len = span < avail ? span : avail;
  const uint32_t m = run_prefix(t->sort + p + 1, len, nxt, d);
  if (m < len) return p + 1 + m;              // the run ends early; look there
  if (found && len == span) return p + span;  // the occupied bucket
  return p + 1 + len;
}

inline void save_cursor(hist_tables* t, uint32_t p, uint32_t islot, uint32_t nslot, uint32_t nnum) {
  t->cursor[0] = p;
  t->cursor[1] = islot;
  t->cursor[2] = nslot;
  t->cursor[3] = nnum;
}

inline uint32_t min_u32(uint32_t a, uint32_t b) { return a < b ? a : b; }

}  // namespace

// ---- comparators ----------------------------------------------------------

int bucket_order_cmp(const void* a, const void* b) {
  const float fa = opt_layers_half::to_float(*static_cast<const uint16_t*>(a));
  const float fb = opt_layers_half::to_float(*static_cast<const uint16_t*>(b));
  const float d = opt_layers_half::to_float(opt_layers_half::from_float_trunc(fa - fb));
  if (d > 0.0f) return -1;
  if (d < 0.0f) return 1;
  return 0;
}

int score_desc_cmp(const void* a, const void* b, void* scores) {
  const uint16_t* s = static_cast<const uint16_t*>(scores);
  const float sa = opt_layers_half::to_float(s[*static_cast<const uint32_t*>(a)]);
  const float sb = opt_layers_half::to_float(s[*static_cast<const uint32_t*>(b)]);
  if (sb - sa > 0.0f) return 1;
  if (sa > sb) return -1;
  return 0;
}

// ---- tables ---------------------------------------------------------------

void hist_build_order(uint16_t* order, unsigned count) {
  // The full table is written out directly in the order the total order
  // gives (a linear pass instead of sorting 65,536 entries at every init);
  // any other count takes the qsort.
  if (count == k_hist_buckets) {
    unsigned i = 0;
    // +inf, the positive values descending, +0.
    for (uint32_t p = 0x7C01; p-- > 0;) order[i++] = static_cast<uint16_t>(p);
    // -0, the negative values descending, -inf.
    for (uint32_t p = 0x8000; p <= 0xFC00; ++p) order[i++] = static_cast<uint16_t>(p);
    // The NaN patterns by increasing pattern.
    for (uint32_t p = 0x7C01; p <= 0x7FFF; ++p) order[i++] = static_cast<uint16_t>(p);
    for (uint32_t p = 0xFC01; p <= 0xFFFF; ++p) order[i++] = static_cast<uint16_t>(p);
    return;
  }
  for (unsigned i = 0; i < count; ++i) order[i] = static_cast<uint16_t>(i);
  qsort(order, count, sizeof(uint16_t), bucket_order_total_cmp);
}

void hist_reset(hist_tables* t) {
  // Only buckets marked in the bitmap can hold entries or a chain, so the
  // cost follows what the last frame touched.
  for (uint32_t w = 0; w < k_occupied_words; ++w) {
    uint64_t bits = t->occupied[w];
    if (bits == 0) continue;
    t->occupied[w] = 0;
    do {
      const uint32_t key = w * 64 + static_cast<uint32_t>(__builtin_ctzll(bits));
      bits &= bits - 1;
      t->num[key] = 0;
      if (t->list[key].head != nullptr) return_chain(t, &t->list[key]);
    } while (bits != 0);
  }
}

int hist_insert(hist_tables* t, const uint16_t* scores, uint32_t M) {
  uint32_t* const num = t->num;
  uint32_t* const map = t->map;
  uint64_t* const occ = t->occupied;
  for (uint32_t i = 0; i < M; ++i) {
    const uint32_t key = scores[i];
    const uint32_t c = num[key];
    if (c < k_hist_inline) {
      map[static_cast<size_t>(key) * k_hist_inline + c] = i;
      // The first entry sets the bucket's bit; later ones or in a zero. (A
      // branch on c == 0 is mispredicted for about one candidate in seven on
      // a frame's scores.)
      occ[key >> 6] |= static_cast<uint64_t>(c == 0) << (key & 63);
    } else if (!chain_append(t, key, i)) {
      // Candidates i.. stay out of every bucket; the counts match what was
      // stored.
      perror("hlist_alloc_node err");
      return -1;
    }
    num[key] = c + 1;
  }
  return 0;
}

uint32_t hist_walk(uint32_t* out, uint32_t n, hist_tables* t, bool restart) {
  if (n == 0) return 0;
  uint32_t p = 0, islot = 0, nslot = 0, nnum = 0;
  if (!restart) {
    p = t->cursor[0];
    islot = t->cursor[1];
    nslot = t->cursor[2];
    nnum = t->cursor[3];
    if (p >= k_last_position) return 0;
  }
  uint32_t written = 0;
  while (p < k_last_position) {
    const uint32_t key = t->sort[p];
    const uint32_t c = t->num[key];
    if (c == 0) {
      p = next_position_to_visit(t, p);
      islot = nslot = nnum = 0;
      continue;
    }
    // Inline part.
    const uint32_t inline_end = min_u32(c, k_hist_inline);
    if (islot < inline_end) {
      const uint32_t take = min_u32(inline_end - islot, n - written);
      memcpy(out + written, t->map + static_cast<size_t>(key) * k_hist_inline + islot,
             take * sizeof(uint32_t));
      written += take;
      islot += take;
      if (written == n) {
        save_cursor(t, p, islot, nslot, nnum);
        return written;
      }
    }
    // Chain part: entries still to come after node nnum, slot nslot.
    if (c > k_hist_inline) {
      const uint64_t done = static_cast<uint64_t>(k_hist_node_slots) * nnum + nslot;
      const uint64_t chained = c - k_hist_inline;
      if (chained > done) {
        uint32_t r = static_cast<uint32_t>(chained - done);
        hist_row_node* node = t->list[key].head;
        for (uint32_t k = 0; k < nnum && node != nullptr; ++k) node = node->next;
        if (node == nullptr) {
          printf("hist_list [%u] head is NULL\n", key);
          save_cursor(t, p, islot, nslot, nnum);
          return written;
        }
        while (r > 0) {
          if (nslot == k_hist_node_slots) {
            node = node->next;
            ++nnum;
            nslot = 0;
            if (node == nullptr) {
              printf("node [%u] is NULL\n", key);
              break;  // abandon this bucket
            }
          }
          const uint32_t take = min_u32(min_u32(k_hist_node_slots - nslot, r), n - written);
          memcpy(out + written, node->slot + nslot, take * sizeof(uint32_t));
          written += take;
          nslot += take;
          r -= take;
          if (written == n) {
            save_cursor(t, p, islot, nslot, nnum);
            return written;
          }
        }
      }
    }
    ++p;
    islot = nslot = nnum = 0;
  }
  // Out of positions: a resumed walk returns nothing more.
  save_cursor(t, k_last_position, 0, 0, 0);
  return written;
}

void hist_release(hist_tables* t) {
  // Chains hang only off buckets marked in the bitmap, so the reset returns
  // every one of them to the free list. Tables that init only partly
  // allocated never ran a frame and have no chains.
  if (t->num != nullptr && t->occupied != nullptr && t->list != nullptr) hist_reset(t);
  while (t->free_nodes != nullptr) {
    hist_row_node* node = t->free_nodes;
    t->free_nodes = node->next;
    ol_free(node);
  }
}

// ---- rpn_sort -------------------------------------------------------------

namespace {

// score_desc_cmp(a, b) > 0, i.e. b strictly better than a. Differences of
// two halves are exact in single precision, so this is the plain compare.
inline bool better(const uint16_t* scores, uint32_t b, uint32_t a) {
  return opt_layers_half::to_float(scores[b]) > opt_layers_half::to_float(scores[a]);
}

// Stable merge sort of candidate numbers with the ordering of
// score_desc_cmp (best first, a NaN equal to everything), on a scratch
// array of M entries instead of the heap. Equal scores keep increasing
// candidate numbers, on every platform.
void merge_sort_desc(uint32_t* order, uint32_t* scratch, uint32_t M, const uint16_t* scores) {
  constexpr uint32_t k_run = 16;
  for (uint32_t lo = 0; lo < M; lo += k_run) {  // insertion-sorted runs
    const uint32_t hi = lo + k_run < M ? lo + k_run : M;
    for (uint32_t i = lo + 1; i < hi; ++i) {
      const uint32_t v = order[i];
      uint32_t j = i;
      for (; j > lo && better(scores, v, order[j - 1]); --j) order[j] = order[j - 1];
      order[j] = v;
    }
  }
  uint32_t* src = order;
  uint32_t* dst = scratch;
  for (uint32_t width = k_run; width < M; width *= 2) {
    for (uint32_t lo = 0; lo < M; lo += 2 * width) {
      const uint32_t mid = lo + width < M ? lo + width : M;
      const uint32_t hi = mid + width < M ? mid + width : M;
      uint32_t l = lo, r = mid, o = lo;
      while (l < mid && r < hi) dst[o++] = better(scores, src[r], src[l]) ? src[r++] : src[l++];
      while (l < mid) dst[o++] = src[l++];
      while (r < hi) dst[o++] = src[r++];
    }
    uint32_t* tmp = src;
    src = dst;
    dst = tmp;
  }
  if (src != order) memcpy(order, src, static_cast<size_t>(M) * sizeof(uint32_t));
}

// Without NaN scores the ordering of score_desc_cmp is a total preorder on
// the half values, so a stable two-pass radix sort on a 16-bit descending
// key gives exactly the stable comparison sort, in linear time. Returns
// false (and leaves order alone) when a NaN is present.
bool radix_sort_desc(uint32_t* order, uint32_t* scratch, uint32_t M, const uint16_t* scores) {
  // Key: 0x7C00 minus the signed magnitude, so +inf -> 0 and -inf -> 0xF800;
  // +0 and -0 share a key.
  auto key = [scores](uint32_t i) {
    const uint32_t h = scores[i];
    const uint32_t m = h & 0x7FFFu;
    return (h & 0x8000u) ? 0x7C00u + m : 0x7C00u - m;
  };
  uint32_t lo[257] = {0}, hi[257] = {0};
  for (uint32_t i = 0; i < M; ++i) {
    if ((scores[i] & 0x7FFFu) > 0x7C00u) return false;
    const uint32_t k = key(i);
    ++lo[(k & 0xFFu) + 1];
    ++hi[(k >> 8) + 1];
  }
  for (int b = 0; b < 256; ++b) {
    lo[b + 1] += lo[b];
    hi[b + 1] += hi[b];
  }
  for (uint32_t i = 0; i < M; ++i) scratch[lo[key(i) & 0xFFu]++] = i;
  for (uint32_t i = 0; i < M; ++i) {
    const uint32_t c = scratch[i];
    order[hi[key(c) >> 8]++] = c;
  }
  return true;
}

}  // namespace

uint32_t rpn_sort(hist_tables* t, const uint16_t* scores, uint32_t pre_nms_num,
                  uint32_t* order_buf, uint32_t M, bool use_qsort, uint32_t* sort_scratch) {
  if (M == 0) return 0;
  if (use_qsort) {
    for (uint32_t i = 0; i < M; ++i) order_buf[i] = i;
    if (sort_scratch != nullptr) {
      if (!radix_sort_desc(order_buf, sort_scratch, M, scores))
        merge_sort_desc(order_buf, sort_scratch, M, scores);
    } else {
      qsort_r(order_buf, M, sizeof(uint32_t), score_desc_cmp, const_cast<uint16_t*>(scores));
    }
    return M;
  }
  hist_reset(t);
  // An insertion that runs out of nodes has reported it; the walk then
  // delivers only what was stored.
  hist_insert(t, scores, M);
  // A resumed walk after a zero-length request starts from the best bucket
  // of this frame, not from where the previous frame stopped.
  save_cursor(t, 0, 0, 0, 0);
  return hist_walk(order_buf, min_u32(M, pre_nms_num), t, true);
}

}  // namespace ol
