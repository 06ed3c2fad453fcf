// The encoder and decoder of the packed formats and the edge list.
#include "test_support.h"

#include <algorithm>
#include <regex>

using namespace quarl_test;

namespace {

// Each node ("*" when reachable) with its out-edges in list order as
// destination/counter and flag letters: "0{ 1/0R 2/0IR} 1*{ 2/1IR} 2*{}".
std::string describe(const QuarlInstGraph *graph)
{
    std::string text;
    for (uint32_t i = 0; i < graph->m_num_nodes; ++i) {
        const QuarlInstNode *node = graph->m_node_vec[i];
        if (node == nullptr)
            continue;
        text += " " + std::to_string(i) + (node->m_is_reachable ? "*{" : "{");
        for (const QuarlInstListElement *el = node->m_edges->m_head; el; el = el->m_next) {
            const QuarlInstEdge *e = static_cast<const QuarlInstEdge *>(el->m_data);
            if (e->m_src == node)
                text += " " + std::to_string(e->m_dest->m_seg_block_idx) + "/" + std::to_string(e->m_counter_idx) +
                        (e->m_is_instrumented ? "I" : "") + (e->m_is_reachable ? "R" : "") + (e->m_is_immeasurable ? "N" : "") +
                        (e->m_is_pseudo ? "P" : "");
        }
        text += "}";
    }
    return text.empty() ? text : text.substr(1);
}

EncodedGraphPtr from_words(const std::vector<uint32_t> &words)
{
    return EncodedGraphPtr(quarl_encoded_graph_create_from_buffer(words.data(), static_cast<uint32_t>(words.size())));
}

// Decodes into a fresh graph; the result and the decoded graph, whose
// unsettled lists must agree with its counters.
std::pair<uint32_t, std::string> decode(QuarlEncodedGraph *encoded)
{
    GraphPtr graph(quarl_inst_graph_create());
    uint32_t result = quarl_encoded_graph_decode(encoded, graph.get());
    EXPECT_TRUE(lists_match_flags(graph.get()));
    return {result, describe(graph.get())};
}

// Nodes 0, 1, 2; edges 0->1 (counter 0), 0->2 (instrumented, counter 0) and
// 1->2 (instrumented, counter 1), all reachable.
const char *const example = "0>1 0>2i 1>2i#1";
const char *const example16 = "0{ 1/0R 2/0IR} 1*{ 2/1IR} 2*{}";
const char *const example32 = "0{ 1/0R 2/0IR} 1*{ 2/1IR} 2*{ 0/0}";
const std::vector<uint32_t> words16 = {1, 0x6040a020, 0x00006041};
const std::vector<uint32_t> words32 = {2, 0xa0002000, 0x60004000, 0x60004001, 0};

// Node 2 has only in-edges, 0->2 was added before 0->1, 1->1 is a self-loop
// and 3->0 packs to all zero bits.
const char *const awkward = "0>2i#1 0>1p 1>1im#2 1>3 3>0u";
const char *const awkward32 = "0{ 2/1IR 1/0RP} 1*{ 1/2IRN 3/0R} 2*{ 0/0} 3*{ 0/0}";

} // namespace

