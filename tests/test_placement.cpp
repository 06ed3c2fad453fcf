// Counter placement: the resolution of a node's last unsettled edge, the
// placement pass, and counter selection.
#include "test_support.h"

#include <stdio_ext.h>

#include <sstream>

namespace quarl_test {
namespace {

using Positions = std::vector<uint32_t>;

// "0>1 2>0im 1>2:5": source>destination, flags (i instrumented, p pseudo,
// m immeasurable, u unreachable), ":cost".
std::vector<EdgeSpec> edges_of(const std::string &text)
{
    std::vector<EdgeSpec> edges;
    std::istringstream in(text);
    for (std::string t; in >> t;) {
        EdgeSpec edge{0, 0};
        sscanf(t.c_str(), "%u>%u", &edge.src, &edge.dest);
        edge.instrumented = t.find('i') != std::string::npos;
        edge.pseudo = t.find('p') != std::string::npos;
        edge.immeasurable = t.find('m') != std::string::npos;
        edge.reachable = t.find('u') == std::string::npos;
        edge.cost = t.find(':') == std::string::npos ? 0 : std::stoll(t.substr(t.find(':') + 1));
        edges.push_back(edge);
    }
    return edges;
}

// An edge as its state (U uncalculated, C computed, I instrumented, F
// instrumented by force) and, when it has formula bitsets, its formula in
// positions: "C(+1-3)".
std::string describe(const QuarlInstEdge *edge)
{
    std::string text(1, edge->m_is_forced_instrumented ? 'F' : edge->m_is_instrumented ? 'I'
                                                      : edge->m_is_computed ? 'C' : 'U');
    if (edge->m_additive == nullptr || edge->m_subtractive == nullptr)
        return text;
    text += '(';
    for (uint32_t pos : positions_of(edge->m_additive))
        text += "+" + std::to_string(pos);
    for (uint32_t pos : positions_of(edge->m_subtractive))
        text += "-" + std::to_string(pos);
    return text + ')';
}

std::string describe(const GraphPtr &graph)
{
    std::string text;
    for (uint32_t i = 0; i < graph->m_num_edges; ++i)
        text += (i == 0 ? "" : " ") + describe(edge_at(graph, i));
    return text;
}

Positions blocks_in(const QuarlInstList *queue)
{
    Positions blocks;
    for (const QuarlInstListElement *e = queue->m_head; e != nullptr; e = e->m_next)
        blocks.push_back(static_cast<const QuarlInstNode *>(e->m_data)->m_seg_block_idx);
    return blocks;
}

// The pass's set-up by hand (positions by edge index, empty formulas on
// reachable edges without a counter, unreachable edges settled), then the
// edges of `computed` ("edge:+pos-pos ...") settled with those formulas.
void set_up_formulas(const GraphPtr &graph, const std::string &computed)
{
    uint32_t bits = graph->m_formula_mask_bits = graph->m_num_edges;
    graph->m_formula_edge_vec =
        static_cast<QuarlInstEdge **>(quarl_mem_alloc(sizeof(QuarlInstEdge *) * bits));
    for (uint32_t i = 0; i < bits; ++i) {
        QuarlInstEdge *edge = graph->m_formula_edge_vec[i] = edge_at(graph, i);
        edge->m_formula_bit_pos = static_cast<int32_t>(i);
        if (!edge->m_is_reachable) {
            quarl_inst_edge_set_as_computed(edge);
        } else if (!edge->m_is_instrumented) {
            edge->m_additive = quarl_inst_bitset_create(bits);
            edge->m_subtractive = quarl_inst_bitset_create(bits);
        }
    }
    std::istringstream in(computed);
    for (std::string token; in >> token;) {
        QuarlInstEdge *edge = edge_at(graph, uint32_t(std::stoul(token)));
        for (size_t at = token.find_first_of("+-"); at != std::string::npos;
             at = token.find_first_of("+-", at + 1))
            quarl_inst_bitset_set_bit(token[at] == '+' ? edge->m_additive : edge->m_subtractive,
                                      uint32_t(std::stoul(token.substr(at + 1))));
        quarl_inst_edge_set_as_computed(edge);
    }
}

struct ResolveCase {
    const char *name;
    const char *edges;    // over nodes 0-4; edge 0 is resolved at node 0
    const char *computed; // edges settled beforehand, with their formulas
    const char *call;     // M mask, D deferred queue, F force, R far end already resolved
    Positions mask;
    bool result;
    const char *edge;     // edge 0 afterwards
    Positions ready, deferred;
    uint8_t node_byte;
    bool masked;          // edge 0's position in the mask afterwards
};

const std::vector<ResolveCase> resolve_cases = {
    {"incoming: other side added, own side subtracted", "1>0 0>2 3>0 4>0i 0>4i 2>4i 3>4i 4>3i",
     "1:+5-7 2:+6", "MD", {}, true, "C(+4+5-3-6-7)", {1}, {}, 0, false},
    {"outgoing: counter in added, counter out subtracted", "0>1 2>0i 0>3i", "", "MD", {}, true,
     "C(+1-2)", {1}, {}, 0, false},
    {"self-loop resolved as incoming, nothing queued", "0>0 1>0i 0>2i", "", "MD", {}, true,
     "C(+2-1)", {}, {}, 0, false},
    {"self-loop term added for a leaving edge", "0>1 0>0i 2>0i", "", "MD", {}, true, "C(+1+2)",
     {1}, {}, 0, false},
    {"self-loop term subtracted for an entering edge", "1>0 0>0i 0>2i", "", "MD", {}, true,
     "C(+2-1)", {1}, {}, 0, false},
    {"unreachable edge counts nothing", "0>1 2>0i 0>3u", "", "MD", {}, true, "C(+1)", {1}, {}, 0,
     false},
    {"no mask accepts an empty formula; far end resolved: not queued", "0>1", "", "R", {}, true,
     "C()", {}, {}, 0, false},
    {"empty formula deferred to the far end", "0>1", "", "MD", {}, true, "U()", {}, {1}, 1, false},
    {"empty formula, no deferred queue", "0>1", "", "M", {}, false, "U()", {}, {}, 1, false},
    {"pseudo edge accepts an empty formula", "0>1p", "", "M", {}, true, "C()", {1}, {}, 0, false},
    {"only immeasurable counters: rejected, emptied", "0>1 2>0im", "", "MD", {1}, true, "U()", {},
     {1}, 1, false},
    {"one measurable counter makes it acceptable", "0>1 2>0im 3>0i", "", "MD", {1}, true,
     "C(+1+2)", {1}, {}, 0, false},
    {"forced measurable edge", "0>1", "", "MF", {}, false, "F()", {}, {}, 1, false},
    {"forced immeasurable edge joins the mask", "0>1m", "", "MF", {}, true, "F()", {}, {}, 1, true},
    {"far end with two unsettled edges is not queued", "0>1 1>2 1>3", "", "", {}, true, "C()", {},
     {}, 0, false},
    {"two unsettled edges: nothing happens", "0>1 0>2", "", "MD", {}, false, "U()", {}, {}, 1,
     false},
};

TEST(PlacementResolve, RemainingEdgeTable)
{
    for (const ResolveCase &c : resolve_cases) {
        SCOPED_TRACE(c.name);
        std::string call = c.call;
        GraphPtr graph = build_graph(5, edges_of(c.edges));
        set_up_formulas(graph, c.computed);
        QuarlInstList *ready = quarl_inst_list_create(), *deferred = quarl_inst_list_create();
        QuarlInstBitset *mask = quarl_inst_bitset_create(graph->m_num_edges);
        for (uint32_t pos : c.mask)
            quarl_inst_bitset_set_bit(mask, pos);
        std::vector<uint8_t> remaining(5, 1);
        QuarlInstEdge *edge = edge_at(graph, 0);
        QuarlInstNode *node = node_at(graph, 0);
        if (call.find('R') != std::string::npos)
            remaining[(edge->m_dest == node ? edge->m_src : edge->m_dest)->m_seg_block_idx] = 0;
        EXPECT_EQ(quarl_inst_graph_compute_remaining_edge(
                      node, ready, call.find('D') != std::string::npos ? deferred : nullptr,
                      call.find('M') != std::string::npos ? mask : nullptr,
                      call.find('F') != std::string::npos, remaining.data()),
                  c.result);
        EXPECT_EQ(describe(edge), c.edge);
        EXPECT_EQ(blocks_in(ready), c.ready);
        EXPECT_EQ(blocks_in(deferred), c.deferred);
        EXPECT_EQ(remaining[0], c.node_byte);
        EXPECT_EQ(quarl_inst_bitset_get_bit(mask, 0), c.masked);
        quarl_inst_bitset_delete(mask);
        quarl_inst_list_delete(deferred);
        quarl_inst_list_delete(ready);
    }
}

struct PassCase {
    const char *name;
    uint32_t num_nodes;
    const char *edges;
    std::vector<uint32_t> unreachable_nodes;
    int result;
    const char *after; // every edge afterwards
};

const PassCase chain_case = {"chain 0-1-2-3, counter in the middle", 4, "0>1 1>2i 2>3", {}, 1,
                             "C(+1) I C(+1)"};
const PassCase single_edge_case = {"single edge forced", 2, "0>1", {}, 0, "F()"};

const std::vector<PassCase> pass_cases = {
    chain_case,
    single_edge_case,
    {"no edges", 3, "", {}, 1, ""},
    {"single immeasurable edge forced", 2, "0>1m", {}, 0, "F()"},
    {"single pseudo edge accepted empty", 2, "0>1p", {}, 1, "C()"},
    {"diamond without counters", 4, "0>1 0>2 1>3 2>3", {}, 0, "U() U() U() U()"},
    {"round 2 stops at a node with two unsettled edges", 5, "0>1 1>2 1>2 3>4", {}, 0,
     "U() U() U() U()"},
    {"unreachable edge and node do not block", 3, "0>1p 1>2u", {2}, 1, "C() C"},
    {"formula on an immeasurable counter only: forced", 3, "0>1im 1>2", {}, 0, "I F()"},
    {"formula on a measurable counter", 3, "0>1i 1>2", {}, 1, "I C(+0)"},
    {"formula on a measurable and an immeasurable counter", 4, "0>1i 1>2 3>1im", {}, 1,
     "I C(+0+2) I"},
};

TEST(PlacementPass, WorkedCases)
{
    for (const PassCase &c : pass_cases) {
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

const std::string rule43(43, '-'), rule38(38, '-');
const std::string round2 = rule38 + "\nBegin formula round 2 for forced edges.\nRemaining nodes:\n";

TEST(PlacementPass, Traces)
{
    const std::string dump = "Edge:   m_counter_idx      = 0\n  m_src  = B0000\n  m_dest = B0001\n"
                             "  m_cost = 0\n  m_exec_count       = 0\n  m_formula_bit_pos  = 0\n"
                             "  Additive   :[1] " + std::string(32, '0') + "\n"
                             "  Subtractive:[1] " + std::string(32, '0') + "\n"
                             "Formula: \n"
                             "  m_is_reachable             = T\n  m_is_pseudo                = F\n"
                             "  m_is_instrumented          = F\n  m_is_computed              = F\n"
                             "  m_is_forced_instrumented   = F\n  m_is_immeasurable          = F\n";
    const std::string resolution = "Processing edge: B0000.B0001\n" + dump + rule43 + "\n" +
                                   "Finished edge: B0000.B0001\n" + dump;
    const std::string forced = "Setting edge [ B0000.B0001 ] as instrumented\n";
    const std::string resolving = resolution + resolution + round2 + "Node: B0001\nNode: B0000\n" +
                                  resolution;
    const struct {
        uint32_t mask;
        std::string expected;
    } cases[] = {{0, ""}, {4, ""}, {1, forced}, {2, resolving}, {3, resolving + forced}};
    std::string unflushed;
    for (const auto &c : cases) {
        EXPECT_EQ(run_traced(single_edge_case, c.mask, &unflushed), c.expected) << c.mask;
        EXPECT_EQ(unflushed, "") << c.mask; // every resolution is flushed
    }
    const PassCase no_round2 = {"", 3, "0>1i 1>2", {}, 1, ""};
    EXPECT_EQ(run_traced(no_round2, 2, &unflushed).find("round 2"), std::string::npos);
    // A round 2 with nothing left to resolve: its header is not flushed.
    std::string chain_trace = run_traced(chain_case, 2, &unflushed);
    EXPECT_NE(chain_trace.find("Formula: +B0001.B0002"), std::string::npos);
    EXPECT_EQ(unflushed, round2 + "Node: B0001\n");
}

Routine without_counters(Routine routine)
{
    for (EdgeSpec &edge : routine.edges)
        edge.instrumented = false;
    return routine;
}

bool any_forced(const GraphPtr &graph)
{
    for (uint32_t i = 0; i < graph->m_num_edges; ++i)
        if (edge_at(graph, i)->m_is_forced_instrumented)
            return true;
    return false;
}

// Generated routines: with the generator's counters, placed and propagated;
// with counters chosen by selection, placed, encoded and read back.
TEST(PlacementPass, GeneratedRoutinesRoundTrip)
{
    std::mt19937_64 rng(20240611);
    for (int round = 0; round < 300; ++round) {
        SCOPED_TRACE(round);
        uint32_t num_nodes = 2 + static_cast<uint32_t>(rng() % (round % 60 == 59 ? 1500 : 40));
        Routine routine = generate_routine(rng, num_nodes, 2 * num_nodes);
        uint32_t num_edges = static_cast<uint32_t>(routine.edges.size());
        GraphPtr graph = build_routine_graph(routine);
        ASSERT_EQ(quarl_inst_graph_adjust_instrumentation(graph.get()), 1);
        EXPECT_FALSE(any_forced(graph));
        for (uint32_t i = 0; i < num_edges; ++i)
            edge_at(graph, i)->m_exec_count =
                edge_at(graph, i)->m_is_instrumented ? routine.edge_counts[i] : 0;
        quarl_inst_graph_propagate_exec_counts(graph.get());
        std::vector<uint64_t> edge_counts, block_counts;
        for (uint32_t i = 0; i < num_edges; ++i)
            edge_counts.push_back(edge_at(graph, i)->m_exec_count);
        for (uint32_t i = 0; i < num_nodes; ++i)
            block_counts.push_back(node_at(graph, i)->m_exec_count);
        ASSERT_EQ(edge_counts, routine.edge_counts);
        ASSERT_EQ(block_counts, routine.block_counts);

        GraphPtr selected = build_graph(num_nodes, without_counters(routine).edges);
        uint32_t num_counters = num_edges - num_nodes + 1;
        ASSERT_EQ(quarl_inst_graph_select_counters(selected.get()), num_counters);
        ASSERT_EQ(selected->m_num_counters, num_counters);
        ASSERT_EQ(quarl_inst_graph_adjust_instrumentation(selected.get()), 1);
        EXPECT_FALSE(any_forced(selected));
        EncodedGraphPtr encoded(quarl_inst_graph_encode(selected.get()));
        std::vector<uint32_t> words = stored_words(encoded.get());
        std::vector<uint64_t> counters(num_counters), blocks(num_nodes);
        for (uint32_t i = 0; i < num_edges; ++i)
            if (edge_at(selected, i)->m_is_instrumented)
                counters.at(edge_at(selected, i)->m_counter_idx) = routine.edge_counts[i];
        ASSERT_EQ(quarl_compute_blocks_from_edges(words.data(), uint32_t(words.size()),
                                                  counters.data(), num_counters,
                                                  blocks.data(), num_nodes),
                  1);
        ASSERT_EQ(blocks, routine.block_counts);
    }
}

struct SelectCase {
    const char *name;
    uint32_t num_nodes;
    const char *edges;
    std::vector<int> counters; // per edge: its counter index, -1 for none
    const char *traced;        // the edges newly instrumented
};

const std::vector<SelectCase> select_cases = {
    {"cheapest edge gets the counter", 3, "0>1:5 1>2:1 2>0:3", {-1, 0, -1}, "B0001.B0002"},
    {"equal costs: the later edge", 3, "0>1:2 1>2:2 2>0:2", {-1, -1, 0}, "B0002.B0000"},
    {"negative costs are cheaper", 3, "0>1:-5 1>2:2 2>0:1", {0, -1, -1}, "B0000.B0001"},
    {"pseudo edge stays on the tree", 3, "0>1:5 1>2:1 2>0p:-10", {-1, 0, -1}, "B0001.B0002"},
    {"immeasurable edge stays on the tree", 3, "0>1m:1 1>2:5 2>0:3", {-1, -1, 0}, "B0002.B0000"},
    {"caller's counters taken last, numbered on the tree too", 4, "0>1i:100 1>2:1 2>0:3 2>3i",
     {0, -1, -1, 1}, ""},
    {"unreachable edge left alone", 3, "0>1:5 1>2:1 2>0:3 0>2u:50", {-1, 0, -1, -1},
     "B0001.B0002"},
    {"self-loop always counted", 2, "0>1:1 1>0:1 1>1:99", {-1, 0, 1}, "B0001.B0000 B0001.B0001"},
    {"counters numbered in edge order", 4, "0>1:9 1>2:8 2>3:7 3>0i 0>2:1 1>3:6",
     {-1, -1, -1, 0, 1, 2}, "B0000.B0002 B0001.B0003"},
};

TEST(PlacementSelect, CounterTable)
{
    for (const SelectCase &c : select_cases) {
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
        EXPECT_EQ(capture_stderr([&] { result = quarl_inst_graph_select_counters(graph.get()); }),
                  expected_trace);
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
        std::vector<EdgeSpec> edges =
            without_counters(generate_routine(rng, num_nodes, rng() % 7)).edges;
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
        EXPECT_EQ(quarl_inst_graph_adjust_instrumentation(graph.get()), 1);
        EXPECT_FALSE(any_forced(graph));
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
            if ((set & excluded) != 0 || set_cost >= chosen_cost ||
                __builtin_popcount(set) != int(num_edges - num_nodes + 1))
                continue;
            GraphPtr other = build_graph(num_nodes, edges);
            bool placed = quarl_inst_graph_adjust_instrumentation(other.get()) == 1;
            EXPECT_FALSE(placed && !any_forced(other))
                << "counter set " << set << " is cheaper than " << chosen;
        }
    }
}

// Every allocation of either operation made to fail in turn: failure is
// reported, selection leaves the graph as it was, nothing is leaked.
TEST(PlacementSelect, AllocationFailures)
{
    std::mt19937_64 rng(9);
    Routine routine = generate_routine(rng, 8, 10);
    Routine bare = without_counters(routine);
    bare.edges[2].instrumented = true; // a caller's counter, renumbered by selection
    auto snapshot = [](const GraphPtr &graph) {
        std::string state = describe(graph) + " " + std::to_string(graph->m_num_counters);
        for (uint32_t i = 0; i < graph->m_num_edges; ++i)
            state += " " + std::to_string(edge_at(graph, i)->m_counter_idx);
        return state;
    };
    int64_t baseline = quarl_fault_live_blocks();
    for (bool select : {true, false}) {
        uint64_t covered = sweep_allocation_failures([&] {
            GraphPtr graph = build_routine_graph(select ? bare : routine);
            std::string before = snapshot(graph);
            arm_allocation_failure();
            uint32_t result = select ? quarl_inst_graph_select_counters(graph.get())
                                     : quarl_inst_graph_adjust_instrumentation(graph.get());
            bool failed = allocation_failure_delivered();
            EXPECT_EQ(result, failed ? (select ? QUARL_SELECT_COUNTERS_FAILED : 0)
                                     : (select ? routine.edges.size() - 7 : 1));
            EXPECT_TRUE(!select || (snapshot(graph) == before) == failed);
            graph.reset();
            EXPECT_EQ(quarl_fault_live_blocks(), baseline);
        });
        EXPECT_GE(covered, select ? 4u : routine.edges.size()) << select;
    }
}

} // namespace
} // namespace quarl_test
