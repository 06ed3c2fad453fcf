// Profile use by flow conservation on flat arrays: the stored words are read
// in place, every edge of unknown count is fixed by plain arithmetic at the
// node where it is the last unknown one, and no formula is built.
//
// It gives what decoding, the formula rebuild and propagation give, for
// every input. In a rebuild that succeeds, the edges computed form a forest
// (an edge is resolved at a node only once every other edge of that node is
// settled, so no cycle of computed edges can close), and the formula of an
// edge expands, through the formulas of the edges it was derived from, into
// the counter edges at the nodes of its subtree, all with the same sign
// factor. A counter with both ends in the subtree enters twice with
// opposite signs and cancels, a self-loop enters once (it counts as
// incoming), so no position is ever united with itself and the formula's
// value is the plain arithmetic sum modulo 2^64. Which end resolves an edge
// can matter when the counters contradict each other, so nodes are taken
// in the same first-in first-out order as the rebuild.
#include "edgeinst_internal.h"

namespace {

// Node states.
const uint8_t node_reachable = 0x1;
const uint8_t node_remaining = 0x2;
const uint8_t node_counted_by_outgoing = 0x4;

uint32_t read_u32_at(const uint8_t *bytes, uint64_t at)
{
    return bytes[at] | uint32_t{bytes[at + 1]} << 8 | uint32_t{bytes[at + 2]} << 16 |
           uint32_t{bytes[at + 3]} << 24;
}

struct StoredEdge {
    uint32_t src;
    QuarlStoredRecord record;
};

// Calls visit(edge) for each edge of the stored words, in record order, and
// refuses what the decoder refuses: false for words that do not decode.
template <typename Visit>
bool for_each_stored_edge(const uint32_t *buffer, uint32_t length, Visit visit)
{
    if (length == 0 || length > UINT32_MAX / 4)
        return false;
    const uint8_t *bytes = reinterpret_cast<const uint8_t *>(buffer);
    const uint64_t end = uint64_t{length} * 4;
    uint32_t format_id = read_u32_at(bytes, 0);
    if (format_id >= c_encode_last)
        return false;
    QuarlEncodingFormat format = static_cast<QuarlEncodingFormat>(format_id);
    const uint64_t record_bytes = quarl_stored_record_bytes(format);
    const uint64_t index_bound = quarl_stored_index_bound(format, static_cast<uint32_t>(end - 4));
    StoredEdge edge = {0, {0, 0, 0}};
    for (uint64_t at = 4; at < end; at += record_bytes) {
        if (at + record_bytes > end)
            return false;
        if (format == c_encode_from_to) {
            quarl_edge_list_record_unpack(bytes + at, &edge.src, &edge.record);
            if (edge.src >= index_bound || edge.record.dest_idx >= index_bound)
                return false;
            visit(edge);
            continue;
        }
        if (!quarl_successor_record_unpack(format, bytes + at, &edge.record)) {
            ++edge.src; // an empty record, or the padding of a stored stream
            continue;
        }
        if (edge.record.dest_idx >= index_bound)
            return false;
        visit(edge);
        if (!(edge.record.flags & QUARL_RECORD_MORE_FOLLOWS))
            ++edge.src;
    }
    return true;
}

// The working memory, in two blocks: the edge arrays, sized by the number
// of stored records before the words are read, and the node arrays, sized
// once the words have named the highest node.
struct Solver {
    uint32_t num_edges, num_nodes;
    uint64_t *value;          // per edge: loaded, computed, or 0
    uint32_t *src, *dest;     // per edge
    uint32_t *adjacent;       // edge indices, node by node; a self-loop once
    uint8_t *flags;           // per edge: QUARL_RECORD_* bits
    uint64_t *incoming;       // per node
    uint64_t *outgoing;       // per node
    uint32_t *first_adjacent; // per node + 1: where its edges start in adjacent
    uint32_t *unsettled;      // per node: edges neither instrumented nor computed
    uint32_t *unsettled_xor;  // per node: XOR of those edges' indices
    uint32_t *queue;          // nodes, first in first out
    uint8_t *state;           // per node: node_* bits
    void *edge_block, *node_block;
};

bool reachable(const Solver &s, uint32_t e) { return s.flags[e] & QUARL_RECORD_REACHABLE; }
bool instrumented(const Solver &s, uint32_t e) { return s.flags[e] & QUARL_RECORD_INSTRUMENTED; }

// Places arrays one after the other from base and counts the bytes they
// take; with a null base it only counts.
class Carver {
public:
    explicit Carver(char *base) : m_base(base) {}
    template <typename T> void carve(T **array, uint64_t count)
    {
        if (m_base != nullptr)
            *array = reinterpret_cast<T *>(m_base + m_used);
        m_used += count * sizeof(T);
    }
    uint64_t used() const { return m_used; }

private:
    char *m_base;
    uint64_t m_used = 0;
};

// Each block's arrays, widest first so that each is aligned; the bytes they
// take.
uint64_t lay_out_edges(Solver &s, char *base, uint64_t edges)
{
    Carver carver(base);
    carver.carve(&s.value, edges);
    carver.carve(&s.src, edges);
    carver.carve(&s.dest, edges);
    carver.carve(&s.adjacent, 2 * edges);
    carver.carve(&s.flags, edges);
    return carver.used();
}

uint64_t lay_out_nodes(Solver &s, char *base, uint64_t nodes, uint64_t edges)
{
    Carver carver(base);
    carver.carve(&s.incoming, nodes);
    carver.carve(&s.outgoing, nodes);
    carver.carve(&s.first_adjacent, nodes + 1);
    carver.carve(&s.unsettled, nodes);
    carver.carve(&s.unsettled_xor, nodes);
    carver.carve(&s.queue, nodes + edges);
    carver.carve(&s.state, nodes);
    return carver.used();
}

template <typename LayOut> void *allocate(LayOut lay_out)
{
    uint64_t bytes = lay_out(nullptr);
    void *block = bytes <= SIZE_MAX ? quarl_mem_alloc(static_cast<size_t>(bytes)) : nullptr;
    if (block != nullptr)
        lay_out(static_cast<char *>(block));
    return block;
}

// Reads the words once into the edge arrays, the counters loaded as the
// entry point loads them, and finds the number of nodes. 0 for words that do
// not decode; -1 where the rebuild or the loading refuses the data: an
// instrumented edge that is not reachable, or a measurable counter edge
// whose index is not below num_counters.
int load_edges(Solver &s, const uint32_t *buffer, uint32_t length, const uint64_t *counters,
               uint32_t num_counters)
{
    uint32_t e = 0;
    uint64_t nodes = 0;
    bool valid = true;
    if (!for_each_stored_edge(buffer, length, [&](const StoredEdge &edge) {
            const QuarlStoredRecord &record = edge.record;
            s.src[e] = edge.src;
            s.dest[e] = record.dest_idx;
            s.flags[e] = static_cast<uint8_t>(record.flags);
            bool counted = record.flags & QUARL_RECORD_INSTRUMENTED;
            if (counted && !(record.flags & QUARL_RECORD_REACHABLE))
                valid = false;
            bool measured = counted && !(record.flags & QUARL_RECORD_IMMEASURABLE);
            if (measured && record.counter_idx >= num_counters)
                valid = false;
            s.value[e] = measured && valid ? counters[record.counter_idx] : 0;
            uint64_t highest = edge.src > record.dest_idx ? edge.src : record.dest_idx;
            if (highest + 1 > nodes)
                nodes = highest + 1;
            ++e;
        }))
        return 0;
    if (nodes > UINT32_MAX - 1)
        return 0;
    s.num_edges = e;
    s.num_nodes = static_cast<uint32_t>(nodes);
    return valid ? 1 : -1;
}

void build_adjacency(Solver &s)
{
    for (uint32_t n = 0; n < s.num_nodes; ++n) {
        s.state[n] = 0;
        s.incoming[n] = s.outgoing[n] = 0;
        s.unsettled_xor[n] = 0;
        s.first_adjacent[n] = 0;
    }
    s.first_adjacent[s.num_nodes] = 0;
    for (uint32_t e = 0; e < s.num_edges; ++e) {
        if (reachable(s, e))
            s.state[s.dest[e]] |= node_reachable;
        s.first_adjacent[s.src[e] + 1]++;
        if (s.dest[e] != s.src[e])
            s.first_adjacent[s.dest[e] + 1]++;
    }
    for (uint32_t n = 0; n < s.num_nodes; ++n)
        s.first_adjacent[n + 1] += s.first_adjacent[n];
    // unsettled doubles as the fill position of each node's run for a
    // moment; it is counted afresh below.
    for (uint32_t n = 0; n < s.num_nodes; ++n)
        s.unsettled[n] = s.first_adjacent[n];
    for (uint32_t e = 0; e < s.num_edges; ++e) {
        s.adjacent[s.unsettled[s.src[e]]++] = e;
        if (s.dest[e] != s.src[e])
            s.adjacent[s.unsettled[s.dest[e]]++] = e;
    }
    for (uint32_t n = 0; n < s.num_nodes; ++n)
        s.unsettled[n] = 0;
    // Unreachable edges count 0 and instrumented ones carry their counter:
    // both are settled from the start.
    for (uint32_t e = 0; e < s.num_edges; ++e) {
        if (!reachable(s, e) || instrumented(s, e))
            continue;
        s.unsettled[s.src[e]]++;
        s.unsettled_xor[s.src[e]] ^= e;
        if (s.dest[e] != s.src[e]) {
            s.unsettled[s.dest[e]]++;
            s.unsettled_xor[s.dest[e]] ^= e;
        }
    }
}

void settle(Solver &s, uint32_t e)
{
    s.unsettled[s.src[e]]--;
    s.unsettled_xor[s.src[e]] ^= e;
    if (s.dest[e] != s.src[e]) {
        s.unsettled[s.dest[e]]--;
        s.unsettled_xor[s.dest[e]] ^= e;
    }
}

// The node's last unsettled edge by conservation at the node: the edges on
// the other side of the node added, those on its own side subtracted; a
// self-loop counts as incoming.
void resolve_last_edge(Solver &s, uint32_t node, uint32_t last)
{
    bool last_incoming = s.dest[last] == node;
    uint64_t count = 0;
    for (uint32_t i = s.first_adjacent[node]; i < s.first_adjacent[node + 1]; ++i) {
        uint32_t e = s.adjacent[i];
        if (e == last)
            continue; // an unreachable edge holds 0 and changes nothing
        if ((s.dest[e] == node) != last_incoming)
            count += s.value[e];
        else
            count -= s.value[e];
    }
    s.value[last] = count;
    settle(s, last);
}

// The ready-queue resolution of the rebuild; false when some reachable node
// is left unresolved.
bool resolve(Solver &s)
{
    uint64_t head = 0, tail = 0;
    for (uint32_t n = 0; n < s.num_nodes; ++n) {
        if (!(s.state[n] & node_reachable))
            continue;
        s.state[n] |= node_remaining;
        if (s.unsettled[n] <= 1)
            s.queue[tail++] = n;
    }
    while (head < tail) {
        uint32_t node = s.queue[head++];
        if (s.unsettled[node] > 1)
            return false;
        s.state[node] &= static_cast<uint8_t>(~node_remaining);
        if (s.unsettled[node] == 0)
            continue;
        uint32_t last = s.unsettled_xor[node];
        resolve_last_edge(s, node, last);
        uint32_t far_end = s.dest[last] == node ? s.src[last] : s.dest[last];
        if (s.unsettled[far_end] <= 1 && (s.state[far_end] & node_remaining)) {
            // Every node is queued at most once at the start and once per
            // edge resolved.
            QUARL_CHECK_FOR("quarl_compute_blocks_from_edges", tail < uint64_t{s.num_nodes} + s.num_edges,
                            "tail < num_nodes + num_edges");
            s.queue[tail++] = far_end;
        }
    }
    for (uint32_t n = 0; n < s.num_nodes; ++n)
        if (s.state[n] & node_remaining)
            return false;
    return true;
}

// A node's count is the total of the edges entering it, or of those leaving
// it when an immeasurable edge (instrumented, or not pseudo) enters it.
void count_blocks(Solver &s, uint64_t *block_counts, uint32_t num_blocks)
{
    for (uint32_t e = 0; e < s.num_edges; ++e) {
        s.incoming[s.dest[e]] += s.value[e];
        s.outgoing[s.src[e]] += s.value[e];
        if ((s.flags[e] & QUARL_RECORD_IMMEASURABLE) &&
            (instrumented(s, e) || !(s.flags[e] & QUARL_RECORD_PSEUDO)))
            s.state[s.dest[e]] |= node_counted_by_outgoing;
    }
    for (uint32_t b = 0; b < num_blocks; ++b) {
        if (b >= s.num_nodes)
            block_counts[b] = 0;
        else
            block_counts[b] = (s.state[b] & node_counted_by_outgoing) ? s.outgoing[b] : s.incoming[b];
    }
}

} // namespace

