// Separate graphs, encoded graphs and streams used from separate threads at
// once: each thread instruments its own routines, stores them, reads their
// profiles back and checks its own answers. Public interface only, so that
// it can run under ThreadSanitizer against the plain library.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <random>
#include <thread>
#include <vector>

#include "quarl/edgeinst.h"

namespace {

struct FlowEdge {
    uint32_t src, dest;
    uint64_t count;
};

// 0 -> 1 -> ... -> exit, random branches and loops, a pseudo edge back to
// 0 (last); the counts are a valid flow: cycles through one random edge,
// closed along the chain and the pseudo edge.
std::vector<FlowEdge> make_routine(std::mt19937_64 &rng, uint32_t num_nodes)
{
    uint32_t exit = num_nodes - 1;
    std::vector<FlowEdge> edges;
    for (uint32_t i = 0; i < exit; ++i)
        edges.push_back({i, i + 1, 0});
    for (uint32_t e = 0; e < num_nodes; ++e)
        if (uint32_t src = rng() % exit, dest = rng() % num_nodes; src != dest)
            edges.push_back({src, dest, 0});
    edges.push_back({exit, 0, 0});
    for (int cycle = 0; cycle < 8; ++cycle) {
        FlowEdge &through = edges[rng() % (edges.size() - 1)];
        uint64_t weight = 1 + rng() % 1000;
        through.count += weight;
        edges.back().count += weight;
        for (uint32_t i = 0; i < exit; ++i) // chain edge i: down from dest, and up to src
            edges[i].count += (i >= through.dest ? weight : 0) + (i < through.src ? weight : 0);
    }
    return edges;
}

// One round trip with dumps on the side; the number of things that went wrong.
int round_trip(std::mt19937_64 &rng, uint32_t num_nodes, FILE *out)
{
    std::vector<FlowEdge> flow = make_routine(rng, num_nodes);
    QuarlInstGraph *graph = quarl_inst_graph_create();
    for (uint32_t i = 0; i < num_nodes; ++i)
        quarl_inst_graph_add_node(graph, i)->m_is_reachable = 1;
    std::vector<uint64_t> truth(num_nodes, 0), blocks(num_nodes, 0);
    for (const FlowEdge &f : flow) {
        QuarlInstEdge *edge = quarl_inst_graph_add_edge(graph, graph->m_node_vec[f.src],
                                                        graph->m_node_vec[f.dest]);
        edge->m_is_reachable = 1;
        edge->m_is_pseudo = &f == &flow.back();
        edge->m_cost = static_cast<int64_t>(f.count % 7);
        truth[f.dest] += f.count;
    }
    int errors = quarl_inst_graph_select_counters(graph) == QUARL_SELECT_COUNTERS_FAILED;
    errors += quarl_inst_graph_adjust_instrumentation(graph) != 1;
    std::vector<uint64_t> counters(graph->m_num_counters);
    for (uint32_t i = 0; i < graph->m_num_edges; ++i)
        if (graph->m_edge_vec[i]->m_is_instrumented)
            counters[graph->m_edge_vec[i]->m_counter_idx] = flow[i].count;
    quarl_inst_graph_print_dot_graph(graph, out, "routine", 15, 31);
    QuarlEncodedGraph *encoded = quarl_inst_graph_encode(graph);
    QuarlEncodedGraph *copy = quarl_encoded_graph_copy(encoded);
    quarl_encoded_graph_delete(encoded);
    quarl_inst_graph_delete(graph);
    quarl_encoded_graph_print(copy, out);
    std::vector<uint32_t> words(quarl_encoded_graph_length(copy));
    quarl_stream_reset(copy->m_stream);
    errors += quarl_stream_read(copy->m_stream, words.data(), 4, words.size()) != words.size();
    quarl_encoded_graph_delete(copy);
    errors += quarl_compute_blocks_from_edges(words.data(), words.size(), counters.data(),
                                              counters.size(), blocks.data(), num_nodes) != 1;
    return errors + (blocks != truth);
}

TEST(Threads, IndependentRoundTripsRunInParallel)
{
    quarl_inst_trace_mask_set(0); // set before the work, only read during it
    const int num_threads = 6;
    std::vector<int> errors(num_threads, 0);
    std::atomic<bool> start{false}; // so that the threads overlap
    std::vector<std::thread> threads;
    for (int t = 0; t < num_threads; ++t) {
        threads.emplace_back([t, &errors, &start] {
            while (!start.load())
                std::this_thread::yield();
            std::mt19937_64 rng(1000 + t);
            FILE *out = fopen("/dev/null", "w");
            for (int r = 0; r < 40; ++r) // sizes across c_encode16 and c_encode32
                errors[t] += round_trip(rng, 2 + static_cast<uint32_t>(rng() % 60), out);
            fclose(out);
        });
    }
    start.store(true);
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(errors, std::vector<int>(num_threads, 0));
}

} // namespace
