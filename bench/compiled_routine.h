// Routines shaped like compiled code, for benchmarks and tests: structured
// statements (nested while and do-while loops, if/else chains, switches with
// many cases, shared case blocks and fall-through, early returns, breaks and
// continues) lowered to a control-flow graph the way a compiler lowers them.
#pragma once

#include <cstdint>
#include <vector>

#include "quarl/edgeinst.h"

namespace quarl_bench {

struct RoutineEdge {
    uint32_t src, dest;
    int64_t cost; // static frequency estimate: loops x8, branches split
    bool pseudo;
};

// Block 0 is the pseudo entry, block 1 the pseudo exit, block 2 the first
// real block. The first edge is the pseudo edge 0 -> 2, every return is a
// pseudo edge to block 1, and the last edge is the pseudo edge 1 -> 0, so
// flow is conserved at every block. Every block is reachable.
struct CompiledRoutine {
    uint32_t num_blocks = 0;
    std::vector<RoutineEdge> edges;
};

// A routine of about num_edges edges (at least 5), the same for the same
// seed.
CompiledRoutine make_compiled_routine(uint32_t num_edges, uint64_t seed);

// The graph-building calls of one copy of the library: the linked one, or
// one loaded at run time (to compare two builds in one process).
struct GraphCalls {
    QuarlInstGraph *(*create)();
    QuarlInstNode *(*add_node)(QuarlInstGraph *, uint32_t);
    QuarlInstEdge *(*add_edge)(QuarlInstGraph *, QuarlInstNode *, QuarlInstNode *);
    void (*destroy)(QuarlInstGraph *);
};

// The routine as a graph: every node and edge reachable, pseudo flags and
// costs set, no counter chosen. Null when memory runs out.
QuarlInstGraph *build_compiled_graph(const CompiledRoutine &routine, const GraphCalls &calls);
inline QuarlInstGraph *build_compiled_graph(const CompiledRoutine &routine)
{
    static const GraphCalls linked = {quarl_inst_graph_create, quarl_inst_graph_add_node, quarl_inst_graph_add_edge,
                                      quarl_inst_graph_delete};
    return build_compiled_graph(routine, linked);
}

// A flow over the routine: the count of every edge, a sum of the counts of
// random cycles through the exit-to-entry edge and through loops, so that
// counts are conserved at every block.
std::vector<uint64_t> make_flow(const CompiledRoutine &routine, uint64_t seed);

} // namespace quarl_bench
