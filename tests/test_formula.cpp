// Formula bitsets, formula terms and the transitions that settle an edge as
// instrumented or computed.
#include "test_support.h"

#include <algorithm>
#include <cstring>

namespace quarl_test {
namespace {

using Positions = std::vector<uint32_t>;
using BitsetPtr = std::unique_ptr<QuarlInstBitset, void (*)(QuarlInstBitset *)>;

BitsetPtr bitset_of(const Positions &positions, uint32_t bits = 40)
{
    return BitsetPtr(bitset_with(positions, bits), quarl_inst_bitset_delete);
}

void give_formula(QuarlInstEdge *edge, const Positions &add, const Positions &sub)
{
    edge->m_additive = bitset_with(add, 40);
    edge->m_subtractive = bitset_with(sub, 40);
}

TEST(Formula, BitsetSizesAndCreationFailure)
{
    for (const std::pair<uint32_t, uint32_t> &c : {std::pair<uint32_t, uint32_t>{0, 0}, {1, 1}, {32, 1}, {33, 2}, {64, 2}, {65, 3}}) {
        const uint32_t bits = c.first, chunks = c.second;
        BitsetPtr bitset = bitset_of({}, bits);
        EXPECT_TRUE(bitset->m_size == bits && bitset->m_chunk_count == chunks && bitset->m_bit_capacity == 32 * chunks) << bits;
        EXPECT_EQ(std::count(bitset->m_chunks, bitset->m_chunks + chunks, 0u), chunks);
        uint64_t covered = sweep_allocation_failures([&] {
            arm_allocation_failure();
            QuarlInstBitset *failed = quarl_inst_bitset_create(bits);
            EXPECT_EQ(failed == nullptr, allocation_failure_delivered());
            quarl_inst_bitset_delete(failed);
        });
        EXPECT_EQ(covered, 1u); // record and chunks come in one block
    }
}

TEST(Formula, SetOperations)
{
    struct Case { Positions a, b; bool a_has_more; Positions a_cleared, b_cleared, merged; };
    const Case cases[] = {
        {{}, {5}, false, {}, {5}, {5}},        {{5}, {5}, false, {}, {}, {5}},
        {{5}, {5, 6}, false, {}, {6}, {5, 6}}, {{5}, {}, true, {5}, {}, {5}},
        {{5, 6}, {5}, true, {6}, {}, {5, 6}},  {{1, 2}, {2, 3}, true, {1}, {3}, {1, 2, 3}},
        {{36}, {4}, true, {36}, {4}, {4, 36}}, {{0, 33, 39}, {33, 38, 39}, true, {0}, {38}, {0, 33, 38, 39}},
    };
    for (const Case &c : cases) {
        BitsetPtr a = bitset_of(c.a), b = bitset_of(c.b), merged = bitset_of(c.a);
        EXPECT_EQ(quarl_inst_bitset_intersects(a.get(), b.get()), c.a_has_more);
        quarl_inst_bitset_merge_with(merged.get(), b.get());
        EXPECT_EQ(positions_of(merged.get()), c.merged);
        EXPECT_EQ(positions_of(b.get()), c.b);
        quarl_inst_bitset_clear_intersection(a.get(), b.get());
        EXPECT_EQ(positions_of(a.get()), c.a_cleared);
        EXPECT_EQ(positions_of(b.get()), c.b_cleared);
    }
}

// Position 35 is an instrumented edge; a computed term carries its formula.
TEST(Formula, TermsCancelAndUnite)
{
    struct Case { const char *name; Positions add, sub; bool computed; Positions term_add, term_sub; bool positive; const char *want; };
    const Case cases[] = {
        {"+p cancels -p", {}, {35}, false, {}, {}, true, "()"},
        {"+p twice stays once", {35}, {}, false, {}, {}, true, "(+35)"},
        {"-p cancels +p", {35, 3}, {}, false, {}, {}, false, "(+3)"},
        {"-p is subtracted", {3}, {}, false, {}, {}, false, "(+3-35)"},
        {"+E cancels", {35}, {}, true, {3}, {35}, true, "(+3)"},
        {"-E is absorbed", {35}, {}, true, {3}, {35}, false, "(+35-3)"},
        {"+E is a union", {3}, {1}, true, {3, 36}, {}, true, "(+3+36-1)"},
    };
    for (const Case &c : cases) {
        GraphPtr graph = build_graph(2, edges_of("0>1 0>1i 1>0"));
        QuarlInstEdge *edge = edge_at(graph, 0), *term = edge_at(graph, c.computed ? 2 : 1);
        give_formula(edge, c.add, c.sub);
        edge_at(graph, 1)->m_formula_bit_pos = 35;
        if (c.computed)
            give_formula(term, c.term_add, c.term_sub);
        quarl_inst_edge_add_formula_term(edge, term, c.positive);
        EXPECT_EQ(formula_text(edge), c.want) << c.name;
    }
}

TEST(Formula, PositionsOutsideMaskAndClearing)
{
    struct Case { Positions add, sub, mask; bool outside_mask; };
    const Case cases[] = {{{}, {}, {}, false}, {{}, {}, {1}, false}, {{1}, {}, {}, true},
                          {{1}, {}, {1}, false}, {{}, {36}, {1}, true}, {{1}, {36}, {1, 36}, false}};
    for (const Case &c : cases) {
        GraphPtr graph = build_graph(2, {{0, 1}});
        QuarlInstEdge *edge = edge_at(graph, 0);
        give_formula(edge, c.add, c.sub);
        EXPECT_EQ(quarl_inst_edge_check_formula_intersection(edge, bitset_of(c.mask).get()), c.outside_mask);
        edge->m_is_computed = 1;
        quarl_inst_edge_clear_formula(edge);
        EXPECT_EQ(formula_text(edge), "()");
        EXPECT_EQ(edge->m_is_computed, 0u);
    }
}

// Edges 0->1, 0->2, 0->3, 0->0, 1->2: the uncalculated lists of blocks 0-3
// start as {0,1,2,3}, {0,4}, {1,4}, {2}. Instrumenting is done twice: the
// second call changes nothing but is traced again.
TEST(Formula, TransitionsRelinkTheUncalculatedListsAndTrace)
{
    struct Case { uint32_t edge; bool computed; uint32_t mask; std::string trace; std::vector<Positions> want; };
    const std::string instrumented = "Setting edge [ B0000.B0001 ] as instrumented\n";
    const Case cases[] = {
        {0, false, 1, instrumented + instrumented, {{1, 2, 3}, {4}, {1, 4}, {2}}}, // head of both lists
        {1, true, 2, "Setting edge [ B0000.B0002 ] as computed\n", {{0, 2, 3}, {0, 4}, {4}, {2}}}, // middle; head of two
        {2, false, 6, "", {{0, 1, 3}, {0, 4}, {1, 4}, {}}},     // only element at the far end
        {3, true, 5, "", {{0, 1, 2}, {0, 4}, {1, 4}, {2}}},     // self-loop at the tail
        {4, false, 0, "", {{0, 1, 2, 3}, {0}, {1}, {2}}},       // tail of two at both ends
    };
    for (const Case &c : cases) {
        GraphPtr graph = build_graph(4, edges_of("0>1 0>2 0>3 0>0 1>2"));
        std::vector<std::vector<const void *>> all_edges;
        for (uint32_t n = 0; n < 4; ++n)
            all_edges.push_back(list_items(node_at(graph, n)->m_edges));
        QuarlInstEdge *edge = edge_at(graph, c.edge);
        edge->m_exec_count = 11;
        edge->m_counter_idx = 6;
        TraceMaskScope mask(c.mask);
        EXPECT_EQ(capture_stderr([&] {
            for (int call = 0; call < (c.computed ? 1 : 2); ++call)
                c.computed ? quarl_inst_edge_set_as_computed(edge) : quarl_inst_edge_set_as_instrumented(edge);
        }), c.trace);
        EXPECT_TRUE(edge->m_is_computed == c.computed && edge->m_is_instrumented == !c.computed);
        EXPECT_TRUE(edge->m_exec_count == 11 && edge->m_counter_idx == 6 && edge->m_formula_bit_pos == -1);
        for (uint32_t n = 0; n < 4; ++n) {
            Positions left;
            for (const void *e : list_items(node_at(graph, n)->m_uncalculated_edges))
                left.push_back(std::find(graph->m_edge_vec, graph->m_edge_vec + 5, e) - graph->m_edge_vec);
            EXPECT_EQ(left, c.want[n]) << c.edge << " at block " << n;
            EXPECT_EQ(list_items(node_at(graph, n)->m_edges), all_edges[n]);
        }
    }
}

TEST(FormulaDeathTest, BrokenInvariantsStopWithTheirExpression)
{
    GraphPtr graph = build_graph(2, edges_of("0>1i 0>1"));
    QuarlInstEdge *instrumented = edge_at(graph, 0), *plain = edge_at(graph, 1);
    BitsetPtr b8 = bitset_of({}, 8), b32 = bitset_of({}, 32), b33 = bitset_of({}, 33);
    QuarlInstList *list = quarl_inst_list_create();
    quarl_inst_list_append(list, plain);
    QuarlInstListElement stranger{plain, nullptr, nullptr};
    const std::string chunks = "((bitset1)->m_chunk_count) == ((bitset2)->m_chunk_count)";
    const std::string formula = "additive != ((void *)0) && subtractive != ((void *)0)";
    struct Case { std::function<void()> run; std::string function, expression; };
    const Case cases[] = {
        {[&] { quarl_inst_bitset_set_bit(b8.get(), 8); }, "quarl_inst_bitset_set_bit", "pos < ((bitset)->m_size)"},
        {[&] { quarl_inst_bitset_get_bit(b32.get(), 32); }, "quarl_inst_bitset_get_bit", "pos < ((bitset)->m_size)"},
        {[&] { quarl_inst_bitset_merge_with(b32.get(), nullptr); }, "quarl_inst_bitset_merge_with", "bitset1 != ((void *)0) && bitset2 != ((void *)0)"},
        {[&] { quarl_inst_bitset_merge_with(b32.get(), b33.get()); }, "quarl_inst_bitset_merge_with", chunks},
        {[&] { quarl_inst_bitset_intersects(b33.get(), b32.get()); }, "quarl_inst_bitset_intersects", chunks},
        {[&] { quarl_inst_bitset_clear_intersection(b32.get(), b33.get()); }, "quarl_inst_bitset_clear_intersection", chunks},
        {[&] { quarl_inst_edge_clear_formula(plain); }, "quarl_inst_edge_clear_formula", formula},
        {[&] { quarl_inst_edge_check_formula_intersection(plain, b32.get()); }, "quarl_inst_edge_check_formula_intersection", formula},
        {[&] { quarl_inst_graph_get_edge_for_formula_position(graph.get(), 0); }, "quarl_inst_graph_get_edge_for_formula_position", "bit_pos < ((graph)->m_formula_mask_bits)"},
        {[&] { quarl_inst_edge_set_as_instrumented(nullptr); }, "quarl_inst_edge_set_as_instrumented", "edge != ((void *)0)"},
        {[&] { quarl_inst_edge_set_as_computed(nullptr); }, "quarl_inst_edge_set_as_computed", "edge != ((void *)0)"},
        {[&] { quarl_inst_edge_set_as_computed(instrumented); }, "quarl_inst_edge_set_as_computed", "!((edge)->m_is_instrumented)"},
        {[&] { quarl_inst_edge_set_as_computed(plain); quarl_inst_edge_set_as_computed(plain); }, "quarl_inst_edge_set_as_computed", "ok"},
        {[&] { quarl_inst_list_remove(list, &stranger); }, "quarl_inst_list_remove", "element == ((list)->m_head)"},
        {[&] { quarl_inst_graph_add_node(graph.get(), 1); }, "quarl_inst_graph_add_node", "((graph)->m_node_vec)[node_idx] == ((void *)0)"},
    };
    for (const Case &c : cases) {
        std::string pattern;
        for (char ch : c.expression)
            pattern += std::string(std::strchr(".[]()*+?|^$\\", ch) && ch ? "\\" : "") + ch;
        EXPECT_DEATH(c.run(), "edgeinst:[0-9]+: " + c.function + ": Assertion `" + pattern + "' failed");
    }
    quarl_inst_list_delete(list);
}

} // namespace
} // namespace quarl_test
