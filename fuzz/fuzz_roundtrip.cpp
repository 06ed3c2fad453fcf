// Fuzz target: a routine made from bytes goes through the whole life of an
// instrumented routine: counter placement, encoding, and profile use with
// the counter values of a valid flow.
//
// Input:
//   byte 0   number of nodes, 1 + byte % 64
//   byte 1   mode: bits 0-1 counter index base (0, 32, 8192, 0), so that
//            every format is reached; bit 2 per-node flag bytes follow;
//            bit 3 counters chosen by quarl_inst_graph_select_counters;
//            bit 4 plain edges (no unreachable or immeasurable flags, no
//            self-loops); bit 5 the chain 0 -> 1 -> ... -> last and a pseudo
//            edge back to 0 come first, so that every node is entered
//   [n bytes per-node flags when mode bit 2: bit 0 unreachable, bit 1
//            pseudo entry, bit 2 pseudo exit, bit 3 entry]
//   then 3 bytes per edge: source, destination (both mod nodes), flags:
//            bit 0 unreachable, bit 1 pseudo, bit 2 immeasurable, bit 3
//            counter edge (reachable edges only), bit 4 a cycle of flow runs
//            through the edge, bits 5-7 the cycle's weight class and cost.
//
// Invariants checked: the uncalculated lists match the flags after every
// stage; placement leaves the formulas it promises; the stored words decode
// to the graph's edges; profile use fails cleanly or succeeds; and on a
// well-formed routine profile use succeeds with the counts that
// propagation gives at instrumentation time, which are the true counts.
#include <string.h>

#include <deque>
#include <vector>

#include "fuzz_common.h"

using quarl_fuzz::check_graph_lists;
using quarl_fuzz::check_nothing_live;

