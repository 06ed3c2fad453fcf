// Profile reconstruction: formula rebuild, count propagation and the
// profile-use entry point, down to round trips of generated routines.
#include "test_support.h"

using namespace quarl_test;

namespace {

const uint64_t sentinel = 0x5eed5eed5eed5eedULL;

// An edge after the rebuild: I (counter) or C (computed), its formula
// position if it has one, then its formula if it has one ("C(+0-1)"); "!"
// marks a position table or formula size that disagrees with the graph.
std::string rebuilt(const QuarlInstEdge *edge)
{
    const QuarlInstGraph *graph = edge->m_graph;
    std::string text = edge->m_is_instrumented ? "I" : edge->m_is_computed ? "C" : "?";
    uint32_t pos = static_cast<uint32_t>(edge->m_formula_bit_pos);
    if (edge->m_formula_bit_pos != -1)
        text += std::to_string(pos) + (pos < graph->m_formula_mask_bits && graph->m_formula_edge_vec[pos] == edge ? "" : "!");
    if (edge->m_additive != nullptr && edge->m_additive->m_size != graph->m_formula_mask_bits)
        text += "!";
    return text + formula_text(edge);
}

std::vector<uint32_t> encode_words(const GraphPtr &graph)
{
    EncodedGraphPtr encoded(quarl_inst_graph_encode(graph.get()));
    return encoded ? stored_words(encoded.get()) : std::vector<uint32_t>{};
}

struct Outcome { int32_t result; std::vector<uint64_t> blocks; };

// Runs the entry point on sentinel-filled slots (one spare to catch an
// overrun) and checks what holds whatever the input: nothing leaks, and a
// failure writes no slot.
Outcome run_entry(const std::vector<uint32_t> &words, const std::vector<uint64_t> &counters, uint32_t num_blocks)
{
    std::vector<uint64_t> blocks(num_blocks + 1, sentinel);
    int64_t live = quarl_fault_live_blocks();
    int32_t result = quarl_compute_blocks_from_edges(words.data(), static_cast<uint32_t>(words.size()), counters.data(),
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
    const struct { const char *name; uint32_t num_nodes; const char *edges; std::vector<std::string> rebuilt; } cases[] = {
        {"dense_positions", 11, "0>1 1>2 2>3i#2 3>4 4>5 5>6i#5 6>7 7>8 8>9 9>10i#9",
         {"C()", "C(+0)", "I0", "C(+0)", "C(+1)", "I1", "C(+1)", "C(+1)", "C(+2)", "I2"}},
        {"signs", 4, "0>1i 1>2i#1 1>3", {"I0", "I1", "C(+0-1)"}},
        {"unreachable_edge", 3, "0>1i 1>2 0>2u", {"I0", "C(+0)", "C"}},
        {"all_instrumented", 2, "0>1i 1>0i#1", {"I0", "I1"}},
        {"no_nodes", 0, "", {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        GraphPtr graph = build_graph(c.num_nodes, edges_of(c.edges));
        ASSERT_EQ(quarl_inst_graph_compute_formulas(graph.get()), 1);
        auto states = [&] {
            std::vector<std::string> texts;
            for (uint32_t i = 0; i < graph->m_num_edges; ++i)
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
            EXPECT_TRUE(graph->m_formula_mask_bits == 0 && graph->m_formula_edge_vec == nullptr);
        }
    }
}

TEST(ProfileDeathTest, RebuildStopsOnBrokenInvariants)
{
    GraphPtr cycle = build_graph(2, edges_of("0>1 1>0")), dead_counter = build_graph(2, edges_of("0>1iu"));
    EXPECT_DEATH(quarl_inst_graph_compute_formulas(cycle.get()), "Assertion `remaining_nodes\\[i\\] == 0' failed");
    EXPECT_DEATH(quarl_inst_graph_compute_formulas(dead_counter.get()), "Assertion `!\\(\\(edge\\)->m_is_instrumented\\)' failed");
}

// Counts are stored in every edge before the pass. In the last three cases
// edge 0->1 is derived at node 0 and node 1 leaves by a counter of 4, so only
// the edge's flags decide whether node 1 counts 10 or 4.
TEST(Profile, PropagationDerivesEdgeAndNodeCounts)
{
    const struct { const char *name; uint32_t num_nodes; const char *edges; std::vector<uint64_t> counts, node_counts; } cases[] = {
        {"empty_formula", 3, "0>1 1>2", {99, 99}, {0, 0, 0}},
        {"unreachable_keeps_count", 3, "0>1i 1>2u", {5, 6}, {0, 5, 6}},
        {"wrap_around", 4, "2>0i 0>1 0>3i#1", {3, 0, 5}, {3, ~uint64_t{0} - 1, 0, 5}},
        {"self_loop", 3, "0>1i 1>1i#1 1>2", {3, 4, 0}, {0, 7, 7}},
        {"self_loop_outgoing_sum", 3, "0>1im 1>1i#1 1>2", {3, 4, 0}, {0, 11, 7}},
        {"no_edges", 3, "", {}, {0, 0, 0}},
        {"immeasurable_edge_in", 4, "2>0i 0>1m 1>3i#1", {10, 0, 4}, {10, 4, 0, 4}},
        {"pseudo_immeasurable_edge_in", 4, "2>0i 0>1pm 1>3i#1", {10, 0, 4}, {10, 10, 0, 4}},
        {"instrumented_immeasurable_edge_in", 4, "2>0i 0>1ipm#2 1>3i#1", {10, 10, 4}, {10, 4, 0, 4}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        GraphPtr graph = build_graph(c.num_nodes, edges_of(c.edges));
        ASSERT_EQ(quarl_inst_graph_compute_formulas(graph.get()), 1);
        for (uint32_t i = 0; i < graph->m_num_edges; ++i)
            edge_at(graph, i)->m_exec_count = c.counts[i];
        std::vector<uint64_t> node_counts;
        for (uint32_t n = 0; n < c.num_nodes; ++n)
            node_at(graph, n)->m_exec_count = 99;
        quarl_inst_graph_propagate_exec_counts(graph.get());
        for (uint32_t n = 0; n < c.num_nodes; ++n)
            node_counts.push_back(node_at(graph, n)->m_exec_count);
        EXPECT_EQ(node_counts, c.node_counts);
    }
}

TEST(Profile, EntryPointCases)
{
    auto encoded = [](uint32_t num_nodes, const std::string &edges) { return encode_words(build_graph(num_nodes, edges_of(edges))); };
    const std::vector<uint32_t> chain = encoded(3, "0>1i 1>2");
    // An immeasurable counter edge 1->2 counts 0, whatever its counter.
    const struct { const char *name; std::vector<uint32_t> words; std::vector<uint64_t> counters; uint32_t num_blocks;
                   int32_t result; std::vector<uint64_t> blocks; } cases[] = {
        {"chain", chain, {10}, 3, 1, {0, 10, 10}},
        {"no_blocks", chain, {10}, 0, 1, {}},
        {"more_blocks_than_nodes", chain, {10}, 5, 1, {0, 10, 10, 0, 0}},
        {"counter_index_at_limit", encoded(3, "0>1i#1 1>2"), {10}, 3, 0, {}},
        {"no_counters", chain, {}, 3, 0, {}},
        {"immeasurable_counter_in_range", encoded(4, "0>1i 1>2im#1 2>3"), {10, 77}, 4, 1, {0, 10, 0, 0}},
        {"immeasurable_counter_out_of_range", encoded(4, "0>1i 1>2im#25 2>3"), {10, 77}, 4, 1, {0, 10, 0, 0}},
        {"all_instrumented", encoded(3, "0>1i 0>2i#1 1>2i#2 2>0i#3"), {5, 7, 11, 13}, 3, 1, {13, 5, 18}},
        // An edge list holding the one edge 0->2 (instrumented, reachable).
        {"hole_in_block_indices", {c_encode_from_to, 0, 2, 3, 0}, {4}, 3, 1, {0, 0, 4}},
        {"header_only", {c_encode16}, {}, 2, 1, {0, 0}},
        {"empty_buffer", {}, {}, 2, 0, {}},
        {"format_id_4", {4, chain[1], chain[2]}, {10}, 3, 0, {}},
        {"format_id_max", {0xffffffff, chain[1], chain[2]}, {10}, 3, 0, {}},
        {"reachable_nodes_unresolved", encoded(2, "0>1 1>0"), {}, 2, 0, {}},
        {"unreachable_counter", encoded(3, "0>1iu 1>2"), {10}, 3, 0, {}},
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

// Generated routines placed with the generator's counters: propagation in
// memory and the entry point on the stored words give the true counts; then
// with counters chosen by selection, placed unforced, stored and read back.
// The table's sizes land in each packed format, by nodes or by counters; 300
// more routines have random sizes.
TEST(Profile, GeneratedRoutinesRoundTrip)
{
    struct Size { uint32_t num_nodes, extra_edges, routines; int format; };
    std::vector<Size> sizes = {{2, 3, 5, c_encode16},   {12, 10, 30, c_encode16},  {31, 30, 5, c_encode16},
                               {32, 4, 5, c_encode32},  {20, 60, 5, c_encode32},   {500, 700, 2, c_encode32},
                               {8192, 16, 1, c_encode96}, {300, 8400, 1, c_encode96}};
    std::mt19937_64 rng(20240611);
    for (uint32_t round = 0; round < 300; ++round) {
        uint32_t n = 2 + static_cast<uint32_t>(rng() % (round % 60 == 59 ? 1500 : 40));
        sizes.push_back({n, 2 * n, 1, -1});
    }
    for (const Size &size : sizes) {
        for (uint32_t r = 0; r < size.routines; ++r) {
            SCOPED_TRACE(testing::Message() << size.num_nodes << " nodes, routine " << r);
            const uint32_t num_nodes = size.num_nodes;
            Routine routine = generate_routine(rng, num_nodes, size.extra_edges);
            const uint32_t num_edges = static_cast<uint32_t>(routine.edges.size());
            GraphPtr graph = build_routine_graph(routine);
            ASSERT_TRUE(placed_unforced(graph));
            std::vector<uint32_t> words = encode_words(graph);
            ASSERT_FALSE(words.empty());
            EXPECT_TRUE(size.format < 0 || words[0] == uint32_t(size.format));
            Outcome out = run_entry(words, routine.counter_values(), num_nodes);
            EXPECT_EQ(out.result, 1);
            EXPECT_EQ(out.blocks, routine.block_counts);

            for (uint32_t i = 0; i < num_edges; ++i)
                edge_at(graph, i)->m_exec_count = edge_at(graph, i)->m_is_instrumented ? routine.edge_counts[i] : 0;
            quarl_inst_graph_propagate_exec_counts(graph.get());
            std::vector<uint64_t> edge_counts, block_counts(num_nodes);
            for (uint32_t i = 0; i < num_edges; ++i)
                edge_counts.push_back(edge_at(graph, i)->m_exec_count);
            for (uint32_t i = 0; i < num_nodes; ++i)
                block_counts[i] = node_at(graph, i)->m_exec_count;
            ASSERT_EQ(edge_counts, routine.edge_counts);
            ASSERT_EQ(block_counts, routine.block_counts);

            GraphPtr selected = build_graph(num_nodes, without_counters(routine).edges);
            uint32_t num_counters = num_edges - num_nodes + 1;
            ASSERT_EQ(quarl_inst_graph_select_counters(selected.get()), num_counters);
            ASSERT_EQ(selected->m_num_counters, num_counters);
            ASSERT_TRUE(placed_unforced(selected));
            out = run_entry(encode_words(selected), routine.counter_values(selected.get()), num_nodes);
            ASSERT_EQ(out.result, 1);
            ASSERT_EQ(out.blocks, routine.block_counts);
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
