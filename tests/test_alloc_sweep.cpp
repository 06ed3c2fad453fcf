// Allocation failures across the two whole pipelines: instrumenting a
// routine (graph built, counters placed, graph encoded) and using its
// profile (the entry point). Every allocation of a run fails in turn; the
// stage that meets it must give its documented result, nothing may stay
// allocated, and every uncalculated list must still match the edge flags.
#include "test_support.h"

using namespace quarl_test;

namespace {

const uint64_t untouched = 0xa110cfa11a110cfaULL;

struct Outcome {
    int placed = -1;
    std::vector<uint32_t> words;
    int32_t used = -1;
    std::vector<uint64_t> blocks;
};

// Builds the graph and places its counters; null once a step has met the
// failure (a refused node or edge leaves the graph as it was).
GraphPtr instrument(const Routine &routine, Outcome &out)
{
    GraphPtr graph = build_routine_graph(routine); // stops at a refused node or edge
    if (graph == nullptr || allocation_failure_delivered()) {
        EXPECT_TRUE(graph == nullptr || lists_match_flags(graph.get()));
        return nullptr;
    }
    out.placed = quarl_inst_graph_adjust_instrumentation(graph.get());
    EXPECT_TRUE(lists_match_flags(graph.get()));
    EXPECT_TRUE(out.placed == 0 || !allocation_failure_delivered());
    return allocation_failure_delivered() ? nullptr : std::move(graph);
}

struct Scenario {
    const char *name;
    Routine routine;
    enum { whole, store_and_use, damaged } sweep;
    std::vector<uint32_t> words; // damaged: the stored words given to the entry point
    uint32_t num_counters;       // damaged: the length of the counter array
};

// One run after arm(): instrumentation (unless the graph is given), then
// the entry point on the stored words (or a damaged scenario's words).
Outcome run(const Scenario &s, const QuarlInstGraph *placed, const std::function<void()> &arm)
{
    Outcome out;
    arm();
    bool damaged = s.sweep == Scenario::damaged;
    GraphPtr graph = placed != nullptr || damaged ? nullptr : instrument(s.routine, out);
    if (!damaged) {
        const QuarlInstGraph *to_store = placed != nullptr ? placed : graph.get();
        EncodedGraphPtr encoded(to_store != nullptr ? quarl_inst_graph_encode(to_store) : nullptr);
        if (encoded == nullptr)
            return out;
        out.words = stored_words(encoded.get());
    }
    const std::vector<uint32_t> &words = damaged ? s.words : out.words;
    std::vector<uint64_t> counters = s.routine.counter_values();
    out.blocks.assign(s.routine.num_nodes, untouched);
    out.used = quarl_compute_blocks_from_edges(
        words.data(), static_cast<uint32_t>(words.size()), counters.data(),
        damaged ? s.num_counters : s.routine.num_counters, out.blocks.data(), s.routine.num_nodes);
    return out;
}

// A run with a failure ends at the stage that met it: null or 0, and the
// entry point leaves block_counts untouched. Without one, the run is the
// reference run. Nothing beyond what was live before stays allocated.
void check_run(const Scenario &s, const QuarlInstGraph *placed, const std::function<void()> &arm,
               const Outcome &reference, int64_t live)
{
    Outcome out = run(s, placed, arm);
    EXPECT_EQ(quarl_fault_live_blocks(), live);
    if (!allocation_failure_delivered()) {
        EXPECT_TRUE(out.placed == reference.placed && out.words == reference.words);
        EXPECT_TRUE(out.used == reference.used && out.blocks == reference.blocks);
    } else if (out.used != -1) {
        EXPECT_EQ(out.used, 0);
        EXPECT_EQ(out.blocks, std::vector<uint64_t>(s.routine.num_nodes, untouched));
    }
}

} // namespace

