// The byte stream and the encoded-graph record that owns one.
#include <stdio.h>
#include <string.h>

#include "edgeinst_internal.h"

namespace {

const uint32_t stream_grow_by = 256;

// Reads may take up to three bytes past the length (the padding of a
// partial last word), so every block is allocated in whole words.
uint64_t whole_words_bytes(uint64_t bytes) { return (bytes + 3) / 4 * 4; }

const char *const format_names[] = {"encode_from_to", "encode16", "encode32", "encode96"};

} // namespace

// ---- Byte stream ----------------------------------------------------------

extern "C" QuarlStream *quarl_stream_create(void)
{
    QuarlStream *stream = static_cast<QuarlStream *>(quarl_mem_alloc(sizeof(QuarlStream)));
    if (stream == nullptr)
        return nullptr;
    stream->m_buffer = nullptr;
    stream->m_length = 0;
    stream->m_capacity = 0;
    stream->m_grow_by = stream_grow_by;
    stream->m_read_pos = 0;
    return stream;
}

extern "C" void quarl_stream_delete(QuarlStream *stream)
{
    quarl_mem_free(stream->m_buffer);
    quarl_mem_free(stream);
}

extern "C" uint32_t quarl_stream_write(QuarlStream *stream, const void *data, uint32_t item_size,
                                      uint32_t item_count)
{
    uint64_t size = uint64_t{item_size} * item_count;
    uint64_t needed = stream->m_length + size;
    if (needed > UINT32_MAX)
        return 0;
    if (size == 0)
        return item_count;
    if (needed > stream->m_capacity) {
        uint64_t capacity = uint64_t{stream->m_capacity} + stream->m_grow_by;
        if (capacity < needed)
            capacity = needed;
        if (capacity > UINT32_MAX)
            capacity = UINT32_MAX;
        uint64_t old_block = whole_words_bytes(stream->m_capacity);
        uint64_t new_block = whole_words_bytes(capacity);
        uint8_t *grown = static_cast<uint8_t *>(quarl_mem_realloc(stream->m_buffer, new_block));
        if (grown == nullptr)
            return 0;
        memset(grown + old_block, 0, new_block - old_block);
        stream->m_buffer = grown;
        stream->m_capacity = static_cast<uint32_t>(capacity);
    }
    memcpy(stream->m_buffer + stream->m_length, data, size);
    stream->m_length = static_cast<uint32_t>(needed);
    return item_count;
}

extern "C" uint32_t quarl_stream_read(QuarlStream *stream, void *dest, uint32_t item_size,
                                     uint32_t item_count)
{
    uint64_t size = uint64_t{item_size} * item_count;
    uint64_t end = stream->m_read_pos + size;
    if (end > whole_words_bytes(stream->m_length))
        return 0;
    if (size == 0)
        return item_count;
    memcpy(dest, stream->m_buffer + stream->m_read_pos, size);
    stream->m_read_pos = static_cast<uint32_t>(end);
    return item_count;
}

extern "C" int quarl_stream_eof(const QuarlStream *stream)
{
    return stream->m_read_pos >= stream->m_length ? 1 : 0;
}

extern "C" void quarl_stream_reset(QuarlStream *stream) { stream->m_read_pos = 0; }

extern "C" uint32_t quarl_stream_get_rounded_length(const QuarlStream *stream)
{
    return static_cast<uint32_t>(whole_words_bytes(stream->m_length) / 4);
}

extern "C" QuarlStream *quarl_stream_copy(const QuarlStream *stream)
{
    QuarlStream *copy = quarl_stream_create();
    if (copy == nullptr)
        return nullptr;
    if (stream->m_buffer != nullptr) {
        uint64_t block = whole_words_bytes(stream->m_capacity);
        copy->m_buffer = static_cast<uint8_t *>(quarl_mem_alloc(block));
        if (copy->m_buffer == nullptr) {
            quarl_stream_delete(copy);
            return nullptr;
        }
        memcpy(copy->m_buffer, stream->m_buffer, block);
    }
    copy->m_length = stream->m_length;
    copy->m_capacity = stream->m_capacity;
    copy->m_grow_by = stream->m_grow_by;
    copy->m_read_pos = stream->m_read_pos;
    return copy;
}

