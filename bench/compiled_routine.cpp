// Structured statements lowered to blocks and edges, as a compiler front end
// lowers them.
#include "compiled_routine.h"

#include <algorithm>
#include <random>

namespace quarl_bench {
namespace {

const uint32_t pseudo_entry = 0;
const uint32_t pseudo_exit = 1;
const int max_depth = 5;

struct Lowering {
    std::mt19937_64 rng;
    CompiledRoutine routine;
    uint32_t budget; // edges still wanted

    struct Loop {
        uint32_t header, exit;
    };

    uint32_t new_block() { return routine.num_blocks++; }

    void edge(uint32_t src, uint32_t dest, int64_t cost, bool pseudo = false)
    {
        routine.edges.push_back({src, dest, std::max<int64_t>(cost, 1), pseudo});
        budget = budget > 0 ? budget - 1 : 0;
    }

    uint32_t pick(uint32_t bound) { return static_cast<uint32_t>(rng() % bound); }

    // One statement entered at block `at` with frequency `freq`; returns the
    // block where control continues, or UINT32_MAX when it does not.
    uint32_t statement(uint32_t at, int64_t freq, int depth, const Loop *loop)
    {
        uint32_t kind = depth >= max_depth ? 0 : pick(100);
        if (kind < 35) { // straight-line code that ends in a jump
            uint32_t next = new_block();
            edge(at, next, freq);
            return next;
        }
        if (kind < 55) { // if / else-if chain / else
            uint32_t arms = 1 + pick(4);
            bool has_else = pick(2) == 0;
            uint32_t join = new_block();
            uint32_t test = at;
            int64_t remaining = freq;
            for (uint32_t arm = 0; arm < arms; ++arm) {
                uint32_t body = new_block();
                int64_t taken = remaining / 2;
                edge(test, body, taken);
                uint32_t end = sequence(body, taken, depth + 1, loop, 1 + pick(3));
                if (end != UINT32_MAX)
                    edge(end, join, taken);
                remaining -= taken;
                if (arm + 1 < arms) {
                    uint32_t next_test = new_block();
                    edge(test, next_test, remaining);
                    test = next_test;
                }
            }
            if (has_else) {
                uint32_t body = new_block();
                edge(test, body, remaining);
                uint32_t end = sequence(body, remaining, depth + 1, loop, 1 + pick(3));
                if (end != UINT32_MAX)
                    edge(end, join, remaining);
            } else {
                edge(test, join, remaining);
            }
            return join;
        }
        if (kind < 67) { // while loop: test at the top
            uint32_t header = new_block(), body = new_block(), exit = new_block();
            int64_t hot = freq * 8;
            edge(at, header, freq);
            edge(header, body, hot);
            edge(header, exit, freq);
            Loop inner = {header, exit};
            uint32_t end = sequence(body, hot, depth + 1, &inner, 1 + pick(4));
            if (end != UINT32_MAX)
                edge(end, header, hot);
            return exit;
        }
        if (kind < 77) { // do-while loop: test at the bottom
            uint32_t body = new_block(), test = new_block(), exit = new_block();
            int64_t hot = freq * 8;
            edge(at, body, freq);
            Loop inner = {test, exit};
            uint32_t end = sequence(body, hot, depth + 1, &inner, 1 + pick(4));
            if (end != UINT32_MAX)
                edge(end, test, hot);
            edge(test, body, hot - freq);
            edge(test, exit, freq);
            return exit;
        }
        if (kind < 87) { // switch: shared case blocks, fall-through, default
            uint32_t cases = 2 + pick(12);
            uint32_t exit = new_block();
            std::vector<uint32_t> blocks(cases);
            for (uint32_t &block : blocks)
                block = new_block();
            int64_t share = freq / (cases + 1) + 1;
            for (uint32_t value = 0; value < cases + pick(cases); ++value)
                edge(at, blocks[std::min<uint32_t>(value, cases - 1) == value ? value : pick(cases)],
                     share);
            edge(at, exit, share); // default
            Loop breaks = {loop != nullptr ? loop->header : exit, exit};
            for (uint32_t c = 0; c < cases; ++c) {
                uint32_t end = sequence(blocks[c], share, depth + 1, &breaks, 1 + pick(2));
                if (end == UINT32_MAX)
                    continue;
                if (c + 1 < cases && pick(3) == 0)
                    edge(end, blocks[c + 1], share); // fall-through
                else
                    edge(end, exit, share);
            }
            return exit;
        }
        if (kind < 93) { // if (...) return;
            uint32_t ret = new_block(), next = new_block();
            edge(at, ret, freq / 16);
            edge(ret, pseudo_exit, freq / 16, true);
            edge(at, next, freq);
            return next;
        }
        if (loop != nullptr) { // if (...) break; or if (...) continue;
            uint32_t jump = new_block(), next = new_block();
            edge(at, jump, freq / 8);
            edge(jump, pick(2) == 0 ? loop->exit : loop->header, freq / 8);
            edge(at, next, freq);
            return next;
        }
        uint32_t next = new_block();
        edge(at, next, freq);
        return next;
    }

