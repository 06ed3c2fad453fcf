// Graph model: vector growth, lookup, node edge lists, the edge order,
// deletion and allocation failures of every constructor.
#include "test_support.h"

#include <algorithm>

namespace quarl_test {
namespace {

// What a failed call must leave as it was: node slots, edges, node lists and
// annotations (the graph's nodes are blocks 0 and 1).
std::vector<const void *> state_of(const QuarlInstGraph *graph)
{
    std::vector<const void *> s(graph->m_node_vec, graph->m_node_vec + graph->m_node_vec_size);
    s.insert(s.end(), graph->m_edge_vec, graph->m_edge_vec + graph->m_num_edges);
    for (const QuarlInstNode *node : {graph->m_node_vec[0], graph->m_node_vec[1]})
        for (const auto &items : {list_items(node->m_edges), list_items(node->m_uncalculated_edges), {node->m_annotation}}) {
            s.insert(s.end(), items.begin(), items.end());
            s.push_back(nullptr);
        }
    return s;
}

TEST(Graph, NodeVectorGrowthAndLookup)
{
    struct Case { std::vector<uint32_t> added; uint32_t vec_size, num_nodes; };
    const Case cases[] = {{{}, 32, 0}, {{31}, 32, 32}, {{32}, 160, 33}, {{1000}, 1128, 1001}, {{5, 2}, 32, 6},
                          {{2, 40, 300}, 428, 301}, {{4294967168u, 4294967295u}, 32, 0}};
    for (const Case &c : cases) {
        GraphPtr graph(quarl_inst_graph_create());
        std::vector<QuarlInstNode *> nodes;
        for (uint32_t idx : c.added)
            nodes.push_back(quarl_inst_graph_add_node(graph.get(), idx));
        EXPECT_EQ(graph->m_node_vec_size, c.vec_size);
        EXPECT_EQ(graph->m_num_nodes, c.num_nodes);
        EXPECT_EQ(std::count(nodes.begin(), nodes.end(), nullptr), c.num_nodes ? 0 : long(nodes.size()));
        for (uint32_t idx = 0; idx <= c.num_nodes; ++idx) {
            size_t at = std::find(c.added.begin(), c.added.end(), idx) - c.added.begin();
            QuarlInstNode *want = at < nodes.size() ? nodes[at] : nullptr;
            EXPECT_EQ(quarl_inst_graph_find_node_by_idx(graph.get(), idx), want) << idx;
            EXPECT_TRUE(want == nullptr || want->m_seg_block_idx == idx);
        }
    }
}

TEST(Graph, EdgeVectorDoublesTo128ThenGrowsBy128)
{
    GraphPtr graph = build_graph(2, {});
    std::vector<QuarlInstEdge *> added;
    for (auto [count, size] : {std::pair<uint32_t, uint32_t>{0, 32}, {32, 32}, {33, 64}, {65, 128}, {128, 128},
                               {129, 256}, {257, 384}, {385, 512}}) {
        while (added.size() < count)
            added.push_back(quarl_inst_graph_add_edge(graph.get(), node_at(graph, 0), node_at(graph, added.size() % 2)));
        EXPECT_EQ(graph->m_edge_vec_size, size) << count;
        EXPECT_EQ(graph->m_num_edges, count);
        for (uint32_t i = 0; i < size; ++i)
            EXPECT_EQ(graph->m_edge_vec[i], i < count ? added[i] : nullptr) << i;
    }
}

// Edges 0->1, 1->1 (a self-loop), 0->1 (parallel to the first), 2->0.
TEST(Graph, EdgesJoinTheListsOfTheirEnds)
{
    GraphPtr graph = build_graph(3, {{0, 1}, {1, 1}, {0, 1}, {2, 0}});
    const std::vector<uint32_t> want[] = {{0, 2, 3}, {0, 1, 2}, {3}};
    for (uint32_t n = 0; n < 3; ++n) {
        std::vector<const void *> edges;
        for (uint32_t i : want[n])
            edges.push_back(edge_at(graph, i));
        EXPECT_EQ(list_items(node_at(graph, n)->m_edges), edges) << n;
        EXPECT_EQ(list_items(node_at(graph, n)->m_uncalculated_edges), edges) << n;
    }
    QuarlInstEdge *loop = edge_at(graph, 1);
    EXPECT_TRUE(loop->m_src == node_at(graph, 1) && loop->m_dest == loop->m_src && loop->m_graph == graph.get());
    EXPECT_EQ(loop->m_formula_bit_pos, -1);
}

TEST(Graph, ComparatorOrdersBySourceThenDestination)
{
    // Edge 2i is compared with edge 2i+1.
    GraphPtr graph = build_graph(10, {{2, 1}, {2, 7}, {2, 7}, {2, 1}, {1, 9}, {2, 1}, {5, 1}, {5, 0}, {3, 3}, {3, 3}, {0, 9}, {9, 0}});
    const int signs[] = {-1, 1, -1, 1, 0, -1};
    for (uint32_t i = 0; i < 6; ++i) {
        int r = quarl_inst_edge_src_dest_lesser(&graph->m_edge_vec[2 * i], &graph->m_edge_vec[2 * i + 1]);
        EXPECT_EQ((r > 0) - (r < 0), signs[i]) << i;
    }
}

TEST(Graph, AnnotationCopiesAndDeleteReleasesEverything)
{
    quarl_inst_graph_delete(nullptr);
    int64_t live = quarl_fault_live_blocks();
    {
        GraphPtr graph = build_graph(2, {{0, 1}, {1, 0}});
        QuarlInstNode *node = node_at(graph, 1);
        char text[] = "first";
        EXPECT_EQ(quarl_inst_node_annotation_set(node, text), node->m_annotation);
        text[0] = 'X';
        EXPECT_STREQ(node->m_annotation, "first");
        EXPECT_STREQ(quarl_inst_node_annotation_set(node, "second"), "second"); // the first is released
        graph->m_formula_mask_bits = 2;
        graph->m_formula_edge_vec = static_cast<QuarlInstEdge **>(quarl_mem_alloc(2 * sizeof(QuarlInstEdge *)));
        edge_at(graph, 1)->m_additive = quarl_inst_bitset_create(2);
        edge_at(graph, 1)->m_subtractive = quarl_inst_bitset_create(2);
    }
    EXPECT_EQ(quarl_fault_live_blocks(), live);
}

// Each allocation of each constructor fails once: the result is null,
// nothing stays allocated and the graph is as it was.
TEST(Graph, AllocationFailuresLeaveNothingBehind)
{
    using Call = void *(*)(QuarlInstGraph *);
    struct Case { const char *name; uint32_t edges_before; uint64_t allocations; Call call; };
    const Case cases[] = {
        {"create", 0, 3, [](QuarlInstGraph *) -> void * {
             static int made;
             return GraphPtr(quarl_inst_graph_create()) ? &made : nullptr;
         }},
        {"node in a free slot", 0, 3, [](QuarlInstGraph *g) -> void * { return quarl_inst_graph_add_node(g, 4); }},
        {"node growing the vector", 0, 4, [](QuarlInstGraph *g) -> void * { return quarl_inst_graph_add_node(g, 90); }},
        {"edge", 0, 5, [](QuarlInstGraph *g) -> void * { return quarl_inst_graph_add_edge(g, g->m_node_vec[0], g->m_node_vec[1]); }},
        {"self-loop", 3, 3, [](QuarlInstGraph *g) -> void * { return quarl_inst_graph_add_edge(g, g->m_node_vec[1], g->m_node_vec[1]); }},
        {"annotation", 0, 1, [](QuarlInstGraph *g) -> void * { return quarl_inst_node_annotation_set(g->m_node_vec[0], "new"); }},
        {"33rd edge", 32, 6, [](QuarlInstGraph *g) -> void * { return quarl_inst_graph_add_edge(g, g->m_node_vec[1], g->m_node_vec[0]); }},
    };
    for (const Case &c : cases) {
        uint64_t covered = sweep_allocation_failures([&] {
            GraphPtr graph = build_graph(2, std::vector<EdgeSpec>(c.edges_before, EdgeSpec{0, 1}));
            quarl_inst_node_annotation_set(node_at(graph, 0), "old");
            std::vector<const void *> before = state_of(graph.get());
            int64_t live = quarl_fault_live_blocks();
            arm_allocation_failure();
            void *result = c.call(graph.get());
            if (allocation_failure_delivered()) {
                EXPECT_EQ(result, nullptr) << c.name;
                EXPECT_EQ(quarl_fault_live_blocks(), live) << c.name;
                EXPECT_EQ(state_of(graph.get()), before) << c.name;
            }
        });
        EXPECT_EQ(covered, c.allocations) << c.name;
    }
}

} // namespace
} // namespace quarl_test
