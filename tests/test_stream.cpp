// The byte stream, its dump, and the encoded graph that wraps it.
#include "test_support.h"

#include <algorithm>
#include <numeric>

using namespace quarl_test;

namespace {

struct Items { uint32_t item_size, item_count; };

// Bytes counting up from 1, so that every copied byte can be told apart.
const uint8_t *counting_bytes()
{
    static uint8_t bytes[2000];
    std::iota(bytes, bytes + sizeof bytes, uint8_t{1});
    return bytes;
}

std::string dump(const QuarlEncodedGraph *encoded)
{
    return capture_file_output([&](FILE *out) { quarl_encoded_graph_print(encoded, out); });
}

} // namespace

TEST(Stream, GrowsLinearlyAndZeroFillsTheBlock)
{
    const struct { const char *name; std::vector<Items> appends; std::vector<uint32_t> results; uint32_t length, capacity; } cases[] = {
        {"fresh", {}, {}, 0, 0},
        {"first short append takes one step", {{2, 1}}, {1}, 2, 256},
        {"exact fill does not grow", {{2, 1}, {2, 127}}, {1, 127}, 256, 256},
        {"one byte past a step grows by a step", {{2, 1}, {2, 127}, {1, 1}}, {1, 127, 1}, 257, 512},
        {"large append grows to the need", {{1000, 1}, {4, 1}}, {1, 1}, 1004, 1256},
        {"zero items or zero-sized items change nothing", {{2, 1}, {4, 0}, {0, 5}}, {1, 0, 5}, 2, 256},
        {"size overflowing 32 bits is refused", {{2, 1}, {65536, 65536}}, {1, 0}, 2, 256},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        StreamPtr stream(quarl_stream_create());
        std::vector<uint32_t> results;
        for (const Items &a : c.appends)
            results.push_back(quarl_stream_write(stream.get(), counting_bytes(), a.item_size, a.item_count));
        EXPECT_EQ(results, c.results);
        EXPECT_EQ(stream->m_length, c.length);
        EXPECT_EQ(stream->m_capacity, c.capacity);
        EXPECT_EQ(quarl_stream_get_rounded_length(stream.get()), (c.length + 3) / 4);
        for (uint32_t i = c.length; i < c.capacity; ++i)
            ASSERT_EQ(stream->m_buffer[i], 0) << "byte " << i;
    }
}