namespace {

const uint32_t max_edges = 256;
const uint32_t counter_bases[4] = {0, 32, 8192, 0};
const uint64_t weights[8] = {1, 2, 3, 7, 1000, 1ULL << 40, 1ULL << 63, ~0ULL - 4};

struct Routine {
    uint32_t num_nodes = 0;
    uint32_t counter_base = 0;
    bool select_counters = false;
    std::vector<uint8_t> node_flags;
    struct Edge {
        uint32_t src, dest;
        uint8_t flags;
    };
    std::vector<Edge> edges;
};

Routine parse(const uint8_t *data, size_t size)
{
    Routine routine;
    routine.num_nodes = 1 + data[0] % 64;
    uint8_t mode = data[1];
    routine.counter_base = counter_bases[mode & 3];
    routine.select_counters = (mode & 8) != 0;
    routine.node_flags.assign(routine.num_nodes, 0);
    size_t at = 2;
    if (mode & 4)
        for (uint32_t i = 0; i < routine.num_nodes && at < size; ++i)
            routine.node_flags[i] = data[at++];
    uint32_t last = routine.num_nodes - 1;
    if ((mode & 0x20) && last != 0) {
        for (uint32_t i = 0; i < last; ++i)
            routine.edges.push_back({i, i + 1, 0});
        routine.edges.push_back({last, 0, 2 | 0x10}); // pseudo, and a cycle runs through it
    }
    for (; at + 3 <= size && routine.edges.size() < max_edges; at += 3) {
        Routine::Edge edge = {data[at] % routine.num_nodes, data[at + 1] % routine.num_nodes,
                              data[at + 2]};
        if (mode & 0x10) {
            if (edge.src == edge.dest)
                continue;
            edge.flags &= ~(1 | 4);
        }
        routine.edges.push_back(edge);
    }
    return routine;
}

bool edge_reachable(const Routine::Edge &edge) { return !(edge.flags & 1); }

// A valid flow: for each marked edge u -> v, a cycle closed by a shortest
// path from v back to u over reachable edges (self-loops aside).
std::vector<uint64_t> make_flow(const Routine &routine)
{
    std::vector<uint64_t> flow(routine.edges.size(), 0);
    for (size_t marked = 0; marked < routine.edges.size(); ++marked) {
        const Routine::Edge &through = routine.edges[marked];
        if (!(through.flags & 0x10) || !edge_reachable(through) || through.src == through.dest)
            continue;
        std::vector<int64_t> via(routine.num_nodes, -1); // edge that reached the node
        std::vector<bool> seen(routine.num_nodes, false);
        std::deque<uint32_t> queue{through.dest};
        seen[through.dest] = true;
        while (!queue.empty() && !seen[through.src]) {
            uint32_t node = queue.front();
            queue.pop_front();
            for (size_t i = 0; i < routine.edges.size(); ++i) {
                const Routine::Edge &edge = routine.edges[i];
                if (edge.src == node && edge_reachable(edge) && edge.src != edge.dest &&
                    !seen[edge.dest]) {
                    seen[edge.dest] = true;
                    via[edge.dest] = static_cast<int64_t>(i);
                    queue.push_back(edge.dest);
                }
            }
        }
        if (!seen[through.src])
            continue;
        uint64_t weight = weights[through.flags >> 5];
        flow[marked] += weight;
        for (uint32_t node = through.src; node != through.dest;) {
            size_t i = static_cast<size_t>(via[node]);
            flow[i] += weight;
            node = routine.edges[i].src;
        }
    }
    return flow;
}

QuarlInstGraph *build(const Routine &routine)
{
    QuarlInstGraph *graph = quarl_inst_graph_create();
    FUZZ_CHECK(graph != nullptr);
    for (uint32_t i = 0; i < routine.num_nodes; ++i) {
        QuarlInstNode *node = quarl_inst_graph_add_node(graph, i);
        FUZZ_CHECK(node != nullptr);
        uint8_t flags = routine.node_flags[i];
        node->m_is_reachable = !(flags & 1);
        node->m_is_pseudo_entry = (flags >> 1) & 1;
        node->m_is_pseudo_exit = (flags >> 2) & 1;
        node->m_is_entry = (flags >> 3) & 1;
    }
    for (const Routine::Edge &wanted : routine.edges) {
        QuarlInstEdge *edge = quarl_inst_graph_add_edge(graph, graph->m_node_vec[wanted.src],
                                                        graph->m_node_vec[wanted.dest]);
        FUZZ_CHECK(edge != nullptr);
        edge->m_is_reachable = edge_reachable(wanted);
        edge->m_is_pseudo = (wanted.flags >> 1) & 1;
        edge->m_is_immeasurable = (wanted.flags >> 2) & 1;
        edge->m_cost = wanted.flags >> 5;
        if (!routine.select_counters && (wanted.flags & 8) && edge->m_is_reachable)
            quarl_inst_edge_set_as_instrumented(edge);
    }
    if (routine.select_counters)
        FUZZ_CHECK(quarl_inst_graph_select_counters(graph) != QUARL_SELECT_COUNTERS_FAILED);
    return graph;
}

// What a successful placement promises: every edge at a reachable node is
// settled, and every reachable computed edge has a formula over counter
// edges with a measurable position unless it is a pseudo edge.
void check_placement(const QuarlInstGraph *graph)
{
    for (uint32_t i = 0; i < graph->m_num_edges; ++i) {
        const QuarlInstEdge *edge = graph->m_edge_vec[i];
        if (edge->m_src->m_is_reachable || edge->m_dest->m_is_reachable)
            FUZZ_CHECK(edge->m_is_instrumented || edge->m_is_computed);
        if (!edge->m_is_reachable || !edge->m_is_computed)
            continue;
        FUZZ_CHECK(edge->m_additive != nullptr && edge->m_subtractive != nullptr);
        bool measurable = false;
        for (uint32_t pos = 0; pos < graph->m_formula_mask_bits; ++pos) {
            bool plus = quarl_inst_bitset_get_bit(edge->m_additive, pos);
            bool minus = quarl_inst_bitset_get_bit(edge->m_subtractive, pos);
            FUZZ_CHECK(!(plus && minus));
            if (!plus && !minus)
                continue;
            const QuarlInstEdge *term = graph->m_formula_edge_vec[pos];
            FUZZ_CHECK(term->m_is_instrumented);
            measurable = measurable || !term->m_is_immeasurable;
        }
        FUZZ_CHECK(measurable || edge->m_is_pseudo);
    }
}

// Counter edges get indices base, base + 1, ... in edge order; returns the
// counter count.
uint32_t number_counters(QuarlInstGraph *graph, uint32_t base)
{
    uint32_t next = base;
    for (uint32_t i = 0; i < graph->m_num_edges; ++i)
        if (graph->m_edge_vec[i]->m_is_instrumented)
            graph->m_edge_vec[i]->m_counter_idx = next++;
    graph->m_num_counters = next;
    return next;
}

QuarlEncodingFormat expected_format(const QuarlInstGraph *graph)
{
    uint32_t larger = graph->m_num_nodes > graph->m_num_counters ? graph->m_num_nodes
                                                                 : graph->m_num_counters;
    return larger < 32 ? c_encode16 : larger < 8192 ? c_encode32 : c_encode96;
}

uint32_t stored_flags(const QuarlInstEdge *edge)
{
    return edge->m_is_instrumented | edge->m_is_reachable << 1 | edge->m_is_immeasurable << 2 |
           edge->m_is_pseudo << 3;
}

// The stored words decode to the graph's edges, source by source in list
// order, with an edge-less node's empty record read as an unreachable edge
// to node 0 (c_encode32, c_encode96) or as nothing (c_encode16, which also
// drops a last edge that packs to zero).
void check_decoded_edges(const QuarlInstGraph *graph, const std::vector<uint32_t> &words,
                         QuarlEncodingFormat format)
{
    QuarlEncodedGraph *encoded =
        quarl_encoded_graph_create_from_buffer(words.data(), static_cast<uint32_t>(words.size()));
    QuarlInstGraph *decoded = quarl_inst_graph_create();
    FUZZ_CHECK(encoded != nullptr && decoded != nullptr);
    FUZZ_CHECK(quarl_encoded_graph_decode(encoded, decoded) == 1);
    FUZZ_CHECK(encoded->m_format == format);
    check_graph_lists(decoded);
    uint32_t at = 0;
    for (uint32_t i = 0; i < graph->m_num_nodes; ++i) {
        const QuarlInstNode *node = graph->m_node_vec[i];
        std::vector<const QuarlInstEdge *> out;
        for (const QuarlInstListElement *e = node->m_edges->m_head; e != nullptr; e = e->m_next)
            if (static_cast<const QuarlInstEdge *>(e->m_data)->m_src == node)
                out.push_back(static_cast<const QuarlInstEdge *>(e->m_data));
        if (out.empty() && format != c_encode16) {
            FUZZ_CHECK(at < decoded->m_num_edges);
            const QuarlInstEdge *got = decoded->m_edge_vec[at++];
            FUZZ_CHECK(got->m_src->m_seg_block_idx == i && got->m_dest->m_seg_block_idx == 0);
            FUZZ_CHECK(got->m_counter_idx == 0 && stored_flags(got) == 0);
        }
        for (size_t k = 0; k < out.size(); ++k) {
            const QuarlInstEdge *edge = out[k];
            if (format == c_encode16 && k + 1 == out.size() && stored_flags(edge) == 0 &&
                edge->m_dest->m_seg_block_idx == 0 && edge->m_counter_idx == 0)
                continue;
            FUZZ_CHECK(at < decoded->m_num_edges);
            const QuarlInstEdge *got = decoded->m_edge_vec[at++];
            FUZZ_CHECK(got->m_src->m_seg_block_idx == i);
            FUZZ_CHECK(got->m_dest->m_seg_block_idx == edge->m_dest->m_seg_block_idx);
            FUZZ_CHECK(got->m_counter_idx == edge->m_counter_idx);
            FUZZ_CHECK(stored_flags(got) == stored_flags(edge));
        }
    }
    FUZZ_CHECK(at == decoded->m_num_edges);
    quarl_inst_graph_delete(decoded);
    quarl_encoded_graph_delete(encoded);
}

// Well-formed: the counts the counters determine are the true ones, and the
// decoded graph resolves exactly as the placed one did.
bool well_formed(const QuarlInstGraph *graph, int placed)
{
    if (placed != 1)
        return false;
    std::vector<bool> entered(graph->m_num_nodes, false);
    for (uint32_t i = 0; i < graph->m_num_edges; ++i) {
        const QuarlInstEdge *edge = graph->m_edge_vec[i];
        if (edge->m_is_immeasurable || (edge->m_is_reachable && edge->m_src == edge->m_dest))
            return false;
        if (edge->m_is_reachable)
            entered[edge->m_dest->m_seg_block_idx] = true;
    }
    for (uint32_t i = 0; i < graph->m_num_nodes; ++i)
        if (!graph->m_node_vec[i]->m_is_reachable || !entered[i])
            return false;
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    Routine routine = parse(data, size);
    std::vector<uint64_t> flow = make_flow(routine);
    QuarlInstGraph *graph = build(routine);
    check_graph_lists(graph);

    int placed = quarl_inst_graph_adjust_instrumentation(graph);
    FUZZ_CHECK(placed == 0 || placed == 1);
    check_graph_lists(graph);
    if (placed == 1)
        check_placement(graph);

    uint32_t num_counters = number_counters(graph, routine.counter_base);
    QuarlEncodedGraph *encoded = quarl_inst_graph_encode(graph);
    FUZZ_CHECK(encoded != nullptr);
    QuarlEncodingFormat format = expected_format(graph);
    FUZZ_CHECK(encoded->m_format == format);
    std::vector<uint32_t> words(quarl_encoded_graph_length(encoded));
    memcpy(words.data(), encoded->m_stream->m_buffer, words.size() * 4);
    quarl_encoded_graph_delete(encoded);
    check_decoded_edges(graph, words, format);

    std::vector<uint64_t> counters(num_counters, 0);
    for (uint32_t i = 0; i < graph->m_num_edges; ++i) {
        QuarlInstEdge *edge = graph->m_edge_vec[i];
        if (edge->m_is_instrumented) {
            counters[edge->m_counter_idx] = flow[i];
            edge->m_exec_count = edge->m_is_immeasurable ? 0 : flow[i];
        }
    }
    std::vector<uint64_t> blocks(routine.num_nodes, ~0ULL);
    int32_t used = quarl_compute_blocks_from_edges(words.data(),
                                                   static_cast<uint32_t>(words.size()),
                                                   counters.data(), num_counters, blocks.data(),
                                                   routine.num_nodes);
    FUZZ_CHECK(used == 0 || used == 1);
    if (used == 0)
        for (uint64_t count : blocks)
            FUZZ_CHECK(count == ~0ULL);
    std::vector<uint64_t> formula_blocks(routine.num_nodes, ~0ULL);
    FUZZ_CHECK(quarl_compute_blocks_with_formulas(words.data(), static_cast<uint32_t>(words.size()),
                                                  counters.data(), num_counters,
                                                  formula_blocks.data(), routine.num_nodes) == used);
    FUZZ_CHECK(formula_blocks == blocks);

    if (well_formed(graph, placed)) {
        FUZZ_CHECK(used == 1);
        FUZZ_CHECK(quarl_inst_graph_propagate_counts(graph));
        std::vector<uint64_t> truth(routine.num_nodes, 0);
        for (uint32_t i = 0; i < graph->m_num_edges; ++i) {
            FUZZ_CHECK(graph->m_edge_vec[i]->m_exec_count == flow[i]);
            truth[routine.edges[i].dest] += flow[i];
        }
        for (uint32_t i = 0; i < routine.num_nodes; ++i) {
            FUZZ_CHECK(graph->m_node_vec[i]->m_exec_count == truth[i]);
            FUZZ_CHECK(blocks[i] == truth[i]);
        }
    }
    quarl_inst_graph_delete(graph);
    check_nothing_live();
    return 0;
}
