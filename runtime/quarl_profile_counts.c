/* Counts from a profile record through Quarl's public API. A record is
 * untrusted: the profile-use entry point, which checks everything, must
 * accept its words and counters before the graph is decoded and its
 * formulas are rebuilt, and the node counts of both ways must agree. */
#include "quarl_profile_counts.h"

#include <stdlib.h>

#include "quarl/edgeinst.h"

int quarl_profile_node_counts(const QuarlProfileFunction *function, uint64_t *counts)
{
    if (function->flags & QUARL_PROFILE_DIRECT_COUNTS) {
        if (function->num_counters != function->num_blocks || function->num_nodes < 2)
            return 0;
        counts[0] = counts[1] = 0;
        for (uint32_t i = 0; i < function->num_blocks; ++i)
            counts[2 + i] = function->counters[i];
        for (uint32_t n = 2 + function->num_blocks; n < function->num_nodes; ++n)
            counts[n] = 0;
        return 1;
    }
    return quarl_compute_blocks_from_edges(function->words, function->num_words,
                                           function->counters, function->num_counters, counts,
                                           function->num_nodes) == 1;
}

/* Decodes the record and derives every edge's count; the graph is null
 * when that fails. */
static QuarlInstGraph *graph_with_counts(const QuarlProfileFunction *function)
{
    QuarlInstGraph *graph = quarl_inst_graph_create();
    QuarlEncodedGraph *encoded = quarl_encoded_graph_create_from_buffer(function->words,
                                                                        function->num_words);
    int ok = graph != NULL && encoded != NULL && quarl_encoded_graph_decode(encoded, graph) == 1 &&
             quarl_inst_graph_compute_formulas(graph) == 1;
    quarl_encoded_graph_delete(encoded);
    if (!ok) {
        quarl_inst_graph_delete(graph);
        return NULL;
    }
    for (uint32_t i = 0; i < graph->m_num_edges; ++i) {
        QuarlInstEdge *edge = graph->m_edge_vec[i];
        edge->m_exec_count = edge->m_is_instrumented && !edge->m_is_immeasurable
                                 ? function->counters[edge->m_counter_idx]
                                 : 0;
    }
    quarl_inst_graph_propagate_exec_counts(graph);
    return graph;
}

int quarl_profile_edge_counts(const QuarlProfileFunction *function, QuarlProfileEdge **edges,
                              uint32_t *num_edges)
{
    *edges = NULL;
    *num_edges = 0;
    if (function->flags & QUARL_PROFILE_DIRECT_COUNTS)
        return 0;
    /* The entry point accepts only words that decode into a graph the
     * counters resolve, with every counter index in range: the formula
     * rebuild's preconditions. */
    uint64_t *nodes = malloc(sizeof *nodes * (function->num_nodes ? function->num_nodes : 1));
    if (nodes == NULL || !quarl_profile_node_counts(function, nodes)) {
        free(nodes);
        return 0;
    }
    QuarlInstGraph *graph = graph_with_counts(function);
    QuarlProfileEdge *out =
        graph ? malloc(sizeof *out * (graph->m_num_edges ? graph->m_num_edges : 1)) : NULL;
    int ok = out != NULL;
    /* Propagation leaves counts alone when memory runs out: the node counts
     * of the two ways then differ. */
    for (uint32_t n = 0; ok && n < function->num_nodes; ++n) {
        const QuarlInstNode *node = quarl_inst_graph_find_node_by_idx(graph, n);
        ok = (node ? node->m_exec_count : 0) == nodes[n];
    }
    if (ok) {
        for (uint32_t i = 0; i < graph->m_num_edges; ++i) {
            const QuarlInstEdge *edge = graph->m_edge_vec[i];
            out[i].src = edge->m_src->m_seg_block_idx;
            out[i].dest = edge->m_dest->m_seg_block_idx;
            out[i].count = edge->m_exec_count;
            out[i].counter = edge->m_is_instrumented ? edge->m_counter_idx : QUARL_PROFILE_NO_COUNTER;
            out[i].is_pseudo = edge->m_is_pseudo;
        }
        *edges = out;
        *num_edges = graph->m_num_edges;
    } else {
        free(out);
    }
    free(nodes);
    quarl_inst_graph_delete(graph);
    return ok;
}
