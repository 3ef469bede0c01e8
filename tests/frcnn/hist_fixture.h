// Histogram tables set up the way init sets them up: the bucket map
// allocated uninitialised and then zeroed, lists, counts and the occupancy
// bitmap zeroed, the visiting order built, K row nodes pushed on the free
// list with their links cleared, then hist_reset. The tables start out
// zeroed (free list and cursor included).
#ifndef OL_TESTS_FRCNN_HIST_FIXTURE_H
#define OL_TESTS_FRCNN_HIST_FIXTURE_H

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <initializer_list>

#include "common/alloc.h"
#include "frcnn/hist_sort.h"

namespace ol_test {

class hist_fixture {
 public:
  explicit hist_fixture(uint32_t K = 0) {
    constexpr size_t n = ol::k_hist_buckets;
    t.map = must<uint32_t>(ol::ol_malloc(n * ol::k_hist_inline * 4));
    t.list = must<ol::hist_bucket>(ol::ol_calloc(n, sizeof(ol::hist_bucket)));
    for (uint32_t i = 0; i < K; ++i) {
      auto* node = must<ol::hist_row_node>(ol::ol_malloc(ol::k_hist_node_bytes));
      node->next = t.free_nodes;
      t.free_nodes = node;
    }
    t.num = must<uint32_t>(ol::ol_calloc(n, 4));
    t.sort = must<uint16_t>(ol::ol_calloc(n, 2));
    t.occupied = must<uint64_t>(ol::ol_calloc(n / 64, 8));
    ol::hist_build_order(t.sort, ol::k_hist_buckets);
    memset(t.map, 0, n * ol::k_hist_inline * 4);
    ol::hist_reset(&t);
  }
  ~hist_fixture() {
    ol::hist_release(&t);
    for (void* p : std::initializer_list<void*>{t.sort, t.num, t.occupied, t.list, t.map})
      ol::ol_free(p);
  }
  hist_fixture(const hist_fixture&) = delete;
  hist_fixture& operator=(const hist_fixture&) = delete;

  uint32_t free_count() const {
    uint32_t n = 0;
    for (const ol::hist_row_node* p = t.free_nodes; p; p = p->next) ++n;
    return n;
  }
  uint32_t chained_count() const {
    uint32_t n = 0;
    for (uint32_t k = 0; k < ol::k_hist_buckets; ++k)
      for (const ol::hist_row_node* p = t.list[k].head; p; p = p->next) ++n;
    return n;
  }

  ol::hist_tables t{};

 private:
  template <class T>
  static T* must(void* p) {
    if (p == nullptr) {
      fprintf(stderr, "hist_fixture: out of memory\n");
      abort();
    }
    return static_cast<T*>(p);
  }
};

}  // namespace ol_test

#endif