extern "C" int32_t quarl_compute_blocks_by_conservation(const uint32_t *buffer, uint32_t length,
                                                       const uint64_t *counters,
                                                       uint32_t num_counters,
                                                       uint64_t *block_counts, uint32_t num_blocks)
{
    // Every edge is one stored record at most, so the record count sizes
    // the edge arrays before the words are read.
    Solver s = {};
    if (length == 0 || length > UINT32_MAX / 4)
        return 0;
    uint32_t format_id = read_u32_at(reinterpret_cast<const uint8_t *>(buffer), 0);
    if (format_id >= c_encode_last)
        return 0;
    uint64_t records =
        (uint64_t{length} * 4 - 4) / quarl_stored_record_bytes(static_cast<QuarlEncodingFormat>(format_id));
    s.edge_block = allocate([&](char *base) { return lay_out_edges(s, base, records); });
    if (s.edge_block == nullptr)
        return 0;
    int loaded = load_edges(s, buffer, length, counters, num_counters);
    if (loaded != 0)
        s.node_block = allocate([&](char *base) { return lay_out_nodes(s, base, s.num_nodes, s.num_edges); });
    int32_t result = 0;
    if (loaded == 1 && s.node_block != nullptr) {
        build_adjacency(s);
        if (resolve(s)) {
            count_blocks(s, block_counts, num_blocks);
            result = 1;
        }
    }
    quarl_mem_free(s.node_block);
    quarl_mem_free(s.edge_block);
    return result;
}
