// Text output: labels and edge names, the trace mask, node and edge dumps,
// formula strings and the Graphviz export.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "edgeinst_internal.h"

extern "C" {
uint32_t quarl_inst_trace_mask = 0;
}

namespace {

const char buffer_too_small[] = "buffer too small";
const char edge_is_instrumented[] = "edge is instrumented";
const uint32_t formula_text_step = 256;

char flag_char(unsigned int flag) { return flag ? 'T' : 'F'; }

// Bits from the highest chunk down, bit 31 to bit 0 in each: the string
// reads as one base-2 number whose rightmost character is position 0.
void print_bitset(const char *heading, const QuarlInstBitset *bitset, FILE *out)
{
    fprintf(out, "%s", heading);
    if (bitset->m_chunks == nullptr)
        return;
    fprintf(out, "[%u] ", bitset->m_chunk_count);
    for (uint32_t chunk = bitset->m_chunk_count; chunk-- > 0;)
        for (int bit = 31; bit >= 0; --bit)
            fprintf(out, "%c", ((bitset->m_chunks[chunk] >> bit) & 1u) ? '1' : '0');
    fprintf(out, "\n");
}

// The working text of a formula string: grows by 256 bytes when a term
// would not fit; if it cannot grow, the text built so far is kept.
struct FormulaText {
    char *text;
    size_t length;
    size_t capacity;
};

bool append_term(FormulaText *formula, const QuarlInstGraph *graph, uint32_t pos, char sign)
{
    char name[QUARL_NAME_BUF_LEN];
    quarl_inst_edge_get_name(quarl_inst_graph_get_edge_for_formula_position(graph, pos), name);
    size_t name_length = strlen(name);
    if (name_length + formula->length + 2 >= formula->capacity) {
        size_t capacity = formula->capacity + formula_text_step;
        char *grown = static_cast<char *>(quarl_mem_realloc(formula->text, capacity));
        if (grown == nullptr)
            return false;
        formula->text = grown;
        formula->capacity = capacity;
    }
    formula->text[formula->length++] = sign;
    memcpy(formula->text + formula->length, name, name_length + 1);
    formula->length += name_length;
    return true;
}

void build_formula_text(const QuarlInstEdge *edge, FormulaText *formula)
{
    const QuarlInstBitset *additive = edge->m_additive;
    const QuarlInstBitset *subtractive = edge->m_subtractive;
    for (uint32_t pos = 0; pos < additive->m_size; ++pos)
        if (quarl_inst_bitset_get_bit(additive, pos) &&
            !append_term(formula, edge->m_graph, pos, '+'))
            return;
    for (uint32_t pos = 0; pos < additive->m_size; ++pos)
        if (quarl_inst_bitset_get_bit(subtractive, pos) &&
            !append_term(formula, edge->m_graph, pos, '-'))
            return;
}

const char *edge_color(const QuarlInstEdge *edge)
{
    if (!edge->m_is_reachable)
        return "lightgray";
    if (!edge->m_is_instrumented)
        return "lightskyblue3";
    return edge->m_is_immeasurable ? "maroon" : "darkgreen";
}

void print_dot_node(const QuarlInstNode *node, FILE *out, uint32_t node_options)
{
    char label[QUARL_NAME_BUF_LEN];
    quarl_inst_node_get_label(node, label, QUARL_NAME_BUF_LEN);
    fprintf(out, "\t\"%s\" [ label=\"%s (node_id=%u ", label, label, node->m_seg_block_idx);
    if (node->m_goto_id != 0)
        fprintf(out, "goto_id=%u ", node->m_goto_id);
    if (node->m_tag_id != 0)
        fprintf(out, "tag_id=%u ", node->m_tag_id);
    if (node_options & QUARL_DOT_NODE_EXEC_COUNT)
        fprintf(out, " exec_count=%llu ", static_cast<unsigned long long>(node->m_exec_count));
    if ((node_options & QUARL_DOT_NODE_ANNOTATION) && node->m_annotation != nullptr)
        fprintf(out, "{%s", node->m_annotation);
    fprintf(out, "})\" ");
    if (node_options & QUARL_DOT_NODE_COLOR)
        fprintf(out, "color=\"%s\" ", node->m_is_reachable ? "lightskyblue3" : "gray");
    fprintf(out, "];\n");
}

void print_dot_edge(const QuarlInstEdge *edge, FILE *out, uint32_t edge_options)
{
    char src_label[QUARL_NAME_BUF_LEN];
    char dest_label[QUARL_NAME_BUF_LEN];
    quarl_inst_node_get_label(edge->m_src, src_label, QUARL_NAME_BUF_LEN);
    quarl_inst_node_get_label(edge->m_dest, dest_label, QUARL_NAME_BUF_LEN);
    fprintf(out, "\t\t%s -> %s ", src_label, dest_label);
    fprintf(out, "[ label= \"");
    fprintf(out, "counter_idx=%u", edge->m_counter_idx);
    if (edge_options & QUARL_DOT_EDGE_EXEC_COUNT)
        fprintf(out, " exec_cnt=%llu ", static_cast<unsigned long long>(edge->m_exec_count));
    if (edge_options & QUARL_DOT_EDGE_ATTRIBUTES) {
        fprintf(out, " attrib{");
        if (edge->m_is_instrumented)
            fprintf(out, "In");
        if (edge->m_is_forced_instrumented)
            fprintf(out, "Fi");
        if (edge->m_is_immeasurable)
            fprintf(out, "Nm");
        if (edge->m_is_pseudo)
            fprintf(out, "Ps");
        if (!edge->m_is_reachable)
            fprintf(out, "Un");
        fprintf(out, "} ");
        fprintf(out, " cost=%lld", static_cast<long long>(edge->m_cost));
    }
    if ((edge_options & QUARL_DOT_EDGE_FORMULA) && !edge->m_is_instrumented) {
        char formula[QUARL_NAME_BUF_LEN];
        quarl_inst_edge_formula_string_get(edge, formula, QUARL_NAME_BUF_LEN);
        fprintf(out, "\\n(%s)", formula);
    }
    fprintf(out, "\"");
    if (edge_options & QUARL_DOT_EDGE_COLOR)
        fprintf(out, " color = \"%s\"", edge_color(edge));
    fprintf(out, " ];\n");
}

// Writes the edge statements in (source, destination) block-index order;
// false when the sorting array cannot be had.
bool print_dot_edges(const QuarlInstGraph *graph, FILE *out, uint32_t edge_options)
{
    if (graph->m_num_edges == 0)
        return true;
    QuarlInstEdge **edge_list = static_cast<QuarlInstEdge **>(
        quarl_mem_alloc(sizeof(QuarlInstEdge *) * graph->m_num_edges));
    if (edge_list == nullptr)
        return false;
    uint32_t filled = 0;
    for (uint32_t i = 0; i < graph->m_num_edges; ++i)
        if (graph->m_edge_vec[i] != nullptr)
            edge_list[filled++] = graph->m_edge_vec[i];
    qsort(edge_list, filled, sizeof(QuarlInstEdge *), quarl_inst_edge_src_dest_lesser);
    for (uint32_t i = 0; i < filled; ++i)
        if (edge_list[i]->m_is_reachable || (edge_options & QUARL_DOT_EDGE_UNREACHABLE))
            print_dot_edge(edge_list[i], out, edge_options);
    quarl_mem_free(edge_list);
    return true;
}

} // namespace

