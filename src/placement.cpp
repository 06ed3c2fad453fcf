// Counter placement: the flow-conservation step that resolves a node's last
// unsettled edge, the placement pass built on it, and counter selection.
#include <algorithm>
#include <stdio.h>
#include <stdlib.h>

#include "edgeinst_internal.h"

namespace {

const char processing_rule[] = "-------------------------------------------\n";
const char round_two_rule[] = "--------------------------------------\n";

void trace_edge_group(const char *title, const QuarlInstEdge *edge, bool with_rule)
{
    char name[QUARL_NAME_BUF_LEN];
    fprintf(stderr, "%s: %s\n", title, quarl_inst_edge_get_name(edge, name));
    quarl_inst_edge_print(edge, stderr);
    if (with_rule)
        fputs(processing_rule, stderr);
    fflush(stderr);
}

bool is_incoming(const QuarlInstEdge *edge, const QuarlInstNode *node)
{
    return edge->m_dest == node;
}

// Flow conservation at the node: the edge's count is the sum over the other
// side of the node minus the sum over its own side. A self-loop has its
// destination here, so it counts as incoming.
void derive_formula(QuarlInstNode *node, QuarlInstEdge *uncalc_edge)
{
    bool uncalc_incoming = is_incoming(uncalc_edge, node);
    for (QuarlInstListElement *element = node->m_edges->m_head; element != nullptr;
         element = element->m_next) {
        const QuarlInstEdge *edge = static_cast<const QuarlInstEdge *>(element->m_data);
        if (edge == uncalc_edge || !edge->m_is_reachable)
            continue;
        quarl_inst_edge_add_formula_term(uncalc_edge, edge,
                                         is_incoming(edge, node) != uncalc_incoming);
    }
}

bool formula_is_acceptable(const QuarlInstEdge *uncalc_edge, const QuarlInstBitset *mask)
{
    if (mask == nullptr || uncalc_edge->m_is_pseudo)
        return true;
    return uncalc_edge->m_is_reachable &&
           quarl_inst_edge_check_formula_intersection(uncalc_edge, mask);
}

// ---- The placement pass, stage by stage -------------------------------------

struct PlacementState {
    QuarlNodeQueue ready_queue;
    QuarlNodeQueue deferred_queue;
    uint8_t *remaining_nodes;
    QuarlInstBitset *immeasurable_mask;
};

bool create_scratch(PlacementState *state, const QuarlInstGraph *graph)
{
    state->remaining_nodes =
        static_cast<uint8_t *>(quarl_mem_alloc_zeroed(graph->m_num_nodes, sizeof(uint8_t)));
    return state->remaining_nodes != nullptr;
}

void release_scratch(PlacementState *state)
{
    quarl_inst_bitset_delete(state->immeasurable_mask);
    quarl_mem_free(state->remaining_nodes);
    quarl_node_queue_release(&state->deferred_queue);
    quarl_node_queue_release(&state->ready_queue);
}

// Every edge's position is its index in the edge vector.
bool assign_formula_positions(QuarlInstGraph *graph)
{
    QuarlInstEdge **table = static_cast<QuarlInstEdge **>(
        quarl_mem_alloc(sizeof(QuarlInstEdge *) * graph->m_num_edges));
    if (table == nullptr)
        return false;
    for (uint32_t i = 0; i < graph->m_num_edges; ++i) {
        graph->m_edge_vec[i]->m_formula_bit_pos = static_cast<int32_t>(i);
        table[i] = graph->m_edge_vec[i];
    }
    graph->m_formula_edge_vec = table;
    graph->m_formula_mask_bits = graph->m_num_edges;
    return true;
}

bool build_immeasurable_mask(PlacementState *state, const QuarlInstGraph *graph)
{
    state->immeasurable_mask = quarl_inst_bitset_create(graph->m_formula_mask_bits);
    if (state->immeasurable_mask == nullptr)
        return false;
    for (uint32_t i = 0; i < graph->m_num_edges; ++i)
        if (graph->m_edge_vec[i]->m_is_immeasurable)
            quarl_inst_bitset_set_bit(state->immeasurable_mask, i);
    return true;
}

// Round 1: resolve ready nodes; formulas resting only on immeasurable
// counters are deferred to their far end.
bool run_round_one(PlacementState *state)
{
    QuarlInstNode *node;
    while ((node = quarl_node_queue_take(&state->ready_queue)) != nullptr) {
        uint32_t unsettled = node->m_uncalculated_edges->m_count;
        if (unsettled == 0) {
            state->remaining_nodes[node->m_seg_block_idx] = 0;
        } else if (unsettled > 1 ||
                   !quarl_inst_graph_compute_remaining_edge(node, &state->ready_queue,
                                                            &state->deferred_queue,
                                                            state->immeasurable_mask, false,
                                                            state->remaining_nodes)) {
            return false;
        }
    }
    return true;
}

void trace_round_two_header(const QuarlNodeQueue *deferred_queue)
{
    fputs(round_two_rule, stderr);
    fputs("Begin formula round 2 for forced edges.\n", stderr);
    fputs("Remaining nodes:\n", stderr);
    for (uint32_t i = deferred_queue->m_head; i < deferred_queue->m_tail; ++i) {
        char label[QUARL_NAME_BUF_LEN];
        fprintf(stderr, "Node: %s\n",
                quarl_inst_node_get_label(deferred_queue->m_nodes[i], label, QUARL_NAME_BUF_LEN));
    }
}

// Round 2: retry the deferred nodes, instrumenting by force an edge that
// still has no acceptable formula. Nodes that become ready join the same
// queue.
void run_round_two(PlacementState *state)
{
    if (state->deferred_queue.m_head == state->deferred_queue.m_tail)
        return;
    if (quarl_trace_on(QUARL_TRACE_RESOLVE))
        trace_round_two_header(&state->deferred_queue);
    QuarlInstNode *node;
    while ((node = quarl_node_queue_take(&state->deferred_queue)) != nullptr) {
        if (node->m_uncalculated_edges->m_count == 0)
            state->remaining_nodes[node->m_seg_block_idx] = 0;
        else if (!quarl_inst_graph_compute_remaining_edge(node, &state->deferred_queue, nullptr,
                                                          state->immeasurable_mask, true,
                                                          state->remaining_nodes))
            return;
    }
}

// ---- Counter selection ---------------------------------------------------------

// The sort key is copied out of the edge, so that sorting moves small
// records in one array instead of chasing every edge.
struct TreeCandidate {
    int64_t cost;
    uint32_t index; // in the edge vector
    int group;      // tree_group()
};

// Kruskal's order: pseudo and immeasurable edges first (a counter there is
// of no use), then edges without a caller's counter by descending cost, then
// edges the caller already instrumented (they carry a counter anyway, so the
// fewest others are added when they end up off the tree); ties in edge
// vector order.
int tree_group(const QuarlInstEdge *edge)
{
    if (edge->m_is_pseudo || edge->m_is_immeasurable)
        return 0;
    return edge->m_is_instrumented ? 2 : 1;
}

bool precedes_in_tree_order(const TreeCandidate &candidate1, const TreeCandidate &candidate2)
{
    if (candidate1.group != candidate2.group)
        return candidate1.group < candidate2.group;
    if (candidate1.cost != candidate2.cost)
        return candidate1.cost > candidate2.cost;
    return candidate1.index < candidate2.index;
}

struct SelectionScratch {
    TreeCandidate *candidates;
    uint32_t *parent; // union-find forest over block indices
    uint8_t *rank;
    uint8_t *on_tree; // by edge vector index
};

uint32_t find_root(uint32_t *parent, uint32_t node)
{
    uint32_t root = node;
    while (parent[root] != root)
        root = parent[root];
    while (parent[node] != root) {
        uint32_t next = parent[node];
        parent[node] = root;
        node = next;
    }
    return root;
}

// Joins the trees of the edge's two ends; false when they are one tree
// already, so that the edge would close a cycle.
bool join_trees(SelectionScratch *scratch, const QuarlInstEdge *edge)
{
    uint32_t root1 = find_root(scratch->parent, edge->m_src->m_seg_block_idx);
    uint32_t root2 = find_root(scratch->parent, edge->m_dest->m_seg_block_idx);
    if (root1 == root2)
        return false;
    if (scratch->rank[root1] < scratch->rank[root2]) {
        uint32_t swap = root1;
        root1 = root2;
        root2 = swap;
    }
    scratch->parent[root2] = root1;
    if (scratch->rank[root1] == scratch->rank[root2])
        scratch->rank[root1]++;
    return true;
}

void build_spanning_forest(const QuarlInstGraph *graph, SelectionScratch *scratch)
{
    uint32_t considered = 0;
    for (uint32_t i = 0; i < graph->m_num_edges; ++i)
        if (graph->m_edge_vec[i]->m_is_reachable)
            scratch->candidates[considered++] =
                TreeCandidate{graph->m_edge_vec[i]->m_cost, i, tree_group(graph->m_edge_vec[i])};
    for (uint32_t i = 0; i < graph->m_num_nodes; ++i)
        scratch->parent[i] = i;
    // A lambda, not the function's address, so that the comparison inlines.
    std::sort(scratch->candidates, scratch->candidates + considered,
              [](const TreeCandidate &first, const TreeCandidate &second) {
                  return precedes_in_tree_order(first, second);
              });
    for (uint32_t i = 0; i < considered; ++i)
        if (join_trees(scratch, graph->m_edge_vec[scratch->candidates[i].index]))
            scratch->on_tree[scratch->candidates[i].index] = 1;
}

// Instruments the reachable edges off the forest and numbers every
// reachable counter edge in edge vector order.
uint32_t mark_and_number_counters(QuarlInstGraph *graph, const uint8_t *on_tree)
{
    uint32_t counters = 0;
    for (uint32_t i = 0; i < graph->m_num_edges; ++i) {
        QuarlInstEdge *edge = graph->m_edge_vec[i];
        if (!edge->m_is_reachable)
            continue;
        if (!on_tree[i] && !edge->m_is_instrumented)
            quarl_inst_edge_set_as_instrumented(edge);
        if (edge->m_is_instrumented)
            edge->m_counter_idx = counters++;
    }
    graph->m_num_counters = counters;
    return counters;
}

} // namespace

