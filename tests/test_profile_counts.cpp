// Counts from profile records: edge and block counts derived from the
// counters, and repaired when counters that lost increments contradict
// each other.
#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <utility>
#include <vector>

#include "quarl/edgeinst.h"
#include "quarl_profile_counts.h"

namespace {

// A loop around an if/else, as the plugin describes a function: node 0 the
// pseudo entry, 1 the pseudo exit, 2 the loop head and test, 3 and 4 the
// two arms, 5 the latch. Counters on 2->3 (0), 2->4 (1) and the back edge
// 5->2 (2); the rest follows by conservation: 3->5 = c0, 4->5 = c1, and
// the entry, the return and the closing edge are c0 + c1 - c2.
struct LoopRecord {
    std::vector<uint32_t> words;
    std::vector<uint64_t> counters;
    QuarlProfileFunction record{};

    explicit LoopRecord(std::vector<uint64_t> values) : counters(std::move(values))
    {
        QuarlInstGraph *graph = quarl_inst_graph_create();
        for (uint32_t n = 0; n < 6; ++n) {
            QuarlInstNode *node = quarl_inst_graph_add_node(graph, n);
            node->m_is_reachable = 1;
            node->m_is_pseudo_entry = n == 0;
            node->m_is_pseudo_exit = n == 1;
            node->m_is_entry = n == 2;
        }
        const struct {
            uint32_t src, dest;
            int counter;
            bool pseudo;
        } edges[] = {{0, 2, -1, true}, {2, 3, 0, false}, {2, 4, 1, false}, {3, 5, -1, false},
                     {4, 5, -1, false}, {5, 2, 2, false}, {5, 1, -1, true}, {1, 0, -1, true}};
        for (const auto &e : edges) {
            QuarlInstEdge *edge = quarl_inst_graph_add_edge(graph, graph->m_node_vec[e.src], graph->m_node_vec[e.dest]);
            edge->m_is_reachable = 1;
            edge->m_is_pseudo = e.pseudo;
            if (e.counter >= 0) {
                quarl_inst_edge_set_as_instrumented(edge);
                edge->m_counter_idx = uint32_t(e.counter);
            }
        }
        graph->m_num_counters = 3;
        EXPECT_EQ(quarl_inst_graph_adjust_instrumentation(graph), 1);
        QuarlEncodedGraph *encoded = quarl_inst_graph_encode(graph);
        words.resize(quarl_encoded_graph_length(encoded));
        quarl_stream_reset(encoded->m_stream);
        quarl_stream_read(encoded->m_stream, words.data(), 4, uint32_t(words.size()));
        quarl_encoded_graph_delete(encoded);
        quarl_inst_graph_delete(graph);
        record.key = const_cast<char *>("loop");
        record.num_blocks = 4;
        record.num_nodes = 6;
        record.num_words = uint32_t(words.size());
        record.words = words.data();
        record.num_counters = uint32_t(counters.size());
        record.counters = counters.data();
    }
};

struct Derived {
    std::map<std::pair<uint32_t, uint32_t>, uint64_t> edges;
    std::vector<uint64_t> nodes;
    uint32_t repaired = 0;
};

Derived derive(const QuarlProfileFunction &record)
{
    Derived out;
    QuarlProfileEdge *edges = nullptr;
    uint32_t num_edges = 0, node_repaired = 0;
    EXPECT_EQ(quarl_profile_edge_counts(&record, &edges, &num_edges, &out.repaired), 1);
    for (uint32_t i = 0; i < num_edges; ++i)
        out.edges[{edges[i].src, edges[i].dest}] = edges[i].count;
    std::free(edges);
    out.nodes.resize(record.num_nodes);
    EXPECT_EQ(quarl_profile_node_counts(&record, out.nodes.data(), &node_repaired), 1);
    EXPECT_EQ(node_repaired, out.repaired);
    return out;
}

TEST(ProfileCounts, CountersThatAgreeGiveTheCountsAsTheyAre)
{
    // Ten calls, 90 trips round the loop: 70 through one arm, 30 the other.
    LoopRecord loop({70, 30, 90});
    Derived got = derive(loop.record);
    EXPECT_EQ(got.repaired, 0u);
    std::map<std::pair<uint32_t, uint32_t>, uint64_t> expected = {
        {{0, 2}, 10}, {{2, 3}, 70}, {{2, 4}, 30}, {{3, 5}, 70},
        {{4, 5}, 30}, {{5, 2}, 90}, {{5, 1}, 10}, {{1, 0}, 10}};
    EXPECT_EQ(got.edges, expected);
    EXPECT_EQ(got.nodes, (std::vector<uint64_t>{10, 10, 100, 70, 30, 100}));
}

// Counters that lost increments, and the counts after repair: never below
// zero, flow conserved at every node, every counted edge at least its
// counter (lost increments only make counters smaller), and each deficit
// made good once along the hottest cycle.
TEST(ProfileCounts, CountersThatContradictAreRepairedToConsistentCounts)
{
    const struct {
        std::vector<uint64_t> counters;
        uint32_t repaired;                 // edges below zero before repair
        std::vector<uint64_t> nodes;       // after repair
    } cases[] = {
        // An arm lost 20: entry, return and closing edge come out at -10,
        // made good once, round the arm with the larger count.
        {{50, 30, 90}, 3, {0, 0, 90, 60, 30, 90}},
        // Both arms lost: -40 on the same three edges, added to the other
        // arm, now the larger.
        {{20, 30, 90}, 3, {0, 0, 90, 20, 70, 90}},
        // Exactly balanced: nothing below zero, nothing changed.
        {{60, 30, 90}, 0, {0, 0, 90, 60, 30, 90}},
        // Arms barely counted at all.
        {{0, 1, 5}, 3, {0, 0, 5, 0, 5, 5}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.counters));
        LoopRecord loop(c.counters);
        Derived got = derive(loop.record);
        EXPECT_EQ(got.repaired, c.repaired);
        EXPECT_EQ(got.nodes, c.nodes);
        std::vector<uint64_t> in(6, 0), out(6, 0);
        for (const auto &[edge, count] : got.edges) {
            EXPECT_LE(count, uint64_t(INT64_MAX)) << edge.first << "->" << edge.second;
            out[edge.first] += count;
            in[edge.second] += count;
        }
        EXPECT_EQ(in, out);
        EXPECT_GE((got.edges[{2, 3}]), c.counters[0]);
        EXPECT_GE((got.edges[{2, 4}]), c.counters[1]);
        EXPECT_GE((got.edges[{5, 2}]), c.counters[2]);
    }
}

