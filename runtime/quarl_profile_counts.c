/* Counts from a profile record through Quarl's public API. A record is
 * untrusted: the profile-use entry point, which checks everything, must
 * accept its words and counters before the graph is decoded; the edge
 * counts are then derived by flow conservation over flat arrays, and the
 * node counts they give must be the entry point's. */
#include "quarl_profile_counts.h"

#include <stdlib.h>
#include <string.h>

#include "quarl/edgeinst.h"

/* A derivation in progress: the record's edges with their counts, the
 * edges incident to each node (a self-loop once), and what is left to do. */
typedef struct Flow {
    uint32_t num_nodes, num_edges;
    QuarlProfileEdge *edges; /* the result, handed to the caller */
    uint8_t *known;          /* per edge */
    uint8_t *counted_out;    /* per node: counted by its outgoing edges */
    uint32_t *first;         /* node n's edges: incident[first[n] .. first[n + 1]) */
    uint32_t *incident;
    uint32_t *scratch; /* num_nodes + num_edges * 2 words for the worklist and the repair */
} Flow;

static void flow_release(Flow *flow)
{
    free(flow->edges);
    free(flow->known);
    free(flow->counted_out);
    free(flow->first);
    free(flow->incident);
    free(flow->scratch);
    memset(flow, 0, sizeof *flow);
}

static int is_negative(uint64_t count) { return count > (uint64_t)INT64_MAX; }

/* The decoded graph as flat arrays, counted edges loaded. */
static int flow_load(Flow *flow, const QuarlProfileFunction *function, const QuarlInstGraph *graph)
{
    uint32_t nodes = graph->m_num_nodes > function->num_nodes ? graph->m_num_nodes : function->num_nodes;
    uint32_t edges = graph->m_num_edges;
    flow->num_nodes = nodes;
    flow->num_edges = edges;
    flow->edges = malloc(sizeof *flow->edges * edges + 1);
    flow->known = malloc(edges + 1);
    flow->counted_out = calloc(nodes + 1, 1);
    flow->first = calloc((size_t)nodes + 1, sizeof *flow->first);
    flow->incident = malloc(sizeof *flow->incident * 2 * (size_t)edges + 1);
    flow->scratch = malloc(sizeof *flow->scratch * ((size_t)nodes + 2 * (size_t)edges) + 1);
    if (!flow->edges || !flow->known || !flow->counted_out || !flow->first || !flow->incident || !flow->scratch)
        return 0;
    for (uint32_t i = 0; i < edges; ++i) {
        const QuarlInstEdge *edge = graph->m_edge_vec[i];
        if (edge == NULL)
            return 0;
        int measured = edge->m_is_instrumented && !edge->m_is_immeasurable;
        if (measured && edge->m_counter_idx >= function->num_counters)
            return 0;
        QuarlProfileEdge *out = &flow->edges[i];
        out->src = edge->m_src->m_seg_block_idx;
        out->dest = edge->m_dest->m_seg_block_idx;
        out->count = measured ? function->counters[edge->m_counter_idx] : 0;
        out->counter = edge->m_is_instrumented ? edge->m_counter_idx : QUARL_PROFILE_NO_COUNTER;
        out->is_pseudo = edge->m_is_pseudo;
        flow->known[i] = edge->m_is_instrumented || !edge->m_is_reachable;
        /* A block entered by an edge that cannot be measured is counted by
         * the edges that leave it. */
        if (edge->m_is_immeasurable && (edge->m_is_instrumented || !edge->m_is_pseudo))
            flow->counted_out[out->dest] = 1;
        flow->first[out->src + 1]++;
        if (out->dest != out->src)
            flow->first[out->dest + 1]++;
    }
    for (uint32_t n = 0; n < nodes; ++n)
        flow->first[n + 1] += flow->first[n];
    uint32_t *fill = flow->scratch;
    memcpy(fill, flow->first, sizeof *fill * nodes);
    for (uint32_t i = 0; i < edges; ++i) {
        flow->incident[fill[flow->edges[i].src]++] = i;
        if (flow->edges[i].dest != flow->edges[i].src)
            flow->incident[fill[flow->edges[i].dest]++] = i;
    }
    return 1;
}

/* Flow conservation: a node with one edge of unknown count left gives it
 * (an edge from a node to itself counts as entering it only). Returns 0 if
 * some edge stays unknown. */