// ---- Trace mask and names -------------------------------------------------

extern "C" void quarl_inst_trace_mask_set(uint32_t mask) { quarl_inst_trace_mask = mask; }

extern "C" char *quarl_inst_node_get_label(const QuarlInstNode *node, char *buf,
                                          uint32_t buf_len)
{
    QUARL_CHECK(buf_len > strlen(buffer_too_small), "buf_len > strlen(\"buffer too small\")");
    char label[QUARL_NAME_BUF_LEN];
    if (node->m_is_pseudo_entry)
        strcpy(label, "AEntry");
    else if (node->m_is_pseudo_exit)
        strcpy(label, "ZExit");
    else
        sprintf(label, "B%04u", node->m_seg_block_idx);
    strcpy(buf, label); // at most 11 characters: it always fits in 17 bytes
    return buf;
}

// The two labels joined by a dot, as every diagnostic names an edge.
extern "C" char *quarl_inst_edge_get_name(const QuarlInstEdge *edge, char *buf)
{
    char src_label[QUARL_NAME_BUF_LEN];
    char dest_label[QUARL_NAME_BUF_LEN];
    quarl_inst_node_get_label(edge->m_src, src_label, QUARL_NAME_BUF_LEN);
    quarl_inst_node_get_label(edge->m_dest, dest_label, QUARL_NAME_BUF_LEN);
    size_t src_length = strlen(src_label);
    size_t dest_length = strlen(dest_label);
    if (src_length + dest_length + 2 > QUARL_NAME_BUF_LEN) {
        strcpy(buf, buffer_too_small);
        return buf;
    }
    memcpy(buf, src_label, src_length);
    buf[src_length] = '.';
    memcpy(buf + src_length + 1, dest_label, dest_length + 1);
    return buf;
}

// ---- Formula strings --------------------------------------------------------

