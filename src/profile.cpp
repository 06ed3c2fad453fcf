// Profile reconstruction: formulas rebuilt for a decoded graph, counts
// derived from counters, and the profile-use entry point.
#include "edgeinst_internal.h"

namespace {

struct RebuildState {
    QuarlNodeQueue ready_queue;
    uint8_t *remaining_nodes;
};

// Stored data may mark an unreachable edge instrumented; settling it as
// computed would then break the transition's precondition.
bool has_unreachable_counter(const QuarlInstGraph *graph)
{
    for (uint32_t i = 0; i < graph->m_num_edges; ++i) {
        const QuarlInstEdge *edge = graph->m_edge_vec[i];
        if (edge != nullptr && edge->m_is_instrumented && !edge->m_is_reachable)
            return true;
    }
    return false;
}

// Dense positions: the instrumented edges, in edge vector order, are the
// only formula positions.
bool assign_counter_positions(QuarlInstGraph *graph)
{
    uint32_t count = 0;
    for (uint32_t i = 0; i < graph->m_num_edges; ++i)
        if (graph->m_edge_vec[i] != nullptr && graph->m_edge_vec[i]->m_is_instrumented)
            ++count;
    QuarlInstEdge **table = nullptr;
    if (count != 0) {
        table = static_cast<QuarlInstEdge **>(quarl_mem_alloc(sizeof(QuarlInstEdge *) * count));
        if (table == nullptr)
            return false;
    }
    uint32_t pos = 0;
    for (uint32_t i = 0; i < graph->m_num_edges; ++i) {
        QuarlInstEdge *edge = graph->m_edge_vec[i];
        if (edge != nullptr && edge->m_is_instrumented) {
            edge->m_formula_bit_pos = static_cast<int32_t>(pos);
            table[pos++] = edge;
        }
    }
    graph->m_formula_mask_bits = count;
    graph->m_formula_edge_vec = table;
    return true;
}

// Without a mask every derived formula is accepted, so each node that
// becomes ready resolves its last edge.
bool resolve_ready_nodes(RebuildState *state)
{
    QuarlInstNode *node;
    while ((node = quarl_node_queue_take(&state->ready_queue)) != nullptr) {
        if (node->m_uncalculated_edges->m_count == 0)
            state->remaining_nodes[node->m_seg_block_idx] = 0;
        else if (!quarl_inst_graph_compute_remaining_edge(node, &state->ready_queue, nullptr,
                                                          nullptr, false,
                                                          state->remaining_nodes))
            return false;
    }
    return true;
}

// Every reachable node must have had all its edges settled; stored data
// that leaves one unresolved gives 0 when untrusted.
bool all_nodes_resolved(const uint8_t *remaining_nodes, uint32_t num_nodes, bool untrusted)
{
    bool resolved = quarl_inst_nodes_all_resolved(remaining_nodes, num_nodes);
    QUARL_CHECK_FOR("quarl_inst_graph_compute_formulas", resolved || untrusted,
                    "remaining_nodes[i] == 0");
    return resolved;
}

// The sum of the counts at the positions set in one formula bitset: every
// chunk is looked at once, every set bit found directly.
uint64_t sum_counts(const QuarlInstGraph *graph, const QuarlInstBitset *bitset)
{
    uint64_t sum = 0;
    for (uint32_t chunk = 0; chunk < bitset->m_chunk_count; ++chunk) {
        for (uint32_t bits = bitset->m_chunks[chunk]; bits != 0; bits &= bits - 1) {
            uint32_t pos = chunk * 32 + static_cast<uint32_t>(__builtin_ctz(bits));
            sum += quarl_inst_graph_get_edge_for_formula_position(graph, pos)->m_exec_count;
        }
    }
    return sum;
}

uint64_t evaluate_formula(QuarlInstEdge *edge)
{
    const QuarlInstBitset *additive = edge->m_additive;
    const QuarlInstBitset *subtractive = edge->m_subtractive;
    QUARL_CHECK_FOR("quarl_inst_edge_execute_formula", additive != nullptr && subtractive != nullptr,
                    "additive != ((void *)0) && subtractive != ((void *)0)");
    edge->m_exec_count = sum_counts(edge->m_graph, additive) - sum_counts(edge->m_graph, subtractive);
    return edge->m_exec_count;
}

struct NodeSums {
    uint64_t *incoming;
    uint64_t *outgoing;
    uint8_t *counted_by_outgoing;
};

void release_sums(NodeSums *sums)
{
    quarl_mem_free(sums->counted_by_outgoing);
    quarl_mem_free(sums->outgoing);
    quarl_mem_free(sums->incoming);
}

// Loads each measurable counter edge's count; every other edge starts at 0.
bool load_counters(QuarlInstGraph *graph, const uint64_t *counters, uint32_t num_counters)
{
    for (uint32_t i = 0; i < graph->m_num_edges; ++i) {
        QuarlInstEdge *edge = graph->m_edge_vec[i];
        if (edge->m_is_instrumented && !edge->m_is_immeasurable) {
            if (edge->m_counter_idx >= num_counters)
                return false;
            edge->m_exec_count = counters[edge->m_counter_idx];
        } else {
            edge->m_exec_count = 0;
        }
    }
    return true;
}

} // namespace