TEST(Stream, ReadsAreBoundedByTheWholeWordLength)
{
    // The stream holds length bytes, written in one append.
    const struct { const char *name; uint32_t length; std::vector<Items> reads; std::vector<uint32_t> results; uint32_t read_pos;
                   int eof; } cases[] = {
        {"empty stream", 0, {{1, 1}, {4, 0}}, {0, 0}, 0, 1},
        {"partial word reads padded", 2, {{4, 1}, {2, 1}}, {1, 0}, 4, 1},
        {"read ending at the rounded length", 5, {{2, 4}}, {4}, 8, 1},
        {"one byte past fails in place", 5, {{1, 4}, {1, 5}, {2, 2}}, {4, 0, 2}, 8, 1},
        {"eof against the unpadded length", 5, {{1, 5}}, {5}, 5, 1},
        {"padding past an odd-sized block", 1001, {{4, 251}}, {251}, 1004, 1},
        {"size overflowing 32 bits", 8, {{65536, 65536}}, {0}, 0, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        StreamPtr stream(quarl_stream_create());
        quarl_stream_write(stream.get(), counting_bytes(), 1, c.length);
        std::vector<uint8_t> got(1100, 0xee);
        std::vector<uint32_t> results;
        for (const Items &r : c.reads)
            results.push_back(quarl_stream_read(stream.get(), got.data() + stream->m_read_pos, r.item_size, r.item_count));
        EXPECT_EQ(results, c.results);
        EXPECT_EQ(stream->m_read_pos, c.read_pos);
        EXPECT_EQ(quarl_stream_eof(stream.get()), c.eof);
        for (uint32_t i = 0; i < c.read_pos; ++i)
            ASSERT_EQ(got[i], i < c.length ? static_cast<uint8_t>(i + 1) : 0) << "byte " << i;
    }
}

TEST(Stream, DumpsEightWordsToALine)
{
    const struct { std::vector<uint32_t> words; uint32_t length; const char *expected; } cases[] = {
        {{}, 0, "Printing 0 elements. Buffer allocated up to 0 elements\n"},
        {{1, 4660}, 8, "Printing 8 elements. Buffer allocated up to 256 elements\n\n 0x01000000 0x34120000"},
        {{0x0a0b0c0d, 0xffff}, 6, "Printing 6 elements. Buffer allocated up to 256 elements\n\n 0x0d0c0b0a 0xffff0000"},
        {{1, 2, 3, 4, 5, 6, 7, 8, 9}, 36, "Printing 36 elements. Buffer allocated up to 256 elements\n\n 0x01000000 0x02000000"
                                          " 0x03000000 0x04000000 0x05000000 0x06000000 0x07000000 0x08000000\n 0x09000000"},
    };
    for (const auto &c : cases) {
        StreamPtr stream(quarl_stream_create());
        quarl_stream_write(stream.get(), c.words.data(), 1, c.length);
        EXPECT_EQ(capture_file_output([&](FILE *out) { quarl_stream_print(stream.get(), out); }), c.expected);
    }
}

TEST(EncodedGraph, FormatNames)
{
    const char *names[] = {"encode_from_to", "encode16", "encode32", "encode96", nullptr, nullptr};
    for (uint32_t f : {0u, 1u, 2u, 3u, 4u, 0xffffffffu})
        EXPECT_STREQ(quarl_graph_encoding_format_str(f), names[std::min(f, 5u)]);
}

TEST(EncodedGraph, CreateWrapCopyAndDump)
{
    EXPECT_EQ(quarl_encoded_graph_copy(nullptr), nullptr);
    EncodedGraphPtr fresh(quarl_encoded_graph_create());
    EncodedGraphPtr fresh_copy(quarl_encoded_graph_copy(fresh.get()));
    EXPECT_EQ(quarl_encoded_graph_length(fresh_copy.get()), 0u);
    for (const QuarlEncodedGraph *e : {fresh.get(), fresh_copy.get()})
        EXPECT_EQ(dump(e), "QuarlEncodedGraph:\nFormat: unknown\n"); // and no stream
    EncodedGraphPtr empty(quarl_encoded_graph_create_from_buffer(nullptr, 0));
    EncodedGraphPtr empty_copy(quarl_encoded_graph_copy(empty.get()));
    EXPECT_EQ(dump(empty_copy.get()), "QuarlEncodedGraph:\nFormat: unknown\nPrinting 0 elements. Buffer allocated up to 0 elements\n");

    const std::vector<uint32_t> words = {2, 0xa0002000, 0};
    EncodedGraphPtr wrapped(quarl_encoded_graph_create_from_buffer(words.data(), 3));
    EXPECT_EQ(stored_words(wrapped.get()), words);
    wrapped->m_format = c_encode32;
    uint32_t word = 0;
    quarl_stream_read(wrapped->m_stream, &word, 4, 1);
    EncodedGraphPtr copy(quarl_encoded_graph_copy(wrapped.get()));
    const char *expected = "QuarlEncodedGraph:\nFormat: encode32\nPrinting 12 elements. Buffer allocated up to 256 elements\n"
                           "\n 0x02000000 0x002000a0 0x00000000";
    EXPECT_EQ(dump(wrapped.get()), expected);
    wrapped.reset();
    EXPECT_EQ(dump(copy.get()), expected);
    EXPECT_EQ(quarl_stream_read(copy->m_stream, &word, 4, 1), 1u); // from the copied position
    EXPECT_EQ(word, 0xa0002000u);
    // Each allocation of a copy failing in turn: no copy, nothing left allocated.
    EXPECT_EQ(sweep_allocation_failures([&] {
        arm_allocation_failure();
        EncodedGraphPtr failed(quarl_encoded_graph_copy(copy.get()));
        EXPECT_EQ(failed == nullptr, allocation_failure_delivered());
    }), 3u);
}
