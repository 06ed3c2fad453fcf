// Helpers shared by the test suites: graph builders, output capture,
// allocation-failure sweeps and a generator of routines with true counts.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "edgeinst_internal.h"

namespace quarl_test {

// ---- Ownership ------------------------------------------------------------

// unique_ptr calls its deleter only on a non-null pointer.
template <auto Delete> struct Deleter {
    template <typename T> void operator()(T *object) const { Delete(object); }
};
using GraphPtr = std::unique_ptr<QuarlInstGraph, Deleter<quarl_inst_graph_delete>>;
using EncodedGraphPtr = std::unique_ptr<QuarlEncodedGraph, Deleter<quarl_encoded_graph_delete>>;
using StreamPtr = std::unique_ptr<QuarlStream, Deleter<quarl_stream_delete>>;

// ---- Building graphs --------------------------------------------------------

// One edge of a graph under test; flags default to a plain reachable edge.
struct EdgeSpec {
    uint32_t src;
    uint32_t dest;
    bool instrumented = false;
    uint32_t counter = 0;
    bool reachable = true;
    bool pseudo = false;
    bool immeasurable = false;
    int64_t cost = 0;
};

// Nodes 0 .. num_nodes-1 (all reachable unless listed in unreachable_nodes),
// then the edges in order; instrumented edges are marked through
// quarl_inst_edge_set_as_instrumented. m_num_counters is one more than the
// highest counter index of an instrumented edge. Null if the graph cannot be
// created; stops at a node or edge refused by an allocation failure, checking
// that nothing was added.
GraphPtr build_graph(uint32_t num_nodes, const std::vector<EdgeSpec> &edges,
                     const std::vector<uint32_t> &unreachable_nodes = {});

// Edges from text: "0>1 2>0im 1>2:-5 0>2i#3" is source>destination, then
// flags (i instrumented, p pseudo, m immeasurable, u unreachable), ":cost"
// and "#counter".
std::vector<EdgeSpec> edges_of(const std::string &text);

// The edge at index i of the graph's edge vector.
inline QuarlInstEdge *edge_at(const GraphPtr &graph, uint32_t i) { return graph->m_edge_vec[i]; }
inline QuarlInstNode *node_at(const GraphPtr &graph, uint32_t i)
{
    return quarl_inst_graph_find_node_by_idx(graph.get(), i);
}

// The positions set in a bitset, ascending.
std::vector<uint32_t> positions_of(const QuarlInstBitset *bitset);

// A bitset of the given size with the given positions set.
QuarlInstBitset *bitset_with(const std::vector<uint32_t> &positions, uint32_t bits);

// An edge's formula by position, "(+0+3-1)"; "" without formula bitsets.
std::string formula_text(const QuarlInstEdge *edge);

// The items of a list head to tail; checks that the backward links, the tail
// and the count agree with them.
std::vector<const void *> list_items(const QuarlInstList *list);

// Whether each node's uncalculated list (checked as by list_items) holds
// exactly its incident edges that are neither instrumented nor computed.
bool lists_match_flags(const QuarlInstGraph *graph);

// The stored words of an encoded graph (quarl_encoded_graph_length of them).
std::vector<uint32_t> stored_words(const QuarlEncodedGraph *encoded);

// ---- Output -------------------------------------------------------------------

// What write() writes to a FILE stream.
std::string capture_file_output(const std::function<void(FILE *)> &write);

// What run() writes to the standard error stream.
std::string capture_stderr(const std::function<void()> &run);

// Sets the trace mask for one scope and clears it after.
class TraceMaskScope {
public:
    explicit TraceMaskScope(uint32_t mask) { quarl_inst_trace_mask_set(mask); }
    ~TraceMaskScope() { quarl_inst_trace_mask_set(0); }
    TraceMaskScope(const TraceMaskScope &) = delete;
    TraceMaskScope &operator=(const TraceMaskScope &) = delete;
};

// ---- Allocation failures -------------------------------------------------------

// Runs scenario once for each allocation that its armed part makes, with
// that allocation failing: k = 1, 2, ... until a run completes with no
// failure delivered. The scenario builds what it needs, calls
// arm_allocation_failure() just before the operation under test, and checks
// the result against allocation_failure_delivered(). Each run must leave
// nothing allocated. Returns the number of allocations covered (runs with a
// failure).
uint64_t sweep_allocation_failures(const std::function<void()> &scenario);
void arm_allocation_failure();
bool allocation_failure_delivered();

// ---- Generated routines ----------------------------------------------------------

// A strongly connected routine without self-loops: block 0 is the entry,
// block num_nodes-1 the exit, a chain 0 -> 1 -> ... -> exit, random extra
// edges (branches, loops, parallel edges), and last a pseudo edge from the
// exit to the entry. Counters sit on the edges off a random spanning tree,
// numbered in edge order. edge_counts is a valid flow (a sum of random
// cycles) and block_counts each block's incoming total.
struct Routine {
    uint32_t num_nodes = 0;
    std::vector<EdgeSpec> edges;
    std::vector<uint64_t> edge_counts;
    std::vector<uint64_t> block_counts;
    uint32_t num_counters = 0;

    // counters[c]: the true count of the edge carrying counter c, as marked
    // in the routine's edges or, if given, in its graph (same edge order).
    std::vector<uint64_t> counter_values(const QuarlInstGraph *graph = nullptr) const;
};

Routine generate_routine(std::mt19937_64 &rng, uint32_t num_nodes, uint32_t extra_edges);

// Builds the routine's graph with its counters marked.
GraphPtr build_routine_graph(const Routine &routine);

// The routine with no counter marked.
Routine without_counters(Routine routine);

// Whether the placement pass succeeds on the graph without forcing a counter.
bool placed_unforced(const GraphPtr &graph);

} // namespace quarl_test