extern "C" int32_t quarl_inst_graph_rebuild_formulas(QuarlInstGraph *graph, bool untrusted)
{
    RebuildState state = {QUARL_NODE_QUEUE_INIT,
                          static_cast<uint8_t *>(quarl_mem_alloc_zeroed(graph->m_num_nodes, sizeof(uint8_t)))};
    int32_t result = 0;
    if (state.remaining_nodes != nullptr && !(untrusted && has_unreachable_counter(graph)) &&
        assign_counter_positions(graph) && quarl_inst_graph_set_up_edge_formulas(graph) &&
        quarl_inst_graph_populate_ready_queue(graph, &state.ready_queue, state.remaining_nodes) &&
        resolve_ready_nodes(&state) &&
        all_nodes_resolved(state.remaining_nodes, graph->m_num_nodes, untrusted))
        result = 1;
    quarl_mem_free(state.remaining_nodes);
    quarl_node_queue_release(&state.ready_queue);
    return result;
}

extern "C" int32_t quarl_inst_graph_compute_formulas(QuarlInstGraph *graph)
{
    return quarl_inst_graph_rebuild_formulas(graph, false);
}

extern "C" void quarl_inst_graph_deallocate_formulas(QuarlInstGraph *graph)
{
    for (uint32_t i = 0; i < graph->m_num_edges; ++i) {
        QuarlInstEdge *edge = graph->m_edge_vec[i];
        quarl_inst_bitset_delete(edge->m_additive);
        edge->m_additive = nullptr;
        quarl_inst_bitset_delete(edge->m_subtractive);
        edge->m_subtractive = nullptr;
        edge->m_formula_bit_pos = -1;
    }
    graph->m_formula_mask_bits = 0;
    quarl_mem_free(graph->m_formula_edge_vec);
    graph->m_formula_edge_vec = nullptr;
}

extern "C" uint64_t quarl_inst_edge_execute_formula(QuarlInstEdge *edge)
{
    return evaluate_formula(edge);
}

