// The quarl command-line tool: shared declarations of its parts.
#ifndef QUARL_TOOL_H
#define QUARL_TOOL_H

#include <quarl/edgeinst.h>

#include <stdint.h>
#include <stdio.h>

#include <memory>
#include <string>
#include <vector>

// Exit statuses.
enum ToolStatus { status_ok = 0, status_bad_data = 1, status_bad_usage = 2 };

struct GraphDeleter {
    void operator()(QuarlInstGraph *graph) const { quarl_inst_graph_delete(graph); }
};
struct EncodedGraphDeleter {
    void operator()(QuarlEncodedGraph *encoded) const { quarl_encoded_graph_delete(encoded); }
};
using GraphPtr = std::unique_ptr<QuarlInstGraph, GraphDeleter>;
using EncodedGraphPtr = std::unique_ptr<QuarlEncodedGraph, EncodedGraphDeleter>;

// ---- Messages and input files (words_io.cpp) --------------------------------

// Writes "quarl: " and the formatted message to standard error.
void report_error(const char *format, ...) __attribute__((format(printf, 1, 2)));

// How messages name a file: "<stdin>" for "-".
std::string display_name(const std::string &path);

// Reads a whole file, or standard input for "-". Reports and returns false
// when it cannot be read.
bool read_input(const std::string &path, std::string *content);

// Unsigned number in decimal, or in hexadecimal behind "0x"; with
// hex_only, hexadecimal with or without "0x". False unless the whole token
// is a number no larger than max.
bool parse_unsigned(const std::string &token, uint64_t max, bool hex_only, uint64_t *value);

// Splits a line-based text into whitespace-separated tokens, dropping "#"
// comments; each token remembers its line.
struct Token {
    std::string text;
    unsigned line;
};
std::vector<Token> tokenize(const std::string &text);

// Stored words: hex text (one 32-bit hexadecimal number per token) or raw
// little-endian binary, told apart by the content. The vectors filled are
// never without storage, so data() is never null.
bool read_words(const std::string &path, std::vector<uint32_t> *words);
bool write_words(const std::string &path, const std::vector<uint32_t> &words,
                 const char *format_name, bool binary);
bool read_counters(const std::string &path, std::vector<uint64_t> *counters);

// ---- Routine text (cfg_reader.cpp) ------------------------------------------

// Reads a routine in the tool's text format into an empty graph and counts
// the edges marked with counters. Reports "file:line: ..." and returns
// false on bad input.
bool read_cfg(const std::string &name, const std::string &text, QuarlInstGraph *graph,
              uint32_t *marked_counters);

// Writes the graph in the same text format (blocks and edges).
void write_cfg(const QuarlInstGraph *graph, FILE *out);

// ---- Reports (report.cpp) -----------------------------------------------------

std::string node_label(const QuarlInstNode *node);
std::string edge_name(const QuarlInstEdge *edge);

// Lists the edges that carry counters, then every other edge's formula.
void print_placement(const QuarlInstGraph *graph, FILE *out);
// Warns about reachable blocks without incoming or outgoing edges.
void warn_about_open_flow(const QuarlInstGraph *graph);
// Warns about every self-loop whose node resolves an edge.
void warn_about_self_loops(const QuarlInstGraph *graph);
// Reports why counter placement failed, naming the unresolved blocks.
void report_unresolved(const QuarlInstGraph *graph, const std::string &name);

// The words to store for an encoded graph.
std::vector<uint32_t> stored_words(const QuarlEncodedGraph *encoded);
void print_words(const std::vector<uint32_t> &words, FILE *out);

// Writes DOT to the file, or renders it as SVG through Graphviz.
bool write_dot(const QuarlInstGraph *graph, const std::string &path, const char *name,
               uint32_t node_options, uint32_t edge_options);
bool render_svg(const QuarlInstGraph *graph, const std::string &path, const char *name,
                uint32_t node_options, uint32_t edge_options);

// ---- Commands (commands.cpp) --------------------------------------------------

int run_demo(const char *dot_path);
int run_instrument(const std::string &cfg_path, const char *output_path, bool binary);
int run_dump(const std::string &words_path, bool dot, const char *svg_path);
int run_blocks(const std::string &words_path, const std::string &counters_path,
               int64_t num_blocks);

// quarl profile (profile_commands.cpp): its own arguments, after "profile".
int run_profile(int argc, char **argv);

#endif