TEST(ProfileCounts, DirectBlockCountsAndDamagedRecords)
{
    // Direct counts are the blocks' counts; they have no edges.
    uint64_t direct[] = {4, 0, 9};
    QuarlProfileFunction record{};
    record.flags = QUARL_PROFILE_DIRECT_COUNTS;
    record.num_blocks = 3;
    record.num_nodes = 5;
    record.num_counters = 3;
    record.counters = direct;
    std::vector<uint64_t> nodes(5, 77);
    uint32_t repaired = 99;
    ASSERT_EQ(quarl_profile_node_counts(&record, nodes.data(), &repaired), 1);
    EXPECT_EQ(nodes, (std::vector<uint64_t>{0, 0, 4, 0, 9}));
    EXPECT_EQ(repaired, 0u);
    QuarlProfileEdge *edges = reinterpret_cast<QuarlProfileEdge *>(&record);
    uint32_t num_edges = 7;
    EXPECT_EQ(quarl_profile_edge_counts(&record, &edges, &num_edges, nullptr), 0);
    EXPECT_EQ(edges, nullptr);
    EXPECT_EQ(num_edges, 0u);

    // An unknown format, and too few counters: no counts, nothing written.
    LoopRecord loop({70, 30, 90});
    std::vector<uint32_t> unknown_format = loop.words;
    unknown_format[0] = 9;
    for (int damage = 0; damage < 2; ++damage) {
        QuarlProfileFunction bad = loop.record;
        if (damage == 0)
            bad.words = unknown_format.data();
        else
            bad.num_counters = 2;
        std::fill(nodes.begin(), nodes.end(), 77);
        nodes.resize(6, 77);
        EXPECT_EQ(quarl_profile_node_counts(&bad, nodes.data(), nullptr), 0);
        EXPECT_EQ(nodes, std::vector<uint64_t>(6, 77));
        EXPECT_EQ(quarl_profile_edge_counts(&bad, &edges, &num_edges, nullptr), 0);
        EXPECT_EQ(edges, nullptr);
    }
}

} // namespace
