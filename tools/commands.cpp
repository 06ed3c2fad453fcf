// The subcommands: demo, instrument, dump and blocks.
#include "quarl_tool.h"

#include <string.h>

namespace {

// A loop with a branch and an early exit. The pseudo edge from the exit
// back to the entry closes the flow, so that every block conserves it.
const char demo_routine[] =
    "block 0 pseudo-entry\n"
    "block 1 entry \"set up\"\n"
    "block 2 \"loop test\"\n"
    "block 3 \"branch\"\n"
    "block 4 \"then\"\n"
    "block 5 \"else\"\n"
    "block 6 \"early-exit test\"\n"
    "block 7 \"return\"\n"
    "block 8 pseudo-exit\n"
    "edge 0 1 pseudo\n"
    "edge 1 2 cost=10\n"
    "edge 2 3 cost=100\n"
    "edge 2 7 cost=5\n"
    "edge 3 4 cost=60\n"
    "edge 3 5 cost=40\n"
    "edge 4 6 cost=60\n"
    "edge 5 6 cost=40\n"
    "edge 6 2 cost=90\n"
    "edge 6 7 cost=5\n"
    "edge 7 8 pseudo\n"
    "edge 8 0 pseudo\n";

// One training run, edge by edge in the order above: 10 calls, 100 trips
// through the loop body (70 then, 30 else), 4 early exits.
const uint64_t demo_edge_counts[] = {10, 10, 100, 6, 70, 30, 70, 30, 96, 4, 10, 10};

// Node options: annotation and colour; edge options: attributes, formula
// and colour.
const uint32_t placed_node_options = QUARL_DOT_NODE_ANNOTATION | QUARL_DOT_NODE_COLOR;
const uint32_t placed_edge_options =
    QUARL_DOT_EDGE_ATTRIBUTES | QUARL_DOT_EDGE_FORMULA | QUARL_DOT_EDGE_COLOR;
// As the library's decoder trace shows a decoded graph: every node and
// edge, with attributes and colours.
const uint32_t decoded_node_options = QUARL_DOT_NODE_UNREACHABLE;
const uint32_t decoded_edge_options =
    QUARL_DOT_EDGE_ATTRIBUTES | QUARL_DOT_EDGE_UNREACHABLE | QUARL_DOT_EDGE_COLOR;

int out_of_memory()
{
    report_error("out of memory");
    return status_bad_data;
}

void print_title(const char *title)
{
    printf("\n%s\n", title);
}

// Step 6 of the demo: each block's count is the sum of its incoming edges.
bool print_block_counts(const QuarlInstGraph *graph, const std::vector<uint64_t> &blocks)
{
    std::vector<uint64_t> expected(graph->m_num_nodes, 0);
    for (uint32_t i = 0; i < graph->m_num_edges; ++i)
        expected[graph->m_edge_vec[i]->m_dest->m_seg_block_idx] += demo_edge_counts[i];
    bool all_match = true;
    for (uint32_t i = 0; i < graph->m_num_nodes; ++i) {
        printf("  block %u  %-7s %4llu\n", i, node_label(graph->m_node_vec[i]).c_str(),
               static_cast<unsigned long long>(blocks[i]));
        all_match = all_match && blocks[i] == expected[i];
    }
    printf("%s\n", all_match ? "Every block count matches the training run."
                             : "MISMATCH: the block counts differ from the training run.");
    return all_match;
}

bool decode_words(const std::string &path, const std::vector<uint32_t> &words,
                  EncodedGraphPtr *encoded, GraphPtr *graph)
{
    encoded->reset(quarl_encoded_graph_create_from_buffer(words.data(),
                                                          static_cast<uint32_t>(words.size())));
    graph->reset(quarl_inst_graph_create());
    if (*encoded == nullptr || *graph == nullptr) {
        report_error("out of memory");
        return false;
    }
    if (quarl_encoded_graph_decode(encoded->get(), graph->get()) == 0) {
        report_error("%s: damaged stored words: they do not decode (too short, truncated, "
                     "unknown format or impossible block indices)",
                     display_name(path).c_str());
        return false;
    }
    return true;
}

} // namespace

