// Profile reconstruction: formula rebuild, count propagation and the
// profile-use entry point, down to round trips of generated routines.
#include "test_support.h"

using namespace quarl_test;

namespace {

const uint64_t sentinel = 0x5eed5eed5eed5eedULL;
const uint64_t wrapped_minus_2 = ~uint64_t{0} - 1;

// An edge after the rebuild: I (counter) or C (computed), its formula
// position if it has one, then its formula if it has one ("=+0-1"); "!"
// marks a position table or formula size that disagrees with the graph.
std::string rebuilt(const QuarlInstEdge *edge)
{
    const QuarlInstGraph *graph = edge->m_graph;
    std::string text = edge->m_is_instrumented ? "I" : edge->m_is_computed ? "C" : "?";
    if (edge->m_formula_bit_pos != -1) {
        text += std::to_string(edge->m_formula_bit_pos);
        uint32_t pos = static_cast<uint32_t>(edge->m_formula_bit_pos);
        if (pos >= graph->m_formula_mask_bits || graph->m_formula_edge_vec[pos] != edge)
            text += "!";
    }
    if (edge->m_additive != nullptr) {
        text += edge->m_additive->m_size == graph->m_formula_mask_bits ? "=" : "!=";
        for (uint32_t pos : positions_of(edge->m_additive))
            text += "+" + std::to_string(pos);
        for (uint32_t pos : positions_of(edge->m_subtractive))
            text += "-" + std::to_string(pos);
    }
    return text;
}

std::vector<uint32_t> encode_words(const GraphPtr &graph)
{
    EncodedGraphPtr encoded(quarl_inst_graph_encode(graph.get()));
    return encoded ? stored_words(encoded.get()) : std::vector<uint32_t>{};
}

struct Outcome { int32_t result; std::vector<uint64_t> blocks; };

// Runs the entry point on sentinel-filled slots (one spare to catch an
// overrun) and checks what holds whatever the input: nothing leaks, and a
// failure writes no slot. With arm set, the sweep's allocation failure is
// armed just before the call.
Outcome run_entry(const std::vector<uint32_t> &words, const std::vector<uint64_t> &counters,
                  uint32_t num_blocks, bool arm = false)
{
    std::vector<uint64_t> blocks(num_blocks + 1, sentinel);
    int64_t live = quarl_fault_live_blocks();
    if (arm)
        arm_allocation_failure();
    int32_t result = quarl_compute_blocks_from_edges(
        words.data(), static_cast<uint32_t>(words.size()), counters.data(),
        static_cast<uint32_t>(counters.size()), blocks.data(), num_blocks);
    EXPECT_EQ(quarl_fault_live_blocks(), live);
    EXPECT_EQ(blocks.back(), sentinel);
    blocks.pop_back();
    if (result != 1) {
        EXPECT_EQ(blocks, std::vector<uint64_t>(num_blocks, sentinel));
    }
    return {result, blocks};
}

} // namespace

