// The two moments of use on routines shaped like compiled code, from 10 to
// 100,000 edges: placement (counter selection, the placement pass and
// encoding) and profile use (the entry point), each with its heap use; and
// the flat-array worklist solver on the same stored words, the floor that
// profile use is measured against. bench/tables.py turns the JSON output
// into the README's tables.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <vector>

#include "compiled_routine.h"
#include "flat_solver.h"
#include "heap_meter.h"
#include "quarl/edgeinst.h"

namespace {

using quarl_bench::CompiledRoutine;

const uint64_t routine_seed = 20261123;

// Counter selection, the placement pass and encoding: what a compiler runs
// for every routine it instruments. Returns the encoded graph (owned).
QuarlEncodedGraph *place_and_encode(QuarlInstGraph *graph)
{
    if (quarl_inst_graph_select_counters(graph) == QUARL_SELECT_COUNTERS_FAILED ||
        quarl_inst_graph_adjust_instrumentation(graph) != 1)
        return nullptr;
    return quarl_inst_graph_encode(graph);
}

struct StoredRoutine {
    uint32_t num_blocks = 0;
    std::vector<uint32_t> words;
    std::vector<uint64_t> counters;
};

StoredRoutine store(const CompiledRoutine &routine)
{
    StoredRoutine stored;
    stored.num_blocks = routine.num_blocks;
    QuarlInstGraph *graph = quarl_bench::build_compiled_graph(routine);
    QuarlEncodedGraph *encoded = place_and_encode(graph);
    if (encoded == nullptr)
        return stored;
    quarl_stream_reset(encoded->m_stream);
    stored.words.resize(quarl_encoded_graph_length(encoded));
    quarl_stream_read(encoded->m_stream, stored.words.data(), 4, uint32_t(stored.words.size()));
    std::vector<uint64_t> flow = quarl_bench::make_flow(routine, routine_seed);
    stored.counters.resize(graph->m_num_counters);
    for (uint32_t e = 0; e < graph->m_num_edges; ++e)
        if (graph->m_edge_vec[e]->m_is_instrumented)
            stored.counters[graph->m_edge_vec[e]->m_counter_idx] = flow[e];
    quarl_encoded_graph_delete(encoded);
    quarl_inst_graph_delete(graph);
    return stored;
}

void report(benchmark::State &state, size_t edges, const quarl_bench::HeapUse &heap)
{
    state.counters["edges"] = double(edges);
    state.counters["heap_B_per_edge"] = double(heap.peak_bytes) / double(edges);
    state.counters["allocs_per_call"] = double(heap.allocations);
}

void BM_Placement(benchmark::State &state)
{
    CompiledRoutine routine = quarl_bench::make_compiled_routine(uint32_t(state.range(0)), routine_seed);
    QuarlInstGraph *graph = quarl_bench::build_compiled_graph(routine);
    quarl_bench::heap_meter_start();
    QuarlEncodedGraph *encoded = place_and_encode(graph);
    quarl_bench::HeapUse heap = quarl_bench::heap_meter_stop();
    if (encoded == nullptr)
        state.SkipWithError("placement failed");
    quarl_encoded_graph_delete(encoded);
    quarl_inst_graph_delete(graph);
    for (auto _ : state) {
        graph = quarl_bench::build_compiled_graph(routine);
        auto start = std::chrono::steady_clock::now();
        encoded = place_and_encode(graph);
        auto end = std::chrono::steady_clock::now();
        state.SetIterationTime(std::chrono::duration<double>(end - start).count());
        quarl_encoded_graph_delete(encoded);
        quarl_inst_graph_delete(graph);
    }
    report(state, routine.edges.size(), heap);
}

// Times solve(words, counters, blocks) on the routine's stored words after
// one metered call, whose block counts must equal the flat solver's.
template <typename Solve> void time_profile_use(benchmark::State &state, Solve solve)
{
    CompiledRoutine routine = quarl_bench::make_compiled_routine(uint32_t(state.range(0)), routine_seed);
    StoredRoutine stored = store(routine);
    std::vector<uint64_t> blocks(stored.num_blocks), floor(stored.num_blocks);
    quarl_bench::heap_meter_start();
    bool solved = solve(stored, blocks.data());
    quarl_bench::HeapUse heap = quarl_bench::heap_meter_stop();
    if (!solved || !quarl_bench::flat_solve_block_counts(stored.words.data(), uint32_t(stored.words.size()),
                                                         stored.counters.data(), floor.data(), stored.num_blocks) ||
        floor != blocks)
        state.SkipWithError("profile use failed or disagrees with the flat solver");
    for (auto _ : state)
        benchmark::DoNotOptimize(solve(stored, blocks.data()));
    report(state, routine.edges.size(), heap);
}

void BM_ProfileUse(benchmark::State &state)
{
    time_profile_use(state, [](const StoredRoutine &stored, uint64_t *blocks) {
        return quarl_compute_blocks_from_edges(stored.words.data(), uint32_t(stored.words.size()),
                                               stored.counters.data(), uint32_t(stored.counters.size()),
                                               blocks, stored.num_blocks) == 1;
    });
}

void BM_FlatSolver(benchmark::State &state)
{
    time_profile_use(state, [](const StoredRoutine &stored, uint64_t *blocks) {
        return quarl_bench::flat_solve_block_counts(stored.words.data(), uint32_t(stored.words.size()),
                                                    stored.counters.data(), blocks, stored.num_blocks);
    });
}

void sizes(benchmark::internal::Benchmark *bench)
{
    for (int64_t edges : {10, 100, 1000, 10000, 100000})
        bench->Arg(edges);
}

BENCHMARK(BM_Placement)->Apply(sizes)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ProfileUse)->Apply(sizes)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_FlatSolver)->Apply(sizes)->Unit(benchmark::kMicrosecond);

} // namespace