extern "C" bool quarl_inst_graph_compute_remaining_edge(QuarlInstNode *node,
                                                       QuarlNodeQueue *ready_queue,
                                                       QuarlNodeQueue *deferred_queue,
                                                       QuarlInstBitset *immeasurable_mask,
                                                       bool force, uint8_t *remaining_nodes)
{
    if (node->m_uncalculated_edges->m_count != 1)
        return false;
    QuarlInstEdge *uncalc_edge =
        static_cast<QuarlInstEdge *>(node->m_uncalculated_edges->m_head->m_data);
    bool tracing = quarl_trace_on(QUARL_TRACE_RESOLVE);
    if (tracing)
        trace_edge_group("Processing edge", uncalc_edge, true);
    derive_formula(node, uncalc_edge);
    if (tracing)
        trace_edge_group("Finished edge", uncalc_edge, false);

    QuarlInstNode *far_end = uncalc_edge->m_dest == node ? uncalc_edge->m_src : uncalc_edge->m_dest;
    if (formula_is_acceptable(uncalc_edge, immeasurable_mask)) {
        quarl_inst_edge_set_as_computed(uncalc_edge);
        remaining_nodes[node->m_seg_block_idx] = 0;
        if (far_end->m_uncalculated_edges->m_count <= 1 &&
            remaining_nodes[far_end->m_seg_block_idx] == 1)
            return quarl_node_queue_append(ready_queue, far_end);
        return true;
    }

    if (!uncalc_edge->m_is_instrumented)
        quarl_inst_edge_clear_formula(uncalc_edge);
    if (!force) {
        if (deferred_queue == nullptr)
            return false;
        return quarl_node_queue_append(deferred_queue, far_end);
    }
    quarl_inst_edge_set_as_instrumented(uncalc_edge);
    uncalc_edge->m_is_forced_instrumented = 1;
    if (!uncalc_edge->m_is_immeasurable)
        return false;
    quarl_inst_bitset_set_bit(immeasurable_mask,
                              static_cast<uint32_t>(uncalc_edge->m_formula_bit_pos));
    return true;
}