TEST(Profile, RebuildGivesDensePositionsAndFormulas)
{
    std::vector<EdgeSpec> chain10;
    for (uint32_t i = 0; i < 10; ++i)
        chain10.push_back(EdgeSpec{i, i + 1, i == 2 || i == 5 || i == 9, i});
    const struct {
        const char *name;
        uint32_t num_nodes;
        std::vector<EdgeSpec> edges;
        std::vector<std::string> rebuilt;
    } cases[] = {
        {"chain", 3, {{0, 1, true}, {1, 2}}, {"I0", "C=+0"}},
        {"dense_positions", 11, chain10,
         {"C=", "C=+0", "I0", "C=+0", "C=+1", "I1", "C=+1", "C=+1", "C=+2", "I2"}},
        {"signs", 4, {{0, 1, true, 0}, {1, 2, true, 1}, {1, 3}}, {"I0", "I1", "C=+0-1"}},
        {"unreachable_edge", 3, {{0, 1, true}, {1, 2}, {0, 2, false, 0, false}},
         {"I0", "C=+0", "C"}},
        {"all_instrumented", 2, {{0, 1, true, 0}, {1, 0, true, 1}}, {"I0", "I1"}},
        {"no_nodes", 0, {}, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        GraphPtr graph = build_graph(c.num_nodes, c.edges);
        ASSERT_EQ(quarl_inst_graph_compute_formulas(graph.get()), 1);
        auto states = [&] {
            std::vector<std::string> texts;
            for (uint32_t i = 0; i < c.edges.size(); ++i)
                texts.push_back(rebuilt(edge_at(graph, i)));
            return texts;
        };
        EXPECT_EQ(states(), c.rebuilt);
        std::vector<std::string> released; // flags stay, formulas go
        for (const std::string &text : c.rebuilt)
            released.push_back(text.substr(0, 1));
        EXPECT_EQ(graph->m_formula_mask_bits, std::count(released.begin(), released.end(), "I"));
        for (int round = 0; round < 2; ++round) {
            quarl_inst_graph_deallocate_formulas(graph.get());
            EXPECT_EQ(states(), released);
            EXPECT_EQ(graph->m_formula_mask_bits, 0u);
            EXPECT_EQ(graph->m_formula_edge_vec, nullptr);
        }
    }
}

TEST(ProfileDeathTest, RebuildStopsOnBrokenInvariants)
{
    GraphPtr cycle = build_graph(2, {{0, 1}, {1, 0}});
    EXPECT_DEATH(quarl_inst_graph_compute_formulas(cycle.get()),
                 "Assertion `remaining_nodes\\[i\\] == 0' failed");
    GraphPtr dead_counter = build_graph(2, {{0, 1, true, 0, false}});
    EXPECT_DEATH(quarl_inst_graph_compute_formulas(dead_counter.get()),
                 "Assertion `!\\(\\(edge\\)->m_is_instrumented\\)' failed");
}

TEST(Profile, PropagationDerivesEdgeAndNodeCounts)
{
    // Edge 0->1 is derived at node 0; node 1 leaves by a counter of 4, so
    // only the edge's flags decide whether node 1 counts 10 or 4.
    auto into_node_1 = [](EdgeSpec edge) {
        return std::vector<EdgeSpec>{{2, 0, true, 0}, edge, {1, 3, true, 1}};
    };
    const struct {
        const char *name;
        uint32_t num_nodes;
        std::vector<EdgeSpec> edges;
        std::vector<uint64_t> counts; // stored in every edge before the pass
        std::vector<uint64_t> node_counts;
    } cases[] = {
        {"empty_formula", 3, {{0, 1}, {1, 2}}, {99, 99}, {0, 0, 0}},
        {"unreachable_keeps_count", 3, {{0, 1, true}, {1, 2, false, 0, false}}, {5, 6}, {0, 5, 6}},
        {"wrap_around", 4, {{2, 0, true, 0}, {0, 1}, {0, 3, true, 1}}, {3, 0, 5},
         {3, wrapped_minus_2, 0, 5}},
        {"self_loop", 3, {{0, 1, true, 0}, {1, 1, true, 1}, {1, 2}}, {3, 4, 0}, {0, 7, 7}},
        {"self_loop_outgoing_sum", 3,
         {{0, 1, true, 0, true, false, true}, {1, 1, true, 1}, {1, 2}}, {3, 4, 0}, {0, 11, 7}},
        {"immeasurable_edge_in", 4, into_node_1({0, 1, false, 0, true, false, true}),
         {10, 0, 4}, {10, 4, 0, 4}},
        {"pseudo_immeasurable_edge_in", 4, into_node_1({0, 1, false, 0, true, true, true}),
         {10, 0, 4}, {10, 10, 0, 4}},
        {"instrumented_immeasurable_edge_in", 4,
         into_node_1({0, 1, true, 2, true, true, true}), {10, 10, 4}, {10, 4, 0, 4}},
        {"no_edges", 3, {}, {}, {0, 0, 0}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        GraphPtr graph = build_graph(c.num_nodes, c.edges);
        ASSERT_EQ(quarl_inst_graph_compute_formulas(graph.get()), 1);
        for (uint32_t i = 0; i < c.edges.size(); ++i)
            edge_at(graph, i)->m_exec_count = c.counts[i];
        for (uint32_t n = 0; n < c.num_nodes; ++n)
            node_at(graph, n)->m_exec_count = 99;
        quarl_inst_graph_propagate_exec_counts(graph.get());
        std::vector<uint64_t> node_counts;
        for (uint32_t n = 0; n < c.num_nodes; ++n)
            node_counts.push_back(node_at(graph, n)->m_exec_count);
        EXPECT_EQ(node_counts, c.node_counts);
    }
}

TEST(Profile, EntryPointCases)
{
    auto encoded = [](uint32_t num_nodes, const std::vector<EdgeSpec> &edges) {
        return encode_words(build_graph(num_nodes, edges));
    };
    const std::vector<uint32_t> chain = encoded(3, {{0, 1, true, 0}, {1, 2}});
    // An immeasurable counter edge 1->2 counts 0, whatever its counter.
    auto immeasurable = [&](uint32_t counter) {
        return encoded(4, {{0, 1, true, 0}, {1, 2, true, counter, true, false, true}, {2, 3}});
    };
    const struct {
        const char *name;
        std::vector<uint32_t> words;
        std::vector<uint64_t> counters;
        uint32_t num_blocks;
        int32_t result;
        std::vector<uint64_t> blocks;
    } cases[] = {
        {"chain", chain, {10}, 3, 1, {0, 10, 10}},
        {"no_blocks", chain, {10}, 0, 1, {}},
        {"more_blocks_than_nodes", chain, {10}, 5, 1, {0, 10, 10, 0, 0}},
        {"counter_index_at_limit", encoded(3, {{0, 1, true, 1}, {1, 2}}), {10}, 3, 0, {}},
        {"no_counters", chain, {}, 3, 0, {}},
        {"immeasurable_counter_in_range", immeasurable(1), {10, 77}, 4, 1, {0, 10, 0, 0}},
        {"immeasurable_counter_out_of_range", immeasurable(25), {10, 77}, 4, 1, {0, 10, 0, 0}},
        {"all_instrumented",
         encoded(3, {{0, 1, true, 0}, {0, 2, true, 1}, {1, 2, true, 2}, {2, 0, true, 3}}),
         {5, 7, 11, 13}, 3, 1, {13, 5, 18}},
        // An edge list holding the one edge 0->2 (instrumented, reachable).
        {"hole_in_block_indices", {c_encode_from_to, 0, 2, 3, 0}, {4}, 3, 1, {0, 0, 4}},
        {"header_only", {c_encode16}, {}, 2, 1, {0, 0}},
        {"empty_buffer", {}, {}, 2, 0, {}},
        {"format_id_4", {4, chain[1], chain[2]}, {10}, 3, 0, {}},
        {"format_id_max", {0xffffffff, chain[1], chain[2]}, {10}, 3, 0, {}},
        {"record_cut_short", {c_encode96, 0x18, 1}, {10}, 3, 0, {}},
        {"reachable_nodes_unresolved", encoded(2, {{0, 1}, {1, 0}}), {}, 2, 0, {}},
        {"unreachable_counter", encoded(3, {{0, 1, true, 0, false}, {1, 2}}), {10}, 3, 0, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        Outcome out = run_entry(c.words, c.counters, c.num_blocks);
        EXPECT_EQ(out.result, c.result);
        if (c.result == 1) {
            EXPECT_EQ(out.blocks, c.blocks);
        }
    }
}

TEST(Profile, RoundTripGivesTrueBlockCounts)
{
    // Sizes chosen to land in each packed format, by nodes or by counters.
    const struct {
        uint32_t num_nodes, extra_edges, routines;
        QuarlEncodingFormat format;
    } sizes[] = {
        {2, 3, 5, c_encode16},     {12, 10, 30, c_encode16},  {31, 30, 5, c_encode16},
        {32, 4, 5, c_encode32},    {20, 60, 5, c_encode32},   {500, 700, 2, c_encode32},
        {8192, 16, 1, c_encode96}, {300, 8400, 1, c_encode96},
    };
    std::mt19937_64 rng(20240611);
    for (const auto &size : sizes) {
        for (uint32_t r = 0; r < size.routines; ++r) {
            SCOPED_TRACE(testing::Message() << size.num_nodes << " nodes, routine " << r);
            Routine routine = generate_routine(rng, size.num_nodes, size.extra_edges);
            GraphPtr graph = build_routine_graph(routine);
            ASSERT_EQ(quarl_inst_graph_adjust_instrumentation(graph.get()), 1);
            std::vector<uint32_t> words = encode_words(graph);
            ASSERT_FALSE(words.empty());
            EXPECT_EQ(words[0], uint32_t{size.format});
            Outcome out = run_entry(words, routine.counter_values(), routine.num_nodes);
            EXPECT_EQ(out.result, 1);
            EXPECT_EQ(out.blocks, routine.block_counts);
        }
    }
}

// Whatever the damage, the call gives 0 with nothing written or an answer,
// and never leaks (run_entry checks both); damage that changes nothing
// gives the true answer.
TEST(Profile, DamagedWordsNeverCrashOrLeak)
{
    std::mt19937_64 rng(42);
    Routine routine = generate_routine(rng, 9, 8);
    const uint32_t n = routine.num_nodes;
    std::vector<uint64_t> counters = routine.counter_values();
    GraphPtr graph = build_routine_graph(routine);
    std::vector<std::vector<uint32_t>> encodings;
    for (uint32_t num_counters : {0u, QUARL_ENCODE16_LIMIT, QUARL_ENCODE32_LIMIT}) {
        graph->m_num_counters = std::max(num_counters, routine.num_counters);
        encodings.push_back(encode_words(graph)); // the three packed formats in turn
        ASSERT_EQ(encodings.back().at(0), encodings.size());
    }
    for (const std::vector<uint32_t> &words : encodings) {
        SCOPED_TRACE(testing::Message() << "format " << words[0]);
        std::vector<uint32_t> padded = words;
        padded.resize(words.size() + 12, 0); // whole zero records in every format
        for (const auto &same : {words, padded}) {
            Outcome out = run_entry(same, counters, n);
            EXPECT_EQ(out.result, 1);
            EXPECT_EQ(out.blocks, routine.block_counts);
        }
        for (size_t short_by = 1; short_by <= counters.size(); ++short_by)
            EXPECT_EQ(run_entry(words, {counters.begin(), counters.end() - short_by}, n).result, 0);
        for (size_t length = 0; length < words.size(); ++length)
            run_entry({words.begin(), words.begin() + length}, counters, n);
        for (size_t bit = 0; bit < words.size() * 32; ++bit) {
            std::vector<uint32_t> flipped = words;
            flipped[bit / 32] ^= 1u << (bit % 32);
            run_entry(flipped, counters, n);
        }
    }
}

TEST(Profile, EntryPointSurvivesEveryAllocationFailure)
{
    std::mt19937_64 rng(7);
    Routine routine = generate_routine(rng, 10, 8);
    std::vector<uint32_t> words = encode_words(build_routine_graph(routine));
    uint64_t covered = sweep_allocation_failures([&] {
        Outcome out = run_entry(words, routine.counter_values(), routine.num_nodes, true);
        bool failed = allocation_failure_delivered();
        EXPECT_EQ(out.result, failed ? 0 : 1);
        EXPECT_EQ(out.blocks, failed ? std::vector<uint64_t>(routine.num_nodes, sentinel)
                                     : routine.block_counts);
    });
    EXPECT_GT(covered, 20u);
}