extern "C" void quarl_inst_edge_formula_string_get(const QuarlInstEdge *edge, char *buf,
                                                  uint32_t buf_len)
{
    if (edge->m_is_instrumented) {
        strcpy(buf, edge_is_instrumented);
        return;
    }
    FormulaText formula = {static_cast<char *>(quarl_mem_alloc(formula_text_step)), 0,
                           formula_text_step};
    if (formula.text == nullptr) {
        buf[0] = '\0';
        return;
    }
    formula.text[0] = '\0';
    if (edge->m_additive != nullptr && edge->m_subtractive != nullptr)
        build_formula_text(edge, &formula);
    strncpy(buf, formula.text, buf_len - 1);
    buf[buf_len - 1] = '\0';
    if (formula.length > buf_len - 4)
        strcpy(buf + buf_len - 4, "...");
    quarl_mem_free(formula.text);
}

// ---- Dumps ----------------------------------------------------------------------

extern "C" int quarl_inst_node_print(const QuarlInstNode *node, FILE *out)
{
    char label[QUARL_NAME_BUF_LEN];
    fprintf(out, "Node: label = %s\n", quarl_inst_node_get_label(node, label, QUARL_NAME_BUF_LEN));
    fprintf(out, "  m_seg_block_idx = %u\n", node->m_seg_block_idx);
    if (node->m_annotation != nullptr)
        fprintf(out, " m_annotation = %s\n", node->m_annotation);
    fprintf(out, "  m_uncalculated_edges (count) = %u\n", node->m_uncalculated_edges->m_count);
    fprintf(out, "  m_exec_count     = %llu\n", static_cast<unsigned long long>(node->m_exec_count));
    fprintf(out, "  m_is_reachable   = %c\n", flag_char(node->m_is_reachable));
    fprintf(out, "  m_is_pseudo_entry_get   = %c\n", flag_char(node->m_is_pseudo_entry));
    fprintf(out, "  m_is_pseudo_exit   = %c\n", flag_char(node->m_is_pseudo_exit));
    return fprintf(out, "  m_is_entry   = %c\n", flag_char(node->m_is_entry));
}

extern "C" int quarl_inst_edge_print(const QuarlInstEdge *edge, FILE *out)
{
    char label[QUARL_NAME_BUF_LEN];
    fprintf(out, "Edge: ");
    fprintf(out, "  m_counter_idx      = %u\n", edge->m_counter_idx);
    fprintf(out, "  m_src  = %s\n", quarl_inst_node_get_label(edge->m_src, label, QUARL_NAME_BUF_LEN));
    fprintf(out, "  m_dest = %s\n",
            quarl_inst_node_get_label(edge->m_dest, label, QUARL_NAME_BUF_LEN));
    fprintf(out, "  m_cost = %lld\n", static_cast<long long>(edge->m_cost));
    fprintf(out, "  m_exec_count       = %llu\n", static_cast<unsigned long long>(edge->m_exec_count));
    fprintf(out, "  m_formula_bit_pos  = %d\n", edge->m_formula_bit_pos);
    if (edge->m_additive != nullptr)
        print_bitset("  Additive   :", edge->m_additive, out);
    if (edge->m_subtractive != nullptr)
        print_bitset("  Subtractive:", edge->m_subtractive, out);
    char formula[QUARL_NAME_BUF_LEN];
    quarl_inst_edge_formula_string_get(edge, formula, QUARL_NAME_BUF_LEN);
    fprintf(out, "Formula: %s\n", formula);
    fprintf(out, "  m_is_reachable             = %c\n", flag_char(edge->m_is_reachable));
    fprintf(out, "  m_is_pseudo                = %c\n", flag_char(edge->m_is_pseudo));
    fprintf(out, "  m_is_instrumented          = %c\n", flag_char(edge->m_is_instrumented));
    fprintf(out, "  m_is_computed              = %c\n", flag_char(edge->m_is_computed));
    fprintf(out, "  m_is_forced_instrumented   = %c\n", flag_char(edge->m_is_forced_instrumented));
    return fprintf(out, "  m_is_immeasurable          = %c\n", flag_char(edge->m_is_immeasurable));
}

// ---- Graphviz export ---------------------------------------------------------------

extern "C" int quarl_inst_graph_print_dot_graph(const QuarlInstGraph *graph, FILE *out,
                                               const char *graph_name, uint32_t node_options,
                                               uint32_t edge_options)
{
    fprintf(out, "\n\n");
    fprintf(out, "digraph \"%s\" {\n", graph_name);
    fprintf(out, "\tnode [style=filled, shape=box, color=lightskyblue3];\n");
    for (uint32_t i = 0; i < graph->m_num_nodes; ++i) {
        const QuarlInstNode *node = graph->m_node_vec[i];
        if (node != nullptr && (node->m_is_reachable || (node_options & QUARL_DOT_NODE_UNREACHABLE)))
            print_dot_node(node, out, node_options);
    }
    bool complete = print_dot_edges(graph, out, edge_options);
    fprintf(out, "}\n\n");
    int flushed = fflush(out);
    return complete ? flushed : EOF;
}
