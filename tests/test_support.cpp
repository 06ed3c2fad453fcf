#include "test_support.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <numeric>
#include <sstream>

namespace quarl_test {

GraphPtr build_graph(uint32_t num_nodes, const std::vector<EdgeSpec> &edges,
                     const std::vector<uint32_t> &unreachable_nodes)
{
    GraphPtr graph(quarl_inst_graph_create());
    if (!graph)
        return graph;
    for (uint32_t i = 0; i < num_nodes; ++i) {
        QuarlInstNode *node = quarl_inst_graph_add_node(graph.get(), i);
        if (node == nullptr) { // refused: nothing added
            EXPECT_TRUE(graph->m_num_nodes == i && node_at(graph, i) == nullptr);
            return graph;
        }
        node->m_is_reachable =
            std::find(unreachable_nodes.begin(), unreachable_nodes.end(), i) ==
            unreachable_nodes.end();
    }
    for (const EdgeSpec &wanted : edges) {
        QuarlInstEdge *edge = quarl_inst_graph_add_edge(graph.get(), node_at(graph, wanted.src),
                                                        node_at(graph, wanted.dest));
        if (edge == nullptr) { // refused: nothing added
            EXPECT_TRUE(graph->m_num_edges == static_cast<uint32_t>(&wanted - edges.data()));
            return graph;
        }
        edge->m_is_reachable = wanted.reachable;
        edge->m_is_pseudo = wanted.pseudo;
        edge->m_is_immeasurable = wanted.immeasurable;
        edge->m_cost = wanted.cost;
        edge->m_counter_idx = wanted.counter;
        if (wanted.instrumented) {
            quarl_inst_edge_set_as_instrumented(edge);
            graph->m_num_counters = std::max(graph->m_num_counters, wanted.counter + 1);
        }
    }
    return graph;
}

std::vector<uint32_t> positions_of(const QuarlInstBitset *bitset)
{
    std::vector<uint32_t> positions;
    for (uint32_t pos = 0; pos < bitset->m_size; ++pos)
        if (quarl_inst_bitset_get_bit(bitset, pos))
            positions.push_back(pos);
    return positions;
}

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
        if (t.find(':') != std::string::npos)
            edge.cost = std::stoll(t.substr(t.find(':') + 1));
        if (t.find('#') != std::string::npos)
            edge.counter = uint32_t(std::stoul(t.substr(t.find('#') + 1)));
        edges.push_back(edge);
    }
    return edges;
}

QuarlInstBitset *bitset_with(const std::vector<uint32_t> &positions, uint32_t bits)
{
    QuarlInstBitset *bitset = quarl_inst_bitset_create(bits);
    for (uint32_t p : positions)
        quarl_inst_bitset_set_bit(bitset, p);
    return bitset;
}

std::string formula_text(const QuarlInstEdge *edge)
{
    if (edge->m_additive == nullptr || edge->m_subtractive == nullptr)
        return "";
    std::string text = "(";
    for (uint32_t pos : positions_of(edge->m_additive))
        text += "+" + std::to_string(pos);
    for (uint32_t pos : positions_of(edge->m_subtractive))
        text += "-" + std::to_string(pos);
    return text + ")";
}

std::vector<const void *> list_items(const QuarlInstList *list)
{
    std::vector<const void *> items;
    const QuarlInstListElement *prev = nullptr;
    for (const QuarlInstListElement *e = list->m_head; e != nullptr; prev = e, e = e->m_next) {
        EXPECT_EQ(e->m_prev, prev);
        items.push_back(e->m_data);
    }
    EXPECT_EQ(list->m_tail, prev);
    EXPECT_EQ(list->m_count, items.size());
    return items;
}

bool lists_match_flags(const QuarlInstGraph *graph)
{
    uint32_t unsettled = 0, listed = 0;
    for (uint32_t i = 0; i < graph->m_num_edges; ++i) {
        const QuarlInstEdge *edge = graph->m_edge_vec[i];
        if (!edge->m_is_instrumented && !edge->m_is_computed)
            unsettled += edge->m_src == edge->m_dest ? 1 : 2;
    }
    for (uint32_t n = 0; n < graph->m_num_nodes; ++n) {
        const QuarlInstNode *node = graph->m_node_vec[n]; // null: no such block
        for (const void *item : node ? list_items(node->m_uncalculated_edges) : std::vector<const void *>{}) {
            auto *edge = static_cast<const QuarlInstEdge *>(item);
            if (edge->m_is_instrumented || edge->m_is_computed ||
                (edge->m_src->m_seg_block_idx != n && edge->m_dest->m_seg_block_idx != n))
                return false;
            ++listed;
        }
    }
    return listed == unsettled;
}

std::vector<uint32_t> stored_words(const QuarlEncodedGraph *encoded)
{
    std::vector<uint32_t> words(quarl_encoded_graph_length(encoded));
    if (!words.empty())
        std::memcpy(words.data(), encoded->m_stream->m_buffer, words.size() * 4);
    return words;
}

std::string capture_file_output(const std::function<void(FILE *)> &write)
{
    FILE *file = tmpfile();
    EXPECT_NE(file, nullptr);
    if (file == nullptr)
        return {};
    write(file);
    fflush(file);
    std::string text;
    rewind(file);
    char chunk[4096];
    size_t got;
    while ((got = fread(chunk, 1, sizeof chunk, file)) > 0)
        text.append(chunk, got);
    fclose(file);
    return text;
}

