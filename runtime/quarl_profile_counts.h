/*
 * Counts from a profile record: what its words and counters say each block
 * and each edge of the function's graph executed. Shared by `quarl profile`
 * and the compiler plugin, so that the counts a user reads are the ones the
 * optimiser gets. Built on Quarl's public API; not part of the training
 * runtime.
 *
 * Counters that contradict each other are repaired. Plain counters updated
 * by several threads at once lose increments, and a count derived from
 * them by flow conservation can then come out below zero (as an unsigned
 * count, near 2^64). Lost increments only ever make a counter smaller, so
 * each such deficit is made good by adding it along a cycle through the
 * edge: from the pseudo entry to the edge and on from it back to the entry,
 * by the paths whose smallest count is largest (the hot paths, where the
 * increments were lost), one edge after the other, so that edges below zero
 * on one cycle are repaired once. Every count is then at least zero and flow is
 * conserved at every block.
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
 * (node 2 + i is block i), repaired as above; *repaired_edges (when not
 * null) is the number of edges whose derived count was below zero. Returns
 * 1, or 0 when the words and counters do not give counts (a damaged record)
 * or memory runs out. Time and memory linear in the record; a repair adds
 * a search of widest paths, E log E. */
int quarl_profile_node_counts(const QuarlProfileFunction *function, uint64_t *counts,
                              uint32_t *repaired_edges);

/* Every edge of the record's graph, in stored order, with its count: the
 * stored words decoded, the counters propagated by flow conservation and
 * the result repaired as above. *edges is allocated with malloc (the
 * caller frees it) and holds *num_edges edges. Returns 1, or 0 with nothing
 * allocated when the record does not give counts, holds direct block
 * counts (no edges), or memory runs out. */
int quarl_profile_edge_counts(const QuarlProfileFunction *function, QuarlProfileEdge **edges,
                              uint32_t *num_edges, uint32_t *repaired_edges);

#ifdef __cplusplus
}
#endif

#endif /* QUARL_PROFILE_COUNTS_H */