extern "C" int quarl_stream_print(const QuarlStream *stream, FILE *out)
{
    int result = fprintf(out, "Printing %u elements. Buffer allocated up to %u elements\n",
                         stream->m_length, stream->m_capacity);
    uint32_t words = quarl_stream_get_rounded_length(stream);
    for (uint32_t w = 0; w < words; ++w) {
        if (w % 8 == 0)
            fprintf(out, "\n");
        fprintf(out, " 0x");
        for (uint32_t byte = 0; byte < 4; ++byte)
            result = fprintf(out, "%02x", stream->m_buffer[4 * w + byte]);
    }
    return result;
}

// ---- Encoded graph ----------------------------------------------------------

extern "C" QuarlEncodedGraph *quarl_encoded_graph_create(void)
{
    QuarlEncodedGraph *encoded_graph =
        static_cast<QuarlEncodedGraph *>(quarl_mem_alloc(sizeof(QuarlEncodedGraph)));
    if (encoded_graph == nullptr)
        return nullptr;
    encoded_graph->m_format = c_encode_last;
    encoded_graph->m_stream = nullptr;
    return encoded_graph;
}

extern "C" QuarlEncodedGraph *quarl_encoded_graph_create_from_buffer(const uint32_t *buffer,
                                                                    uint32_t buffer_words)
{
    QuarlEncodedGraph *encoded_graph = quarl_encoded_graph_create();
    if (encoded_graph == nullptr)
        return nullptr;
    QuarlStream *stream = quarl_stream_create();
    if (stream == nullptr) {
        quarl_encoded_graph_delete(encoded_graph);
        return nullptr;
    }
    if (quarl_stream_write(stream, buffer, 4, buffer_words) != buffer_words) {
        quarl_stream_delete(stream);
        quarl_encoded_graph_delete(encoded_graph);
        return nullptr;
    }
    encoded_graph->m_stream = stream;
    return encoded_graph;
}

extern "C" QuarlEncodedGraph *quarl_encoded_graph_copy(const QuarlEncodedGraph *encoded_graph)
{
    if (encoded_graph == nullptr)
        return nullptr;
    QuarlEncodedGraph *copy = quarl_encoded_graph_create();
    if (copy == nullptr || encoded_graph->m_stream == nullptr)
        return copy;
    copy->m_stream = quarl_stream_copy(encoded_graph->m_stream);
    if (copy->m_stream == nullptr) {
        quarl_encoded_graph_delete(copy);
        return nullptr;
    }
    copy->m_format = encoded_graph->m_format;
    return copy;
}

extern "C" uint32_t quarl_encoded_graph_length(const QuarlEncodedGraph *encoded_graph)
{
    return encoded_graph->m_stream != nullptr
               ? quarl_stream_get_rounded_length(encoded_graph->m_stream)
               : 0;
}

extern "C" int quarl_encoded_graph_print(const QuarlEncodedGraph *encoded_graph, FILE *out)
{
    fprintf(out, "QuarlEncodedGraph:\n");
    const char *name = quarl_graph_encoding_format_str(encoded_graph->m_format);
    int result = fprintf(out, "Format: %s\n", name != nullptr ? name : "unknown");
    if (encoded_graph->m_stream != nullptr)
        result = quarl_stream_print(encoded_graph->m_stream, out);
    return result;
}

extern "C" void quarl_encoded_graph_delete(QuarlEncodedGraph *encoded_graph)
{
    if (encoded_graph->m_stream != nullptr)
        quarl_stream_delete(encoded_graph->m_stream);
    quarl_mem_free(encoded_graph);
}

extern "C" const char *quarl_graph_encoding_format_str(uint32_t format)
{
    return format < c_encode_last ? format_names[format] : nullptr;
}
