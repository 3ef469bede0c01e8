// Histogram tables set up the way init sets them up: the bucket map
// allocated uninitialised and then zeroed, lists, counts and the occupancy
// bitmap zeroed, the visiting order built, K row nodes pushed on the free
// list with their links cleared, the cursor zeroed, then hist_reset.
#ifndef OL_TESTS_FRCNN_HIST_FIXTURE_H
#define OL_TESTS_FRCNN_HIST_FIXTURE_H

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "common/alloc.h"
#include "frcnn/hist_sort.h"

namespace ol_test {

class hist_fixture {
 public:
  explicit hist_fixture(uint32_t K = 0) {
    t.map = static_cast<uint32_t*>(must(ol::ol_malloc(size_t{ol::k_hist_buckets} * 64 * 4)));
    t.list = static_cast<ol::hist_bucket*>(
        must(ol::ol_calloc(ol::k_hist_buckets, sizeof(ol::hist_bucket))));
    t.free_nodes = nullptr;
    for (uint32_t i = 0; i < K; ++i) {
      auto* node = static_cast<ol::hist_row_node*>(must(ol::ol_malloc(ol::k_hist_node_bytes)));
      node->next = t.free_nodes;
      t.free_nodes = node;
    }
    t.num = static_cast<uint32_t*>(must(ol::ol_calloc(ol::k_hist_buckets, 4)));
    t.sort = static_cast<uint16_t*>(must(ol::ol_calloc(ol::k_hist_buckets, 2)));
    t.occupied = static_cast<uint64_t*>(must(ol::ol_calloc(ol::k_hist_buckets / 64, 8)));
    memset(t.cursor, 0, sizeof t.cursor);
    ol::hist_build_order(t.sort, ol::k_hist_buckets);
    memset(t.map, 0, size_t{ol::k_hist_buckets} * 64 * 4);
    ol::hist_reset(&t);
  }
  ~hist_fixture() {
    ol::hist_release(&t);
    ol::ol_free(t.sort);
    ol::ol_free(t.num);
    ol::ol_free(t.occupied);
    ol::ol_free(t.list);
    ol::ol_free(t.map);
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
  static void* must(void* p) {
    if (p == nullptr) {
      fprintf(stderr, "hist_fixture: out of memory\n");
      abort();
    }
    return p;
  }
};

}  // namespace ol_test

#endif
