// Fuzz target: the profile file reader on arbitrary bytes. It must give 1,
// or 0 with a reason, and never read past the bytes it was given; what it
// reads must write back to bytes that read as the same records, and adding
// a profile to itself must double every count. Every record's counts are
// derived as the tool and the plugin derive them: damaged records give 0,
// never a failed check or a leak.
#include <stdlib.h>
#include <string.h>

#include <vector>

#include "fuzz_common.h"
#include "quarl_profile.h"
#include "quarl_profile_counts.h"

namespace {

std::vector<uint8_t> written(const QuarlProfile &profile)
{
    char *bytes = nullptr;
    size_t size = 0;
    FILE *out = open_memstream(&bytes, &size);
    FUZZ_CHECK(out != nullptr && quarl_profile_write(out, &profile));
    fclose(out);
    std::vector<uint8_t> copy(bytes, bytes + size);
    free(bytes);
    return copy;
}

bool same_sites(const QuarlProfileFunction &a, const QuarlProfileFunction &b)
{
    if (a.num_sites != b.num_sites)
        return false;
    for (uint32_t i = 0; i < a.num_sites; ++i) {
        const QuarlProfileSite &x = a.sites[i], &y = b.sites[i];
        if (x.kind != y.kind || x.total != y.total || x.num_values != y.num_values ||
            memcmp(x.values, y.values, size_t(x.num_values) * sizeof *x.values) != 0)
            return false;
    }
    return true;
}

bool same_record(const QuarlProfileFunction &a, const QuarlProfileFunction &b)
{
    return same_sites(a, b) && strcmp(a.key, b.key) == 0 && a.checksum == b.checksum && a.flags == b.flags &&
           a.num_blocks == b.num_blocks && a.num_nodes == b.num_nodes &&
           a.num_words == b.num_words && a.num_counters == b.num_counters &&
           memcmp(a.words, b.words, size_t(a.num_words) * 4) == 0 &&
           memcmp(a.counters, b.counters, size_t(a.num_counters) * 8) == 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // An exact-size copy, so that any read past it is reported.
    std::vector<uint8_t> bytes(data, data + size);
    QuarlProfile profile = QUARL_PROFILE_INIT;
    char error[256] = "";
    if (!quarl_profile_parse(bytes.data(), bytes.size(), &profile, error, sizeof error)) {
        FUZZ_CHECK(error[0] != '\0' && profile.count == 0 && profile.functions == nullptr);
        return 0;
    }
    std::vector<uint8_t> again = written(profile);
    QuarlProfile reread = QUARL_PROFILE_INIT;
    FUZZ_CHECK(quarl_profile_parse(again.data(), again.size(), &reread, error, sizeof error));
    FUZZ_CHECK(reread.count == profile.count);
    for (uint32_t i = 0; i < profile.count; ++i)
        FUZZ_CHECK(same_record(profile.functions[i], reread.functions[i]));

    for (uint32_t i = 0; i < profile.count; ++i) {
        const QuarlProfileFunction &f = profile.functions[i];
        std::vector<uint64_t> nodes(f.num_nodes);
        uint32_t repaired = 0, edge_repaired = 0;
        bool counted = quarl_profile_node_counts(&f, nodes.data(), &repaired);
        QuarlProfileEdge *edges = nullptr;
        uint32_t num_edges = 0;
        if (quarl_profile_edge_counts(&f, &edges, &num_edges, &edge_repaired)) {
            // Whatever the counters say, no count below zero.
            FUZZ_CHECK(counted && repaired == edge_repaired);
            for (uint32_t e = 0; e < num_edges; ++e)
                FUZZ_CHECK(edges[e].count <= uint64_t(INT64_MAX));
            free(edges);
        } else {
            FUZZ_CHECK(edges == nullptr && num_edges == 0);
        }
    }

    // Records of distinct keys add to themselves; a key seen twice in one
    // file is replaced or summed as it comes.
    QuarlProfile doubled = QUARL_PROFILE_INIT;
    for (int round = 0; round < 2; ++round)
        for (uint32_t i = 0; i < profile.count; ++i)
            FUZZ_CHECK(quarl_profile_add(&doubled, &profile.functions[i]));
    FUZZ_CHECK(doubled.count <= profile.count);
    // Added as one program, twice: every record of the file keeps a place.
    QuarlProfile batched = QUARL_PROFILE_INIT;
    for (int round = 0; round < 2; ++round)
        FUZZ_CHECK(quarl_profile_add_all(&batched, profile.functions, profile.count));
    FUZZ_CHECK(batched.count <= profile.count);
    quarl_profile_release(&batched);
    quarl_profile_release(&doubled);
    quarl_profile_release(&reread);
    quarl_profile_release(&profile);
    return 0;
}
