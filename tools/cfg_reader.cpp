// The routine text format: one statement per line, "#" starts a comment.
//
//   block INDEX [entry] [pseudo-entry] [pseudo-exit] [unreachable] ["note"]
//   edge SRC DEST [pseudo] [immeasurable] [unreachable] [cost=N] [counter=K]
//
// Blocks are numbered from 0 without gaps and come before the edges that
// use them. Blocks and edges are reachable unless marked otherwise.
#include "quarl_tool.h"

#include <map>

namespace {

// Generous for one routine, and it keeps a mistyped index from asking for
// gigabytes of node slots.
const uint64_t max_index = (1u << 20) - 1;

struct Reader {
    const std::string &name;
    QuarlInstGraph *graph;
    std::vector<unsigned> block_line;           // by block index, 0 = not defined
    std::map<uint64_t, unsigned> counter_line;  // by counter index

    bool fail(unsigned line, const std::string &message) const
    {
        report_error("%s:%u: %s", name.c_str(), line, message.c_str());
        return false;
    }

    bool parse_index(const Token &token, const char *what, uint64_t *value) const
    {
        if (parse_unsigned(token.text, max_index, false, value))
            return true;
        return fail(token.line, std::string("bad ") + what + " '" + token.text +
                                    "' (expected a number from 0 to 1048575)");
    }

    QuarlInstNode *defined_block(const Token &token) const
    {
        uint64_t index;
        if (!parse_index(token, "block index", &index))
            return nullptr;
        if (index >= block_line.size() || block_line[index] == 0) {
            fail(token.line, "block " + token.text + " is not defined above");
            return nullptr;
        }
        return quarl_inst_graph_find_node_by_idx(graph, static_cast<uint32_t>(index));
    }

    bool read_block(const std::vector<Token> &words)
    {
        uint64_t index;
        if (words.size() < 2)
            return fail(words[0].line, "block needs an index");
        if (!parse_index(words[1], "block index", &index))
            return false;
        if (index < block_line.size() && block_line[index] != 0)
            return fail(words[1].line, "block " + words[1].text + " is already defined (line " +
                                           std::to_string(block_line[index]) + ")");
        QuarlInstNode *node = quarl_inst_graph_add_node(graph, static_cast<uint32_t>(index));
        if (node == nullptr)
            return fail(words[0].line, "out of memory");
        if (index >= block_line.size())
            block_line.resize(index + 1, 0);
        block_line[index] = words[0].line;
        node->m_is_reachable = 1;
        for (size_t i = 2; i < words.size(); ++i) {
            const std::string &flag = words[i].text;
            if (flag == "entry")
                node->m_is_entry = 1;
            else if (flag == "pseudo-entry")
                node->m_is_pseudo_entry = 1;
            else if (flag == "pseudo-exit")
                node->m_is_pseudo_exit = 1;
            else if (flag == "unreachable")
                node->m_is_reachable = 0;
            else if (flag.size() >= 2 && flag[0] == '"' && flag.back() == '"') {
                if (!quarl_inst_node_annotation_set(node, flag.substr(1, flag.size() - 2).c_str()))
                    return fail(words[i].line, "out of memory");
            } else
                return fail(words[i].line, "unknown block flag '" + flag + "'");
        }
        return true;
    }

    bool read_edge_flag(QuarlInstEdge *edge, const Token &token)
    {
        const std::string &flag = token.text;
        uint64_t value;
        if (flag == "pseudo") {
            edge->m_is_pseudo = 1;
        } else if (flag == "immeasurable") {
            edge->m_is_immeasurable = 1;
        } else if (flag == "unreachable") {
            edge->m_is_reachable = 0;
        } else if (flag.compare(0, 5, "cost=") == 0) {
            bool negative = flag.size() > 5 && flag[5] == '-';
            if (!parse_unsigned(flag.substr(negative ? 6 : 5),
                                negative ? UINT64_C(1) << 63 : INT64_MAX, false, &value))
                return fail(token.line, "bad cost in '" + flag + "' (expected a 64-bit integer)");
            edge->m_cost = negative ? static_cast<int64_t>(0 - value) : static_cast<int64_t>(value);
        } else if (flag.compare(0, 8, "counter=") == 0) {
            if (!parse_index(Token{flag.substr(8), token.line}, "counter index", &value))
                return false;
            auto earlier = counter_line.find(value);
            if (earlier != counter_line.end())
                return fail(token.line, "counter " + flag.substr(8) +
                                            " is already on the edge of line " +
                                            std::to_string(earlier->second));
            counter_line[value] = token.line;
            quarl_inst_edge_set_as_instrumented(edge);
            edge->m_counter_idx = static_cast<uint32_t>(value);
        } else {
            return fail(token.line, "unknown edge flag '" + flag + "'");
        }
        return true;
    }

