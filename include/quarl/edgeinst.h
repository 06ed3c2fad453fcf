/*
 * Quarl: edge profiling for optimising compilers.
 *
 * A compiler uses Quarl at two moments of profile-guided optimisation.
 *
 *  1. Instrumentation time. The compiler describes one routine as a
 *     control-flow graph: a node per block (keyed by its block index), an
 *     edge per control transfer, with flags saying which edges can execute,
 *     which are pseudo edges, which carry a run-time counter and which cannot
 *     be measured. quarl_inst_graph_select_counters() can pick the counters;
 *     quarl_inst_graph_adjust_instrumentation() derives every other reachable
 *     edge's count as a formula over the counters by flow conservation and
 *     instruments further edges by force where no acceptable formula exists;
 *     quarl_inst_graph_encode() turns the graph into a compact run of 32-bit
 *     words that the compiler stores beside its counters.
 *
 *  2. Profile-use time. The compiler hands the stored words and the counter
 *     values of its training runs to quarl_compute_blocks_from_edges(), which
 *     returns one execution count per block. Stored data may be stale or
 *     damaged: that entry point never stops the process; it returns 0.
 *
 * Ownership: the caller owns every graph and encoded graph it creates and
 * releases each with its delete operation, which releases everything the
 * record owns. Nodes and edges live exactly as long as their graph. Working
 * memory of an operation is released before it returns, on every path.
 *
 * Results: constructors return null when memory runs out, with nothing left
 * allocated; operations that can fail return 1 or 0. The library writes no
 * error messages. Broken preconditions (documented per function) stop the
 * process through the platform's assertion handler, source name "edgeinst".
 *
 * Threads: the library starts none and takes no locks. Separate graphs,
 * encoded graphs and streams may be used from separate threads at once; the
 * process-wide trace mask is set before the work it is to trace.
 */
#ifndef QUARL_EDGEINST_H
#define QUARL_EDGEINST_H

#include <stdint.h>
#include <stdio.h>

/* Visibility of the public functions; a build that compiles the library
 * into a module of its own (the LLVM plugin) defines it empty. */
#ifndef QUARL_API
#if defined(_WIN32)
#define QUARL_API
#else
#define QUARL_API __attribute__((visibility("default")))
#endif
#endif

#define QUARL_VERSION_MAJOR 0
#define QUARL_VERSION_MINOR 1
#define QUARL_VERSION_PATCH 0
#define QUARL_VERSION_STRING "0.1.0"

