// The placement pass without formulas. It walks the graph exactly as the
// formula pass does (the same ready and deferred queues, the same order,
// the same verdict), but decides whether a derived count rests on a
// measurable counter without building the formula.
//
// Why that is possible: when a node resolves its last unsettled edge, every
// other edge of the node is a counter or was computed from its far end, and
// each computed one rests on the set of nodes resolved behind it. So the
// derived formula is the signed sum of the counters that cross the boundary
// of one set of nodes: the node and everything joined to it by computed
// edges (a counter with both ends inside cancels, coming in at one end and
// going out at the other), plus its counted self-loops, which flow
// conservation at their node takes once. The formula holds a measurable
// position exactly when that set's boundary holds a measurable counter.
// The sets are kept in a union-find forest, each root holding the number of
// measurable counters on its boundary; when two sets join, the counters
// between them are found by walking the edges of the lighter set, so that
// every edge is walked O(log E) times in all.
#include "edgeinst_internal.h"

namespace {

struct FlatPlacement {
    QuarlInstGraph *graph;
    uint32_t *unsettled;     // per block: uncalculated edges at the node
    uint32_t *unsettled_xor; // per block: XOR of their edge indices
    uint8_t *remaining;      // per block: 1 = reachable, not yet resolved
    uint32_t *parent;        // per block: union-find forest
    uint32_t *next_member;   // per block: circular list of a set's blocks
    uint64_t *weight;        // per root: incident edges of the set, plus one per block
    uint64_t *boundary;      // per root: measurable counters on the set's boundary
    uint32_t *ready;         // queue of blocks
    uint32_t *deferred;      // queue of blocks
    size_t ready_head, ready_tail, deferred_head, deferred_tail;
};

uint32_t block_of(const QuarlInstNode *node) { return node->m_seg_block_idx; }

bool is_measurable_counter(const QuarlInstEdge *edge)
{
    return edge->m_is_reachable && edge->m_is_instrumented && !edge->m_is_immeasurable;
}

uint32_t find_set(FlatPlacement *p, uint32_t block)
{
    uint32_t root = block;
    while (p->parent[root] != root)
        root = p->parent[root];
    while (p->parent[block] != root) {
        uint32_t next = p->parent[block];
        p->parent[block] = root;
        block = next;
    }
    return root;
}

// Joins two sets: the counters running between them leave the boundary.
void join_sets(FlatPlacement *p, uint32_t root1, uint32_t root2)
{
    if (p->weight[root1] < p->weight[root2]) {
        uint32_t swap = root1;
        root1 = root2;
        root2 = swap;
    }
    uint64_t inner = 0;
    uint32_t member = root2;
    do {
        const QuarlInstNode *node = p->graph->m_node_vec[member];
        for (const QuarlInstListElement *element = node->m_edges->m_head; element != nullptr;
             element = element->m_next) {
            const QuarlInstEdge *edge = static_cast<const QuarlInstEdge *>(element->m_data);
            if (edge->m_src == edge->m_dest || !is_measurable_counter(edge))
                continue;
            const QuarlInstNode *other = edge->m_src == node ? edge->m_dest : edge->m_src;
            inner += find_set(p, block_of(other)) == root1;
        }
        member = p->next_member[member];
    } while (member != root2);
    p->boundary[root1] = p->boundary[root1] + p->boundary[root2] - 2 * inner;
    p->weight[root1] += p->weight[root2];
    p->parent[root2] = root1;
    uint32_t after1 = p->next_member[root1];
    p->next_member[root1] = p->next_member[root2];
    p->next_member[root2] = after1;
}

// The edge leaves the uncalculated edges of its ends.
void settle(FlatPlacement *p, uint32_t index)
{
    const QuarlInstEdge *edge = p->graph->m_edge_vec[index];
    uint32_t src = block_of(edge->m_src), dest = block_of(edge->m_dest);
    p->unsettled[src]--;
    p->unsettled_xor[src] ^= index;
    if (dest != src) {
        p->unsettled[dest]--;
        p->unsettled_xor[dest] ^= index;
    }
}

// Flow conservation at the block gives its last unsettled edge, taken as
// the formula pass takes it: computed when the count rests on a measurable
// counter (or the edge is a pseudo edge), otherwise deferred to its far end
// or, when forced, instrumented. The same results as the formula pass's
// step.
bool resolve_last_edge(FlatPlacement *p, uint32_t block, uint32_t *ready, size_t *ready_tail,
                       uint32_t *deferred, size_t *deferred_tail, bool force)
{
    if (p->unsettled[block] != 1)
        return false;
    uint32_t index = p->unsettled_xor[block];
    QuarlInstEdge *edge = p->graph->m_edge_vec[index];
    uint32_t far_end = block_of(edge->m_dest) == block ? block_of(edge->m_src) : block_of(edge->m_dest);
    uint32_t root = find_set(p, block);
    if (edge->m_is_pseudo || p->boundary[root] > 0) {
        edge->m_is_computed = 1;
        settle(p, index);
        p->remaining[block] = 0;
        uint32_t far_root = find_set(p, far_end);
        if (far_root != root)
            join_sets(p, root, far_root);
        if (p->unsettled[far_end] <= 1 && p->remaining[far_end] == 1)
            ready[(*ready_tail)++] = far_end;
        return true;
    }
    if (!force) {
        if (deferred == nullptr)
            return false;
        deferred[(*deferred_tail)++] = far_end;
        return true;
    }
    edge->m_is_instrumented = 1;
    edge->m_is_forced_instrumented = 1;
    settle(p, index);
    if (edge->m_is_immeasurable)
        return true;
    // A new measurable counter on the boundary of the sets of both its ends
    // (of one set once, for a self-loop, whose ends are never in two sets).
    p->boundary[root]++;
    if (find_set(p, far_end) != root)
        p->boundary[find_set(p, far_end)]++;
    return false;
}

bool run_round_one(FlatPlacement *p)
{
    while (p->ready_head < p->ready_tail) {
        uint32_t block = p->ready[p->ready_head++];
        if (p->unsettled[block] == 0)
            p->remaining[block] = 0;
        else if (!resolve_last_edge(p, block, p->ready, &p->ready_tail, p->deferred, &p->deferred_tail,
                                    false))
            return false;
    }
    return true;
}

// Deferred blocks retried, forcing a counter where no acceptable count
// follows; blocks that become ready join the same queue.
void run_round_two(FlatPlacement *p)
{
    while (p->deferred_head < p->deferred_tail) {
        uint32_t block = p->deferred[p->deferred_head++];
        if (p->unsettled[block] == 0)
            p->remaining[block] = 0;
        else if (!resolve_last_edge(p, block, p->deferred, &p->deferred_tail, nullptr, nullptr, true))
            return;
    }
}

// Unreachable edges count 0 and are settled from the start; every node's
// uncalculated edges and every block's set (itself) with its boundary; the
// reachable blocks with at most one unsettled edge ready, in block order.
void set_up(FlatPlacement *p)
{
    QuarlInstGraph *graph = p->graph;
    for (uint32_t i = 0; i < graph->m_num_edges; ++i) {
        QuarlInstEdge *edge = graph->m_edge_vec[i];
        if (!edge->m_is_reachable && !edge->m_is_instrumented)
            edge->m_is_computed = 1;
        uint32_t src = block_of(edge->m_src), dest = block_of(edge->m_dest);
        if (!edge->m_is_instrumented && !edge->m_is_computed) {
            p->unsettled[src]++;
            p->unsettled_xor[src] ^= i;
            if (dest != src) {
                p->unsettled[dest]++;
                p->unsettled_xor[dest] ^= i;
            }
        }
        p->weight[src]++;
        if (dest != src)
            p->weight[dest]++;
        if (is_measurable_counter(edge)) {
            p->boundary[src]++;
            if (dest != src)
                p->boundary[dest]++;
        }
    }
    for (uint32_t i = 0; i < graph->m_num_nodes; ++i) {
        p->parent[i] = i;
        p->next_member[i] = i;
        p->weight[i]++;
        const QuarlInstNode *node = graph->m_node_vec[i];
        if (node == nullptr || !node->m_is_reachable)
            continue;
        p->remaining[i] = 1;
        if (p->unsettled[i] <= 1)
            p->ready[p->ready_tail++] = i;
    }
}

// The nodes' uncalculated lists lose the edges settled here.
void prune_uncalculated_lists(QuarlInstGraph *graph)
{
    for (uint32_t i = 0; i < graph->m_num_nodes; ++i) {
        QuarlInstNode *node = graph->m_node_vec[i];
        if (node == nullptr)
            continue;
        QuarlInstListElement *element = node->m_uncalculated_edges->m_head;
        while (element != nullptr) {
            QuarlInstListElement *next = element->m_next;
            const QuarlInstEdge *edge = static_cast<const QuarlInstEdge *>(element->m_data);
            if (edge->m_is_instrumented || edge->m_is_computed)
                quarl_inst_list_remove(node->m_uncalculated_edges, element);
            element = next;
        }
    }
}

} // namespace