extern "C" bool quarl_inst_graph_propagate_counts(QuarlInstGraph *graph)
{
    uint32_t num = graph->m_num_nodes;
    NodeSums sums;
    sums.incoming = static_cast<uint64_t *>(quarl_mem_alloc_zeroed(num, sizeof(uint64_t)));
    sums.outgoing = static_cast<uint64_t *>(quarl_mem_alloc_zeroed(num, sizeof(uint64_t)));
    sums.counted_by_outgoing = static_cast<uint8_t *>(quarl_mem_alloc_zeroed(num, sizeof(uint8_t)));
    if (sums.incoming == nullptr || sums.outgoing == nullptr ||
        sums.counted_by_outgoing == nullptr) {
        release_sums(&sums);
        return false;
    }
    for (uint32_t i = 0; i < graph->m_num_edges; ++i) {
        QuarlInstEdge *edge = graph->m_edge_vec[i];
        if (edge == nullptr)
            continue;
        uint32_t src_node_idx = edge->m_src->m_seg_block_idx;
        uint32_t dest_node_idx = edge->m_dest->m_seg_block_idx;
        QUARL_CHECK_FOR("quarl_inst_graph_propagate_exec_counts",
                        src_node_idx < num && dest_node_idx < num,
                        "src_node_idx < num && dest_node_idx < num");
        uint64_t count = edge->m_exec_count;
        if (!edge->m_is_instrumented && edge->m_is_reachable)
            count = evaluate_formula(edge);
        sums.incoming[dest_node_idx] += count;
        sums.outgoing[src_node_idx] += count;
        // A count that could not be measured into the node: take the node's
        // count from the edges that leave it.
        if (edge->m_is_immeasurable && (edge->m_is_instrumented || !edge->m_is_pseudo))
            sums.counted_by_outgoing[dest_node_idx] = 1;
    }
    for (uint32_t i = 0; i < num; ++i) {
        QuarlInstNode *node = quarl_inst_graph_find_node_by_idx(graph, i);
        if (node != nullptr)
            node->m_exec_count = sums.counted_by_outgoing[i] ? sums.outgoing[i] : sums.incoming[i];
    }
    release_sums(&sums);
    return true;
}

extern "C" void quarl_inst_graph_propagate_exec_counts(QuarlInstGraph *graph)
{
    quarl_inst_graph_propagate_counts(graph);
}

extern "C" int32_t quarl_compute_blocks_from_edges(const uint32_t *buffer, uint32_t length,
                                                  const uint64_t *counters, uint32_t num_counters,
                                                  uint64_t *block_counts, uint32_t num_blocks)
{
    // Traces describe the graph, its formulas and its transitions: when one
    // is asked for, build them. Otherwise conservation arithmetic on flat
    // arrays gives the same result at a fraction of the cost.
    if (quarl_trace_on(QUARL_TRACE_BUILD | QUARL_TRACE_RESOLVE | QUARL_TRACE_ENCODE))
        return quarl_compute_blocks_with_formulas(buffer, length, counters, num_counters,
                                                  block_counts, num_blocks);
    return quarl_compute_blocks_by_conservation(buffer, length, counters, num_counters,
                                                block_counts, num_blocks);
}

extern "C" int32_t quarl_compute_blocks_with_formulas(const uint32_t *buffer, uint32_t length,
                                                     const uint64_t *counters,
                                                     uint32_t num_counters, uint64_t *block_counts,
                                                     uint32_t num_blocks)
{
    QuarlInstGraph *graph = quarl_inst_graph_create();
    if (graph == nullptr)
        return 0;
    QuarlEncodedGraph *encoded_graph = quarl_encoded_graph_create_from_buffer(buffer, length);
    if (encoded_graph == nullptr) {
        quarl_inst_graph_delete(graph);
        return 0;
    }
    // Stored data is untrusted: every check on the way gives 0, and an
    // allocation failure during propagation too, since counts would be
    // incomplete.
    int32_t result = 0;
    if (quarl_encoded_graph_decode(encoded_graph, graph) == 1 &&
        quarl_inst_graph_rebuild_formulas(graph, true) == 1 &&
        load_counters(graph, counters, num_counters) && quarl_inst_graph_propagate_counts(graph)) {
        for (uint32_t i = 0; i < num_blocks; ++i) {
            const QuarlInstNode *node = quarl_inst_graph_find_node_by_idx(graph, i);
            block_counts[i] = node != nullptr ? node->m_exec_count : 0;
        }
        result = 1;
    }
    quarl_encoded_graph_delete(encoded_graph);
    quarl_inst_graph_delete(graph);
    return result;
}
