#include "flat_solver.h"

#include <cstdlib>
#include <cstring>
#include <vector>

namespace quarl_bench {

bool flat_solve_block_counts(const uint32_t *words, uint32_t length, const uint64_t *counters,
                             uint64_t *block_counts, uint32_t num_blocks)
{
    struct Edge {
        uint32_t src, dest;
        uint64_t count;
        bool known;
    };
    std::vector<Edge> edges;
    edges.reserve(length * 2);
    const uint8_t *bytes = reinterpret_cast<const uint8_t *>(words + 1);
    uint32_t payload = (length - 1) * 4, format = words[0], src = 0, nodes = 0;
    uint32_t step = format == 1 ? 2 : format == 2 ? 4 : 12;
    for (uint32_t at = 0; at + step <= payload; at += step) {
        uint32_t flags, dest, counter;
        if (format == 1) {
            uint32_t unit = bytes[at] | uint32_t{bytes[at + 1]} << 8;
            if (unit == 0) {
                ++src;
                continue;
            }
            flags = unit >> 10, dest = (unit >> 5) & 31, counter = unit & 31;
        } else if (format == 2) {
            uint32_t unit;
            memcpy(&unit, bytes + at, 4);
            flags = unit >> 26, dest = (unit >> 13) & 0x1fff, counter = unit & 0x1fff;
        } else {
            memcpy(&flags, bytes + at, 4);
            memcpy(&dest, bytes + at + 4, 4);
            memcpy(&counter, bytes + at + 8, 4);
        }
        bool reachable = flags & 0x08, instrumented = flags & 0x10;
        edges.push_back({src, dest, instrumented ? counters[counter] : 0,
                         instrumented || !reachable});
        nodes = std::max(nodes, std::max(src, dest) + 1);
        if (!(flags & 0x20))
            ++src;
    }
    std::vector<uint32_t> first(nodes + 1, 0), unknown(nodes, 0), adjacent;
    for (const Edge &e : edges) {
        first[e.src + 1]++;
        if (e.dest != e.src)
            first[e.dest + 1]++;
        if (!e.known) {
            unknown[e.src]++;
            if (e.dest != e.src)
                unknown[e.dest]++;
        }
    }
    for (uint32_t n = 0; n < nodes; ++n)
        first[n + 1] += first[n];
    adjacent.resize(first[nodes]);
    std::vector<uint32_t> fill(first.begin(), first.end() - 1);
    for (uint32_t e = 0; e < edges.size(); ++e) {
        adjacent[fill[edges[e].src]++] = e;
        if (edges[e].dest != edges[e].src)
            adjacent[fill[edges[e].dest]++] = e;
    }
    std::vector<uint32_t> work;
    for (uint32_t n = 0; n < nodes; ++n)
        if (unknown[n] == 1)
            work.push_back(n);
    while (!work.empty()) {
        uint32_t n = work.back();
        work.pop_back();
        if (unknown[n] != 1)
            continue;
        uint32_t last = UINT32_MAX;
        uint64_t in = 0, out = 0;
        for (uint32_t i = first[n]; i < first[n + 1]; ++i) {
            const Edge &e = edges[adjacent[i]];
            if (!e.known)
                last = adjacent[i];
            else if (e.dest == n)
                in += e.count;
            else
                out += e.count;
        }
        Edge &fixed = edges[last];
        fixed.count = fixed.dest == n ? out - in : in - out;
        fixed.known = true;
        uint32_t far = fixed.dest == n ? fixed.src : fixed.dest;
        unknown[n]--;
        if (far != n && --unknown[far] == 1)
            work.push_back(far);
    }
    std::vector<uint64_t> incoming(nodes, 0);
    for (const Edge &e : edges) {
        if (!e.known)
            return false;
        incoming[e.dest] += e.count;
    }
    for (uint32_t b = 0; b < num_blocks; ++b)
        block_counts[b] = b < nodes ? incoming[b] : 0;
    return true;
}

} // namespace quarl_bench