static int flow_propagate(Flow *flow)
{
    uint32_t *unknown = flow->scratch, *work = flow->scratch + flow->num_nodes, pending = 0;
    memset(unknown, 0, sizeof *unknown * flow->num_nodes);
    for (uint32_t i = 0; i < flow->num_edges; ++i)
        if (!flow->known[i]) {
            unknown[flow->edges[i].src]++;
            if (flow->edges[i].dest != flow->edges[i].src)
                unknown[flow->edges[i].dest]++;
        }
    for (uint32_t n = 0; n < flow->num_nodes; ++n)
        if (unknown[n] == 1)
            work[pending++] = n;
    while (pending != 0) {
        uint32_t n = work[--pending], last = UINT32_MAX;
        if (unknown[n] != 1)
            continue;
        uint64_t in = 0, out = 0;
        for (uint32_t k = flow->first[n]; k < flow->first[n + 1]; ++k) {
            uint32_t i = flow->incident[k];
            if (!flow->known[i])
                last = i;
            else if (flow->edges[i].dest == n)
                in += flow->edges[i].count;
            else
                out += flow->edges[i].count;
        }
        QuarlProfileEdge *fixed = &flow->edges[last];
        fixed->count = fixed->dest == n ? out - in : in - out;
        flow->known[last] = 1;
        uint32_t far = fixed->dest == n ? fixed->src : fixed->dest;
        unknown[n]--;
        if (far != n && --unknown[far] == 1)
            work[pending++] = far;
    }
    for (uint32_t i = 0; i < flow->num_edges; ++i)
        if (!flow->known[i])
            return 0;
    return 1;
}

/* Each node's count: the sum of the edges entering it, or of those leaving
 * it where an unmeasurable edge enters. */
static void flow_node_counts(const Flow *flow, uint64_t *counts, uint32_t num_counts)
{
    memset(counts, 0, sizeof *counts * num_counts);
    for (uint32_t i = 0; i < flow->num_edges; ++i) {
        const QuarlProfileEdge *edge = &flow->edges[i];
        if (edge->dest < num_counts && !flow->counted_out[edge->dest])
            counts[edge->dest] += edge->count;
        if (edge->src < num_counts && flow->counted_out[edge->src])
            counts[edge->src] += edge->count;
    }
}

/* A max-heap of (width, node) for the widest-path search. */
typedef struct HeapItem {
    int64_t width;
    uint32_t node;
} HeapItem;

static void heap_push(HeapItem *heap, uint32_t *size, HeapItem item)
{
    uint32_t at = (*size)++;
    while (at > 0 && heap[(at - 1) / 2].width < item.width) {
        heap[at] = heap[(at - 1) / 2];
        at = (at - 1) / 2;
    }
    heap[at] = item;
}

static HeapItem heap_pop(HeapItem *heap, uint32_t *size)
{
    HeapItem top = heap[0], last = heap[--*size];
    uint32_t at = 0;
    for (;;) {
        uint32_t child = 2 * at + 1;
        if (child >= *size)
            break;
        if (child + 1 < *size && heap[child + 1].width > heap[child].width)
            ++child;
        if (heap[child].width <= last.width)
            break;
        heap[at] = heap[child];
        at = child;
    }
    if (*size > 0)
        heap[at] = last;
    return top;
}

/* The tree of widest paths from node 0 (forward: along edges; backward:
 * against them, so the paths lead to node 0): via[n] is the edge by which
 * n is reached, UINT32_MAX for node 0 and nodes not reached, depth[n] the
 * number of edges from node 0; order lists the nodes reached, each after
 * the node it is reached from. */
typedef struct Tree {
    uint32_t *via, *depth, *order, num_order;
} Tree;

static void tree_release(Tree *tree)
{
    free(tree->via);
    free(tree->depth);
    free(tree->order);
}

