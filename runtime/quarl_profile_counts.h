/*
 * Counts from a profile record: what its words and counters say each block
 * and each edge of the function's graph executed. Shared by `quarl profile`
 * and the compiler plugin, so that the counts a user reads are the ones the
 * optimiser gets. Built on Quarl's public API; not part of the training
 * runtime.
 */
#ifndef QUARL_PROFILE_COUNTS_H
#define QUARL_PROFILE_COUNTS_H

#include "quarl_profile.h"

#ifdef __cplusplus
extern "C" {
#endif

/* One edge of a record's graph. */
typedef struct QuarlProfileEdge {
    uint32_t src, dest; /* graph nodes: 0 pseudo entry, 1 pseudo exit, 2 + i block i */
    uint64_t count;
    uint32_t counter; /* the counter it carries, or QUARL_PROFILE_NO_COUNTER */
    uint32_t is_pseudo;
} QuarlProfileEdge;

#define QUARL_PROFILE_NO_COUNTER UINT32_MAX

/* Writes the count of every node of the record's graph, num_nodes of them
 * (node 2 + i is block i). Returns 1, or 0 when the words and counters do
 * not give counts (a damaged record) or memory runs out. */
int quarl_profile_node_counts(const QuarlProfileFunction *function, uint64_t *counts);

/* Every edge of the record's graph, in stored order, with the count that
 * Quarl derives for it: the stored words decoded, the formulas rebuilt and
 * the counters propagated. *edges is allocated with malloc (the caller
 * frees it) and holds *num_edges edges. Returns 1, or 0 with nothing
 * allocated when the record does not give counts, holds direct block
 * counts (no edges), or memory runs out. */
int quarl_profile_edge_counts(const QuarlProfileFunction *function, QuarlProfileEdge **edges,
                              uint32_t *num_edges);

#ifdef __cplusplus
}
#endif

#endif /* QUARL_PROFILE_COUNTS_H */