#ifdef __cplusplus
extern "C" {
#endif

/* ======================================================================
 * Limits
 * ====================================================================== */

/* Block indices are below this value, so that a grown node vector
 * (index + 128 slots) fits in 32 bits. quarl_inst_graph_add_node() refuses
 * larger indices with null. */
#define QUARL_MAX_BLOCK_IDX_EXCLUSIVE 4294967168u

/* The encoder packs destination and counter indices into 5 bits while both
 * the node count and the counter count are below 32 (c_encode16), into 13
 * bits while both are below 8192 (c_encode32), and into whole words
 * otherwise (c_encode96). */
#define QUARL_ENCODE16_LIMIT 32u
#define QUARL_ENCODE32_LIMIT 8192u

/* quarl_inst_graph_select_counters() returns this when memory runs out. */
#define QUARL_SELECT_COUNTERS_FAILED UINT32_MAX

/* ======================================================================
 * Records
 * ====================================================================== */

/* Caller's source position of a block; the library copies it and attaches
 * no meaning to it. */
typedef struct QuarlSrcPosition {
    uint32_t m_words[4];
    unsigned int m_flag : 1;
} QuarlSrcPosition;

/* Doubly linked list element; the list owns its elements, never m_data. */
typedef struct QuarlInstListElement {
    void *m_data;
    struct QuarlInstListElement *m_next; /* toward the tail */
    struct QuarlInstListElement *m_prev; /* toward the head */
} QuarlInstListElement;

typedef struct QuarlInstList {
    QuarlInstListElement *m_head;
    QuarlInstListElement *m_tail;
    uint32_t m_count;
} QuarlInstList;

/* A set of formula positions: bit p lives in chunk p / 32 as 1 << (p % 32). */
typedef struct QuarlInstBitset {
    uint32_t m_size;        /* number of bits */
    uint32_t m_bit_capacity; /* m_chunk_count * 32 */
    uint32_t m_chunk_count; /* (m_size + 31) / 32 */
    uint32_t *m_chunks;
} QuarlInstBitset;

struct QuarlInstNode;
struct QuarlInstEdge;

/* The control-flow graph of one routine. */
typedef struct QuarlInstGraph {
    struct QuarlInstNode **m_node_vec; /* slot i: the node of block i, or null */
    uint32_t m_node_vec_size;
    uint32_t m_num_nodes; /* one more than the highest block index added */
    struct QuarlInstEdge **m_edge_vec; /* every edge, in order of addition */
    uint32_t m_edge_vec_size;
    uint32_t m_num_edges;
    uint32_t m_num_counters; /* every m_counter_idx is below it; set by the caller
                                or by quarl_inst_graph_select_counters() */
    uint32_t m_formula_mask_bits; /* number of formula positions */
    struct QuarlInstEdge **m_formula_edge_vec; /* the edge at each position */
} QuarlInstGraph;

/* One block. */
typedef struct QuarlInstNode {
    uint32_t m_seg_block_idx;
    QuarlInstList *m_edges; /* every incident edge, in order of addition;
                               a self-loop once */
    QuarlInstList *m_uncalculated_edges; /* incident edges neither instrumented
                                            nor computed */
    uint64_t m_exec_count;
    uint32_t m_goto_id;
    uint32_t m_tag_id;
    QuarlSrcPosition m_src_position;
    unsigned int m_is_reachable : 1;
    unsigned int m_is_pseudo_entry : 1; /* labelled "AEntry" */
    unsigned int m_is_pseudo_exit : 1;  /* labelled "ZExit" */
    unsigned int m_is_entry : 1;
    char *m_annotation; /* private copy, see quarl_inst_node_annotation_set() */
} QuarlInstNode;

/* One control transfer. */
typedef struct QuarlInstEdge {
    QuarlInstGraph *m_graph;
    uint32_t m_counter_idx; /* meaningful for instrumented edges */
    QuarlInstNode *m_src;
    QuarlInstNode *m_dest;
    int64_t m_cost; /* caller's cost of a counter on this edge */
    uint64_t m_exec_count;
    int32_t m_formula_bit_pos; /* -1 when the edge has no formula position */
    QuarlInstBitset *m_additive;    /* positions whose counts are added */
    QuarlInstBitset *m_subtractive; /* positions whose counts are subtracted */
    unsigned int m_is_reachable : 1;
    unsigned int m_is_pseudo : 1;
    unsigned int m_is_instrumented : 1;
    unsigned int m_is_computed : 1;
    unsigned int m_is_forced_instrumented : 1;
    unsigned int m_is_immeasurable : 1;
} QuarlInstEdge;

/* Stored formats; the value is the first word of every encoded graph. */
typedef enum QuarlEncodingFormat {
    c_encode_from_to = 0, /* edge list, 16 bytes per edge */
    c_encode16 = 1,       /* successor lists, 16 bits per record */
    c_encode32 = 2,       /* successor lists, 32 bits per record */
    c_encode96 = 3,       /* successor lists, 96 bits per record */
    c_encode_last = 4     /* one past the last; "not yet known" in a record */
} QuarlEncodingFormat;

/* A growable byte buffer that holds the bytes of an encoded graph. */
typedef struct QuarlStream {
    uint8_t *m_buffer;
    uint32_t m_length;   /* bytes written */
    uint32_t m_capacity; /* bytes in the block */
    uint32_t m_grow_by;  /* minimum growth step, 256 */
    uint32_t m_read_pos; /* offset of the next read */
} QuarlStream;

/* One routine's graph in stored form. */
typedef struct QuarlEncodedGraph {
    QuarlEncodingFormat m_format; /* c_encode_last until encoded or decoded */
    QuarlStream *m_stream;        /* owned; null until there is one */
} QuarlEncodedGraph;

/* ======================================================================
 * Graph construction
 * ====================================================================== */

/* A new empty graph (32 node and 32 edge slots), or null when memory runs
 * out. Release it with quarl_inst_graph_delete(). */
QUARL_API QuarlInstGraph *quarl_inst_graph_create(void);

/* Releases the graph and everything it owns: nodes, edges, their lists,
 * annotations, formulas and the formula table. Null is accepted. */
QUARL_API void quarl_inst_graph_delete(QuarlInstGraph *graph);

/* Adds the node of block node_idx. Returns it, or null when memory runs out
 * or node_idx is QUARL_MAX_BLOCK_IDX_EXCLUSIVE or above; the graph is then
 * unchanged. The node vector keeps a slot for every index up to the highest
 * one added, so block indices should be dense. Adding a block index twice
 * is a broken precondition (assertion). */
QUARL_API QuarlInstNode *quarl_inst_graph_add_node(QuarlInstGraph *graph,
                                                   uint32_t node_idx);

/* The node of block node_idx, or null when there is none. */
QUARL_API QuarlInstNode *quarl_inst_graph_find_node_by_idx(const QuarlInstGraph *graph,
                                                           uint32_t node_idx);

/* Adds an edge from src to dest (both nodes of this graph; src may equal
 * dest). Returns it, or null when memory runs out; the graph is then as it
 * was (its edge vector may have grown). */
QUARL_API QuarlInstEdge *quarl_inst_graph_add_edge(QuarlInstGraph *graph,
                                                   QuarlInstNode *src,
                                                   QuarlInstNode *dest);

/* Stores a private copy of annotation in the node, releasing any earlier
 * copy. Returns the copy, or null when memory runs out (node unchanged). */
QUARL_API char *quarl_inst_node_annotation_set(QuarlInstNode *node,
                                               const char *annotation);

/* Copies the source position into the node. */
QUARL_API void quarl_inst_node_src_position_set(QuarlInstNode *node,
                                                const QuarlSrcPosition *position);

/* ======================================================================
 * Counter placement
 * ====================================================================== */

/* Picks the fewest, cheapest counters (time n log n in the edges, memory
 * linear, four allocations): the reachable edges off a maximum
 * spanning forest of the reachable part, built by taking pseudo and
 * immeasurable edges first (they cannot carry a useful counter), then edges
 * by descending m_cost, then edges the caller already instrumented (so that
 * they end off the tree where they can and no counter is added in vain);
 * ties in m_edge_vec order. Every chosen edge is
 * marked instrumented; all instrumented reachable edges (those the caller
 * marked before included) get m_counter_idx 0, 1, 2, ... in m_edge_vec
 * order; m_num_counters is set to their number, which is returned.
 * Unreachable edges are left alone. Returns QUARL_SELECT_COUNTERS_FAILED
 * when memory runs out, with nothing changed.
 *
 * Self-loops are never on a tree, so they always get a counter. The flow
 * derivation counts a self-loop as an incoming edge of its node, so a
 * compiler that needs exact edge counts should split self-loops (as it
 * splits critical edges) before instrumenting. */
QUARL_API uint32_t quarl_inst_graph_select_counters(QuarlInstGraph *graph);

/* Marks an edge as carrying a run-time counter and takes it out of its
 * nodes' m_uncalculated_edges. A second call changes nothing. */
QUARL_API void quarl_inst_edge_set_as_instrumented(QuarlInstEdge *edge);

/* The counter placement pass. Gives every edge a formula position, every
 * reachable uninstrumented edge a formula over the instrumented edges, and
 * instruments edges by force (m_is_forced_instrumented) where no formula
 * resting on a measurable counter exists. Returns 1 when every reachable
 * node was resolved, 0 otherwise (including allocation failure). Run once
 * per graph, after the counter edges are marked instrumented.
 *
 * Cost: every edge is a formula position, so the formulas left on the
 * graph take two bitsets of m_num_edges bits for each reachable
 * uninstrumented edge, one bit per edge each: memory grows with edges
 * times edges, 12.5 KB per bitset and about 1.9 GB in all for a routine of
 * 100,000 edges (20 MB at 10,000). They come from one zeroed block,
 * written only where bits go; on Linux a block of 32 MB or more is backed
 * by huge pages where the system allows, and is then resident in full.
 * Time is linear in the edges plus the chunks that formulas actually use
 * (a handful each in compiled code). A few allocations per call. */
QUARL_API int quarl_inst_graph_adjust_instrumentation(QuarlInstGraph *graph);

/* The placement pass for callers that only encode the graph (a compiler
 * instrumenting, or checking a stored graph against the code): the same
 * verdict, the same edges computed and the same edges instrumented by
 * force as quarl_inst_graph_adjust_instrumentation(), so the same counters
 * and stored words, but no formula is built: no formula positions, no
 * bitsets. Whether a derived count rests on a measurable counter is read
 * from the set of nodes the count was derived over. O(E log E) time and
 * O(N + E) memory for N nodes and E edges, a few allocations per call;
 * writes no traces. Returns 1 when every reachable node was resolved, 0
 * otherwise; when memory runs out, 0 with the graph unchanged. Run once per
 * graph, after the counter edges are marked instrumented, instead of the
 * formula pass. */
QUARL_API int quarl_inst_graph_adjust_instrumentation_linear(QuarlInstGraph *graph);

/* ======================================================================
 * Encoding
 * ====================================================================== */

/* A new stream, or null. */
QUARL_API QuarlStream *quarl_stream_create(void);
/* Frees the stream (not null) and its block. */
QUARL_API void quarl_stream_delete(QuarlStream *stream);
/* Appends item_size * item_count bytes; returns item_count, or 0 when the
 * block cannot grow or the size would pass 4 GiB (stream unchanged). */
QUARL_API uint32_t quarl_stream_write(QuarlStream *stream, const void *data,
                                      uint32_t item_size, uint32_t item_count);
/* Reads item_size * item_count bytes from the read position; returns
 * item_count, or 0 when the read would pass the length rounded up to a
 * whole word (position unchanged). */
QUARL_API uint32_t quarl_stream_read(QuarlStream *stream, void *dest,
                                     uint32_t item_size, uint32_t item_count);
/* 1 when the read position is at or past the (unpadded) length, else 0. */
QUARL_API int quarl_stream_eof(const QuarlStream *stream);
/* Rewinds the read position to 0. */
QUARL_API void quarl_stream_reset(QuarlStream *stream);
/* The length in 32-bit words, a partial last word counting as one. */
QUARL_API uint32_t quarl_stream_get_rounded_length(const QuarlStream *stream);
/* A new stream with the same content and state, or null. */
QUARL_API QuarlStream *quarl_stream_copy(const QuarlStream *stream);
/* Dumps the stream as 32-bit words, eight to a line; returns the result of
 * the last formatted write. */
QUARL_API int quarl_stream_print(const QuarlStream *stream, FILE *out);

/* A new encoded graph with format c_encode_last and no stream, or null. */
QUARL_API QuarlEncodedGraph *quarl_encoded_graph_create(void);
/* A new encoded graph over a copy of buffer_words stored words, or null. */
QUARL_API QuarlEncodedGraph *quarl_encoded_graph_create_from_buffer(const uint32_t *buffer,
                                                                    uint32_t buffer_words);
/* A copy of the record and its stream, or null (also for a null source). */
QUARL_API QuarlEncodedGraph *quarl_encoded_graph_copy(const QuarlEncodedGraph *encoded_graph);
/* The number of 32-bit words to store, 0 without a stream. */
QUARL_API uint32_t quarl_encoded_graph_length(const QuarlEncodedGraph *encoded_graph);
/* Dumps the format and the stream ("Format: unknown" for a format without a
 * name); returns the result of the last formatted write. */
QUARL_API int quarl_encoded_graph_print(const QuarlEncodedGraph *encoded_graph, FILE *out);
/* Frees the record (not null) and its stream. */
QUARL_API void quarl_encoded_graph_delete(QuarlEncodedGraph *encoded_graph);
/* "encode_from_to", "encode16", "encode32", "encode96"; null otherwise. */
QUARL_API const char *quarl_graph_encoding_format_str(uint32_t format);

/* Encodes the graph in c_encode16, c_encode32 or c_encode96, chosen by
 * m_num_nodes and m_num_counters against QUARL_ENCODE16_LIMIT and
 * QUARL_ENCODE32_LIMIT. The caller owns the result (delete it with
 * quarl_encoded_graph_delete()) and stores quarl_encoded_graph_length()
 * words of its stream. Null when memory runs out. Precondition (assertion):
 * every block index below m_num_nodes has a node. */
QUARL_API QuarlEncodedGraph *quarl_inst_graph_encode(const QuarlInstGraph *graph);

/* Decodes an encoded graph (which has a stream) into graph, normally fresh
 * from quarl_inst_graph_create(). Returns 1 on success, 0 when the words are
 * short, damaged or memory runs out. Stored data never stops the process:
 * a format id of 4 or above gives 0 before anything changes, and indices
 * that cannot come from the encoder are refused with 0 before the node
 * vector grows to them: in the successor-list formats a destination index
 * not below the number of records in the stream; in the edge-list format a
 * source or destination index at or above 16 * (whole 16-byte records) +
 * 1024. On failure the graph holds what was decoded so far. */
QUARL_API uint32_t quarl_encoded_graph_decode(QuarlEncodedGraph *encoded_graph,
                                              QuarlInstGraph *graph);

/* ======================================================================
 * Profile use
 * ====================================================================== */

/* The profile-use entry point. buffer holds length stored words of one
 * routine's encoded graph; counters holds num_counters counter values,
 * indexed by m_counter_idx. On success returns 1 and writes block_counts[i]
 * for every i below num_blocks: the execution count of block i, or 0 for a
 * block the stored graph does not mention.
 *
 * Guarantees: whatever the words and counters, the call never stops the
 * process, never reads or writes out of bounds and leaves nothing
 * allocated. It returns 0 with block_counts untouched when memory runs out,
 * when the words do not decode (short, truncated, unknown format,
 * impossible indices), when the decoded graph cannot be resolved (an
 * instrumented edge that is not reachable, reachable blocks whose counts
 * the counters do not determine), or when a measurable counter-carrying
 * edge names a counter index at or above num_counters. Counts are unsigned
 * 64-bit and wrap modulo 2^64 when the counters contradict each other.
 *
 * Cost: time and memory linear in the stored words and the highest block
 * index, about 60 bytes per edge, two allocations. With a trace bit set
 * (quarl_inst_trace_mask_set()) it decodes into a graph and rebuilds its
 * formulas instead, to write the traces; that way costs edges times
 * counters in memory and gives the same results. */
QUARL_API int32_t quarl_compute_blocks_from_edges(const uint32_t *buffer, uint32_t length,
                                                  const uint64_t *counters,
                                                  uint32_t num_counters,
                                                  uint64_t *block_counts,
                                                  uint32_t num_blocks);

/* Rebuilds the formulas of a freshly decoded graph: the instrumented edges,
 * in m_edge_vec order, get formula positions 0, 1, 2, ...; every other
 * reachable edge gets a formula over them; unreachable edges are marked
 * computed. Returns 1, or 0 when memory runs out. Preconditions
 * (assertions): no unreachable edge is instrumented, and the instrumented
 * edges determine every reachable node ("remaining_nodes[i] == 0").
 * Cost: formulas of m_formula_mask_bits (instrumented edges) bits, two per
 * computed edge, from one block; time linear in the edges plus the chunks
 * the formulas use; a few allocations per call, none per edge. */
QUARL_API int32_t quarl_inst_graph_compute_formulas(QuarlInstGraph *graph);

/* Releases every formula and the formula table; positions become -1.
 * Flags and lists are untouched. */
QUARL_API void quarl_inst_graph_deallocate_formulas(QuarlInstGraph *graph);

/* With every instrumented edge holding its count in m_exec_count, gives
 * every reachable computed edge the value of its formula and every node the
 * sum of its incoming edges, or of its outgoing edges when an immeasurable
 * edge (instrumented, or not pseudo) enters it. Counts wrap modulo 2^64.
 * When memory runs out no count changes. Cost: one pass over the edges;
 * a formula costs its chunks plus its set bits; three allocations for the
 * per-node sums, none per edge. */
QUARL_API void quarl_inst_graph_propagate_exec_counts(QuarlInstGraph *graph);

/* ======================================================================
 * Diagnostics
 * ====================================================================== */

/* Trace bits: 1 graph construction and instrumenting, 2 resolution and
 * decoding, 4 encoding and the decoded graph. Traces go to stderr. */
#define QUARL_TRACE_BUILD 1u
#define QUARL_TRACE_RESOLVE 2u
#define QUARL_TRACE_ENCODE 4u

/* Replaces the process-wide trace mask (0 at start: silent). */
QUARL_API void quarl_inst_trace_mask_set(uint32_t mask);

/* Writes the node's label ("AEntry", "ZExit" or "B%04u") into buf and
 * returns buf. Precondition (assertion): buf_len is at least 17. */
QUARL_API char *quarl_inst_node_get_label(const QuarlInstNode *node, char *buf,
                                          uint32_t buf_len);

/* Field-by-field dumps; each returns the result of its last formatted write. */
QUARL_API int quarl_inst_node_print(const QuarlInstNode *node, FILE *out);
QUARL_API int quarl_inst_edge_print(const QuarlInstEdge *edge, FILE *out);

/* Node option bits of the Graphviz export. */
#define QUARL_DOT_NODE_ANNOTATION 1u
#define QUARL_DOT_NODE_EXEC_COUNT 2u
#define QUARL_DOT_NODE_COLOR 4u
#define QUARL_DOT_NODE_UNREACHABLE 8u
/* Edge option bits of the Graphviz export. */
#define QUARL_DOT_EDGE_ATTRIBUTES 1u
#define QUARL_DOT_EDGE_FORMULA 2u
#define QUARL_DOT_EDGE_EXEC_COUNT 4u
#define QUARL_DOT_EDGE_UNREACHABLE 8u
#define QUARL_DOT_EDGE_COLOR 16u

/* Writes the graph as a Graphviz digraph named graph_name: nodes in block
 * index order, edges by (source, destination) block index. Returns the
 * result of the final flush (0 on success), or EOF when memory for sorting
 * the edges ran out (the edge statements are then missing). */
QUARL_API int quarl_inst_graph_print_dot_graph(const QuarlInstGraph *graph, FILE *out,
                                               const char *graph_name,
                                               uint32_t node_options,
                                               uint32_t edge_options);

#ifdef __cplusplus
}
#endif

#endif /* QUARL_EDGEINST_H */