static int widest_tree(const Flow *flow, int forward, Tree *tree)
{
    uint32_t nodes = flow->num_nodes, size = 0;
    tree->via = malloc(sizeof *tree->via * ((size_t)nodes + 1));
    tree->depth = malloc(sizeof *tree->depth * ((size_t)nodes + 1));
    tree->order = malloc(sizeof *tree->order * ((size_t)nodes + 1));
    tree->num_order = 0;
    HeapItem *heap = malloc(sizeof *heap * ((size_t)flow->num_edges + 1));
    int64_t *width = malloc(sizeof *width * ((size_t)nodes + 1));
    uint8_t *done = calloc((size_t)nodes + 1, 1);
    int ok = tree->via && tree->depth && tree->order && heap && width && done;
    for (uint32_t n = 0; ok && n < nodes; ++n) {
        tree->via[n] = UINT32_MAX;
        width[n] = INT64_MIN;
    }
    if (ok && nodes != 0) {
        width[0] = INT64_MAX;
        heap_push(heap, &size, (HeapItem){INT64_MAX, 0});
    }
    while (ok && size != 0) {
        HeapItem item = heap_pop(heap, &size);
        uint32_t n = item.node;
        if (done[n] || item.width != width[n])
            continue;
        done[n] = 1;
        tree->order[tree->num_order++] = n;
        uint32_t via = tree->via[n];
        tree->depth[n] = via == UINT32_MAX ? 0 : 1 + tree->depth[forward ? flow->edges[via].src : flow->edges[via].dest];
        for (uint32_t k = flow->first[n]; k < flow->first[n + 1]; ++k) {
            uint32_t i = flow->incident[k];
            const QuarlProfileEdge *edge = &flow->edges[i];
            uint32_t from = forward ? edge->src : edge->dest, to = forward ? edge->dest : edge->src;
            if (from != n || to == n || done[to])
                continue;
            /* Every path to an edge below zero runs through it: such edges
             * leave the width to the others. */
            int64_t count = is_negative(edge->count) ? INT64_MAX : (int64_t)edge->count;
            int64_t through = count < item.width ? count : item.width;
            if (through > width[to] || tree->via[to] == UINT32_MAX) {
                width[to] = through;
                tree->via[to] = i;
                heap_push(heap, &size, (HeapItem){through, to}); /* at most one push per edge */
            }
        }
    }
    free(heap);
    free(width);
    free(done);
    return ok;
}

/* Adds amount along the tree's path from node n to node 0. */
static void add_along(Flow *flow, const Tree *tree, int forward, uint32_t n, uint64_t amount)
{
    while (n != 0) {
        QuarlProfileEdge *edge = &flow->edges[tree->via[n]];
        edge->count += amount;
        n = forward ? edge->src : edge->dest;
    }
}

/* Adds what each node needs along the tree's paths to node 0, all nodes in
 * one pass, leaves first. */
static void add_needs(Flow *flow, const Tree *tree, int forward, uint64_t *need)
{
    for (uint32_t k = tree->num_order; k-- > 1;) {
        uint32_t n = tree->order[k];
        QuarlProfileEdge *edge = &flow->edges[tree->via[n]];
        edge->count += need[n];
        need[forward ? edge->src : edge->dest] += need[n];
    }
}

/* Makes every count at least zero, keeping flow conserved: each edge still
 * below zero, in stored order, gets its deficit back along the widest paths
 * from node 0 to it and from it to node 0, which may lift other edges below
 * zero on the way. Walking the paths one edge at a time is bounded by a
 * budget linear in the graph; deficits past it are carried all together in
 * one pass over the trees. Sets *repaired to the number of edges below
 * zero; returns 0 when memory runs out, such an edge lies on no cycle
 * through node 0, or counts near 2^64 leave one below zero all the same. */
static int flow_repair(Flow *flow, uint32_t *repaired)
{
    *repaired = 0;
    for (uint32_t i = 0; i < flow->num_edges; ++i)
        *repaired += is_negative(flow->edges[i].count);
    if (*repaired == 0)
        return 1;
    uint32_t nodes = flow->num_nodes;
    Tree to = {0}, from = {0};
    uint64_t *to_need = calloc((size_t)nodes + 1, sizeof *to_need);
    uint64_t *from_need = calloc((size_t)nodes + 1, sizeof *from_need);
    int ok = to_need && from_need && widest_tree(flow, 1, &to) && widest_tree(flow, 0, &from);
    uint64_t budget = 16 * ((uint64_t)nodes + flow->num_edges), deferred = 0;
    for (uint32_t i = 0; ok && i < flow->num_edges; ++i) {
        QuarlProfileEdge *edge = &flow->edges[i];
        if (!is_negative(edge->count))
            continue;
        ok = (edge->src == 0 || to.via[edge->src] != UINT32_MAX) &&
             (edge->dest == 0 || from.via[edge->dest] != UINT32_MAX);
        if (!ok)
            break;
        uint64_t deficit = 0 - edge->count, steps = (uint64_t)to.depth[edge->src] + from.depth[edge->dest];
        edge->count = 0;
        if (steps <= budget) {
            budget -= steps;
            add_along(flow, &to, 1, edge->src, deficit);
            add_along(flow, &from, 0, edge->dest, deficit);
        } else {
            to_need[edge->src] += deficit;
            from_need[edge->dest] += deficit;
            deferred = 1;
        }
    }
    if (ok && deferred) {
        add_needs(flow, &to, 1, to_need);
        add_needs(flow, &from, 0, from_need);
    }
    /* Counters near 2^64 (no run counts that far) can carry a sum past
     * 2^63 again: such a record is damaged. */
    for (uint32_t i = 0; ok && i < flow->num_edges; ++i)
        ok = !is_negative(flow->edges[i].count);
    tree_release(&to);
    tree_release(&from);
    free(to_need);
    free(from_need);
    return ok;
}

