// Encoding a graph into stored words and decoding it back.
#include <stdio.h>

#include "edgeinst_internal.h"

namespace {

// Flags of an edge-list record.
const uint32_t list_flag_instrumented = 0x1;
const uint32_t list_flag_reachable = 0x2;
const uint32_t list_flag_immeasurable = 0x4;

const uint32_t encode16_index_mask = 31;
const uint32_t encode32_index_mask = 0x1fff;

// An edge-list index this far beyond the number of records cannot be real.
const uint64_t edge_list_index_slack = 1024;

uint32_t load_u32(const uint8_t *bytes)
{
    return bytes[0] | uint32_t{bytes[1]} << 8 | uint32_t{bytes[2]} << 16 | uint32_t{bytes[3]} << 24;
}

// Bytes after the format word; a stream may end inside that word.
uint32_t payload_bytes(const QuarlStream *stream)
{
    return stream->m_length > 4 ? stream->m_length - 4 : 0;
}

// Stored values are little-endian whatever the machine.
uint32_t write_u16(QuarlStream *stream, uint32_t value)
{
    uint8_t bytes[2] = {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8)};
    return quarl_stream_write(stream, bytes, 2, 1);
}

uint32_t write_u32(QuarlStream *stream, uint32_t value)
{
    uint8_t bytes[4] = {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8),
                        static_cast<uint8_t>(value >> 16), static_cast<uint8_t>(value >> 24)};
    return quarl_stream_write(stream, bytes, 4, 1);
}

bool read_u32(QuarlStream *stream, uint32_t *value)
{
    uint8_t bytes[4];
    if (quarl_stream_read(stream, bytes, 4, 1) != 1)
        return false;
    *value = bytes[0] | uint32_t{bytes[1]} << 8 | uint32_t{bytes[2]} << 16 |
             uint32_t{bytes[3]} << 24;
    return true;
}

QuarlEncodingFormat choose_format(const QuarlInstGraph *graph)
{
    if (graph->m_num_nodes < QUARL_ENCODE16_LIMIT && graph->m_num_counters < QUARL_ENCODE16_LIMIT)
        return c_encode16;
    if (graph->m_num_nodes < QUARL_ENCODE32_LIMIT && graph->m_num_counters < QUARL_ENCODE32_LIMIT)
        return c_encode32;
    return c_encode96;
}


// The next edge of the node's list, from element on, that leaves the node.
const QuarlInstListElement *next_out_edge(const QuarlInstListElement *element,
                                          const QuarlInstNode *node)
{
    while (element != nullptr && static_cast<const QuarlInstEdge *>(element->m_data)->m_src != node)
        element = element->m_next;
    return element;
}

uint32_t edge_flag_field(const QuarlInstEdge *edge, bool more_follows)
{
    return (more_follows ? QUARL_RECORD_MORE_FOLLOWS : 0) |
           (edge->m_is_instrumented ? QUARL_RECORD_INSTRUMENTED : 0) |
           (edge->m_is_reachable ? QUARL_RECORD_REACHABLE : 0) |
           (edge->m_is_immeasurable ? QUARL_RECORD_IMMEASURABLE : 0) |
           (edge->m_is_pseudo ? QUARL_RECORD_PSEUDO : 0);
}

// One node's successor records; a node without out-edges gives the empty
// record.
bool encode_node(QuarlEncodedGraph *encoded_graph, const QuarlInstNode *node)
{
    const QuarlInstListElement *element = next_out_edge(node->m_edges->m_head, node);
    if (element == nullptr)
        return quarl_encoded_graph_encode_edge_succ_list_format(encoded_graph, 0, 0, 0) == 1;
    while (element != nullptr) {
        const QuarlInstEdge *edge = static_cast<const QuarlInstEdge *>(element->m_data);
        const QuarlInstListElement *next = next_out_edge(element->m_next, node);
        if (quarl_encoded_graph_encode_edge_succ_list_format(
                encoded_graph, edge_flag_field(edge, next != nullptr),
                edge->m_dest->m_seg_block_idx, edge->m_counter_idx) != 1)
            return false;
        if (quarl_trace_on(QUARL_TRACE_ENCODE))
            fprintf(stderr, "Edge: %u -> %u\n", node->m_seg_block_idx,
                    edge->m_dest->m_seg_block_idx);
        element = next;
    }
    return true;
}

QuarlInstNode *find_or_add_node(QuarlInstGraph *graph, uint32_t node_idx)
{
    QuarlInstNode *node = quarl_inst_graph_find_node_by_idx(graph, node_idx);
    return node != nullptr ? node : quarl_inst_graph_add_node(graph, node_idx);
}

