// What the tool shows: names, formulas, the placement, stored words, and
// Graphviz output.
#include "quarl_tool.h"

#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/wait.h>

#include <algorithm>

std::string node_label(const QuarlInstNode *node)
{
    char label[32];
    return quarl_inst_node_get_label(node, label, sizeof label);
}

std::string edge_name(const QuarlInstEdge *edge)
{
    return node_label(edge->m_src) + "." + node_label(edge->m_dest);
}

namespace {

bool has_position(const QuarlInstBitset *bitset, uint32_t position)
{
    return position < bitset->m_size &&
           ((bitset->m_chunks[position / 32] >> (position % 32)) & 1u) != 0;
}

// Position p holds the count of the edge at m_formula_edge_vec[p].
void append_terms(const QuarlInstEdge *edge, const QuarlInstBitset *bitset, char sign,
                  std::string *text)
{
    const QuarlInstGraph *graph = edge->m_graph;
    for (uint32_t p = 0; p < bitset->m_size && p < graph->m_formula_mask_bits; ++p)
        if (has_position(bitset, p))
            *text += sign + edge_name(graph->m_formula_edge_vec[p]);
}

// The edge's formula, "+B0001.B0002-B0002.B0003", or "0" when empty.
std::string formula_text(const QuarlInstEdge *edge)
{
    std::string text;
    if (edge->m_additive != nullptr && edge->m_subtractive != nullptr) {
        append_terms(edge, edge->m_additive, '+', &text);
        append_terms(edge, edge->m_subtractive, '-', &text);
    }
    return text.empty() ? "0" : text;
}

} // namespace

void print_placement(const QuarlInstGraph *graph, FILE *out)
{
    std::vector<const QuarlInstEdge *> counted, others;
    size_t width = 0;
    for (uint32_t i = 0; i < graph->m_num_edges; ++i) {
        const QuarlInstEdge *edge = graph->m_edge_vec[i];
        (edge->m_is_instrumented ? counted : others).push_back(edge);
        width = std::max(width, edge_name(edge).size());
    }
    std::stable_sort(counted.begin(), counted.end(),
                     [](const QuarlInstEdge *a, const QuarlInstEdge *b) {
                         return a->m_counter_idx < b->m_counter_idx;
                     });
    int name_width = static_cast<int>(width);
    fprintf(out, "Edges with counters (%zu):\n", counted.size());
    for (const QuarlInstEdge *edge : counted)
        fprintf(out, "  counter %-3u %s%s%s\n", edge->m_counter_idx, edge_name(edge).c_str(),
                edge->m_is_forced_instrumented ? "  (forced: no formula was acceptable)" : "",
                edge->m_is_immeasurable ? "  (immeasurable: counts 0)" : "");
    fprintf(out, "Every other edge, its count as a formula over the edges with counters:\n");
    if (others.empty())
        fprintf(out, "  (none)\n");
    for (const QuarlInstEdge *edge : others) {
        std::string name = edge_name(edge);
        if (!edge->m_is_reachable)
            fprintf(out, "  %-*s   unreachable: counts 0\n", name_width, name.c_str());
        else if (!edge->m_is_computed)
            fprintf(out, "  %-*s   unresolved\n", name_width, name.c_str());
        else
            fprintf(out, "  %-*s = %s\n", name_width, name.c_str(), formula_text(edge).c_str());
    }
}

// The flow derivation counts a self-loop as an incoming edge of its node
// only, so an edge resolved there carries the self-loop's count with it:
// its formula holds the self-loop's position (or the self-loop itself was
// resolved there).
void warn_about_self_loops(const QuarlInstGraph *graph)
{
    for (uint32_t i = 0; i < graph->m_num_edges; ++i) {
        const QuarlInstEdge *loop = graph->m_edge_vec[i];
        if (loop->m_src != loop->m_dest || !loop->m_is_reachable)
            continue;
        bool resolves = !loop->m_is_instrumented;
        uint32_t position = static_cast<uint32_t>(loop->m_formula_bit_pos);
        for (const QuarlInstListElement *element = loop->m_src->m_edges->m_head;
             element != nullptr && !resolves; element = element->m_next) {
            const QuarlInstEdge *edge = static_cast<const QuarlInstEdge *>(element->m_data);
            resolves = edge->m_additive != nullptr && edge->m_subtractive != nullptr &&
                       (has_position(edge->m_additive, position) ||
                        has_position(edge->m_subtractive, position));
        }
        if (resolves)
            fprintf(stderr,
                    "quarl: warning: self-loop %s: block %s resolves an edge by flow "
                    "conservation, so counts derived there are off by the self-loop's count "
                    "(split the self-loop before instrumenting)\n",
                    edge_name(loop).c_str(), node_label(loop->m_src).c_str());
    }
}

