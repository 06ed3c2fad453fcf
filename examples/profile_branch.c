/* Both moments of profile-guided optimisation on an if-then-else routine,
 * in C. Prints each block's count and exits with 1 if one is wrong. */
#include <quarl/edgeinst.h>

#include <stdio.h>
#include <stdlib.h>

enum { num_blocks = 6, num_edges = 7 };

/* Blocks: 0 pseudo entry, 1 test, 2 then, 3 else, 4 join, 5 pseudo exit.
 * The pseudo edge 5 -> 0 closes the flow. */
static const struct {
    uint32_t src, dest;
    int pseudo;
    int64_t cost;          /* how dear a counter on this edge would be */
    uint64_t run_count;    /* what a training run executes */
} edges[num_edges] = {
    {0, 1, 1, 0, 20}, {1, 2, 0, 15, 15}, {1, 3, 0, 5, 5}, {2, 4, 0, 15, 15},
    {3, 4, 0, 5, 5},  {4, 5, 1, 0, 20},  {5, 0, 1, 0, 20},
};

/* Instrumentation time: returns the words to store (malloc'd, *length of
 * them) and fills counter_of_edge (-1: no counter), or null. */
static uint32_t *instrument(uint32_t *length, int64_t counter_of_edge[num_edges])
{
    QuarlInstGraph *graph = quarl_inst_graph_create();
    QuarlInstEdge *made[num_edges];
    uint32_t *words = NULL;
    int ok = graph != NULL;
    for (uint32_t b = 0; ok && b < num_blocks; ++b) {
        QuarlInstNode *node = quarl_inst_graph_add_node(graph, b);
        ok = node != NULL;
        if (ok) {
            node->m_is_reachable = 1;
            node->m_is_pseudo_entry = b == 0;
            node->m_is_pseudo_exit = b == num_blocks - 1;
        }
    }
    for (int e = 0; ok && e < num_edges; ++e) {
        made[e] = quarl_inst_graph_add_edge(graph, graph->m_node_vec[edges[e].src],
                                            graph->m_node_vec[edges[e].dest]);
        ok = made[e] != NULL;
        if (ok) {
            made[e]->m_is_reachable = 1;
            made[e]->m_is_pseudo = edges[e].pseudo != 0;
            made[e]->m_cost = edges[e].cost;
        }
    }
    ok = ok && quarl_inst_graph_select_counters(graph) != QUARL_SELECT_COUNTERS_FAILED &&
         quarl_inst_graph_adjust_instrumentation(graph);
    QuarlEncodedGraph *encoded = ok ? quarl_inst_graph_encode(graph) : NULL;
    if (encoded != NULL) {
        *length = quarl_encoded_graph_length(encoded);
        words = malloc(4u * *length + 4u);
        quarl_stream_reset(encoded->m_stream);
        if (words != NULL && quarl_stream_read(encoded->m_stream, words, 4, *length) != *length) {
            free(words);
            words = NULL;
        }
        for (int e = 0; e < num_edges; ++e)
            counter_of_edge[e] = made[e]->m_is_instrumented ? (int64_t)made[e]->m_counter_idx : -1;
        quarl_encoded_graph_delete(encoded);
    }
    quarl_inst_graph_delete(graph);
    return words;
}

int main(void)
{
    int64_t counter_of_edge[num_edges];
    uint32_t length = 0;
    uint32_t *words = instrument(&length, counter_of_edge);
    if (words == NULL) {
        fprintf(stderr, "instrumentation failed\n");
        return 1;
    }

    /* The training run: each counter collects its edge's count. */
    uint64_t counters[num_edges] = {0};
    uint32_t num_counters = 0;
    for (int e = 0; e < num_edges; ++e)
        if (counter_of_edge[e] >= 0) {
            counters[counter_of_edge[e]] = edges[e].run_count;
            ++num_counters;
        }

    /* Profile use: block counts from the stored words and the counters. */
    uint64_t blocks[num_blocks];
    int32_t ok = quarl_compute_blocks_from_edges(words, length, counters, num_counters, blocks,
                                                 num_blocks);
    free(words);
    if (!ok) {
        fprintf(stderr, "profile use failed\n");
        return 1;
    }
    int wrong = 0;
    for (uint32_t b = 0; b < num_blocks; ++b) {
        uint64_t expected = 0;
        for (int e = 0; e < num_edges; ++e)
            if (edges[e].dest == b)
                expected += edges[e].run_count;
        printf("block %u: %llu\n", b, (unsigned long long)blocks[b]);
        wrong |= blocks[b] != expected;
    }
    printf("%u counters, %s\n", num_counters, wrong ? "WRONG counts" : "counts match the run");
    return wrong;
}
