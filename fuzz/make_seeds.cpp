// Writes the seed corpora of the fuzz targets from a few small routines run
// through counter placement and the encoder.
//
//   fuzz_make_seeds <corpus directory>
//
// writes <dir>/fuzz_profile_use/*, <dir>/fuzz_decode/* and
// <dir>/fuzz_roundtrip/* in the input layouts the targets describe, e.g.
// fuzz_make_seeds fuzz/corpus from the source directory.
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "quarl/edgeinst.h"

namespace {

// Edge flags of the round-trip target's input.
const uint8_t unreachable = 1, pseudo = 2, immeasurable = 4, counter = 8, cycle = 16;

struct SeedEdge {
    uint8_t src, dest, flags;
};

struct SeedRoutine {
    const char *name;
    uint8_t num_nodes;
    uint8_t mode; // as the round-trip target reads it
    std::vector<uint8_t> node_flags;
    std::vector<SeedEdge> edges;
};

std::vector<SeedRoutine> routines()
{
    std::vector<SeedRoutine> list = {
        {"diamond", 4, 8, {},
         {{0, 1, cycle}, {0, 2, cycle | 0x40}, {1, 3, 0}, {2, 3, 0}, {3, 0, pseudo}}},
        {"flagged_counters", 4, 0, {},
         {{0, 1, counter | cycle}, {0, 2, cycle | 0x20}, {1, 3, 0}, {2, 3, counter},
          {3, 0, pseudo}}},
        {"encode96_diamond", 4, 8 | 2, {},
         {{0, 1, cycle}, {0, 2, cycle | 0xe0}, {1, 3, 0}, {2, 3, 0}, {3, 0, pseudo}}},
        {"immeasurable", 3, 0, {},
         {{0, 1, counter | immeasurable | cycle}, {1, 2, 0}, {0, 2, counter | cycle},
          {2, 0, pseudo}}},
        {"unreachable_parts", 5, 8 | 4, {0, 0, 0, 1, 2},
         {{0, 1, cycle}, {1, 2, 0}, {1, 3, unreachable}, {3, 2, unreachable}, {2, 0, pseudo},
          {4, 4, unreachable}}},
        {"counters_base32", 3, 8 | 1, {},
         {{0, 1, cycle}, {1, 2, 0}, {1, 0, cycle}, {2, 0, pseudo}}},
        // Chain and back edge added by the target; branches and loops here.
        {"plain_chain", 12, 0x20 | 0x10 | 8, {},
         {{2, 7, cycle | 0x20}, {9, 3, cycle | 0x80}, {4, 5, cycle}, {10, 1, cycle | 0xc0}}},
    };
    SeedRoutine chain = {"chain40", 40, 8, {}, {}};
    for (uint8_t i = 0; i + 1 < 40; ++i)
        chain.edges.push_back({i, static_cast<uint8_t>(i + 1), 0});
    chain.edges.push_back({5, 20, cycle | 0x60});
    chain.edges.push_back({30, 10, cycle});
    chain.edges.push_back({39, 0, pseudo});
    list.push_back(chain);
    return list;
}

std::vector<uint8_t> roundtrip_input(const SeedRoutine &routine)
{
    std::vector<uint8_t> bytes = {static_cast<uint8_t>(routine.num_nodes - 1), routine.mode};
    bytes.insert(bytes.end(), routine.node_flags.begin(), routine.node_flags.end());
    for (const SeedEdge &edge : routine.edges) {
        bytes.push_back(edge.src);
        bytes.push_back(edge.dest);
        bytes.push_back(edge.flags);
    }
    return bytes;
}

// The stored words of the routine after placement, with counters numbered
// from 0 and the counter count raised to the routine's base plus the
// counters, so that the format is the one the round-trip target reaches.
std::vector<uint32_t> encode(const SeedRoutine &routine, uint32_t *num_counters)
{
    static const uint32_t bases[4] = {0, 32, 8192, 0};
    QuarlInstGraph *graph = quarl_inst_graph_create();
    for (uint32_t i = 0; i < routine.num_nodes; ++i) {
        QuarlInstNode *node = quarl_inst_graph_add_node(graph, i);
        node->m_is_reachable = routine.node_flags.empty() || !(routine.node_flags[i] & 1);
    }
    std::vector<SeedEdge> edges;
    if (routine.mode & 0x20) { // the chain and back edge the round-trip target adds
        for (uint8_t i = 0; i + 1 < routine.num_nodes; ++i)
            edges.push_back({i, static_cast<uint8_t>(i + 1), 0});
        edges.push_back({static_cast<uint8_t>(routine.num_nodes - 1), 0, pseudo | cycle});
    }
    edges.insert(edges.end(), routine.edges.begin(), routine.edges.end());
    for (const SeedEdge &wanted : edges) {
        QuarlInstEdge *edge = quarl_inst_graph_add_edge(graph, graph->m_node_vec[wanted.src],
                                                        graph->m_node_vec[wanted.dest]);
        edge->m_is_reachable = !(wanted.flags & unreachable);
        edge->m_is_pseudo = (wanted.flags & pseudo) != 0;
        edge->m_is_immeasurable = (wanted.flags & immeasurable) != 0;
        edge->m_cost = wanted.flags >> 5;
        if (!(routine.mode & 8) && (wanted.flags & counter))
            quarl_inst_edge_set_as_instrumented(edge);
    }
    if (routine.mode & 8)
        quarl_inst_graph_select_counters(graph);
    quarl_inst_graph_adjust_instrumentation(graph);
    uint32_t count = 0;
    for (uint32_t i = 0; i < graph->m_num_edges; ++i)
        if (graph->m_edge_vec[i]->m_is_instrumented)
            graph->m_edge_vec[i]->m_counter_idx = count++;
    graph->m_num_counters = bases[routine.mode & 3] + count;
    QuarlEncodedGraph *encoded = quarl_inst_graph_encode(graph);
    std::vector<uint32_t> words(quarl_encoded_graph_length(encoded));
    memcpy(words.data(), encoded->m_stream->m_buffer, words.size() * 4);
    quarl_encoded_graph_delete(encoded);
    quarl_inst_graph_delete(graph);
    *num_counters = count;
    return words;
}

void append_words(std::vector<uint8_t> &bytes, const std::vector<uint32_t> &words)
{
    for (uint32_t word : words)
        for (int i = 0; i < 4; ++i)
            bytes.push_back(static_cast<uint8_t>(word >> (8 * i)));
}

bool write_file(const std::string &path, const std::vector<uint8_t> &bytes)
{
    FILE *file = fopen(path.c_str(), "wb");
    if (file == nullptr)
        return false;
    bool ok = fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
    return fclose(file) == 0 && ok;
}

bool write_stored_seeds(const std::string &dir, const std::string &name,
                        const std::vector<uint32_t> &words, uint32_t num_counters,
                        uint32_t num_blocks)
{
    std::vector<uint8_t> use = {static_cast<uint8_t>(num_counters),
                                static_cast<uint8_t>(num_blocks)};
    append_words(use, words);
    for (uint32_t c = 0; c < num_counters; ++c)
        for (int i = 0; i < 8; ++i)
            use.push_back(i == 0 ? static_cast<uint8_t>(10 * (c + 1)) : 0);
    // Decode target: whole words, and every node and edge detail exported.
    std::vector<uint8_t> decode = {1 | (15 << 1), 31};
    append_words(decode, words);
    return write_file(dir + "/fuzz_profile_use/" + name, use) &&
           write_file(dir + "/fuzz_decode/" + name, decode);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: %s <corpus directory>\n", argv[0]);
        return 2;
    }
    std::string dir = argv[1];
    for (const char *target : {"", "/fuzz_profile_use", "/fuzz_decode", "/fuzz_roundtrip"})
        mkdir((dir + target).c_str(), 0755); // an existing directory is fine
    bool ok = true;
    for (const SeedRoutine &routine : routines()) {
        uint32_t num_counters = 0;
        std::vector<uint32_t> words = encode(routine, &num_counters);
        ok = ok &&
             write_stored_seeds(dir, routine.name, words, num_counters, routine.num_nodes + 1);
        ok = ok && write_file(dir + "/fuzz_roundtrip/" + routine.name, roundtrip_input(routine));
    }
    // The edge-list format is never written by the encoder: one by hand,
    // 0 -> 1 counted, 1 -> 2 derived, 2 -> 0 counted.
    std::vector<uint32_t> edge_list = {0, 0, 1, 3, 0, 1, 2, 2, 0, 2, 0, 3, 1};
    ok = ok && write_stored_seeds(dir, "edge_list", edge_list, 2, 3);
    if (!ok) {
        fprintf(stderr, "cannot write the seeds under %s\n", dir.c_str());
        return 1;
    }
    return 0;
}
