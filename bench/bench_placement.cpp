// Counter selection, the placement pass and the profile-use entry point on
// generated routines of a given number of edges.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>
#include <vector>

#include "quarl/edgeinst.h"

namespace {

struct Edge {
    uint32_t src, dest;
    int64_t cost;
};

// A routine of num_edges edges over num_edges / 3 blocks: a chain from the
// entry to the exit, random branches and loops, and a pseudo edge from the
// exit back to the entry.
std::vector<Edge> make_routine(uint32_t num_edges, uint32_t *num_nodes)
{
    std::mt19937_64 rng(num_edges);
    uint32_t nodes = num_edges / 3 + 2, exit = nodes - 1;
    std::vector<Edge> edges;
    for (uint32_t i = 0; i < exit; ++i)
        edges.push_back({i, i + 1, int64_t(rng() % 1000)});
    while (edges.size() + 1 < num_edges) {
        uint32_t src = uint32_t(rng() % exit), dest = uint32_t(rng() % nodes);
        if (src != dest)
            edges.push_back({src, dest, int64_t(rng() % 1000)});
    }
    edges.push_back({exit, 0, 0});
    *num_nodes = nodes;
    return edges;
}

QuarlInstGraph *build(const std::vector<Edge> &edges, uint32_t num_nodes)
{
    QuarlInstGraph *graph = quarl_inst_graph_create();
    for (uint32_t i = 0; i < num_nodes; ++i)
        quarl_inst_graph_add_node(graph, i)->m_is_reachable = 1;
    for (const Edge &shape : edges) {
        QuarlInstEdge *edge = quarl_inst_graph_add_edge(
            graph, quarl_inst_graph_find_node_by_idx(graph, shape.src),
            quarl_inst_graph_find_node_by_idx(graph, shape.dest));
        edge->m_is_reachable = 1;
        edge->m_cost = shape.cost;
    }
    graph->m_edge_vec[graph->m_num_edges - 1]->m_is_pseudo = 1;
    return graph;
}

void BM_SelectCounters(benchmark::State &state)
{
    uint32_t num_nodes;
    std::vector<Edge> edges = make_routine(uint32_t(state.range(0)), &num_nodes);
    for (auto _ : state) {
        state.PauseTiming();
        QuarlInstGraph *graph = build(edges, num_nodes);
        state.ResumeTiming();
        benchmark::DoNotOptimize(quarl_inst_graph_select_counters(graph));
        state.PauseTiming();
        quarl_inst_graph_delete(graph);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * state.range(0));
}
BENCHMARK(BM_SelectCounters)->Arg(1000)->Arg(100000)->Unit(benchmark::kMillisecond);

void BM_AdjustInstrumentation(benchmark::State &state)
{
    uint32_t num_nodes;
    std::vector<Edge> edges = make_routine(uint32_t(state.range(0)), &num_nodes);
    for (auto _ : state) {
        state.PauseTiming();
        QuarlInstGraph *graph = build(edges, num_nodes);
        quarl_inst_graph_select_counters(graph);
        state.ResumeTiming();
        benchmark::DoNotOptimize(quarl_inst_graph_adjust_instrumentation(graph));
        state.PauseTiming();
        quarl_inst_graph_delete(graph);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * state.range(0));
}
BENCHMARK(BM_AdjustInstrumentation)
    ->Arg(1000)
    ->Arg(4000)
    ->Arg(16000)
    ->Unit(benchmark::kMillisecond);

void BM_ComputeBlocksFromEdges(benchmark::State &state)
{
    uint32_t num_nodes;
    std::vector<Edge> edges = make_routine(uint32_t(state.range(0)), &num_nodes);
    QuarlInstGraph *graph = build(edges, num_nodes);
    uint32_t num_counters = quarl_inst_graph_select_counters(graph);
    if (quarl_inst_graph_adjust_instrumentation(graph) != 1)
        state.SkipWithError("placement failed");
    QuarlEncodedGraph *encoded = quarl_inst_graph_encode(graph);
    const uint32_t *words = reinterpret_cast<const uint32_t *>(encoded->m_stream->m_buffer);
    std::vector<uint32_t> stored(words, words + quarl_encoded_graph_length(encoded));
    quarl_encoded_graph_delete(encoded);
    quarl_inst_graph_delete(graph);
    std::vector<uint64_t> counters(num_counters, 7), blocks(num_nodes);
    if (quarl_compute_blocks_from_edges(stored.data(), uint32_t(stored.size()), counters.data(),
                                        num_counters, blocks.data(), num_nodes) != 1)
        state.SkipWithError("profile use failed");
    for (auto _ : state)
        benchmark::DoNotOptimize(quarl_compute_blocks_from_edges(
            stored.data(), uint32_t(stored.size()), counters.data(), num_counters, blocks.data(),
            num_nodes));
    state.SetItemsProcessed(int64_t(state.iterations()) * state.range(0));
}
BENCHMARK(BM_ComputeBlocksFromEdges)
    ->Arg(1000)
    ->Arg(4000)
    ->Arg(16000)
    ->Unit(benchmark::kMillisecond);

} // namespace