TEST(AllocSweep, PipelinesSurviveEveryAllocationFailure)
{
    std::mt19937_64 rng(1234);
    Routine forced; // 0 -> 1 is derived only from an immeasurable counter: forced
    forced.num_nodes = 3;
    forced.edges = {{0, 1}, {1, 2, true, 0, true, false, true}, {2, 0, false, 0, true, true}};
    forced.num_counters = 1;
    forced.edge_counts = {5, 5, 5};
    Routine small = generate_routine(rng, 7, 6);
    Scenario whole_small = {"", small, Scenario::whole, {}, 0};
    std::vector<uint32_t> good = run(whole_small, nullptr, [] { quarl_fault_fail_nth(0); }).words;
    std::vector<uint32_t> uncounted = good; // every counter flag cleared
    for (size_t w = 1; w < good.size(); ++w)
        uncounted[w] &= ~(0x10u << 10 | 0x10u << 26);
    const Scenario cases[] = {
        {"encode16", generate_routine(rng, 6, 6), Scenario::whole, {}, 0},
        {"encode32", generate_routine(rng, 40, 12), Scenario::whole, {}, 0},
        {"forced_counter", forced, Scenario::whole, {}, 0},
        {"encode96", generate_routine(rng, 8200, 0), Scenario::store_and_use, {}, 0},
        {"record_cut_short", small, Scenario::damaged, {c_encode_from_to, 0, 1, 3, 0, 1, 2}, 1},
        {"no_counter_flags", small, Scenario::damaged, uncounted, small.num_counters},
        {"counter_beyond_array", small, Scenario::damaged, good, small.num_counters - 1},
    };
    for (const Scenario &s : cases) {
        SCOPED_TRACE(s.name);
        Outcome unused;
        GraphPtr placed =
            s.sweep == Scenario::store_and_use ? instrument(s.routine, unused) : nullptr;
        int64_t live = quarl_fault_live_blocks();
        Outcome reference = run(s, placed.get(), [] { quarl_fault_fail_nth(0); });
        uint64_t allocations = quarl_fault_attempts();
        EXPECT_EQ(reference.used, s.sweep == Scenario::damaged ? 0 : 1);
        if (reference.placed == 1) {
            EXPECT_EQ(reference.blocks, s.routine.block_counts);
        }
        uint64_t covered = 0;
        if (s.sweep != Scenario::store_and_use) {
            covered = sweep_allocation_failures(
                [&] { check_run(s, nullptr, arm_allocation_failure, reference, live); });
            EXPECT_EQ(covered, allocations);
        } else {
            // A full sweep would be quadratic in the routine's size: encoding
            // and the start of decoding in full, the last 64, every 499th between.
            for (uint64_t k = 1; k <= allocations; ++k) {
                if (k > 1000 && k + 64 < allocations && k % 499 != 0)
                    continue;
                check_run(s, placed.get(), [k] { quarl_fault_fail_nth(k); }, reference, live);
                covered += allocation_failure_delivered();
            }
            quarl_fault_fail_nth(0);
        }
        RecordProperty(std::string(s.name) + "_k_values", static_cast<int>(covered));
    }
}

// A zero-length block is never a failure: on a graph without nodes or
// edges only the allocations of real size can fail (the counts below), and
// every run without a failure gives the operation's success.
TEST(AllocSweep, ZeroLengthRequestsNeverFail)
{
    const struct { const char *name; uint64_t allocations; std::function<bool(QuarlInstGraph *)> run; } cases[] = {
        {"bitset of 0 bits", 1, [](QuarlInstGraph *) {
             QuarlInstBitset *bitset = quarl_inst_bitset_create(0);
             bool made = bitset != nullptr;
             EXPECT_TRUE(!made || (bitset->m_size == 0 && bitset->m_chunk_count == 0 && bitset->m_bit_capacity == 0));
             quarl_inst_bitset_delete(bitset);
             return made;
         }},
        {"counter selection", 0, [](QuarlInstGraph *g) { return quarl_inst_graph_select_counters(g) == 0; }},
        {"placement: the mask's record", 1, [](QuarlInstGraph *g) { return quarl_inst_graph_adjust_instrumentation(g) == 1; }},
        {"formula rebuild", 0, [](QuarlInstGraph *g) { return quarl_inst_graph_compute_formulas(g) == 1; }},
        {"propagation", 0, [](QuarlInstGraph *g) { return quarl_inst_graph_propagate_counts(g); }},
        {"Graphviz export", 0, [](QuarlInstGraph *g) {
             return capture_file_output([&](FILE *out) { EXPECT_EQ(quarl_inst_graph_print_dot_graph(g, out, "g", 15, 31), 0); }) ==
                    "\n\ndigraph \"g\" {\n\tnode [style=filled, shape=box, color=lightskyblue3];\n}\n\n";
         }},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        uint64_t covered = sweep_allocation_failures([&] {
            GraphPtr empty(quarl_inst_graph_create());
            arm_allocation_failure();
            bool succeeded = c.run(empty.get());
            EXPECT_NE(succeeded, allocation_failure_delivered());
        });
        EXPECT_EQ(covered, c.allocations);
    }
}
