// Profile use by conservation on flat arrays against the way through
// formulas: the same result and the same block counts on every input, from
// well-formed stored words to damaged ones.
#include "test_support.h"

#include "compiled_routine.h"

using namespace quarl_test;

namespace {

const uint64_t untouched = 0x5eed5eed5eed5eedULL;

struct Stored {
    std::string name;
    std::vector<uint32_t> words;
    std::vector<uint64_t> counters;
    uint32_t num_blocks;
};

// The graph's edges in the edge-list form, which the encoder never chooses.
std::vector<uint32_t> edge_list_words(const QuarlInstGraph *graph)
{
    std::vector<uint32_t> words = {c_encode_from_to};
    for (uint32_t i = 0; i < graph->m_num_edges; ++i) {
        const QuarlInstEdge *edge = graph->m_edge_vec[i];
        words.insert(words.end(), {edge->m_src->m_seg_block_idx, edge->m_dest->m_seg_block_idx,
                                   uint32_t(edge->m_is_instrumented) | uint32_t(edge->m_is_reachable) << 1 |
                                       uint32_t(edge->m_is_immeasurable) << 2,
                                   edge->m_counter_idx});
    }
    return words;
}

// A placed graph stored both ways, with the counters of its flow.
void store(const std::string &name, QuarlInstGraph *graph, const std::vector<uint64_t> &flow,
           std::vector<Stored> &out)
{
    EncodedGraphPtr encoded(quarl_inst_graph_encode(graph));
    ASSERT_NE(encoded, nullptr);
    std::vector<uint64_t> counters(graph->m_num_counters);
    for (uint32_t i = 0; i < graph->m_num_edges; ++i)
        if (graph->m_edge_vec[i]->m_is_instrumented)
            counters.at(graph->m_edge_vec[i]->m_counter_idx) = flow[i];
    out.push_back({name + " " + quarl_graph_encoding_format_str(encoded->m_format), stored_words(encoded.get()),
                   counters, graph->m_num_nodes + 2});
    out.push_back({name + " edge list", edge_list_words(graph), counters, graph->m_num_nodes + 2});
}

// Random routines (with counter bases that reach every packed format, some
// edges immeasurable or unreachable, self-loops) and routines shaped like
// compiled code, each placed and stored.
std::vector<Stored> stored_routines()
{
    std::vector<Stored> out;
    std::mt19937_64 rng(77);
    for (uint32_t i = 0; i < 24; ++i) {
        Routine routine = generate_routine(rng, 2 + uint32_t(rng() % (i < 20 ? 40 : 9000)), uint32_t(rng() % 30));
        for (EdgeSpec &edge : routine.edges) {
            edge.immeasurable = rng() % 9 == 0;
            edge.pseudo = edge.pseudo || rng() % 11 == 0;
        }
        if (i % 3 == 0)
            routine.edges.push_back({uint32_t(rng() % routine.num_nodes), 0, false, 0, false}); // unreachable
        if (i % 4 == 0) {
            uint32_t node = uint32_t(rng() % routine.num_nodes);
            routine.edges.push_back({node, node, true, 0}); // self-loop with a counter
            routine.edge_counts.push_back(rng() % 5);
        }
        routine.edge_counts.resize(routine.edges.size(), 0);
        GraphPtr graph = build_routine_graph(without_counters(routine));
        quarl_inst_graph_select_counters(graph.get());
        if (i % 5 == 1)
            graph->m_num_counters += 40; // wider counter fields: encode32
        quarl_inst_graph_adjust_instrumentation(graph.get());
        store("random " + std::to_string(i), graph.get(), routine.edge_counts, out);
    }
    for (uint32_t edges : {12u, 300u, 5000u}) {
        quarl_bench::CompiledRoutine routine = quarl_bench::make_compiled_routine(edges, edges);
        GraphPtr graph(quarl_bench::build_compiled_graph(routine));
        quarl_inst_graph_select_counters(graph.get());
        EXPECT_EQ(quarl_inst_graph_adjust_instrumentation(graph.get()), 1);
        store("compiled " + std::to_string(edges), graph.get(), quarl_bench::make_flow(routine, 5), out);
    }
    return out;
}

// Both ways on the same input; their results, and the block counts each
// left, must agree. Returns the result.
int32_t expect_same(const std::vector<uint32_t> &words, const std::vector<uint64_t> &counters,
                    uint32_t num_counters, uint32_t num_blocks)
{
    std::vector<uint64_t> flat(num_blocks, untouched), formulas(num_blocks, untouched);
    int32_t by_conservation = quarl_compute_blocks_by_conservation(
        words.data(), uint32_t(words.size()), counters.data(), num_counters, flat.data(), num_blocks);
    int32_t with_formulas = quarl_compute_blocks_with_formulas(
        words.data(), uint32_t(words.size()), counters.data(), num_counters, formulas.data(), num_blocks);
    EXPECT_EQ(by_conservation, with_formulas);
    EXPECT_EQ(flat, formulas);
    if (by_conservation == 0) {
        EXPECT_EQ(flat, std::vector<uint64_t>(num_blocks, untouched));
    }
    return by_conservation;
}

} // namespace

