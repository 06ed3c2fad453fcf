// Fuzz target: an encoded graph made from arbitrary bytes, decoded, dumped
// and exported, and on success given formulas and counts.
//
// Input: byte 0 picks how the bytes are wrapped (bit 0: whole words through
// quarl_encoded_graph_create_from_buffer, or every byte through a stream,
// so that the length may end inside a word) and the export options (bits
// 1-4 node options, byte 1 edge options); the rest is the stored form.
#include <string.h>

#include <vector>

#include "fuzz_common.h"

using quarl_fuzz::check_graph_lists;
using quarl_fuzz::check_nothing_live;
using quarl_fuzz::sink;

namespace {

QuarlEncodedGraph *wrap_bytes(const uint8_t *bytes, size_t size, bool whole_words)
{
    if (whole_words) {
        std::vector<uint32_t> words(size / 4);
        if (!words.empty())
            memcpy(words.data(), bytes, words.size() * 4);
        return quarl_encoded_graph_create_from_buffer(words.data(),
                                                      static_cast<uint32_t>(words.size()));
    }
    QuarlEncodedGraph *encoded = quarl_encoded_graph_create();
    FUZZ_CHECK(encoded != nullptr);
    encoded->m_stream = quarl_stream_create();
    FUZZ_CHECK(encoded->m_stream != nullptr);
    FUZZ_CHECK(quarl_stream_write(encoded->m_stream, bytes, 1, static_cast<uint32_t>(size)) ==
               size);
    return encoded;
}

// The decoded graph holds only what the stored form carries.
void check_decoded(const QuarlInstGraph *graph)
{
    check_graph_lists(graph);
    for (uint32_t i = 0; i < graph->m_num_edges; ++i) {
        const QuarlInstEdge *edge = graph->m_edge_vec[i];
        FUZZ_CHECK(!edge->m_is_computed && !edge->m_is_forced_instrumented);
        FUZZ_CHECK(edge->m_formula_bit_pos == -1 && edge->m_additive == nullptr);
        if (edge->m_is_reachable)
            FUZZ_CHECK(edge->m_dest->m_is_reachable);
    }
}

// Decoding is a function of the bytes: a second graph comes out the same.
void check_same_graph(const QuarlInstGraph *first, const QuarlInstGraph *second)
{
    FUZZ_CHECK(first->m_num_nodes == second->m_num_nodes);
    FUZZ_CHECK(first->m_num_edges == second->m_num_edges);
    for (uint32_t i = 0; i < first->m_num_edges; ++i) {
        const QuarlInstEdge *a = first->m_edge_vec[i];
        const QuarlInstEdge *b = second->m_edge_vec[i];
        FUZZ_CHECK(a->m_src->m_seg_block_idx == b->m_src->m_seg_block_idx);
        FUZZ_CHECK(a->m_dest->m_seg_block_idx == b->m_dest->m_seg_block_idx);
        FUZZ_CHECK(a->m_counter_idx == b->m_counter_idx);
        FUZZ_CHECK(a->m_is_reachable == b->m_is_reachable &&
                   a->m_is_instrumented == b->m_is_instrumented &&
                   a->m_is_immeasurable == b->m_is_immeasurable &&
                   a->m_is_pseudo == b->m_is_pseudo);
    }
}

void dump_graph(const QuarlInstGraph *graph, uint32_t node_options, uint32_t edge_options)
{
    FILE *out = sink();
    quarl_inst_graph_print_dot_graph(graph, out, "fuzz", node_options, edge_options);
    for (uint32_t i = 0; i < graph->m_num_nodes; ++i)
        if (graph->m_node_vec[i] != nullptr)
            quarl_inst_node_print(graph->m_node_vec[i], out);
    for (uint32_t i = 0; i < graph->m_num_edges; ++i)
        quarl_inst_edge_print(graph->m_edge_vec[i], out);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    bool whole_words = (data[0] & 1) != 0;
    uint32_t node_options = (data[0] >> 1) & 0xf;
    uint32_t edge_options = data[1] & 0x1f;
    QuarlEncodedGraph *encoded = wrap_bytes(data + 2, size - 2, whole_words);
    FUZZ_CHECK(encoded != nullptr);
    FUZZ_CHECK(encoded->m_format == c_encode_last);
    quarl_encoded_graph_print(encoded, sink());

    QuarlInstGraph *graph = quarl_inst_graph_create();
    FUZZ_CHECK(graph != nullptr);
    uint32_t result = quarl_encoded_graph_decode(encoded, graph);
    FUZZ_CHECK(result == 0 || result == 1);
    // No format id (reads stop at the length rounded up to a whole word, so
    // a partial word is read zero-padded), or an unknown one: refused before
    // anything changes.
    size_t payload = whole_words ? (size - 2) / 4 * 4 : size - 2;
    uint32_t format_id = 0;
    memcpy(&format_id, data + 2, payload < 4 ? payload : 4); // little-endian, as is this machine
    if (payload == 0 || format_id >= c_encode_last) {
        FUZZ_CHECK(result == 0 && encoded->m_format == c_encode_last);
        FUZZ_CHECK(graph->m_num_nodes == 0 && graph->m_num_edges == 0);
    }
    if (result == 1)
        FUZZ_CHECK(encoded->m_format < c_encode_last);
    check_decoded(graph);
    quarl_encoded_graph_print(encoded, sink());
    dump_graph(graph, node_options, edge_options);

    if (result == 1) {
        QuarlInstGraph *again = quarl_inst_graph_create();
        FUZZ_CHECK(again != nullptr);
        FUZZ_CHECK(quarl_encoded_graph_decode(encoded, again) == 1);
        check_same_graph(graph, again);
        quarl_inst_graph_delete(again);

        // Formulas and counts of a graph that stored data may have damaged.
        if (quarl_inst_graph_rebuild_formulas(graph, true) == 1) {
            check_graph_lists(graph);
            for (uint32_t i = 0; i < graph->m_num_edges; ++i) {
                QuarlInstEdge *edge = graph->m_edge_vec[i];
                edge->m_exec_count = edge->m_is_instrumented ? edge->m_counter_idx : 0;
            }
            FUZZ_CHECK(quarl_inst_graph_propagate_counts(graph));
            dump_graph(graph, node_options | QUARL_DOT_NODE_EXEC_COUNT,
                       edge_options | QUARL_DOT_EDGE_FORMULA | QUARL_DOT_EDGE_EXEC_COUNT);
        }
    }
    quarl_inst_graph_delete(graph);
    quarl_encoded_graph_delete(encoded);
    check_nothing_live();
    return 0;
}