int run_demo(const char *dot_path)
{
    printf("Quarl demo: edge profiling of one routine, at instrumentation time and at\n"
           "profile-use time.\n");
    print_title("1. The routine, in quarl's text format (see 'quarl instrument --help'):\n"
                "   a loop with a branch and an early exit, a pseudo entry (AEntry) and a\n"
                "   pseudo exit (ZExit). Costs say how dear a counter would be on an edge.");
    for (const char *line = demo_routine; *line != '\0';) {
        const char *end = strchr(line, '\n');
        printf("  %.*s\n", static_cast<int>(end - line), line);
        line = end + 1;
    }

    GraphPtr graph(quarl_inst_graph_create());
    uint32_t marked_counters = 0;
    if (graph == nullptr || !read_cfg("demo", demo_routine, graph.get(), &marked_counters))
        return out_of_memory();
    uint32_t counters = quarl_inst_graph_select_counters(graph.get());
    if (counters == QUARL_SELECT_COUNTERS_FAILED ||
        !quarl_inst_graph_adjust_instrumentation(graph.get()))
        return out_of_memory();
    print_title("2. Counter selection (quarl_inst_graph_select_counters): the cheapest\n"
                "   edges off a spanning tree of the routine get counters.");
    printf("%u counters for %u edges.\n", counters, graph->m_num_edges);

    print_title("3. Placement (quarl_inst_graph_adjust_instrumentation): flow conservation\n"
                "   gives every other edge its count as a formula over the counted edges.");
    print_placement(graph.get(), stdout);
    if (dot_path != nullptr &&
        !write_dot(graph.get(), dot_path, "demo", placed_node_options, placed_edge_options))
        return status_bad_data;

    EncodedGraphPtr encoded(quarl_inst_graph_encode(graph.get()));
    if (encoded == nullptr)
        return out_of_memory();
    std::vector<uint32_t> words = stored_words(encoded.get());
    print_title("4. Encoding (quarl_inst_graph_encode): the words the compiler stores beside\n"
                "   its counters. The first word is the format id, then each block's out-edges\n"
                "   follow as records of flags, destination and counter (docs/format.md).");
    printf("Format %s, %zu words:\n", quarl_graph_encoding_format_str(encoded->m_format),
           words.size());
    print_words(words, stdout);

    std::vector<uint64_t> counter_values(counters, 0);
    print_title("5. A training run: the value each counter collects.");
    for (uint32_t i = 0; i < graph->m_num_edges; ++i) {
        const QuarlInstEdge *edge = graph->m_edge_vec[i];
        if (edge->m_is_instrumented) {
            counter_values[edge->m_counter_idx] = demo_edge_counts[i];
            printf("  counter %u  %-12s %4llu\n", edge->m_counter_idx, edge_name(edge).c_str(),
                   static_cast<unsigned long long>(demo_edge_counts[i]));
        }
    }

    std::vector<uint64_t> blocks(graph->m_num_nodes, 0);
    print_title("6. Profile use (quarl_compute_blocks_from_edges): block counts rebuilt from\n"
                "   the stored words and the counter values alone.");
    if (!quarl_compute_blocks_from_edges(words.data(), static_cast<uint32_t>(words.size()),
                                         counter_values.data(), counters, blocks.data(),
                                         graph->m_num_nodes)) {
        report_error("the stored words and counters did not give block counts");
        return status_bad_data;
    }
    return print_block_counts(graph.get(), blocks) ? status_ok : status_bad_data;
}