// Well-formed words with true, contradictory and too few counters; then
// damaged words: every truncation, bit flips, words appended, repeated and
// swapped, and every format id.
TEST(Conservation, AgreesWithFormulasOnStoredAndDamagedWords)
{
    std::mt19937_64 rng(2026);
    uint64_t cases = 0, succeeded = 0, short_failures = 0;
    for (const Stored &s : stored_routines()) {
        SCOPED_TRACE(s.name);
        const std::vector<uint32_t> &w = s.words;
        uint32_t num_counters = uint32_t(s.counters.size());
        std::vector<uint64_t> contradictory = s.counters;
        for (uint64_t &c : contradictory)
            c = rng() % 3 == 0 ? rng() : c;
        EXPECT_EQ(expect_same(w, s.counters, num_counters, s.num_blocks), 1);
        succeeded += expect_same(w, contradictory, num_counters, s.num_blocks);
        // One short fails unless the last counter is unused or immeasurable.
        if (num_counters > 0)
            short_failures += expect_same(w, s.counters, num_counters - 1, s.num_blocks - 2 + uint32_t(rng() % 4)) == 0;
        std::vector<std::vector<uint32_t>> damaged;
        for (size_t length = 0; length < w.size() && length < 40; ++length)
            damaged.emplace_back(w.begin(), w.begin() + length);
        for (int flip = 0; flip < 40; ++flip) {
            std::vector<uint32_t> d = w;
            d[rng() % d.size()] ^= 1u << (rng() % 32);
            damaged.push_back(d);
        }
        for (uint32_t extra : {0u, uint32_t(rng()), w.back()}) {
            damaged.push_back(w);
            damaged.back().push_back(extra);
        }
        for (int i = 0; i < 6 && w.size() > 2; ++i) {
            size_t at = 1 + rng() % (w.size() - 2);
            std::vector<uint32_t> repeated = w, swapped = w;
            repeated.insert(repeated.begin() + long(at), w[at]);
            std::swap(swapped[at], swapped[at + 1]);
            damaged.push_back(repeated);
            damaged.push_back(swapped);
        }
        for (uint32_t format : {0u, 1u, 2u, 3u, 4u, 0xffffffffu}) {
            damaged.push_back(w);
            damaged.back()[0] = format;
        }
        for (const std::vector<uint32_t> &d : damaged)
            succeeded += expect_same(d, contradictory, num_counters, s.num_blocks);
        cases += 3 + damaged.size();
    }
    EXPECT_GT(short_failures, 20u);
    // Damage must leave both failures and successes to compare.
    EXPECT_GT(succeeded, cases / 10);
    EXPECT_LT(succeeded, cases * 9 / 10);
}

// Without traces the entry point works on the stored words with two
// allocations, whatever the routine's size; a trace bit takes the way through
// formulas, which writes its traces.
TEST(Conservation, EntryPointTakesTheFlatWayUnlessTraced)
{
    quarl_bench::CompiledRoutine routine = quarl_bench::make_compiled_routine(400, 3);
    GraphPtr graph(quarl_bench::build_compiled_graph(routine));
    quarl_inst_graph_select_counters(graph.get());
    ASSERT_EQ(quarl_inst_graph_adjust_instrumentation(graph.get()), 1);
    std::vector<Stored> stored;
    store("compiled", graph.get(), quarl_bench::make_flow(routine, 9), stored);
    const Stored &s = stored.front();
    std::vector<uint64_t> blocks(s.num_blocks, untouched);
    auto use = [&] {
        return quarl_compute_blocks_from_edges(s.words.data(), uint32_t(s.words.size()), s.counters.data(),
                                               uint32_t(s.counters.size()), blocks.data(), s.num_blocks);
    };
    uint64_t covered = sweep_allocation_failures([&] {
        blocks.assign(s.num_blocks, untouched);
        arm_allocation_failure();
        int32_t result = use();
        EXPECT_EQ(result, allocation_failure_delivered() ? 0 : 1);
        if (result == 0) {
            EXPECT_EQ(blocks, std::vector<uint64_t>(s.num_blocks, untouched));
        }
    });
    EXPECT_EQ(covered, 2u);
    for (uint32_t mask : {1u, 2u, 4u}) {
        TraceMaskScope traced(mask);
        quarl_fault_fail_nth(0);
        EXPECT_NE(capture_stderr([&] { EXPECT_EQ(use(), 1); }), "");
        EXPECT_GT(quarl_fault_attempts(), 100u);
    }
    TraceMaskScope unused_bit(8);
    EXPECT_EQ(capture_stderr([&] { EXPECT_EQ(use(), 1); }), "");
}

// The way through formulas keeps its allocation-failure result: 0, block
// counts untouched, nothing left allocated.
TEST(Conservation, FormulaWaySurvivesEveryAllocationFailure)
{
    std::vector<Stored> stored = stored_routines();
    for (size_t i : {size_t(0), size_t(3)}) {
        const Stored &s = stored[i];
        std::vector<uint64_t> blocks;
        uint64_t covered = sweep_allocation_failures([&] {
            blocks.assign(s.num_blocks, untouched);
            arm_allocation_failure();
            int32_t result = quarl_compute_blocks_with_formulas(s.words.data(), uint32_t(s.words.size()),
                                                                s.counters.data(), uint32_t(s.counters.size()),
                                                                blocks.data(), s.num_blocks);
            EXPECT_EQ(result, allocation_failure_delivered() ? 0 : 1);
            if (result == 0) {
                EXPECT_EQ(blocks, std::vector<uint64_t>(s.num_blocks, untouched));
            }
        });
        EXPECT_GT(covered, 5u);
    }
}