std::string capture_stderr(const std::function<void()> &run)
{
    testing::internal::CaptureStderr();
    run();
    return testing::internal::GetCapturedStderr();
}

namespace {
uint64_t g_sweep_failure_at = 0;
}

void arm_allocation_failure() { quarl_fault_fail_nth(g_sweep_failure_at); }

bool allocation_failure_delivered() { return quarl_fault_triggered(); }

uint64_t sweep_allocation_failures(const std::function<void()> &scenario)
{
    int64_t live = quarl_fault_live_blocks();
    for (uint64_t k = 1;; ++k) {
        g_sweep_failure_at = k;
        scenario();
        EXPECT_EQ(quarl_fault_live_blocks(), live) << "allocation " << k << " failing";
        bool delivered = quarl_fault_triggered();
        quarl_fault_fail_nth(0);
        g_sweep_failure_at = 0;
        if (!delivered || testing::Test::HasFatalFailure())
            return k - 1;
    }
}

std::vector<uint64_t> Routine::counter_values(const QuarlInstGraph *graph) const
{
    std::vector<uint64_t> values(graph != nullptr ? graph->m_num_counters : num_counters);
    for (size_t i = 0; i < edges.size(); ++i)
        if (graph != nullptr ? graph->m_edge_vec[i]->m_is_instrumented : edges[i].instrumented)
            values.at(graph != nullptr ? graph->m_edge_vec[i]->m_counter_idx : edges[i].counter) = edge_counts[i];
    return values;
}

namespace {

uint32_t find_root(std::vector<uint32_t> &parent, uint32_t node)
{
    while (parent[node] != node)
        node = parent[node] = parent[parent[node]];
    return node;
}

} // namespace

Routine generate_routine(std::mt19937_64 &rng, uint32_t num_nodes, uint32_t extra_edges)
{
    Routine routine;
    routine.num_nodes = num_nodes;
    uint32_t exit = num_nodes - 1;
    std::vector<size_t> chain(num_nodes); // chain[i]: edge i -> i+1
    for (uint32_t i = 0; i < exit; ++i) {
        chain[i] = routine.edges.size();
        routine.edges.push_back(EdgeSpec{i, i + 1});
    }
    std::uniform_int_distribution<uint32_t> any_node(0, exit);
    for (uint32_t e = 0; e < extra_edges; ++e) {
        uint32_t src = any_node(rng), dest = any_node(rng);
        if (src == dest || src == exit)
            continue;
        routine.edges.push_back(EdgeSpec{src, dest});
    }
    size_t pseudo = routine.edges.size();
    EdgeSpec back{exit, 0};
    back.pseudo = true;
    routine.edges.push_back(back);

    // A valid flow: for a random edge u -> v, the cycle through it runs down
    // the chain from v to the exit, back to the entry and down to u.
    routine.edge_counts.assign(routine.edges.size(), 0);
    std::uniform_int_distribution<size_t> any_edge(0, routine.edges.size() - 1);
    std::uniform_int_distribution<uint64_t> weight(1, 1000);
    uint32_t cycles = std::max<uint32_t>(4, static_cast<uint32_t>(routine.edges.size() / 4));
    for (uint32_t c = 0; c < cycles; ++c) {
        size_t through = any_edge(rng);
        if (through == pseudo)
            continue;
        uint64_t w = weight(rng);
        const EdgeSpec &edge = routine.edges[through];
        routine.edge_counts[through] += w;
        for (uint32_t i = edge.dest; i < exit; ++i)
            routine.edge_counts[chain[i]] += w;
        routine.edge_counts[pseudo] += w;
        for (uint32_t i = 0; i < edge.src; ++i)
            routine.edge_counts[chain[i]] += w;
    }
    routine.block_counts.assign(num_nodes, 0);
    for (size_t i = 0; i < routine.edges.size(); ++i)
        routine.block_counts[routine.edges[i].dest] += routine.edge_counts[i];

    // Counters on the chords of a random spanning tree.
    std::vector<size_t> order(routine.edges.size());
    std::iota(order.begin(), order.end(), 0);
    std::shuffle(order.begin(), order.end(), rng);
    std::vector<uint32_t> parent(num_nodes);
    std::iota(parent.begin(), parent.end(), 0);
    std::vector<bool> on_tree(routine.edges.size(), false);
    for (size_t i : order) {
        uint32_t a = find_root(parent, routine.edges[i].src);
        uint32_t b = find_root(parent, routine.edges[i].dest);
        if (a != b) {
            parent[a] = b;
            on_tree[i] = true;
        }
    }
    for (size_t i = 0; i < routine.edges.size(); ++i) {
        if (!on_tree[i]) {
            routine.edges[i].instrumented = true;
            routine.edges[i].counter = routine.num_counters++;
        }
    }
    return routine;
}

GraphPtr build_routine_graph(const Routine &routine)
{
    return build_graph(routine.num_nodes, routine.edges); // counters 0 .. num_counters-1
}

Routine without_counters(Routine routine)
{
    for (EdgeSpec &edge : routine.edges)
        edge.instrumented = false;
    return routine;
}

bool placed_unforced(const GraphPtr &graph)
{
    bool placed = quarl_inst_graph_adjust_instrumentation(graph.get()) == 1;
    for (uint32_t i = 0; i < graph->m_num_edges; ++i)
        placed = placed && !edge_at(graph, i)->m_is_forced_instrumented;
    return placed;
}

} // namespace quarl_test