/* Derives and repairs the record's counts into flow; nodes gets the node
 * counts (function->num_nodes of them). */
static int derive(const QuarlProfileFunction *function, Flow *flow, uint64_t *nodes, uint32_t *repaired)
{
    memset(flow, 0, sizeof *flow);
    /* The entry point accepts only words that decode into a graph the
     * counters resolve, with every counter index in range. */
    if (quarl_compute_blocks_from_edges(function->words, function->num_words, function->counters,
                                        function->num_counters, nodes, function->num_nodes) != 1)
        return 0;
    QuarlInstGraph *graph = quarl_inst_graph_create();
    QuarlEncodedGraph *encoded = quarl_encoded_graph_create_from_buffer(function->words, function->num_words);
    int ok = graph != NULL && encoded != NULL && quarl_encoded_graph_decode(encoded, graph) == 1 &&
             flow_load(flow, function, graph) && flow_propagate(flow);
    quarl_encoded_graph_delete(encoded);
    quarl_inst_graph_delete(graph);
    uint64_t *again = ok ? malloc(sizeof *again * function->num_nodes + 1) : NULL;
    if (again != NULL) {
        flow_node_counts(flow, again, function->num_nodes);
        ok = memcmp(again, nodes, sizeof *again * function->num_nodes) == 0 && flow_repair(flow, repaired);
        if (ok && *repaired != 0)
            flow_node_counts(flow, nodes, function->num_nodes);
    }
    free(again);
    if (again == NULL || !ok) {
        flow_release(flow);
        return 0;
    }
    return 1;
}

int quarl_profile_node_counts(const QuarlProfileFunction *function, uint64_t *counts, uint32_t *repaired_edges)
{
    uint32_t repaired = 0;
    if (function->flags & QUARL_PROFILE_DIRECT_COUNTS) {
        if (function->num_counters != function->num_blocks || function->num_nodes < 2)
            return 0;
        counts[0] = counts[1] = 0;
        for (uint32_t i = 0; i < function->num_blocks; ++i)
            counts[2 + i] = function->counters[i];
        for (uint32_t n = 2 + function->num_blocks; n < function->num_nodes; ++n)
            counts[n] = 0;
    } else {
        /* Written only on success. */
        uint64_t *nodes = malloc(sizeof *nodes * function->num_nodes + 1);
        Flow flow;
        if (nodes == NULL || !derive(function, &flow, nodes, &repaired)) {
            free(nodes);
            return 0;
        }
        memcpy(counts, nodes, sizeof *nodes * function->num_nodes);
        flow_release(&flow);
        free(nodes);
    }
    if (repaired_edges != NULL)
        *repaired_edges = repaired;
    return 1;
}

int quarl_profile_edge_counts(const QuarlProfileFunction *function, QuarlProfileEdge **edges,
                              uint32_t *num_edges, uint32_t *repaired_edges)
{
    *edges = NULL;
    *num_edges = 0;
    if (function->flags & QUARL_PROFILE_DIRECT_COUNTS)
        return 0;
    uint64_t *nodes = malloc(sizeof *nodes * function->num_nodes + 1);
    uint32_t repaired = 0;
    Flow flow;
    if (nodes == NULL || !derive(function, &flow, nodes, &repaired)) {
        free(nodes);
        return 0;
    }
    *edges = flow.edges;
    *num_edges = flow.num_edges;
    flow.edges = NULL;
    flow_release(&flow);
    free(nodes);
    if (repaired_edges != NULL)
        *repaired_edges = repaired;
    return 1;
}
