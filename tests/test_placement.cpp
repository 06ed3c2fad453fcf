// Counter placement: the resolution of a node's last unsettled edge, the
// placement pass, and counter selection.
#include "test_support.h"

#include <stdio_ext.h>

#include <sstream>

namespace quarl_test {
namespace {

using Positions = std::vector<uint32_t>;

// The first `count` edges as their state (U uncalculated, C computed, I
// instrumented, F instrumented by force) and formula: "C(+1-3) I F()".
std::string describe(const GraphPtr &graph, uint32_t count = UINT32_MAX)
{
    std::string text;
    for (uint32_t i = 0; i < std::min(count, graph->m_num_edges); ++i) {
        const QuarlInstEdge *e = edge_at(graph, i);
        text += (i == 0 ? "" : " ") + std::string(1, e->m_is_forced_instrumented ? 'F' : e->m_is_instrumented ? 'I'
                                                    : e->m_is_computed ? 'C' : 'U') + formula_text(e);
    }
    return text;
}

Positions blocks_in(const QuarlNodeQueue &queue)
{
    Positions blocks;
    for (uint32_t i = queue.m_head; i < queue.m_tail; ++i)
        blocks.push_back(queue.m_nodes[i]->m_seg_block_idx);
    return blocks;
}

// The pass's set-up (positions by edge index, then the library's own
// formula set-up), then the edges of `computed` ("edge:+pos-pos ...")
// settled with those formulas.
void set_up_formulas(const GraphPtr &graph, const std::string &computed)
{
    uint32_t bits = graph->m_formula_mask_bits = graph->m_num_edges;
    graph->m_formula_edge_vec = static_cast<QuarlInstEdge **>(quarl_mem_alloc(sizeof(QuarlInstEdge *) * bits));
    for (uint32_t i = 0; i < bits; ++i)
        (graph->m_formula_edge_vec[i] = edge_at(graph, i))->m_formula_bit_pos = static_cast<int32_t>(i);
    ASSERT_TRUE(quarl_inst_graph_set_up_edge_formulas(graph.get()));
    std::istringstream in(computed);
    for (std::string token; in >> token;) {
        QuarlInstEdge *edge = edge_at(graph, uint32_t(std::stoul(token)));
        for (size_t at = token.find_first_of("+-"); at != std::string::npos; at = token.find_first_of("+-", at + 1))
            quarl_inst_bitset_set_bit(token[at] == '+' ? edge->m_additive : edge->m_subtractive,
                                      uint32_t(std::stoul(token.substr(at + 1))));
        quarl_inst_edge_set_as_computed(edge);
    }
}

// Edge 0 over nodes 0-4 is resolved at node 0 after the edges of `computed`
// were settled. Call: M mask, D deferred queue, F force, R far end already
// resolved. Node 0's remaining byte is cleared exactly when edge 0 is computed.
TEST(PlacementResolve, RemainingEdgeTable)
{
    struct Case { const char *name, *edges, *computed, *call; Positions mask; bool result; const char *edge;
                  Positions ready, deferred; bool masked; };
    const Case cases[] = {
        {"incoming: other side added, own side subtracted", "1>0 0>2 3>0 4>0i 0>4i 2>4i 3>4i 4>3i", "1:+5-7 2:+6",
         "MD", {}, true, "C(+4+5-3-6-7)", {1}, {}, false},
        {"outgoing: counter in added, counter out subtracted", "0>1 2>0i 0>3i", "", "MD", {}, true, "C(+1-2)", {1}, {}, false},
        {"self-loop resolved as incoming, nothing queued", "0>0 1>0i 0>2i", "", "MD", {}, true, "C(+2-1)", {}, {}, false},
        {"self-loop term added for a leaving edge", "0>1 0>0i 2>0i", "", "MD", {}, true, "C(+1+2)", {1}, {}, false},
        {"self-loop term subtracted for an entering edge", "1>0 0>0i 0>2i", "", "MD", {}, true, "C(+2-1)", {1}, {}, false},
        {"unreachable edge counts nothing", "0>1 2>0i 0>3u", "", "MD", {}, true, "C(+1)", {1}, {}, false},
        {"no mask accepts an empty formula; far end resolved: not queued", "0>1", "", "R", {}, true, "C()", {}, {}, false},
        {"empty formula deferred to the far end", "0>1", "", "MD", {}, true, "U()", {}, {1}, false},
        {"empty formula, no deferred queue", "0>1", "", "M", {}, false, "U()", {}, {}, false},
        {"pseudo edge accepts an empty formula", "0>1p", "", "M", {}, true, "C()", {1}, {}, false},
        {"only immeasurable counters: rejected, emptied", "0>1 2>0im", "", "MD", {1}, true, "U()", {}, {1}, false},
        {"one measurable counter makes it acceptable", "0>1 2>0im 3>0i", "", "MD", {1}, true, "C(+1+2)", {1}, {}, false},
        {"forced measurable edge", "0>1", "", "MF", {}, false, "F()", {}, {}, false},
        {"forced immeasurable edge joins the mask", "0>1m", "", "MF", {}, true, "F()", {}, {}, true},
        {"far end with two unsettled edges is not queued", "0>1 1>2 1>3", "", "", {}, true, "C()", {}, {}, false},
        {"two unsettled edges: nothing happens", "0>1 0>2", "", "MD", {}, false, "U()", {}, {}, false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        std::string call = c.call;
        GraphPtr graph = build_graph(5, edges_of(c.edges));
        set_up_formulas(graph, c.computed);
        QuarlNodeQueue ready = QUARL_NODE_QUEUE_INIT, deferred = QUARL_NODE_QUEUE_INIT;
        QuarlInstBitset *mask = bitset_with(c.mask, graph->m_num_edges);
        std::vector<uint8_t> remaining(5, 1);
        QuarlInstEdge *edge = edge_at(graph, 0);
        QuarlInstNode *node = node_at(graph, 0);
        if (call.find('R') != std::string::npos)
            remaining[(edge->m_dest == node ? edge->m_src : edge->m_dest)->m_seg_block_idx] = 0;
        EXPECT_EQ(quarl_inst_graph_compute_remaining_edge(node, &ready, call.find('D') != std::string::npos ? &deferred : nullptr,
                                                          call.find('M') != std::string::npos ? mask : nullptr,
                                                          call.find('F') != std::string::npos, remaining.data()),
                  c.result);
        EXPECT_EQ(describe(graph, 1), c.edge);
        EXPECT_EQ(blocks_in(ready), c.ready);
        EXPECT_EQ(blocks_in(deferred), c.deferred);
        EXPECT_EQ(remaining[0], c.edge[0] == 'C' ? 0 : 1);
        EXPECT_EQ(quarl_inst_bitset_get_bit(mask, 0), c.masked);
        quarl_inst_bitset_delete(mask);
        quarl_node_queue_release(&deferred);
        quarl_node_queue_release(&ready);
    }
}

struct PassCase { const char *name; uint32_t num_nodes; const char *edges; Positions unreachable_nodes; int result; const char *after; };

const PassCase chain_case = {"chain 0-1-2-3, counter in the middle", 4, "0>1 1>2i 2>3", {}, 1, "C(+1) I C(+1)"};
const PassCase single_edge_case = {"single edge forced", 2, "0>1", {}, 0, "F()"};

TEST(PlacementPass, WorkedCases)
{
    const PassCase cases[] = {
        chain_case,
        single_edge_case,
        {"no edges", 3, "", {}, 1, ""},
        {"single immeasurable edge forced", 2, "0>1m", {}, 0, "F()"},
        {"single pseudo edge accepted empty", 2, "0>1p", {}, 1, "C()"},
        {"diamond without counters", 4, "0>1 0>2 1>3 2>3", {}, 0, "U() U() U() U()"},
        {"round 2 stops at a node with two unsettled edges", 5, "0>1 1>2 1>2 3>4", {}, 0, "U() U() U() U()"},
        {"unreachable edge and node do not block", 3, "0>1p 1>2u", {2}, 1, "C() C"},
        // Queued, node 0 would resolve 0>1 from its side first, as +0.
        {"unreachable node never queued", 4, "3>0i 0>1 1>2i", {0}, 1, "I C(+2) I"},
        {"formula on an immeasurable counter only: forced", 3, "0>1im 1>2", {}, 0, "I F()"},
        {"formula on a measurable and an immeasurable counter", 4, "0>1i 1>2 3>1im", {}, 1, "I C(+0+2) I"},
    };
    for (const PassCase &c : cases) {
        SCOPED_TRACE(c.name);
        GraphPtr graph = build_graph(c.num_nodes, edges_of(c.edges), c.unreachable_nodes);
        EXPECT_EQ(quarl_inst_graph_adjust_instrumentation(graph.get()), c.result);
        EXPECT_EQ(describe(graph), c.after);
        ASSERT_EQ(graph->m_formula_mask_bits, graph->m_num_edges);
        for (uint32_t i = 0; i < graph->m_num_edges; ++i)
            EXPECT_TRUE(graph->m_formula_edge_vec[i] == edge_at(graph, i) &&
                        edge_at(graph, i)->m_formula_bit_pos == static_cast<int32_t>(i));
    }
}

// The pass's trace under the mask, with stderr fully buffered so that what
// the pass leaves unflushed is seen apart.
std::string run_traced(const PassCase &c, uint32_t mask, std::string *unflushed)
{
    GraphPtr graph = build_graph(c.num_nodes, edges_of(c.edges));
    TraceMaskScope scope(mask);
    return capture_stderr([&] {
        static char buffer[1 << 16];
        setvbuf(stderr, buffer, _IOFBF, sizeof buffer);
        EXPECT_EQ(quarl_inst_graph_adjust_instrumentation(graph.get()), c.result);
        unflushed->assign(buffer, __fpending(stderr));
        fflush(stderr);
        setvbuf(stderr, nullptr, _IONBF, 0);
    });
}

TEST(PlacementPass, Traces)
{
    const std::string round2 = std::string(38, '-') + "\nBegin formula round 2 for forced edges.\nRemaining nodes:\n";
    const std::string dump = "Edge:   m_counter_idx      = 0\n  m_src  = B0000\n  m_dest = B0001\n  m_cost = 0\n"
                             "  m_exec_count       = 0\n  m_formula_bit_pos  = 0\n  Additive   :[1] " + std::string(32, '0') +
                             "\n  Subtractive:[1] " + std::string(32, '0') + "\nFormula: \n"
                             "  m_is_reachable             = T\n  m_is_pseudo                = F\n"
                             "  m_is_instrumented          = F\n  m_is_computed              = F\n"
                             "  m_is_forced_instrumented   = F\n  m_is_immeasurable          = F\n";
    const std::string resolution = "Processing edge: B0000.B0001\n" + dump + std::string(43, '-') + "\n" +
                                   "Finished edge: B0000.B0001\n" + dump;
    const std::string forced = "Setting edge [ B0000.B0001 ] as instrumented\n";
    const std::string resolving = resolution + resolution + round2 + "Node: B0001\nNode: B0000\n" + resolution;
    const std::pair<uint32_t, std::string> cases[] = {{0, ""}, {4, ""}, {1, forced}, {2, resolving}, {3, resolving + forced}};
    std::string unflushed;
    for (const auto &c : cases) {
        EXPECT_EQ(run_traced(single_edge_case, c.first, &unflushed), c.second) << c.first;
        EXPECT_EQ(unflushed, "") << c.first; // every resolution is flushed
    }
    EXPECT_EQ(run_traced({"", 3, "0>1i 1>2", {}, 1, ""}, 2, &unflushed).find("round 2"), std::string::npos);
    // A round 2 with nothing left to resolve: its header is not flushed.
    EXPECT_NE(run_traced(chain_case, 2, &unflushed).find("Formula: +B0001.B0002"), std::string::npos);
    EXPECT_EQ(unflushed, round2 + "Node: B0001\n");
}

// Counters: per edge its counter index, -1 for none; traced: the edges newly instrumented.
TEST(PlacementSelect, CounterTable)
{
    struct Case { const char *name; uint32_t num_nodes; const char *edges; std::vector<int> counters; const char *traced; };
    const Case cases[] = {
        {"cheapest edge gets the counter", 3, "0>1:5 1>2:1 2>0:3", {-1, 0, -1}, "B0001.B0002"},
        {"equal costs: the later edge", 3, "0>1:2 1>2:2 2>0:2", {-1, -1, 0}, "B0002.B0000"},
        {"negative costs are cheaper", 3, "0>1:-5 1>2:2 2>0:1", {0, -1, -1}, "B0000.B0001"},
        {"pseudo edge stays on the tree", 3, "0>1:5 1>2:1 2>0p:-10", {-1, 0, -1}, "B0001.B0002"},
        {"immeasurable edge stays on the tree", 3, "0>1m:1 1>2:5 2>0:3", {-1, -1, 0}, "B0002.B0000"},
        {"caller's counters taken last, numbered on the tree too", 4, "0>1i:100 1>2:1 2>0:3 2>3i", {0, -1, -1, 1}, ""},
        {"unreachable edge left alone", 3, "0>1:5 1>2:1 2>0:3 0>2u:50", {-1, 0, -1, -1}, "B0001.B0002"},
        {"self-loop always counted", 2, "0>1:1 1>0:1 1>1:99", {-1, 0, 1}, "B0001.B0000 B0001.B0001"},
        {"counters numbered in edge order", 4, "0>1:9 1>2:8 2>3:7 3>0i 0>2:1 1>3:6", {-1, -1, -1, 0, 1, 2},
         "B0000.B0002 B0001.B0003"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<EdgeSpec> edges = edges_of(c.edges);
        for (EdgeSpec &edge : edges)
            edge.counter = 7; // renumbered when instrumented, kept otherwise
        GraphPtr graph = build_graph(c.num_nodes, edges);
        uint32_t result = 0, expected_count = 0;
        std::string expected_trace;
        std::istringstream names(c.traced);
        for (std::string name; names >> name;)
            expected_trace += "Setting edge [ " + name + " ] as instrumented\n";
        TraceMaskScope scope(1);
        EXPECT_EQ(capture_stderr([&] { result = quarl_inst_graph_select_counters(graph.get()); }), expected_trace);
        for (uint32_t i = 0; i < graph->m_num_edges; ++i) {
            bool counted = c.counters[i] >= 0;
            expected_count += counted;
            EXPECT_EQ(edge_at(graph, i)->m_is_instrumented, counted) << "edge " << i;
            EXPECT_EQ(edge_at(graph, i)->m_counter_idx, counted ? uint32_t(c.counters[i]) : 7u);
        }
        EXPECT_EQ(result, expected_count);
        EXPECT_EQ(graph->m_num_counters, expected_count);
    }
}

// Small graphs with random costs against every set of E - V + 1 counters
// that avoids pseudo and immeasurable edges and lets the pass succeed
// unforced: none is cheaper than the selection.
TEST(PlacementSelect, NoCheaperCounterSetOnSmallGraphs)
{
    std::mt19937_64 rng(77);
    std::uniform_int_distribution<int64_t> cost(-3, 4);
    for (int round = 0, checked = 0; checked < 150; ++round) {
        uint32_t num_nodes = 2 + static_cast<uint32_t>(rng() % 4);
        std::vector<EdgeSpec> edges = without_counters(generate_routine(rng, num_nodes, rng() % 7)).edges;
        uint32_t num_edges = static_cast<uint32_t>(edges.size()), excluded = 0, chosen = 0;
        if (num_edges > 10)
            continue;
        ++checked;
        SCOPED_TRACE(round);
        for (EdgeSpec &edge : edges)
            edge.cost = cost(rng);
        if (num_nodes >= 3 && rng() % 2 == 0) // a chain edge: no cycle with the pseudo edge
            edges[1 + rng() % (num_nodes - 2)].immeasurable = true;
        GraphPtr graph = build_graph(num_nodes, edges);
        ASSERT_EQ(quarl_inst_graph_select_counters(graph.get()), num_edges - num_nodes + 1);
        EXPECT_TRUE(placed_unforced(graph));
        int64_t chosen_cost = 0;
        for (uint32_t i = 0; i < num_edges; ++i) {
            excluded |= uint32_t(edges[i].pseudo || edges[i].immeasurable) << i;
            chosen |= uint32_t(edge_at(graph, i)->m_is_instrumented) << i;
            chosen_cost += edge_at(graph, i)->m_is_instrumented ? edges[i].cost : 0;
        }
        EXPECT_EQ(chosen & excluded, 0u);
        for (uint32_t set = 0; set < (1u << num_edges); ++set) {
            int64_t set_cost = 0;
            for (uint32_t i = 0; i < num_edges; ++i)
                set_cost += (edges[i].instrumented = (set >> i) & 1) ? edges[i].cost : 0;
            bool candidate = (set & excluded) == 0 && __builtin_popcount(set) == int(num_edges - num_nodes + 1);
            EXPECT_FALSE(candidate && set_cost < chosen_cost && placed_unforced(build_graph(num_nodes, edges)))
                << "counter set " << set << " is cheaper than " << chosen;
        }
    }
}

// Every allocation of selection made to fail in turn (the pass is swept with
// the pipelines): failure is reported, the graph is as it was, nothing leaks.
TEST(PlacementSelect, AllocationFailures)
{
    std::mt19937_64 rng(9);
    Routine bare = without_counters(generate_routine(rng, 8, 10));
    bare.edges[2].instrumented = true; // a caller's counter, renumbered by selection
    auto snapshot = [](const GraphPtr &graph) {
        std::string state = describe(graph) + " " + std::to_string(graph->m_num_counters);
        for (uint32_t i = 0; i < graph->m_num_edges; ++i)
            state += " " + std::to_string(edge_at(graph, i)->m_counter_idx);
        return state;
    };
    uint64_t covered = sweep_allocation_failures([&] {
        GraphPtr graph = build_routine_graph(bare);
        std::string before = snapshot(graph);
        arm_allocation_failure();
        uint32_t result = quarl_inst_graph_select_counters(graph.get());
        bool failed = allocation_failure_delivered();
        EXPECT_EQ(result, failed ? QUARL_SELECT_COUNTERS_FAILED : bare.edges.size() - 7);
        EXPECT_EQ(snapshot(graph) == before, failed);
    });
    EXPECT_GE(covered, 4u);
}

} // namespace
} // namespace quarl_test
