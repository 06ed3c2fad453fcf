// Text output: labels, edge names, the trace mask with the build traces,
// dumps, formula strings and the Graphviz export.
#include "test_support.h"

#include <algorithm>
#include <cstring>

namespace quarl_test {
namespace {

// Gives the graph formula positions (position p is edges[p]) and the edge a
// formula over them.
void give_formula(QuarlInstEdge *edge, const std::vector<QuarlInstEdge *> &edges,
                  const std::vector<uint32_t> &add, const std::vector<uint32_t> &sub)
{
    QuarlInstGraph *graph = edge->m_graph;
    graph->m_formula_mask_bits = static_cast<uint32_t>(edges.size());
    graph->m_formula_edge_vec = static_cast<QuarlInstEdge **>(quarl_mem_alloc(edges.size() * sizeof(QuarlInstEdge *)));
    std::copy(edges.begin(), edges.end(), graph->m_formula_edge_vec);
    edge->m_additive = bitset_with(add, graph->m_formula_mask_bits);
    edge->m_subtractive = bitset_with(sub, graph->m_formula_mask_bits);
}

TEST(Text, LabelsAndEdgeNames)
{
    struct Case { uint32_t block; bool entry, exit; uint32_t buf_len; const char *label; };
    const Case cases[] = {{7, false, false, 256, "B0007"}, {0, false, false, 256, "B0000"}, {12345, false, false, 17, "B12345"},
                          {4294967167u, false, false, 17, "B4294967167"}, {3, true, true, 17, "AEntry"}, {3, false, true, 256, "ZExit"}};
    for (const Case &c : cases) {
        QuarlInstNode node{};
        node.m_seg_block_idx = c.block;
        node.m_is_pseudo_entry = c.entry;
        node.m_is_pseudo_exit = c.exit;
        char buf[256];
        EXPECT_STREQ(quarl_inst_node_get_label(&node, buf, c.buf_len), c.label);
        EXPECT_DEATH(quarl_inst_node_get_label(&node, buf, 16),
                     "quarl_inst_node_get_label: Assertion `buf_len > strlen\\(\"buffer too small\"\\)' failed");
    }
    GraphPtr graph = build_graph(10, edges_of("0>3 9>9 1>5"));
    node_at(graph, 0)->m_is_pseudo_entry = 1;
    node_at(graph, 5)->m_is_pseudo_exit = 1;
    const char *names[] = {"AEntry.B0003", "B0009.B0009", "B0001.ZExit"};
    for (uint32_t i = 0; i < 3; ++i) {
        char buf[256];
        EXPECT_STREQ(quarl_inst_edge_get_name(edge_at(graph, i), buf), names[i]);
    }
}

// Bit value 1: building (an edge and a self-loop); 2: resolving; 4: encoding.
// Setting replaces the mask.
TEST(Text, TraceMaskSelectsTraceSitesByBit)
{
    for (uint32_t mask : {0u, 6u, 1u, 2u, 4u, 8u, 7u}) {
        GraphPtr graph = build_graph(2, {{0, 1}});
        TraceMaskScope scope(mask);
        void *edges[2];
        std::string build = capture_stderr([&] {
            QuarlInstNode *node = quarl_inst_graph_add_node(graph.get(), 2);
            edges[0] = quarl_inst_graph_add_edge(graph.get(), node_at(graph, 1), node);
            edges[1] = quarl_inst_graph_add_edge(graph.get(), node, node);
        });
        std::string resolve = capture_stderr([&] { quarl_inst_edge_set_as_computed(edge_at(graph, 0)); });
        std::string encode = capture_stderr([&] { EncodedGraphPtr encoded(quarl_inst_graph_encode(graph.get())); });
        char want[300];
        snprintf(want, sizeof want, "Added node 2\nAdding edge %p to node 1\nAdding edge %p to node 2\nAdded edge: B0001.B0002\n"
                 "Adding edge %p to node 2\nAdded edge: B0002.B0002\n", edges[0], edges[0], edges[1]);
        EXPECT_EQ(build, mask & 1 ? want : "") << mask;
        EXPECT_EQ(resolve, mask & 2 ? "Setting edge [ B0000.B0001 ] as computed\n" : "") << mask;
        EXPECT_EQ(encode.find("Starting encoding in format: ") == 0, (mask & 4) != 0) << mask;
    }
}

TEST(Text, NodeAndEdgeDumps)
{
    GraphPtr graph = build_graph(13, edges_of("12>3p#4:-3 3>12i#9 12>12"));
    QuarlInstNode *node = node_at(graph, 12);
    node->m_exec_count = 77;
    node->m_is_entry = 1;
    node->m_is_pseudo_exit = 1;
    auto print = [&] { return capture_file_output([&](FILE *out) { quarl_inst_node_print(node, out); }); };
    std::string text = print();
    quarl_inst_node_annotation_set(node, "loop head");
    text += print();
    const std::string lines[] = {"Node: label = ZExit\n  m_seg_block_idx = 12\n", " m_annotation = loop head\n",
                                 "  m_uncalculated_edges (count) = 2\n  m_exec_count     = 77\n  m_is_reachable   = T\n"
                                 "  m_is_pseudo_entry_get   = F\n  m_is_pseudo_exit   = T\n  m_is_entry   = T\n"};
    EXPECT_EQ(text, lines[0] + lines[2] + lines[0] + lines[1] + lines[2]);

    QuarlInstEdge *edge = edge_at(graph, 0);
    std::vector<QuarlInstEdge *> positions(40, edge);
    positions[33] = edge_at(graph, 1);
    give_formula(edge, positions, {0, 33}, {});
    edge->m_exec_count = UINT64_MAX;
    edge->m_formula_bit_pos = 2;
    node->m_is_pseudo_exit = 0;
    EXPECT_EQ(capture_file_output([&](FILE *out) { quarl_inst_edge_print(edge, out); }),
              "Edge:   m_counter_idx      = 4\n  m_src  = B0012\n  m_dest = B0003\n  m_cost = -3\n"
              "  m_exec_count       = 18446744073709551615\n  m_formula_bit_pos  = 2\n"
              "  Additive   :[2] " + std::string(30, '0') + "10" + std::string(31, '0') + "1\n"
              "  Subtractive:[2] " + std::string(64, '0') + "\nFormula: +B0012.B0003+B0003.B0012\n"
              "  m_is_reachable             = T\n  m_is_pseudo                = T\n  m_is_instrumented          = F\n"
              "  m_is_computed              = F\n  m_is_forced_instrumented   = F\n  m_is_immeasurable          = F\n");
    text = capture_file_output([&](FILE *out) { quarl_inst_edge_print(edge_at(graph, 1), out); });
    EXPECT_NE(text.find("  m_formula_bit_pos  = -1\nFormula: edge is instrumented\n  m_is_reachable "), std::string::npos) << text;
}

// Positions 0-2 are the edges 1->2, 2->3, 3->4, positions 3-46 the edge 1->2
// (12 characters a term) and 47 the edge 12345->1 (13 characters).
TEST(Text, FormulaStrings)
{
    auto from3 = [](uint32_t last, std::vector<uint32_t> more) {
        for (uint32_t p = 3; p <= last; ++p)
            more.push_back(p);
        return more;
    };
    auto terms = [](size_t times) {
        std::string out;
        while (times-- > 0)
            out += "+B0001.B0002";
        return out;
    };
    struct Case { bool instrumented, bitsets; std::vector<uint32_t> add, sub; uint32_t buf_len; std::string want; };
    const Case cases[] = {
        {false, true, {2, 0}, {1}, 256, "+B0001.B0002+B0003.B0004-B0002.B0003"},
        {false, true, {}, {2, 1}, 256, "-B0002.B0003-B0003.B0004"},
        {false, true, {}, {}, 256, ""},
        {false, false, {}, {}, 256, ""},
        {true, true, {0}, {}, 21, "edge is instrumented"},
        {false, true, from3(23, {}), {}, 256, terms(21)},
        {false, true, from3(22, {47}), {}, 256, terms(20) + "+B12345.B000..."},
        {false, true, from3(46, {}), {0}, 256, terms(21) + "..."}, // the working text grows
        {false, true, {0, 2}, {1}, 21, "+B0001.B0002+B000..."},
    };
    for (const Case &c : cases) {
        GraphPtr graph = build_graph(5, edges_of("1>2 2>3 3>4 0>1"));
        QuarlInstNode *far = quarl_inst_graph_add_node(graph.get(), 12345);
        std::vector<QuarlInstEdge *> positions(48, edge_at(graph, 0));
        positions[1] = edge_at(graph, 1);
        positions[2] = edge_at(graph, 2);
        positions[47] = quarl_inst_graph_add_edge(graph.get(), far, node_at(graph, 1));
        QuarlInstEdge *edge = edge_at(graph, 3);
        edge->m_is_instrumented = c.instrumented;
        give_formula(edge, positions, c.add, c.sub);
        if (!c.bitsets) {
            quarl_inst_bitset_delete(edge->m_additive);
            quarl_inst_bitset_delete(edge->m_subtractive);
            edge->m_additive = edge->m_subtractive = nullptr;
        }
        char buf[300];
        memset(buf, '#', sizeof buf);
        quarl_inst_edge_formula_string_get(edge, buf, c.buf_len);
        EXPECT_EQ(std::string(buf), c.want);
        EXPECT_EQ(buf[c.buf_len], '#');
        if (c.add.size() > 40) {
            quarl_fault_fail_nth(1); // no working text: empty
            quarl_inst_edge_formula_string_get(edge, buf, c.buf_len);
            EXPECT_STREQ(buf, "");
            quarl_fault_fail_nth(2); // the working text cannot grow: what was built
            quarl_inst_edge_formula_string_get(edge, buf, c.buf_len);
            quarl_fault_fail_nth(0);
            EXPECT_EQ(std::string(buf), terms(21));
        }
    }
}

int g_dot_result;

// The Graphviz text, or with a prefix only its lines that start with it.
std::string dot_of(const QuarlInstGraph *graph, uint32_t node_options, uint32_t edge_options, const std::string &prefix = "")
{
    std::string text = capture_file_output([&](FILE *out) {
        g_dot_result = quarl_inst_graph_print_dot_graph(graph, out, "g", node_options, edge_options);
    });
    if (prefix.empty())
        return text;
    std::string out;
    for (size_t at = 0, end; at < text.size(); at = end + 1) {
        end = text.find('\n', at);
        if (text.compare(at, prefix.size(), prefix) == 0)
            out += text.substr(at, end - at + 1);
    }
    return out;
}

TEST(TextDot, OrdersByBlockIndexAndSurvivesAMissingEdgeArray)
{
    const std::string header = "\n\ndigraph \"g\" {\n\tnode [style=filled, shape=box, color=lightskyblue3];\n";
    GraphPtr graph = build_graph(0, {});
    EXPECT_EQ(dot_of(graph.get(), 15, 31), header + "}\n\n");
    EXPECT_EQ(g_dot_result, 0);
    graph = build_graph(5, edges_of("3>1#7 1>2 1>0 1>2#5 4>0u"), {2});
    std::string nodes = header;
    for (const char *n : {"0", "1", "3", "4"})
        nodes += std::string("\t\"B000") + n + "\" [ label=\"B000" + n + " (node_id=" + n + " })\" ];\n";
    auto edge = [](const char *ends, int counter) {
        return std::string("\t\t") + ends + " [ label= \"counter_idx=" + std::to_string(counter) + "\" ];\n";
    };
    std::string text = dot_of(graph.get(), 0, 0), parallel[] = {edge("B0001 -> B0002", 0), edge("B0001 -> B0002", 5)};
    std::string first = nodes + edge("B0001 -> B0000", 0), last = edge("B0003 -> B0001", 7) + "}\n\n";
    EXPECT_TRUE(text == first + parallel[0] + parallel[1] + last || text == first + parallel[1] + parallel[0] + last) << text;
    EXPECT_EQ(g_dot_result, 0);
    int64_t live = quarl_fault_live_blocks();
    quarl_fault_fail_nth(1); // the edge array
    text = dot_of(graph.get(), 0, 0);
    quarl_fault_fail_nth(0);
    EXPECT_EQ(text, nodes + "}\n\n");
    EXPECT_EQ(g_dot_result, EOF);
    EXPECT_EQ(quarl_fault_live_blocks(), live);
}

TEST(TextDot, NodeOptions)
{
    struct Case { uint32_t options; bool reachable, entry; uint32_t goto_id, tag_id; const char *annotation, *want; };
    const Case cases[] = {
        {0, true, false, 0, 0, "hot", "B0004 (node_id=4 })\" ];\n"},
        {0, true, false, 0, 5, nullptr, "B0004 (node_id=4 tag_id=5 })\" ];\n"},
        {0xf0, true, true, 3, 5, "hot", "AEntry (node_id=4 goto_id=3 tag_id=5 })\" ];\n"},
        {2, true, false, 0, 0, nullptr, "B0004 (node_id=4  exec_count=99 })\" ];\n"},
        {1, true, false, 0, 0, "hot", "B0004 (node_id=4 {hot})\" ];\n"},
        {1, true, false, 0, 0, nullptr, "B0004 (node_id=4 })\" ];\n"},
        {4, true, false, 0, 0, nullptr, "B0004 (node_id=4 })\" color=\"lightskyblue3\" ];\n"},
        {4, false, false, 0, 0, nullptr, nullptr},
        {12, false, false, 0, 0, nullptr, "B0004 (node_id=4 })\" color=\"gray\" ];\n"},
        {15, true, false, 1, 2, "hot", "B0004 (node_id=4 goto_id=1 tag_id=2  exec_count=99 {hot})\" color=\"lightskyblue3\" ];\n"},
    };
    for (const Case &c : cases) {
        GraphPtr graph = build_graph(0, {});
        QuarlInstNode *node = quarl_inst_graph_add_node(graph.get(), 4);
        node->m_is_reachable = c.reachable;
        node->m_is_pseudo_entry = c.entry;
        node->m_goto_id = c.goto_id;
        node->m_tag_id = c.tag_id;
        node->m_exec_count = 99;
        if (c.annotation != nullptr)
            quarl_inst_node_annotation_set(node, c.annotation);
        std::string want = c.want ? std::string("\t\"") + (c.entry ? "AEntry" : "B0004") + "\" [ label=\"" + c.want : "";
        EXPECT_EQ(dot_of(graph.get(), c.options, 0, "\t\""), want) << c.options;
    }
}

// Flags name the attribute letters that the edge gets (Un: not reachable).
TEST(TextDot, EdgeOptions)
{
    struct Case { uint32_t options; std::string flags; const char *want; };
    const Case cases[] = {
        {0, "", "counter_idx=3\" ];\n"}, {0, "Un", nullptr}, {0xffe0, "InNm", "counter_idx=3\" ];\n"},
        {1, "InFiNm", "counter_idx=3 attrib{InFiNm}  cost=-5\" ];\n"},
        {9, "PsUn", "counter_idx=3 attrib{PsUn}  cost=-5\" ];\n"},
        {4, "", "counter_idx=3 exec_cnt=1234 \" ];\n"},
        {2, "", "counter_idx=3\\n(+AEntry.B0001-B0001.AEntry)\" ];\n"},
        {2, "In", "counter_idx=3\" ];\n"},
        {24, "Un", "counter_idx=3\" color = \"lightgray\" ];\n"},
        {24, "Nm", "counter_idx=3\" color = \"lightskyblue3\" ];\n"},
        {24, "InNm", "counter_idx=3\" color = \"maroon\" ];\n"},
        {24, "In", "counter_idx=3\" color = \"darkgreen\" ];\n"},
        {31, "Fi", "counter_idx=3 exec_cnt=1234  attrib{Fi}  cost=-5\\n(+AEntry.B0001-B0001.AEntry)\" color = \"lightskyblue3\" ];\n"},
    };
    for (const Case &c : cases) {
        GraphPtr graph = build_graph(2, edges_of("0>1#3:-5 1>0u"));
        node_at(graph, 0)->m_is_pseudo_entry = 1;
        QuarlInstEdge *edge = edge_at(graph, 0);
        give_formula(edge, {edge, edge_at(graph, 1)}, {0}, {1});
        edge->m_exec_count = 1234;
        auto has = [&](const char *letters) { return c.flags.find(letters) != std::string::npos; };
        edge->m_is_instrumented = has("In");
        edge->m_is_forced_instrumented = has("Fi");
        edge->m_is_immeasurable = has("Nm");
        edge->m_is_pseudo = has("Ps");
        edge->m_is_reachable = !has("Un");
        std::string want = c.want ? std::string("\t\tAEntry -> B0001 [ label= \"") + c.want : "";
        EXPECT_EQ(dot_of(graph.get(), 0, c.options, "\t\tAEntry -> "), want) << c.options << c.flags;
    }
}

} // namespace
} // namespace quarl_test
