/* Private interface of the edgeinst module: shared between its source files
 * and visible to the tests, never exported from a shared build. */
#ifndef QUARL_EDGEINST_INTERNAL_H
#define QUARL_EDGEINST_INTERNAL_H

#include "quarl/edgeinst.h"

#include <stddef.h>
#include <stdint.h>

extern "C" {

/* ---- Allocation --------------------------------------------------------
 * Every allocation of the module goes through these, so that a test build
 * (QUARL_FAULT_INJECTION) can make the n-th one fail and count live blocks.
 * Null always means failure. A zero-byte request never fails and takes no
 * heap block: it gets a shared non-null address that quarl_mem_free()
 * ignores. */
void *quarl_mem_alloc(size_t size);
void *quarl_mem_alloc_zeroed(size_t count, size_t size);
void *quarl_mem_realloc(void *block, size_t size);
void quarl_mem_free(void *block);

#ifdef QUARL_FAULT_INJECTION
/* Fail the n-th allocation from now on (1 = the next one); 0 disarms. */
void quarl_fault_fail_nth(uint64_t n);
/* Allocations attempted since the last quarl_fault_fail_nth(). */
uint64_t quarl_fault_attempts(void);
/* True once the armed failure has been delivered. */
bool quarl_fault_triggered(void);
/* Blocks currently allocated through the functions above. */
int64_t quarl_fault_live_blocks(void);
#endif

/* ---- Invariant checks --------------------------------------------------
 * Always on: a failed check reports through the platform's assertion
 * handler with the quoted expression text, the source name "edgeinst", the
 * line and the function, and stops the process. */
[[noreturn]] void quarl_assert_fail(const char *expression, unsigned int line,
                                    const char *function);

#define QUARL_CHECK(condition, text) QUARL_CHECK_FOR(__func__, condition, text)

/* The same, reported under the name of the operation that a private helper
 * serves. */
#define QUARL_CHECK_FOR(function, condition, text) \
    ((condition) ? (void)0 : quarl_assert_fail((text), __LINE__, (function)))

/* ---- Trace mask --------------------------------------------------------- */
extern uint32_t quarl_inst_trace_mask;

static inline bool quarl_trace_on(uint32_t bit)
{
    return quarl_inst_trace_mask != 0 && (quarl_inst_trace_mask & bit) != 0;
}

/* Size of every label and name buffer of the library. */
#define QUARL_NAME_BUF_LEN 256u

/* ---- Lists --------------------------------------------------------------- */
QuarlInstList *quarl_inst_list_create(void);
QuarlInstListElement *quarl_inst_list_append(QuarlInstList *list, void *data);
void quarl_inst_list_delete(QuarlInstList *list);
void quarl_inst_list_remove(QuarlInstList *list, QuarlInstListElement *element);

/* ---- Node queues ------------------------------------------------------------
 * The ready and deferred queues of the resolution passes: first in, first
 * out, in one array that doubles when full (after moving the waiting nodes
 * to its front when most of it is already taken), so that a queue costs a
 * few allocations per pass and memory for the nodes waiting in it. */
typedef struct QuarlNodeQueue {
    QuarlInstNode **m_nodes; /* null until the first append */
    uint32_t m_head;         /* next to take */
    uint32_t m_tail;         /* next free slot */
    uint32_t m_capacity;
} QuarlNodeQueue;
#define QUARL_NODE_QUEUE_INIT {NULL, 0, 0, 0}
void quarl_node_queue_release(QuarlNodeQueue *queue);
/* False when the array cannot grow; the queue is then unchanged. */
bool quarl_node_queue_append(QuarlNodeQueue *queue, QuarlInstNode *node);
/* The node at the head, taken off the queue; null when it is empty. */
QuarlInstNode *quarl_node_queue_take(QuarlNodeQueue *queue);

/* ---- Graph order and names ----------------------------------------------- */
int quarl_inst_edge_src_dest_lesser(const void *edge1, const void *edge2);
char *quarl_inst_edge_get_name(const QuarlInstEdge *edge, char *buf /* 256 bytes */);

/* ---- Formula bitsets ------------------------------------------------------
 * A bitset is one block: the record, a private tail (the range of chunks
 * that may hold set bits, and the shared block it lives in, if any) and its
 * chunks. The bitsets of one pass's formulas are carved from one shared
 * zeroed block, released with the last of them; bitsets are released one
 * by one with quarl_inst_bitset_delete() either way. */
QuarlInstBitset *quarl_inst_bitset_create(uint32_t bits);
void quarl_inst_bitset_delete(QuarlInstBitset *bitset);

typedef struct QuarlInstBitsetBatch {
    void *m_block;    /* the shared block; null for a batch of none */
    uint64_t m_count; /* bitsets in the block */
    uint64_t m_taken; /* handed out so far */
    uint32_t m_bits;
} QuarlInstBitsetBatch;
/* One zeroed block for count bitsets of bits bits; false when memory runs
 * out. Every one of them must be taken, and each released in its turn.
 * One block rather than many: a large zeroed block costs the system pages
 * that bits are written to, not a clearing of all of it, and a smaller one
 * is kept and reused by the allocator from one routine to the next. */
bool quarl_inst_bitset_batch_create(QuarlInstBitsetBatch *batch, uint32_t bits, uint64_t count);
QuarlInstBitset *quarl_inst_bitset_batch_take(QuarlInstBitsetBatch *batch);
/* Zeroes every chunk (cost: the chunks that may hold set bits). */
void quarl_inst_bitset_clear_all(QuarlInstBitset *bitset);
void quarl_inst_bitset_set_bit(QuarlInstBitset *bitset, uint32_t pos);
bool quarl_inst_bitset_get_bit(const QuarlInstBitset *bitset, uint32_t pos);
void quarl_inst_bitset_clear_bit(QuarlInstBitset *bitset, uint32_t pos);
void quarl_inst_bitset_merge_with(QuarlInstBitset *bitset1, const QuarlInstBitset *bitset2);
bool quarl_inst_bitset_intersects(const QuarlInstBitset *bitset1,
                                  const QuarlInstBitset *bitset2);
void quarl_inst_bitset_clear_intersection(QuarlInstBitset *bitset1, QuarlInstBitset *bitset2);

/* ---- Formulas -------------------------------------------------------------- */
void quarl_inst_edge_clear_formula(QuarlInstEdge *edge);
bool quarl_inst_edge_check_formula_intersection(const QuarlInstEdge *edge,
                                                const QuarlInstBitset *mask);
QuarlInstEdge *quarl_inst_graph_get_edge_for_formula_position(const QuarlInstGraph *graph,
                                                              uint32_t bit_pos);
/* Adds term (instrumented: its position; computed: its formula) to the
 * formula of edge with the sign + (positive) or - (not positive). */
void quarl_inst_edge_add_formula_term(QuarlInstEdge *edge, const QuarlInstEdge *term,
                                      bool positive);
void quarl_inst_edge_formula_string_get(const QuarlInstEdge *edge, char *buf,
                                        uint32_t buf_len);

/* ---- Edge transitions ------------------------------------------------------ */
void quarl_inst_edge_set_as_computed(QuarlInstEdge *edge);

/* ---- Resolution and placement ---------------------------------------------- */
bool quarl_inst_graph_compute_remaining_edge(QuarlInstNode *node, QuarlNodeQueue *ready_queue,
                                             QuarlNodeQueue *deferred_queue,
                                             QuarlInstBitset *immeasurable_mask, bool force,
                                             uint8_t *remaining_nodes);
/* Settles unreachable edges as computed (they count 0) and gives every
 * other edge without a counter two empty formula bitsets of
 * m_formula_mask_bits bits, all from one shared block; false, with nothing
 * changed, when that block cannot be had. */
bool quarl_inst_graph_set_up_edge_formulas(QuarlInstGraph *graph);
/* True when no byte of remaining_nodes marks a node as unresolved. */
bool quarl_inst_nodes_all_resolved(const uint8_t *remaining_nodes, uint32_t num_nodes);
/* Marks every reachable node remaining and queues those with at most one
 * unsettled edge, in block index order; false when the queue cannot grow. */
bool quarl_inst_graph_populate_ready_queue(QuarlInstGraph *graph, QuarlNodeQueue *ready_queue,
                                           uint8_t *remaining_nodes);

/* ---- Profile reconstruction -------------------------------------------------- */
/* The formula rebuild behind quarl_inst_graph_compute_formulas(). With
 * untrusted set (stored profile data), a decoded graph that breaks the
 * rebuild's invariants gives 0 instead of stopping the process. */
int32_t quarl_inst_graph_rebuild_formulas(QuarlInstGraph *graph, bool untrusted);
uint64_t quarl_inst_edge_execute_formula(QuarlInstEdge *edge);
/* The propagation behind quarl_inst_graph_propagate_exec_counts(); false,
 * with no count changed, when its working memory could not be had. */
bool quarl_inst_graph_propagate_counts(QuarlInstGraph *graph);

/* The two ways of quarl_compute_blocks_from_edges(), same arguments, same
 * results on every input: decoding into a graph, rebuilding its formulas
 * and propagating counts (the way with traces); or flow conservation on
 * flat arrays over the stored words, with two allocations. */
int32_t quarl_compute_blocks_with_formulas(const uint32_t *buffer, uint32_t length,
                                           const uint64_t *counters, uint32_t num_counters,
                                           uint64_t *block_counts, uint32_t num_blocks);
int32_t quarl_compute_blocks_by_conservation(const uint32_t *buffer, uint32_t length,
                                             const uint64_t *counters, uint32_t num_counters,
                                             uint64_t *block_counts, uint32_t num_blocks);

/* ---- Stored records -------------------------------------------------------------
 * What the decoder and profile use by conservation both know of the stored
 * formats. A record's flags are the six-bit field of the successor-list
 * formats; an edge-list record's flags are given the same bits. */
#define QUARL_RECORD_MORE_FOLLOWS 0x20u
#define QUARL_RECORD_INSTRUMENTED 0x10u
#define QUARL_RECORD_REACHABLE 0x08u
#define QUARL_RECORD_IMMEASURABLE 0x04u
#define QUARL_RECORD_PSEUDO 0x02u

typedef struct QuarlStoredRecord {
    uint32_t flags;
    uint32_t dest_idx;
    uint32_t counter_idx;
} QuarlStoredRecord;

/* Bytes of one record: 2, 4, 12, or 16 for the edge list. */
uint32_t quarl_stored_record_bytes(QuarlEncodingFormat format);
/* The bound that indices read from stored data must be below, given the
 * bytes after the format word: in the successor-list formats the number of
 * records (destinations only); in the edge list 16 * (whole records) + 1024,
 * at most QUARL_MAX_BLOCK_IDX_EXCLUSIVE. */
uint64_t quarl_stored_index_bound(QuarlEncodingFormat format, uint32_t payload_bytes);
/* Unpacks a successor record from its little-endian bytes; false for the
 * empty record of c_encode16 (all zero), which adds no edge. */
bool quarl_successor_record_unpack(QuarlEncodingFormat format, const uint8_t *bytes,
                                   QuarlStoredRecord *record);
void quarl_edge_list_record_unpack(const uint8_t *bytes, uint32_t *src_idx,
                                   QuarlStoredRecord *record);

/* ---- Encoding ----------------------------------------------------------------- */
/* Packs one successor-list record (flag field, destination, counter) in the
 * format of encoded_graph and appends it; 1 on success, 0 when the stream
 * cannot grow. */
uint32_t quarl_encoded_graph_encode_edge_succ_list_format(QuarlEncodedGraph *encoded_graph,
                                                          uint32_t flags, uint32_t dest_idx,
                                                          uint32_t counter_idx);

} /* extern "C" */

#endif /* QUARL_EDGEINST_INTERNAL_H */
