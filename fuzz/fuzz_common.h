// Helpers shared by the fuzz targets: a sink for dumps, invariant checks
// that trap, and the list invariants of a graph.
#pragma once

#include <stdint.h>
#include <stdio.h>

#include <unordered_map>

#include "edgeinst_internal.h"

namespace quarl_fuzz {

// A violated invariant stops the fuzzer with a crash it reports and keeps.
[[noreturn]] inline void invariant_failed(const char *text, int line)
{
    fprintf(stderr, "fuzz invariant violated (line %d): %s\n", line, text);
    fflush(stderr);
    __builtin_trap();
}

#define FUZZ_CHECK(condition) \
    ((condition) ? (void)0 : quarl_fuzz::invariant_failed(#condition, __LINE__))

// Dumps and exports are written for real (every format directive runs) and
// thrown away.
inline FILE *sink()
{
    static FILE *file = fopen("/dev/null", "w");
    FUZZ_CHECK(file != nullptr);
    return file;
}

// The list's links agree with its ends and its count.
inline void check_list_links(const QuarlInstList *list)
{
    uint32_t count = 0;
    const QuarlInstListElement *prev = nullptr;
    for (const QuarlInstListElement *element = list->m_head; element != nullptr;
         element = element->m_next) {
        FUZZ_CHECK(element->m_prev == prev);
        prev = element;
        ++count;
    }
    FUZZ_CHECK(list->m_tail == prev);
    FUZZ_CHECK(list->m_count == count);
}

// Every node's m_edges holds each incident edge once (a self-loop once),
// and its m_uncalculated_edges exactly the incident edges that are neither
// instrumented nor computed.
inline void check_graph_lists(const QuarlInstGraph *graph)
{
    std::unordered_map<const void *, uint32_t> in_edges, in_uncalculated;
    uint32_t list_entries = 0, uncalculated_entries = 0;
    for (uint32_t i = 0; i < graph->m_num_nodes; ++i) {
        const QuarlInstNode *node = graph->m_node_vec[i];
        if (node == nullptr)
            continue;
        FUZZ_CHECK(node->m_seg_block_idx == i);
        check_list_links(node->m_edges);
        check_list_links(node->m_uncalculated_edges);
        for (const QuarlInstListElement *e = node->m_edges->m_head; e != nullptr; e = e->m_next) {
            const QuarlInstEdge *edge = static_cast<const QuarlInstEdge *>(e->m_data);
            FUZZ_CHECK(edge->m_src == node || edge->m_dest == node);
            ++in_edges[e->m_data];
            ++list_entries;
        }
        for (const QuarlInstListElement *e = node->m_uncalculated_edges->m_head; e != nullptr;
             e = e->m_next) {
            const QuarlInstEdge *edge = static_cast<const QuarlInstEdge *>(e->m_data);
            FUZZ_CHECK(edge->m_src == node || edge->m_dest == node);
            ++in_uncalculated[e->m_data];
            ++uncalculated_entries;
        }
    }
    uint32_t expected_entries = 0, expected_uncalculated = 0;
    for (uint32_t i = 0; i < graph->m_num_edges; ++i) {
        const QuarlInstEdge *edge = graph->m_edge_vec[i];
        FUZZ_CHECK(edge != nullptr && edge->m_graph == graph);
        uint32_t ends = edge->m_src == edge->m_dest ? 1 : 2;
        bool unsettled = !edge->m_is_instrumented && !edge->m_is_computed;
        FUZZ_CHECK(in_edges[edge] == ends);
        FUZZ_CHECK(in_uncalculated[edge] == (unsettled ? ends : 0));
        expected_entries += ends;
        expected_uncalculated += unsettled ? ends : 0;
    }
    // Nothing in the lists that is not an edge of the graph.
    FUZZ_CHECK(list_entries == expected_entries);
    FUZZ_CHECK(uncalculated_entries == expected_uncalculated);
}

// Everything the library allocated during one input has been released.
inline void check_nothing_live() { FUZZ_CHECK(quarl_fault_live_blocks() == 0); }

} // namespace quarl_fuzz