// Fixed graphs encode to golden words and decode to golden graphs. Generated
// routines with random flags (no edges given) at the format boundaries encode
// to a record (of `length` bytes) per edge and decode to the same graph.
TEST(Codec, EncodesAndDecodesEachFormat)
{
    const struct { const char *edges; uint32_t num_nodes, num_counters, length; QuarlEncodingFormat format;
                   std::vector<uint32_t> words; const char *decoded; } cases[] = {
        {example, 3, 2, 12, c_encode16, words16, example16},
        {example, 3, 32, 20, c_encode32, words32, example32},
        {example, 3, 8192, 52, c_encode96, {3, 0x28, 1, 0, 0x18, 2, 0, 0x18, 2, 1, 0, 0, 0}, example32},
        {awkward, 4, 3, 16, c_encode16, {1, 0x2820e041, 0x2060f022, 0}, "0{ 2/1IR 1/0RP} 1*{ 1/2IRN 3/0R} 2*{} 3*{}"},
        {awkward, 4, 8191, 28, c_encode32, {2, 0xe0004001, 0x28002000, 0xf0002002, 0x20006000, 0, 0}, awkward32},
        {awkward, 4, 8192, 76, c_encode96, {3, 0x38, 2, 1, 0x0a, 1, 0, 0x3c, 1, 2, 0x08, 3, 0, 0, 0, 0, 0, 0, 0}, awkward32},
        // counters beyond the field width (a broken precondition) are cut to it
        {"0>0i#33", 1, 2, 6, c_encode16, {1, 0x6001}, "0*{ 0/1IR}"},
        {"0>0i#8193", 1, 32, 8, c_encode32, {2, 0x60000001}, "0*{ 0/1IR}"},
        {nullptr, 31, 31, 2, c_encode16, {}, ""},     {nullptr, 32, 31, 4, c_encode32, {}, ""},
        {nullptr, 31, 32, 4, c_encode32, {}, ""},     {nullptr, 8191, 8191, 4, c_encode32, {}, ""},
        {nullptr, 8192, 8191, 12, c_encode96, {}, ""}, {nullptr, 8191, 8192, 12, c_encode96, {}, ""},
    };
    std::mt19937_64 rng(2024);
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.num_nodes << " nodes, " << c.num_counters);
        GraphPtr graph = build_graph(c.num_nodes, edges_of(c.edges ? c.edges : ""));
        if (c.edges == nullptr) {
            Routine routine = generate_routine(rng, c.num_nodes, c.num_nodes / 3 + 4);
            for (EdgeSpec &edge : routine.edges) {
                edge.immeasurable = rng() % 4 == 0;
                edge.pseudo = edge.pseudo || rng() % 8 == 0;
            }
            graph = build_routine_graph(routine);
            ASSERT_LE(graph->m_num_counters, c.num_counters);
        }
        graph->m_num_counters = c.num_counters;
        EncodedGraphPtr encoded(quarl_inst_graph_encode(graph.get()));
        ASSERT_NE(encoded, nullptr);
        EXPECT_EQ(encoded->m_format, c.format);
        EXPECT_EQ(encoded->m_stream->m_length, c.edges ? c.length : 4 + c.length * graph->m_num_edges);
        std::vector<uint32_t> words = stored_words(encoded.get());
        if (c.edges != nullptr) {
            EXPECT_EQ(words, c.words);
        }
        std::string decoded = c.edges ? c.decoded : describe(graph.get());
        EncodedGraphPtr stored = from_words(words);
        for (QuarlEncodedGraph *source : {encoded.get(), stored.get(), stored.get()}) { // decoding again gives the same
            EXPECT_EQ(decode(source), std::make_pair(1u, decoded));
            EXPECT_EQ(source->m_format, c.format);
        }
    }
    GraphPtr no_nodes = build_graph(0, {});
    EncodedGraphPtr header_only(quarl_inst_graph_encode(no_nodes.get()));
    EXPECT_EQ(capture_file_output([&](FILE *out) { quarl_encoded_graph_print(header_only.get(), out); }),
              "QuarlEncodedGraph:\nFormat: encode16\nPrinting 4 elements. Buffer allocated up to 256 elements\n\n 0x01000000");
}