// Flow conservation holds at a block only when the count that enters it
// also leaves it; a routine whose exit does not lead back to its entry
// (through a pseudo edge) breaks it at both ends.
void warn_about_open_flow(const QuarlInstGraph *graph)
{
    std::vector<int> has_in(graph->m_num_nodes, 0), has_out(graph->m_num_nodes, 0);
    for (uint32_t i = 0; i < graph->m_num_edges; ++i) {
        const QuarlInstEdge *edge = graph->m_edge_vec[i];
        if (edge->m_is_reachable && edge->m_src != edge->m_dest) {
            has_out[edge->m_src->m_seg_block_idx] = 1;
            has_in[edge->m_dest->m_seg_block_idx] = 1;
        }
    }
    for (uint32_t i = 0; i < graph->m_num_nodes; ++i) {
        const QuarlInstNode *node = graph->m_node_vec[i];
        if (node == nullptr || !node->m_is_reachable || (has_in[i] && has_out[i]))
            continue;
        fprintf(stderr,
                "quarl: warning: block %s has no %s edge, so flow conservation there takes its "
                "count to be 0 (close the flow with a pseudo edge from the exit back to the "
                "entry)\n",
                node_label(node).c_str(), has_in[i] ? "outgoing" : "incoming");
    }
}

// The placement fails when the marked counters leave blocks with two or
// more unsettled edges, or when it had to put a counter on an edge by force
// (no acceptable formula) and could not finish the node.
void report_unresolved(const QuarlInstGraph *graph, const std::string &name)
{
    std::string unresolved, forced;
    for (uint32_t i = 0; i < graph->m_num_nodes; ++i) {
        const QuarlInstNode *node = graph->m_node_vec[i];
        if (node != nullptr && node->m_is_reachable && node->m_uncalculated_edges->m_count > 0)
            unresolved += " " + node_label(node);
    }
    for (uint32_t i = 0; i < graph->m_num_edges; ++i)
        if (graph->m_edge_vec[i]->m_is_forced_instrumented)
            forced += " " + edge_name(graph->m_edge_vec[i]);
    if (unresolved.empty() && forced.empty()) {
        report_error("%s: counter placement failed: out of memory", name.c_str());
        return;
    }
    std::string message = name + ": counter placement failed";
    if (!unresolved.empty())
        message += ", blocks left unresolved:" + unresolved;
    if (!forced.empty())
        message += ", edges that need a counter:" + forced;
    report_error("%s (mark more counters, or none to let quarl choose)", message.c_str());
}

std::vector<uint32_t> stored_words(const QuarlEncodedGraph *encoded)
{
    std::vector<uint32_t> words(quarl_encoded_graph_length(encoded));
    quarl_stream_reset(encoded->m_stream);
    quarl_stream_read(encoded->m_stream, words.data(), 4, static_cast<uint32_t>(words.size()));
    return words;
}

void print_words(const std::vector<uint32_t> &words, FILE *out)
{
    for (size_t i = 0; i < words.size(); ++i)
        fprintf(out, "%s0x%08x", i % 8 == 0 ? "  " : " ", words[i]);
    if (!words.empty())
        fputc('\n', out);
}

bool write_dot(const QuarlInstGraph *graph, const std::string &path, const char *name,
               uint32_t node_options, uint32_t edge_options)
{
    FILE *file = path == "-" ? stdout : fopen(path.c_str(), "w");
    if (file == nullptr) {
        report_error("%s: cannot create: %s", path.c_str(), strerror(errno));
        return false;
    }
    bool ok = quarl_inst_graph_print_dot_graph(graph, file, name, node_options, edge_options) == 0;
    if (file != stdout && fclose(file) != 0)
        ok = false;
    if (!ok)
        report_error("%s: cannot write", path.c_str());
    return ok;
}

// Pipes the DOT text into Graphviz's dot through the shell; the file name
// is quoted, and status 127 means that dot is not installed.
bool render_svg(const QuarlInstGraph *graph, const std::string &path, const char *name,
                uint32_t node_options, uint32_t edge_options)
{
    std::string quoted = "'";
    for (char c : path)
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    std::string command =
        "command -v dot >/dev/null 2>&1 || exit 127; exec dot -Tsvg -o " + quoted + "'";
    signal(SIGPIPE, SIG_IGN); // a dot that stops early must not end the tool
    fflush(stdout);
    FILE *to_dot = popen(command.c_str(), "w");
    if (to_dot == nullptr) {
        report_error("cannot run dot: %s", strerror(errno));
        return false;
    }
    quarl_inst_graph_print_dot_graph(graph, to_dot, name, node_options, edge_options);
    int status = pclose(to_dot);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 127)
        report_error("cannot render %s: Graphviz's 'dot' is not installed (install Graphviz, "
                     "e.g. apt-get install graphviz, or use --dot and render elsewhere)",
                     path.c_str());
    else if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        report_error("%s: Graphviz's dot failed to render the graph", path.c_str());
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}