    uint32_t sequence(uint32_t at, int64_t freq, int depth, const Loop *loop, uint32_t length)
    {
        for (uint32_t i = 0; i < length && at != UINT32_MAX && (budget > 0 || i == 0); ++i)
            at = statement(at, freq, depth, loop);
        return at;
    }
};

} // namespace

CompiledRoutine make_compiled_routine(uint32_t num_edges, uint64_t seed)
{
    Lowering lowering{std::mt19937_64(seed), {}, num_edges > 3 ? num_edges - 3 : 1};
    lowering.routine.num_blocks = 2;
    uint32_t first = lowering.new_block();
    lowering.edge(pseudo_entry, first, 1000, true);
    uint32_t at = first;
    while (lowering.budget > 0)
        at = lowering.statement(at, 1000, 0, nullptr);
    lowering.edge(at, pseudo_exit, 1000, true);
    lowering.edge(pseudo_exit, pseudo_entry, 1000, true);
    return lowering.routine;
}

QuarlInstGraph *build_compiled_graph(const CompiledRoutine &routine, const GraphCalls &calls)
{
    QuarlInstGraph *graph = calls.create();
    if (graph == nullptr)
        return nullptr;
    for (uint32_t b = 0; b < routine.num_blocks; ++b) {
        QuarlInstNode *node = calls.add_node(graph, b);
        if (node == nullptr) {
            calls.destroy(graph);
            return nullptr;
        }
        node->m_is_reachable = 1;
        node->m_is_pseudo_entry = b == pseudo_entry;
        node->m_is_pseudo_exit = b == pseudo_exit;
    }
    for (const RoutineEdge &shape : routine.edges) {
        QuarlInstEdge *edge = calls.add_edge(graph, graph->m_node_vec[shape.src], graph->m_node_vec[shape.dest]);
        if (edge == nullptr) {
            calls.destroy(graph);
            return nullptr;
        }
        edge->m_is_reachable = 1;
        edge->m_is_pseudo = shape.pseudo;
        edge->m_cost = shape.cost;
    }
    return graph;
}

std::vector<uint64_t> make_flow(const CompiledRoutine &routine, uint64_t seed)
{
    // Random walks from the entry: each follows random out-edges until it
    // reaches the exit and closes through the exit-to-entry edge, adding one
    // to every edge it takes; a walk that loops too long is cut off by
    // preferring the last out-edge, which in lowered code leaves the loop.
    std::mt19937_64 rng(seed);
    std::vector<std::vector<uint32_t>> out(routine.num_blocks);
    for (uint32_t e = 0; e < routine.edges.size(); ++e)
        out[routine.edges[e].src].push_back(e);
    std::vector<uint64_t> counts(routine.edges.size(), 0);
    uint32_t walks = 3 + static_cast<uint32_t>(rng() % 5);
    for (uint32_t w = 0; w < walks; ++w) {
        uint32_t at = pseudo_entry;
        for (uint32_t steps = 0; at != pseudo_exit; ++steps) {
            const std::vector<uint32_t> &choices = out[at];
            uint32_t e = steps < 4 * routine.num_blocks ? choices[rng() % choices.size()]
                                                        : choices.back();
            counts[e]++;
            at = routine.edges[e].dest;
        }
        counts.back()++;
    }
    return counts;
}

} // namespace quarl_bench
