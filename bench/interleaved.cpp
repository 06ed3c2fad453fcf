// Placement of two builds of the library in one process, calls alternating
// as a compiler makes them (one routine after another, the heap shared and
// warm), rather than each build in a fresh process of its own. Both builds
// are shared libraries loaded with their own symbols; each placement must
// give the same stored words in both.
//
// Usage: quarl_bench_interleaved BASE.so AFTER.so [ROUNDS [EDGES...]]
// Prints, per size, the best and median time of each build and the ratios
// after/base.
#include <dlfcn.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "compiled_routine.h"

namespace {

struct LibraryCalls {
    const char *path = nullptr;
    quarl_bench::GraphCalls graph{};
    uint32_t (*select_counters)(QuarlInstGraph *) = nullptr;
    int (*adjust_instrumentation)(QuarlInstGraph *) = nullptr;
    QuarlEncodedGraph *(*encode)(QuarlInstGraph *) = nullptr;
    uint32_t (*encoded_length)(const QuarlEncodedGraph *) = nullptr;
    void (*encoded_delete)(QuarlEncodedGraph *) = nullptr;
    void (*stream_reset)(QuarlStream *) = nullptr;
    uint32_t (*stream_read)(QuarlStream *, void *, uint32_t, uint32_t) = nullptr;
};

template <typename Function> bool resolve(void *library, const char *name, Function &function)
{
    function = reinterpret_cast<Function>(dlsym(library, name));
    if (function == nullptr)
        std::fprintf(stderr, "quarl_bench_interleaved: %s\n", dlerror());
    return function != nullptr;
}

// RTLD_DEEPBIND: each build's calls among its own functions stay inside it.
bool load(const char *path, LibraryCalls &calls)
{
    void *library = dlopen(path, RTLD_NOW | RTLD_LOCAL | RTLD_DEEPBIND);
    if (library == nullptr) {
        std::fprintf(stderr, "quarl_bench_interleaved: %s\n", dlerror());
        return false;
    }
    calls.path = path;
    return resolve(library, "quarl_inst_graph_create", calls.graph.create) &&
           resolve(library, "quarl_inst_graph_add_node", calls.graph.add_node) &&
           resolve(library, "quarl_inst_graph_add_edge", calls.graph.add_edge) &&
           resolve(library, "quarl_inst_graph_delete", calls.graph.destroy) &&
           resolve(library, "quarl_inst_graph_select_counters", calls.select_counters) &&
           resolve(library, "quarl_inst_graph_adjust_instrumentation", calls.adjust_instrumentation) &&
           resolve(library, "quarl_inst_graph_encode", calls.encode) &&
           resolve(library, "quarl_encoded_graph_length", calls.encoded_length) &&
           resolve(library, "quarl_encoded_graph_delete", calls.encoded_delete) &&
           resolve(library, "quarl_stream_reset", calls.stream_reset) &&
           resolve(library, "quarl_stream_read", calls.stream_read);
}

// Counter selection, the placement pass and encoding, timed; the stored
// words in words. False when a step fails.
bool place(const LibraryCalls &calls, const quarl_bench::CompiledRoutine &routine, double &seconds,
           std::vector<uint32_t> &words)
{
    QuarlInstGraph *graph = quarl_bench::build_compiled_graph(routine, calls.graph);
    if (graph == nullptr)
        return false;
    auto start = std::chrono::steady_clock::now();
    QuarlEncodedGraph *encoded = nullptr;
    if (calls.select_counters(graph) != QUARL_SELECT_COUNTERS_FAILED && calls.adjust_instrumentation(graph) == 1)
        encoded = calls.encode(graph);
    seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (encoded != nullptr) {
        calls.stream_reset(encoded->m_stream);
        words.resize(calls.encoded_length(encoded));
        calls.stream_read(encoded->m_stream, words.data(), 4, uint32_t(words.size()));
        calls.encoded_delete(encoded);
    }
    calls.graph.destroy(graph);
    return encoded != nullptr;
}

double median(std::vector<double> times)
{
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s BASE.so AFTER.so [ROUNDS [EDGES...]]\n", argv[0]);
        return 2;
    }
    LibraryCalls sides[2];
    if (!load(argv[1], sides[0]) || !load(argv[2], sides[1]))
        return 1;
    int rounds = argc > 3 ? std::atoi(argv[3]) : 10;
    std::vector<uint32_t> sizes;
    for (int a = 4; a < argc; ++a)
        sizes.push_back(uint32_t(std::strtoul(argv[a], nullptr, 10)));
    if (sizes.empty())
        sizes = {1000, 10000, 50000, 100000};

    std::printf("| edges | base best | base median | after best | after median | best ratio | median ratio |\n");
    std::printf("|---|---|---|---|---|---|---|\n");
    for (uint32_t edges : sizes) {
        quarl_bench::CompiledRoutine routine = quarl_bench::make_compiled_routine(edges, 20261123);
        std::vector<double> times[2];
        std::vector<uint32_t> words[2];
        for (int round = 0; round < rounds; ++round) {
            for (int turn = 0; turn < 2; ++turn) {
                int side = (round + turn) % 2; // each build goes first in every other round
                double seconds = 0;
                if (!place(sides[side], routine, seconds, words[side])) {
                    std::fprintf(stderr, "quarl_bench_interleaved: placement failed in %s\n", sides[side].path);
                    return 1;
                }
                times[side].push_back(seconds);
            }
            if (words[0] != words[1]) {
                std::fprintf(stderr, "quarl_bench_interleaved: the builds store different words at %u edges\n",
                             edges);
                return 1;
            }
        }
        double base_best = *std::min_element(times[0].begin(), times[0].end());
        double after_best = *std::min_element(times[1].begin(), times[1].end());
        std::printf("| %zu | %.3f ms | %.3f ms | %.3f ms | %.3f ms | %.2fx | %.2fx |\n", routine.edges.size(),
                    base_best * 1e3, median(times[0]) * 1e3, after_best * 1e3, median(times[1]) * 1e3,
                    after_best / base_best, median(times[1]) / median(times[0]));
        std::fflush(stdout);
    }
    return 0;
}