TEST(Codec, DecodeTakesStoredWordsAsTheyCome)
{
    const auto unset = static_cast<QuarlEncodingFormat>(7);
    const struct { const char *name; std::vector<uint32_t> words; uint32_t result; QuarlEncodingFormat format; const char *decoded; } cases[] = {
        {"empty stream", {}, 0, unset, ""},
        {"header only, edge list", {0}, 1, c_encode_from_to, ""},
        {"header only, encode96", {3}, 1, c_encode96, ""},
        {"unknown format", {4, 0x6040a020}, 0, unset, ""},
        {"encode16 with a padding word", {1, 0x6040a020, 0x6041, 0}, 1, c_encode16, example16},
        {"encode16 empty record moves the source on", {1, 0x2040, 0x2001}, 1, c_encode16, "0*{ 2/0R} 2*{ 0/1R}"},
        {"encode96 ignores flag bits above the field", {3, 0xffffffd8, 1, 4, 0, 0, 0}, 1, c_encode96, "0{ 1/4IR} 1*{ 0/0}"},
        {"encode96 cut inside a record", {3, 0x18, 1}, 0, c_encode96, ""},
        {"edge list", {0, 0, 1, 2, 0, 0, 2, 3, 0, 1, 2, 3, 1}, 1, c_encode_from_to, example16},
        {"edge list flags", {0, 1, 0, 5, 3, 0, 1, 2, 1}, 1, c_encode_from_to, "0{ 1/1R} 1*{ 0/3IN}"},
        {"edge list cut inside a record", {0, 0, 1, 2, 0, 1, 2}, 0, c_encode_from_to, "0{ 1/0R} 1*{}"},
        {"destination at the record count", {2, 0x20004000, 0}, 0, c_encode32, ""},
        {"destination below the record count", {2, 0x20002000, 0}, 1, c_encode32, "0{ 1/0R} 1*{ 0/0}"},
        {"huge destination", {3, 0x08, 0xffffffff, 0}, 0, c_encode96, ""},
        {"edge list index at the bound", {0, 1040, 0, 2, 0}, 0, c_encode_from_to, ""},
        {"edge list index below the bound", {0, 1039, 0, 2, 0}, 1, c_encode_from_to, "0*{} 1039{ 0/0R}"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        EncodedGraphPtr encoded = from_words(c.words);
        encoded->m_format = unset;
        EXPECT_EQ(decode(encoded.get()), std::make_pair(c.result, std::string(c.decoded)));
        EXPECT_EQ(encoded->m_format, c.format);
    }
}

TEST(Codec, Traces)
{
    GraphPtr graph = build_graph(3, edges_of(example));
    EXPECT_EQ(capture_stderr([&] {
                  TraceMaskScope mask(4);
                  EncodedGraphPtr encoded(quarl_inst_graph_encode(graph.get()));
              }),
              "Starting encoding in format: encode16\nEncoding Node: 0\nEdge: 0 -> 1\n"
              "Edge: 0 -> 2\nEncoding Node: 1\nEdge: 1 -> 2\nEncoding Node: 2\n");
    const std::string header = "\n\ndigraph \"decoded graph\" {\n\tnode [style=filled, shape=box, color=lightskyblue3];\n";
    const struct { uint32_t mask; std::vector<uint32_t> words; std::string expected; } cases[] = {
        {2, words16, "Edge: 0 -> 1\nEdge: 0 -> 2\nEdge: 1 -> 2\n"},
        {2, words32, "Edge: 0 -> 1\nEdge: 0 -> 2\nEdge: 1 -> 2\nEdge: 2 -> 0\n"},
        {2, {0, 0, 1, 2, 0}, ""}, // no per-edge lines for an edge list
        {4, {3, 0x18}, ""},       // no graph after a failed packed read
        {4, {0, 0, 1}, header + "}\n\n"}, // but one after a failed edge-list read
        {4, words32, header +
         "\t\"B0000\" [ label=\"B0000 (node_id=0 })\" ];\n"
         "\t\"B0001\" [ label=\"B0001 (node_id=1 })\" ];\n"
         "\t\"B0002\" [ label=\"B0002 (node_id=2 })\" ];\n"
         "\t\tB0000 -> B0001 [ label= \"counter_idx=0 attrib{}  cost=0\" color = \"lightskyblue3\" ];\n"
         "\t\tB0000 -> B0002 [ label= \"counter_idx=0 attrib{In}  cost=0\" color = \"darkgreen\" ];\n"
         "\t\tB0001 -> B0002 [ label= \"counter_idx=1 attrib{In}  cost=0\" color = \"darkgreen\" ];\n"
         "\t\tB0002 -> B0000 [ label= \"counter_idx=0 attrib{Un}  cost=0\" color = \"lightgray\" ];\n"
         "}\n\n"},
    };
    for (const auto &c : cases) {
        EncodedGraphPtr encoded = from_words(c.words);
        TraceMaskScope mask(c.mask);
        EXPECT_EQ(capture_stderr([&] { decode(encoded.get()); }), c.expected);
    }
}

// With construction and decoding traced together, each record's nodes are
// found or created before its "Edge:" line, and the edge is added after it.
TEST(Codec, DecodeTraceInterleavesRecordByRecord)
{
    EncodedGraphPtr encoded = from_words(words16);
    TraceMaskScope mask(3);
    std::string trace = capture_stderr([&] { decode(encoded.get()); });
    trace = std::regex_replace(trace, std::regex("edge 0x[0-9a-f]+ to"), "edge %p to");
    EXPECT_EQ(trace,
              "Added node 0\n"
              "Added node 1\n"
              "Edge: 0 -> 1\n"
              "Adding edge %p to node 0\n"
              "Adding edge %p to node 1\n"
              "Added edge: B0000.B0001\n"
              "Added node 2\n"
              "Edge: 0 -> 2\n"
              "Adding edge %p to node 0\n"
              "Adding edge %p to node 2\n"
              "Added edge: B0000.B0002\n"
              "Setting edge [ B0000.B0002 ] as instrumented\n"
              "Edge: 1 -> 2\n"
              "Adding edge %p to node 1\n"
              "Adding edge %p to node 2\n"
              "Added edge: B0001.B0002\n"
              "Setting edge [ B0001.B0002 ] as instrumented\n");
}

TEST(CodecDeathTest, MissingNodeStopsTheEncoder)
{
    GraphPtr gap(quarl_inst_graph_create());
    quarl_inst_graph_add_node(gap.get(), 2);
    EXPECT_DEATH(quarl_inst_graph_encode(gap.get()),
                 "quarl_inst_graph_encode: Assertion `node != \\(\\(void \\*\\)0\\)' failed");
}