extern "C" bool quarl_inst_graph_set_up_edge_formulas(QuarlInstGraph *graph)
{
    uint64_t formulas = 0;
    for (uint32_t i = 0; i < graph->m_num_edges; ++i)
        formulas += graph->m_edge_vec[i]->m_is_reachable && !graph->m_edge_vec[i]->m_is_instrumented;
    QuarlInstBitsetBatch batch;
    if (!quarl_inst_bitset_batch_create(&batch, graph->m_formula_mask_bits, 2 * formulas))
        return false;
    for (uint32_t i = 0; i < graph->m_num_edges; ++i) {
        QuarlInstEdge *edge = graph->m_edge_vec[i];
        if (!edge->m_is_reachable) {
            quarl_inst_edge_set_as_computed(edge);
        } else if (!edge->m_is_instrumented) {
            edge->m_additive = quarl_inst_bitset_batch_take(&batch);
            edge->m_subtractive = quarl_inst_bitset_batch_take(&batch);
        }
    }
    return true;
}

extern "C" bool quarl_inst_nodes_all_resolved(const uint8_t *remaining_nodes, uint32_t num_nodes)
{
    for (uint32_t i = 0; i < num_nodes; ++i)
        if (remaining_nodes[i] != 0)
            return false;
    return true;
}

