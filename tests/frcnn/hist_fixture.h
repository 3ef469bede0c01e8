// Histogram tables set up the way init sets them up: zeroed bucket map,
// lists, counts and occupancy bitmap, the visiting order built, K row nodes
// pushed on the free list with their links cleared, then hist_reset. And the
// ordering they must give, written out plainly.
#ifndef OL_TESTS_FRCNN_HIST_FIXTURE_H
#define OL_TESTS_FRCNN_HIST_FIXTURE_H

#include <stdint.h>
#include <stdlib.h>

#include <algorithm>
#include <initializer_list>
#include <vector>

#include "common/alloc.h"
#include "frcnn/hist_sort.h"

namespace ol_test {

// The visiting order written out plainly: +inf down to +0, -0 down to -inf,
// then the NaN patterns by increasing pattern.
inline const std::vector<uint16_t>& expected_order() {
  static const std::vector<uint16_t> order = [] {
    std::vector<uint16_t> v;
    for (int p = 0x7C00; p >= 0; --p) v.push_back(static_cast<uint16_t>(p));
    for (int p = 0x8000; p <= 0xFC00; ++p) v.push_back(static_cast<uint16_t>(p));
    for (int p = 0x7C01; p <= 0x7FFF; ++p) v.push_back(static_cast<uint16_t>(p));
    for (int p = 0xFC01; p <= 0xFFFF; ++p) v.push_back(static_cast<uint16_t>(p));
    return v;
  }();
  return order;
}

// A plain walk over a visiting order: every visited position (all but the
// last), every candidate of that pattern by increasing number.
inline std::vector<uint32_t> ref_sorted(const std::vector<uint16_t>& s,
                                        const std::vector<uint16_t>& order = expected_order()) {
  std::vector<uint32_t> position(65536), out;
  for (uint32_t p = 0; p < 65536; ++p) position[order[p]] = p;
  for (uint32_t i = 0; i < s.size(); ++i)
    if (position[s[i]] < 65535) out.push_back(i);
  std::stable_sort(out.begin(), out.end(),
                   [&](uint32_t a, uint32_t b) { return position[s[a]] < position[s[b]]; });
  return out;
}

class hist_fixture {
 public:
  explicit hist_fixture(uint32_t K = 0) {
    constexpr size_t n = ol::k_hist_buckets;
    t.map = static_cast<uint32_t*>(ol::ol_calloc(n * ol::k_hist_inline, 4));
    t.list = static_cast<ol::hist_bucket*>(ol::ol_calloc(n, sizeof(ol::hist_bucket)));
    t.num = static_cast<uint32_t*>(ol::ol_calloc(n, 4));
    t.sort = static_cast<uint16_t*>(ol::ol_calloc(n, 2));
    t.occupied = static_cast<uint64_t*>(ol::ol_calloc(n / 64, 8));
    for (uint32_t i = 0; i < K; ++i) {
      auto* node = static_cast<ol::hist_row_node*>(ol::ol_malloc(ol::k_hist_node_bytes));
      if (node == nullptr) abort();
      node->next = t.free_nodes;
      t.free_nodes = node;
    }
    if (!t.map || !t.list || !t.num || !t.sort || !t.occupied) abort();
    ol::hist_build_order(t.sort, ol::k_hist_buckets);
    ol::hist_reset(&t);
  }
  ~hist_fixture() {
    ol::hist_release(&t);
    for (void* p : std::initializer_list<void*>{t.sort, t.num, t.occupied, t.list, t.map})
      ol::ol_free(p);
  }
  hist_fixture(const hist_fixture&) = delete;
  hist_fixture& operator=(const hist_fixture&) = delete;

  static uint32_t length(const ol::hist_row_node* p) { return p ? 1 + length(p->next) : 0; }
  uint32_t free_count() const { return length(t.free_nodes); }

  ol::hist_tables t{};
};

}  // namespace ol_test

#endif