extern "C" int quarl_inst_graph_adjust_instrumentation_linear(QuarlInstGraph *graph)
{
    uint32_t nodes = graph->m_num_nodes;
    // Every block enters the ready queue at most once at the start and
    // once per edge computed; the deferred queue takes at most one block
    // per entry of the ready queue, and one per edge computed in round 2.
    size_t queue_length = size_t(nodes) + 2 * size_t(graph->m_num_edges) + 1;
    FlatPlacement p = {};
    p.graph = graph;
    p.unsettled = static_cast<uint32_t *>(quarl_mem_alloc_zeroed(nodes, sizeof(uint32_t)));
    p.unsettled_xor = static_cast<uint32_t *>(quarl_mem_alloc_zeroed(nodes, sizeof(uint32_t)));
    p.remaining = static_cast<uint8_t *>(quarl_mem_alloc_zeroed(nodes, sizeof(uint8_t)));
    p.parent = static_cast<uint32_t *>(quarl_mem_alloc_zeroed(nodes, sizeof(uint32_t)));
    p.next_member = static_cast<uint32_t *>(quarl_mem_alloc_zeroed(nodes, sizeof(uint32_t)));
    p.weight = static_cast<uint64_t *>(quarl_mem_alloc_zeroed(nodes, sizeof(uint64_t)));
    p.boundary = static_cast<uint64_t *>(quarl_mem_alloc_zeroed(nodes, sizeof(uint64_t)));
    p.ready = static_cast<uint32_t *>(quarl_mem_alloc_zeroed(queue_length, sizeof(uint32_t)));
    p.deferred = static_cast<uint32_t *>(quarl_mem_alloc_zeroed(queue_length, sizeof(uint32_t)));
    int result = 0;
    if (p.unsettled != nullptr && p.unsettled_xor != nullptr && p.remaining != nullptr &&
        p.parent != nullptr && p.next_member != nullptr && p.weight != nullptr &&
        p.boundary != nullptr && p.ready != nullptr && p.deferred != nullptr) {
        set_up(&p);
        if (run_round_one(&p)) {
            run_round_two(&p);
            result = quarl_inst_nodes_all_resolved(p.remaining, nodes);
        }
        prune_uncalculated_lists(graph);
    }
    quarl_mem_free(p.deferred);
    quarl_mem_free(p.ready);
    quarl_mem_free(p.boundary);
    quarl_mem_free(p.weight);
    quarl_mem_free(p.next_member);
    quarl_mem_free(p.parent);
    quarl_mem_free(p.remaining);
    quarl_mem_free(p.unsettled_xor);
    quarl_mem_free(p.unsettled);
    return result;
}