extern "C" bool quarl_inst_graph_populate_ready_queue(QuarlInstGraph *graph,
                                                     QuarlNodeQueue *ready_queue,
                                                     uint8_t *remaining_nodes)
{
    for (uint32_t i = 0; i < graph->m_num_nodes; ++i) {
        QuarlInstNode *node = graph->m_node_vec[i];
        if (node == nullptr || !node->m_is_reachable)
            continue;
        remaining_nodes[i] = 1;
        if (node->m_uncalculated_edges->m_count <= 1 && !quarl_node_queue_append(ready_queue, node))
            return false;
    }
    return true;
}

extern "C" int quarl_inst_graph_adjust_instrumentation(QuarlInstGraph *graph)
{
    PlacementState state = {QUARL_NODE_QUEUE_INIT, QUARL_NODE_QUEUE_INIT, nullptr, nullptr};
    int result = 0;
    if (create_scratch(&state, graph) && assign_formula_positions(graph) &&
        quarl_inst_graph_set_up_edge_formulas(graph) &&
        quarl_inst_graph_populate_ready_queue(graph, &state.ready_queue, state.remaining_nodes) &&
        build_immeasurable_mask(&state, graph) && run_round_one(&state)) {
        run_round_two(&state);
        result = quarl_inst_nodes_all_resolved(state.remaining_nodes, graph->m_num_nodes);
    }
    release_scratch(&state);
    return result;
}

extern "C" uint32_t quarl_inst_graph_select_counters(QuarlInstGraph *graph)
{
    // Every allocation comes first, so that a failure changes nothing.
    SelectionScratch scratch;
    scratch.candidates = static_cast<TreeCandidate *>(
        quarl_mem_alloc(sizeof(TreeCandidate) * graph->m_num_edges));
    scratch.parent = static_cast<uint32_t *>(quarl_mem_alloc(sizeof(uint32_t) * graph->m_num_nodes));
    scratch.rank = static_cast<uint8_t *>(quarl_mem_alloc_zeroed(graph->m_num_nodes, 1));
    scratch.on_tree = static_cast<uint8_t *>(quarl_mem_alloc_zeroed(graph->m_num_edges, 1));
    uint32_t result = QUARL_SELECT_COUNTERS_FAILED;
    if (scratch.candidates != nullptr && scratch.parent != nullptr && scratch.rank != nullptr &&
        scratch.on_tree != nullptr) {
        build_spanning_forest(graph, &scratch);
        result = mark_and_number_counters(graph, scratch.on_tree);
    }
    quarl_mem_free(scratch.on_tree);
    quarl_mem_free(scratch.rank);
    quarl_mem_free(scratch.parent);
    quarl_mem_free(scratch.candidates);
    return result;
}
