// Separate graphs, encoded graphs and streams used from separate threads at
// once: each thread instruments its own routines, stores them, reads their
// profiles back and checks its own answers, so that it can run under
// ThreadSanitizer.
#include "test_support.h"

#include <atomic>
#include <cstdio>
#include <thread>

using namespace quarl_test;

namespace {

// One round trip with dumps on the side, counters chosen by selection with
// costs from the counts; the number of things that went wrong.
int round_trip(std::mt19937_64 &rng, uint32_t num_nodes, FILE *out)
{
    Routine routine = generate_routine(rng, num_nodes, num_nodes);
    std::vector<EdgeSpec> edges = without_counters(routine).edges;
    for (size_t i = 0; i < edges.size(); ++i)
        edges[i].cost = static_cast<int64_t>(routine.edge_counts[i] % 7);
    GraphPtr graph = build_graph(num_nodes, edges);
    int errors = quarl_inst_graph_select_counters(graph.get()) == QUARL_SELECT_COUNTERS_FAILED;
    errors += quarl_inst_graph_adjust_instrumentation(graph.get()) != 1;
    std::vector<uint64_t> counters = routine.counter_values(graph.get()), blocks(num_nodes, 0);
    quarl_inst_graph_print_dot_graph(graph.get(), out, "routine", 15, 31);
    EncodedGraphPtr copy(quarl_encoded_graph_copy(EncodedGraphPtr(quarl_inst_graph_encode(graph.get())).get()));
    graph.reset(); // the copy stands alone
    quarl_encoded_graph_print(copy.get(), out);
    std::vector<uint32_t> words(quarl_encoded_graph_length(copy.get()));
    quarl_stream_reset(copy->m_stream);
    errors += quarl_stream_read(copy->m_stream, words.data(), 4, words.size()) != words.size();
    copy.reset();
    errors += quarl_compute_blocks_from_edges(words.data(), words.size(), counters.data(),
                                              counters.size(), blocks.data(), num_nodes) != 1;
    return errors + (blocks != routine.block_counts);
}

TEST(Threads, IndependentRoundTripsRunInParallel)
{
    quarl_inst_trace_mask_set(0); // set before the work, only read during it
    const int num_threads = 6;
    std::vector<int> errors(num_threads, 0);
    std::atomic<bool> start{false}; // so that the threads overlap
    std::vector<std::thread> threads;
    for (int t = 0; t < num_threads; ++t) {
        threads.emplace_back([t, &errors, &start] {
            while (!start.load())
                std::this_thread::yield();
            std::mt19937_64 rng(1000 + t);
            FILE *out = fopen("/dev/null", "w");
            for (int r = 0; r < 40; ++r) // sizes across c_encode16 and c_encode32
                errors[t] += round_trip(rng, 2 + static_cast<uint32_t>(rng() % 60), out);
            fclose(out);
        });
    }
    start.store(true);
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(errors, std::vector<int>(num_threads, 0));
}

} // namespace