// Adds one decoded edge: the source node is found or created first, then
// the destination node; in the successor-list formats the edge's trace line
// comes between the nodes and the edge.
QuarlInstEdge *add_decoded_edge(QuarlInstGraph *graph, uint32_t src_idx, uint32_t dest_idx,
                                bool trace_edge)
{
    QuarlInstNode *src = find_or_add_node(graph, src_idx);
    if (src == nullptr)
        return nullptr;
    QuarlInstNode *dest = find_or_add_node(graph, dest_idx);
    if (dest == nullptr)
        return nullptr;
    if (trace_edge && quarl_trace_on(QUARL_TRACE_RESOLVE))
        fprintf(stderr, "Edge: %d -> %d\n", static_cast<int>(src_idx), static_cast<int>(dest_idx));
    return quarl_inst_graph_add_edge(graph, src, dest);
}

// The flags a record carries, set on its decoded edge.
void apply_record_flags(QuarlInstEdge *edge, uint32_t flags)
{
    if (flags & QUARL_RECORD_INSTRUMENTED)
        quarl_inst_edge_set_as_instrumented(edge);
    if (flags & QUARL_RECORD_REACHABLE) {
        edge->m_is_reachable = 1;
        edge->m_dest->m_is_reachable = 1;
    }
    if (flags & QUARL_RECORD_IMMEASURABLE)
        edge->m_is_immeasurable = 1;
    if (flags & QUARL_RECORD_PSEUDO)
        edge->m_is_pseudo = 1;
}

// Reads the next record's bytes as the stream gives them: one unit, or the
// three words of a c_encode96 record one by one.
bool read_record_bytes(QuarlStream *stream, QuarlEncodingFormat format, uint8_t *bytes)
{
    if (format != c_encode96 && format != c_encode_from_to)
        return quarl_stream_read(stream, bytes, quarl_stored_record_bytes(format), 1) == 1;
    for (uint32_t at = 0; at < quarl_stored_record_bytes(format); at += 4)
        if (quarl_stream_read(stream, bytes + at, 4, 1) != 1)
            return false;
    return true;
}

uint32_t decode_edge_list(QuarlStream *stream, QuarlInstGraph *graph)
{
    uint64_t index_bound = quarl_stored_index_bound(c_encode_from_to, payload_bytes(stream));
    while (!quarl_stream_eof(stream)) {
        uint8_t bytes[16];
        uint32_t src_idx;
        QuarlStoredRecord record;
        if (!read_record_bytes(stream, c_encode_from_to, bytes))
            return 0;
        quarl_edge_list_record_unpack(bytes, &src_idx, &record);
        if (src_idx >= index_bound || record.dest_idx >= index_bound)
            return 0;
        QuarlInstEdge *edge = add_decoded_edge(graph, src_idx, record.dest_idx, false);
        if (edge == nullptr)
            return 0;
        apply_record_flags(edge, record.flags);
        edge->m_counter_idx = record.counter_idx;
    }
    return 1;
}

uint32_t decode_successor_lists(QuarlStream *stream, QuarlEncodingFormat format,
                                QuarlInstGraph *graph)
{
    uint64_t dest_bound = quarl_stored_index_bound(format, payload_bytes(stream));
    uint32_t src_idx = 0;
    while (!quarl_stream_eof(stream)) {
        uint8_t bytes[12];
        QuarlStoredRecord record;
        if (!read_record_bytes(stream, format, bytes))
            return 0;
        if (!quarl_successor_record_unpack(format, bytes, &record)) {
            ++src_idx; // an empty record, or the padding of a stored stream
            continue;
        }
        if (record.dest_idx >= dest_bound)
            return 0;
        QuarlInstEdge *edge = add_decoded_edge(graph, src_idx, record.dest_idx, true);
        if (edge == nullptr)
            return 0;
        edge->m_counter_idx = record.counter_idx;
        apply_record_flags(edge, record.flags);
        if (!(record.flags & QUARL_RECORD_MORE_FOLLOWS))
            ++src_idx;
    }
    return 1;
}

void trace_decoded_graph(const QuarlInstGraph *graph)
{
    if (quarl_trace_on(QUARL_TRACE_ENCODE))
        quarl_inst_graph_print_dot_graph(graph, stderr, "decoded graph", QUARL_DOT_NODE_UNREACHABLE,
                                         QUARL_DOT_EDGE_ATTRIBUTES | QUARL_DOT_EDGE_UNREACHABLE |
                                             QUARL_DOT_EDGE_COLOR);
}

} // namespace

extern "C" uint32_t quarl_stored_record_bytes(QuarlEncodingFormat format)
{
    return format == c_encode16 ? 2 : format == c_encode32 ? 4 : format == c_encode96 ? 12 : 16;
}

extern "C" uint64_t quarl_stored_index_bound(QuarlEncodingFormat format, uint32_t payload_bytes)
{
    // The encoder writes at least one record per node, so a destination at
    // or beyond the number of records cannot be real; nor can an edge-list
    // index far beyond the number of records, or one the node vector cannot
    // take.
    if (format != c_encode_from_to)
        return payload_bytes / quarl_stored_record_bytes(format);
    uint64_t bound = 16 * uint64_t{payload_bytes / 16} + edge_list_index_slack;
    return bound < QUARL_MAX_BLOCK_IDX_EXCLUSIVE ? bound : QUARL_MAX_BLOCK_IDX_EXCLUSIVE;
}