    bool read_edge(const std::vector<Token> &words)
    {
        if (words.size() < 3)
            return fail(words[0].line, "edge needs a source and a destination block");
        QuarlInstNode *src = defined_block(words[1]);
        QuarlInstNode *dest = src != nullptr ? defined_block(words[2]) : nullptr;
        if (dest == nullptr)
            return false;
        QuarlInstEdge *edge = quarl_inst_graph_add_edge(graph, src, dest);
        if (edge == nullptr)
            return fail(words[0].line, "out of memory");
        edge->m_is_reachable = 1;
        for (size_t i = 3; i < words.size(); ++i)
            if (!read_edge_flag(edge, words[i]))
                return false;
        if (edge->m_is_reachable && (!src->m_is_reachable || !dest->m_is_reachable))
            return fail(words[0].line, "a reachable edge cannot touch an unreachable block "
                                       "(mark the edge unreachable)");
        if (!edge->m_is_reachable && edge->m_is_instrumented)
            return fail(words[0].line, "an unreachable edge cannot carry a counter");
        return true;
    }

    bool read_statement(const std::vector<Token> &words)
    {
        if (words[0].text == "block")
            return read_block(words);
        if (words[0].text == "edge")
            return read_edge(words);
        return fail(words[0].line,
                    "unknown statement '" + words[0].text + "' (expected 'block' or 'edge')");
    }

    bool check_numbering() const
    {
        if (graph->m_num_nodes == 0) {
            report_error("%s: the routine has no blocks", name.c_str());
            return false;
        }
        for (uint32_t i = 0; i < graph->m_num_nodes; ++i) {
            if (block_line[i] == 0) {
                report_error("%s: block %u is missing (blocks are numbered from 0 without gaps)",
                             name.c_str(), i);
                return false;
            }
        }
        return true;
    }
};

} // namespace

bool read_cfg(const std::string &name, const std::string &text, QuarlInstGraph *graph,
              uint32_t *marked_counters)
{
    Reader reader{name, graph, {}, {}};
    std::vector<Token> tokens = tokenize(text);
    for (size_t first = 0; first < tokens.size();) {
        size_t end = first;
        while (end < tokens.size() && tokens[end].line == tokens[first].line)
            ++end;
        std::vector<Token> words(tokens.begin() + static_cast<std::ptrdiff_t>(first),
                                 tokens.begin() + static_cast<std::ptrdiff_t>(end));
        if (!reader.read_statement(words))
            return false;
        first = end;
    }
    if (!reader.check_numbering())
        return false;
    *marked_counters = static_cast<uint32_t>(reader.counter_line.size());
    if (!reader.counter_line.empty())
        graph->m_num_counters = static_cast<uint32_t>(reader.counter_line.rbegin()->first + 1);
    return true;
}

void write_cfg(const QuarlInstGraph *graph, FILE *out)
{
    for (uint32_t i = 0; i < graph->m_num_nodes; ++i) {
        const QuarlInstNode *node = graph->m_node_vec[i];
        fprintf(out, "block %u", i);
        if (node == nullptr)
            fputs("  # not mentioned by any edge", out);
        else if (node->m_annotation != nullptr)
            fprintf(out, " \"%s\"", node->m_annotation);
        fputc('\n', out);
    }
    for (uint32_t i = 0; i < graph->m_num_edges; ++i) {
        const QuarlInstEdge *edge = graph->m_edge_vec[i];
        fprintf(out, "edge %u %u", edge->m_src->m_seg_block_idx, edge->m_dest->m_seg_block_idx);
        if (!edge->m_is_reachable)
            fputs(" unreachable", out);
        if (edge->m_is_pseudo)
            fputs(" pseudo", out);
        if (edge->m_is_immeasurable)
            fputs(" immeasurable", out);
        if (edge->m_is_instrumented)
            fprintf(out, " counter=%u", edge->m_counter_idx);
        fputc('\n', out);
    }
}
