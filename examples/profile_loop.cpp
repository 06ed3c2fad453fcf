// Both moments of profile-guided optimisation on a while loop, in C++.
// Prints each block's count and exits with 1 if one is wrong.
#include <quarl/edgeinst.h>

#include <cstdio>
#include <memory>
#include <vector>

namespace {

struct GraphDeleter {
    void operator()(QuarlInstGraph *graph) const { quarl_inst_graph_delete(graph); }
};
struct EncodedDeleter {
    void operator()(QuarlEncodedGraph *encoded) const { quarl_encoded_graph_delete(encoded); }
};

struct Edge {
    uint32_t src, dest;
    bool pseudo;
    int64_t cost;
    uint64_t run_count; // 3 calls, 27 trips round the loop
};

// Blocks: 0 pseudo entry, 1 set-up, 2 loop test, 3 body, 4 return, 5 pseudo exit.
const std::vector<Edge> edges = {
    {0, 1, true, 0, 3},   {1, 2, false, 1, 3},  {2, 3, false, 10, 27}, {3, 2, false, 10, 27},
    {2, 4, false, 1, 3},  {4, 5, true, 0, 3},   {5, 0, true, 0, 3},
};
const uint32_t num_blocks = 6;

// What the compiler keeps per routine.
struct Instrumented {
    std::vector<uint32_t> words;          // stored beside the counters
    std::vector<int64_t> counter_of_edge; // -1: no counter on the edge
    uint32_t num_counters = 0;
};

bool instrument(Instrumented *out)
{
    std::unique_ptr<QuarlInstGraph, GraphDeleter> graph(quarl_inst_graph_create());
    if (!graph)
        return false;
    for (uint32_t b = 0; b < num_blocks; ++b) {
        QuarlInstNode *node = quarl_inst_graph_add_node(graph.get(), b);
        if (node == nullptr)
            return false;
        node->m_is_reachable = 1;
        node->m_is_pseudo_entry = b == 0;
        node->m_is_pseudo_exit = b == num_blocks - 1;
    }
    std::vector<QuarlInstEdge *> made;
    for (const Edge &transfer : edges) {
        QuarlInstEdge *edge = quarl_inst_graph_add_edge(
            graph.get(), graph->m_node_vec[transfer.src], graph->m_node_vec[transfer.dest]);
        if (edge == nullptr)
            return false;
        edge->m_is_reachable = 1;
        edge->m_is_pseudo = transfer.pseudo;
        edge->m_cost = transfer.cost;
        made.push_back(edge);
    }
    out->num_counters = quarl_inst_graph_select_counters(graph.get());
    if (out->num_counters == QUARL_SELECT_COUNTERS_FAILED ||
        !quarl_inst_graph_adjust_instrumentation(graph.get()))
        return false;
    std::unique_ptr<QuarlEncodedGraph, EncodedDeleter> encoded(
        quarl_inst_graph_encode(graph.get()));
    if (!encoded)
        return false;
    out->words.resize(quarl_encoded_graph_length(encoded.get()));
    quarl_stream_reset(encoded->m_stream);
    uint32_t length = static_cast<uint32_t>(out->words.size());
    if (quarl_stream_read(encoded->m_stream, out->words.data(), 4, length) != length)
        return false;
    for (const QuarlInstEdge *edge : made)
        out->counter_of_edge.push_back(
            edge->m_is_instrumented ? static_cast<int64_t>(edge->m_counter_idx) : -1);
    return true;
}

} // namespace

int main()
{
    Instrumented routine;
    if (!instrument(&routine)) {
        std::fprintf(stderr, "instrumentation failed\n");
        return 1;
    }
    // The training run: each counter collects its edge's count.
    std::vector<uint64_t> counters(routine.num_counters);
    for (size_t e = 0; e < edges.size(); ++e)
        if (routine.counter_of_edge[e] >= 0)
            counters[static_cast<size_t>(routine.counter_of_edge[e])] = edges[e].run_count;

    // Profile use: block counts from the stored words and the counters.
    std::vector<uint64_t> blocks(num_blocks);
    if (!quarl_compute_blocks_from_edges(routine.words.data(),
                                         static_cast<uint32_t>(routine.words.size()),
                                         counters.data(), routine.num_counters, blocks.data(),
                                         num_blocks)) {
        std::fprintf(stderr, "profile use failed\n");
        return 1;
    }
    bool wrong = false;
    for (uint32_t b = 0; b < num_blocks; ++b) {
        uint64_t expected = 0;
        for (const Edge &edge : edges)
            expected += edge.dest == b ? edge.run_count : 0;
        std::printf("block %u: %llu\n", b, static_cast<unsigned long long>(blocks[b]));
        wrong = wrong || blocks[b] != expected;
    }
    std::printf("%u counters, %s\n", routine.num_counters,
                wrong ? "WRONG counts" : "counts match the run");
    return wrong ? 1 : 0;
}