extern "C" bool quarl_successor_record_unpack(QuarlEncodingFormat format, const uint8_t *bytes,
                                             QuarlStoredRecord *record)
{
    uint32_t unit;
    switch (format) {
    case c_encode16:
        unit = bytes[0] | uint32_t{bytes[1]} << 8;
        record->flags = unit >> 10;
        record->dest_idx = (unit >> 5) & encode16_index_mask;
        record->counter_idx = unit & encode16_index_mask;
        return unit != 0;
    case c_encode32:
        unit = load_u32(bytes);
        record->flags = unit >> 26;
        record->dest_idx = (unit >> 13) & encode32_index_mask;
        record->counter_idx = unit & encode32_index_mask;
        return true;
    default:
        record->flags = load_u32(bytes) & 0x3f; // the bits above the flag field are ignored
        record->dest_idx = load_u32(bytes + 4);
        record->counter_idx = load_u32(bytes + 8);
        return true;
    }
}

extern "C" void quarl_edge_list_record_unpack(const uint8_t *bytes, uint32_t *src_idx,
                                             QuarlStoredRecord *record)
{
    uint32_t flags = load_u32(bytes + 8);
    *src_idx = load_u32(bytes);
    record->dest_idx = load_u32(bytes + 4);
    record->counter_idx = load_u32(bytes + 12);
    record->flags = (flags & list_flag_instrumented ? QUARL_RECORD_INSTRUMENTED : 0) |
                    (flags & list_flag_reachable ? QUARL_RECORD_REACHABLE : 0) |
                    (flags & list_flag_immeasurable ? QUARL_RECORD_IMMEASURABLE : 0);
}

extern "C" uint32_t quarl_encoded_graph_encode_edge_succ_list_format(
    QuarlEncodedGraph *encoded_graph, uint32_t flags, uint32_t dest_idx, uint32_t counter_idx)
{
    QuarlStream *stream = encoded_graph->m_stream;
    switch (encoded_graph->m_format) {
    case c_encode16:
        return write_u16(stream, flags << 10 | (dest_idx & encode16_index_mask) << 5 |
                                     (counter_idx & encode16_index_mask));
    case c_encode32:
        return write_u32(stream, flags << 26 | (dest_idx & encode32_index_mask) << 13 |
                                     (counter_idx & encode32_index_mask));
    case c_encode96:
        return write_u32(stream, flags) == 1 && write_u32(stream, dest_idx) == 1 &&
                       write_u32(stream, counter_idx) == 1
                   ? 1
                   : 0;
    default:
        quarl_assert_fail("encoding_format == c_encode16 || encoding_format == c_encode32 || "
                          "encoding_format == c_encode96",
                          __LINE__, __func__);
    }
}

extern "C" QuarlEncodedGraph *quarl_inst_graph_encode(const QuarlInstGraph *graph)
{
    QuarlEncodedGraph *encoded_graph = quarl_encoded_graph_create();
    if (encoded_graph == nullptr)
        return nullptr;
    encoded_graph->m_stream = quarl_stream_create();
    if (encoded_graph->m_stream == nullptr) {
        quarl_encoded_graph_delete(encoded_graph);
        return nullptr;
    }
    QuarlEncodingFormat format = choose_format(graph);
    if (quarl_trace_on(QUARL_TRACE_ENCODE))
        fprintf(stderr, "Starting encoding in format: %s\n", quarl_graph_encoding_format_str(format));
    encoded_graph->m_format = format;
    bool ok = write_u32(encoded_graph->m_stream, format) == 1;
    for (uint32_t i = 0; ok && i < graph->m_num_nodes; ++i) {
        const QuarlInstNode *node = graph->m_node_vec[i];
        QUARL_CHECK(node != nullptr, "node != ((void *)0)");
        if (quarl_trace_on(QUARL_TRACE_ENCODE))
            fprintf(stderr, "Encoding Node: %u\n", node->m_seg_block_idx);
        ok = encode_node(encoded_graph, node);
    }
    if (!ok) {
        quarl_encoded_graph_delete(encoded_graph);
        return nullptr;
    }
    return encoded_graph;
}

extern "C" uint32_t quarl_encoded_graph_decode(QuarlEncodedGraph *encoded_graph,
                                              QuarlInstGraph *graph)
{
    QuarlStream *stream = encoded_graph->m_stream;
    if (stream == nullptr)
        return 0;
    quarl_stream_reset(stream);
    uint32_t format_id;
    // Stored data never stops the process: an unknown format is refused
    // before anything changes.
    if (!read_u32(stream, &format_id) || format_id >= c_encode_last)
        return 0;
    QuarlEncodingFormat format = static_cast<QuarlEncodingFormat>(format_id);
    encoded_graph->m_format = format;
    if (format == c_encode_from_to) {
        uint32_t result = decode_edge_list(stream, graph);
        trace_decoded_graph(graph);
        return result;
    }
    if (decode_successor_lists(stream, format, graph) != 1)
        return 0;
    trace_decoded_graph(graph);
    return 1;
}
