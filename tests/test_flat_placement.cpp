// The placement pass without formulas against the formula pass: on every
// graph, the same verdict, the same edges computed and forced, the same
// uncalculated lists and the same stored words.
#include "compiled_routine.h"
#include "test_support.h"

using namespace quarl_test;

namespace {

// What a placement leaves on one edge: U uncalculated, C computed, I
// instrumented, F forced.
std::string edge_states(const GraphPtr &graph)
{
    std::string states;
    for (uint32_t i = 0; i < graph->m_num_edges; ++i) {
        const QuarlInstEdge *edge = edge_at(graph, i);
        states += edge->m_is_forced_instrumented ? 'F'
                  : edge->m_is_instrumented     ? 'I'
                  : edge->m_is_computed         ? 'C'
                                                : 'U';
    }
    return states;
}

std::vector<uint32_t> encoded_words(const GraphPtr &graph)
{
    EncodedGraphPtr encoded(quarl_inst_graph_encode(graph.get()));
    return encoded ? stored_words(encoded.get()) : std::vector<uint32_t>{};
}

// Places two copies of one graph, one each way, and requires the same
// outcome. make_graph builds the graph with its counters marked. Returns
// the verdict.
int expect_same_placement(const std::function<GraphPtr()> &make_graph)
{
    GraphPtr with_formulas = make_graph(), linear = make_graph();
    int verdict = quarl_inst_graph_adjust_instrumentation(with_formulas.get());
    EXPECT_EQ(quarl_inst_graph_adjust_instrumentation_linear(linear.get()), verdict);
    EXPECT_EQ(edge_states(linear), edge_states(with_formulas));
    EXPECT_TRUE(lists_match_flags(linear.get()));
    EXPECT_EQ(linear->m_formula_mask_bits, 0u);
    for (uint32_t i = 0; i < linear->m_num_edges; ++i)
        EXPECT_TRUE(edge_at(linear, i)->m_formula_bit_pos == -1 && edge_at(linear, i)->m_additive == nullptr);
    if (verdict == 1) {
        EXPECT_EQ(encoded_words(linear), encoded_words(with_formulas));
    }
    return verdict;
}

// The routine varied as the plugin and odd callers vary it: some counters
// taken away (so that counts rest on nothing and counters are forced),
// some edges immeasurable or pseudo, some blocks unreachable.
Routine varied(Routine routine, std::mt19937_64 &rng, std::vector<uint32_t> *unreachable_nodes)
{
    std::uniform_int_distribution<int> percent(0, 99);
    int drop = percent(rng) % 3 == 0 ? 20 : 0, immeasurable = percent(rng) % 30,
        pseudo = percent(rng) % 10, unreachable = percent(rng) % 3 == 0 ? 10 : 0;
    for (uint32_t node = 1; node + 1 < routine.num_nodes; ++node)
        if (percent(rng) < unreachable)
            unreachable_nodes->push_back(node);
    for (EdgeSpec &edge : routine.edges) {
        if (percent(rng) < drop)
            edge.instrumented = false;
        edge.immeasurable = percent(rng) < immeasurable;
        edge.pseudo = edge.pseudo || percent(rng) < pseudo;
        for (uint32_t node : *unreachable_nodes)
            if (edge.src == node || edge.dest == node)
                edge.reachable = edge.instrumented = false;
    }
    return routine;
}

TEST(FlatPlacement, SmallCasesTable)
{
    struct Case { const char *name; uint32_t num_nodes; const char *edges; std::vector<uint32_t> unreachable; int result; };
    const Case cases[] = {
        {"chain, counter in the middle", 4, "0>1 1>2i 2>3", {}, 1},
        {"single edge forced", 2, "0>1", {}, 0},
        {"no edges", 3, "", {}, 1},
        {"single immeasurable edge forced", 2, "0>1m", {}, 0},
        {"single pseudo edge", 2, "0>1p", {}, 1},
        {"diamond without counters", 4, "0>1 0>2 1>3 2>3", {}, 0},
        {"round 2 stops at a node with two unsettled edges", 5, "0>1 1>2 1>2 3>4", {}, 0},
        {"unreachable edge and node", 3, "0>1p 1>2u", {2}, 1},
        {"unreachable node never queued", 4, "3>0i 0>1 1>2i", {0}, 1},
        {"count on an immeasurable counter only: forced", 3, "0>1im 1>2", {}, 0},
        {"measurable and immeasurable counters", 4, "0>1i 1>2 3>1im", {}, 1},
        {"counted self-loop carries the count", 3, "0>1 1>1i 1>2p", {}, 1},
        {"computed self-loop", 3, "0>1i 1>1 1>2i", {}, 1},
        {"counter inside the set cancels: forced", 4, "0>1 1>2i 2>1i 1>3p", {}, 1},
        {"loop closed by a pseudo edge", 4, "0>1i 1>2 2>1i 2>3 3>0p", {}, 1},
        {"cycle with one counter on the inner loop", 4, "0>1 1>2 2>1i 2>3 3>0p", {}, 0},
        {"immeasurable edges without counters", 4, "0>1m 1>2m 2>3 3>0p", {}, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(expect_same_placement([&] { return build_graph(c.num_nodes, edges_of(c.edges), c.unreachable); }),
                  c.result);
    }
}

// Random routines, with their own counters, with the counters selection
// picks, and varied; the formula pass's verdict either way.
TEST(FlatPlacement, SameAsFormulasOnGeneratedRoutines)
{
    std::mt19937_64 rng(2024);
    int verdicts[2] = {0, 0};
    for (int round = 0; round < 600; ++round) {
        uint32_t nodes = 2 + uint32_t(rng() % (round < 500 ? 12 : 400));
        Routine routine = generate_routine(rng, nodes, uint32_t(rng() % (2 * nodes + 1)));
        std::vector<uint32_t> unreachable;
        Routine changed = varied(routine, rng, &unreachable);
        SCOPED_TRACE("round " + std::to_string(round));
        ++verdicts[expect_same_placement([&] { return build_routine_graph(routine); })];
        ++verdicts[expect_same_placement([&] { return build_graph(changed.num_nodes, changed.edges, unreachable); })];
        ++verdicts[expect_same_placement([&] {
            GraphPtr graph = build_graph(changed.num_nodes, without_counters(changed).edges, unreachable);
            EXPECT_NE(quarl_inst_graph_select_counters(graph.get()), QUARL_SELECT_COUNTERS_FAILED);
            return graph;
        })];
    }
    // Both verdicts were exercised, forced counters included.
    EXPECT_GT(verdicts[0], 50);
    EXPECT_GT(verdicts[1], 500);
}

// Routines shaped like compiled code, up to thousands of edges, with the
// counters selection picks.
TEST(FlatPlacement, SameAsFormulasOnCompiledRoutines)
{
    for (uint32_t edges : {5u, 40u, 300u, 2000u, 9000u})
        for (uint64_t seed = 1; seed <= 6; ++seed) {
            SCOPED_TRACE(std::to_string(edges) + " edges, seed " + std::to_string(seed));
            quarl_bench::CompiledRoutine routine = quarl_bench::make_compiled_routine(edges, seed);
            EXPECT_EQ(expect_same_placement([&] {
                          GraphPtr graph(quarl_bench::build_compiled_graph(routine));
                          EXPECT_NE(quarl_inst_graph_select_counters(graph.get()), QUARL_SELECT_COUNTERS_FAILED);
                          return graph;
                      }),
                      1);
        }
}

// Memory running out leaves the graph as it was.
TEST(FlatPlacement, AllocationFailures)
{
    std::mt19937_64 rng(7);
    Routine routine = generate_routine(rng, 30, 40);
    uint64_t covered = sweep_allocation_failures([&] {
        GraphPtr graph = build_routine_graph(routine);
        std::string before = edge_states(graph);
        arm_allocation_failure();
        int result = quarl_inst_graph_adjust_instrumentation_linear(graph.get());
        if (allocation_failure_delivered()) {
            EXPECT_EQ(result, 0);
            EXPECT_EQ(edge_states(graph), before);
            EXPECT_TRUE(lists_match_flags(graph.get()));
        } else {
            EXPECT_EQ(result, 1);
        }
    });
    EXPECT_EQ(covered, 9u);
}

} // namespace