int run_instrument(const std::string &cfg_path, const char *output_path, bool binary)
{
    std::string text, name = display_name(cfg_path);
    GraphPtr graph(quarl_inst_graph_create());
    uint32_t marked_counters = 0;
    if (!read_input(cfg_path, &text) || graph == nullptr ||
        !read_cfg(name, text, graph.get(), &marked_counters))
        return status_bad_data;
    warn_about_open_flow(graph.get());
    if (marked_counters == 0 &&
        quarl_inst_graph_select_counters(graph.get()) == QUARL_SELECT_COUNTERS_FAILED)
        return out_of_memory();
    if (!quarl_inst_graph_adjust_instrumentation(graph.get())) {
        report_unresolved(graph.get(), name);
        return status_bad_data;
    }
    warn_about_self_loops(graph.get());
    EncodedGraphPtr encoded(quarl_inst_graph_encode(graph.get()));
    if (encoded == nullptr)
        return out_of_memory();
    std::vector<uint32_t> words = stored_words(encoded.get());
    const char *format_name = quarl_graph_encoding_format_str(encoded->m_format);
    bool words_to_stdout = output_path != nullptr && std::string(output_path) == "-";
    if (!words_to_stdout) {
        printf("%s: %u blocks, %u edges, %u counters %s.\n", name.c_str(),
               graph->m_num_nodes, graph->m_num_edges, graph->m_num_counters,
               marked_counters == 0 ? "chosen by quarl" : "as marked");
        print_placement(graph.get(), stdout);
        printf("Stored words: format %s, %zu words:\n", format_name, words.size());
        print_words(words, stdout);
    }
    if (output_path != nullptr && !write_words(output_path, words, format_name, binary))
        return status_bad_data;
    return status_ok;
}

int run_dump(const std::string &words_path, bool dot, const char *svg_path)
{
    std::vector<uint32_t> words;
    if (!read_words(words_path, &words))
        return status_bad_data;
    EncodedGraphPtr encoded;
    GraphPtr graph;
    bool decoded = decode_words(words_path, words, &encoded, &graph);
    if (encoded == nullptr || graph == nullptr)
        return status_bad_data;
    if (svg_path != nullptr || dot) {
        if (!decoded)
            return status_bad_data;
        if (svg_path != nullptr)
            return render_svg(graph.get(), svg_path, "decoded graph", decoded_node_options,
                              decoded_edge_options)
                       ? status_ok
                       : status_bad_data;
        return write_dot(graph.get(), "-", "decoded graph", decoded_node_options,
                         decoded_edge_options)
                   ? status_ok
                   : status_bad_data;
    }
    quarl_encoded_graph_print(encoded.get(), stdout);
    printf("\n");
    if (!decoded)
        return status_bad_data;
    printf("# (The stream dump shows the bytes of each word in stored order.)\n");
    printf("\n# Decoded graph (block flags and edge costs are not stored):\n");
    write_cfg(graph.get(), stdout);
    return status_ok;
}

int run_blocks(const std::string &words_path, const std::string &counters_path,
               int64_t num_blocks)
{
    std::vector<uint32_t> words;
    std::vector<uint64_t> counters;
    if (!read_words(words_path, &words) || !read_counters(counters_path, &counters))
        return status_bad_data;
    // The stored words do not say how many blocks there are; the decoded
    // graph does.
    EncodedGraphPtr encoded;
    GraphPtr graph;
    if (!decode_words(words_path, words, &encoded, &graph))
        return status_bad_data;
    std::vector<uint64_t> blocks(num_blocks >= 0 ? static_cast<size_t>(num_blocks)
                                                 : graph->m_num_nodes);
    blocks.reserve(1); // data() is never null, even for no blocks
    if (!quarl_compute_blocks_from_edges(words.data(), static_cast<uint32_t>(words.size()),
                                         counters.data(), static_cast<uint32_t>(counters.size()),
                                         blocks.data(), static_cast<uint32_t>(blocks.size()))) {
        for (uint32_t i = 0; i < graph->m_num_edges; ++i) {
            const QuarlInstEdge *edge = graph->m_edge_vec[i];
            if (edge->m_is_instrumented && !edge->m_is_immeasurable &&
                edge->m_counter_idx >= counters.size()) {
                report_error("%s: the stored graph reads counter %u, but there are only %zu "
                             "counter values",
                             display_name(counters_path).c_str(), edge->m_counter_idx,
                             counters.size());
                return status_bad_data;
            }
        }
        report_error("%s: damaged stored words: their counters do not determine every block's "
                     "count",
                     display_name(words_path).c_str());
        return status_bad_data;
    }
    for (size_t i = 0; i < blocks.size(); ++i)
        printf("%zu %llu\n", i, static_cast<unsigned long long>(blocks[i]));
    return status_ok;
}
