// Formula bitsets, formula terms and the transitions that settle an edge as
// instrumented or computed.
#include <stdio.h>

#include <new>

#include "edgeinst_internal.h"

namespace {

const uint32_t bits_per_chunk = 32;

void check_same_chunk_count(const QuarlInstBitset *bitset1, const QuarlInstBitset *bitset2,
                            const char *operation)
{
    QUARL_CHECK_FOR(operation, bitset1->m_chunk_count == bitset2->m_chunk_count,
                "((bitset1)->m_chunk_count) == ((bitset2)->m_chunk_count)");
}

void check_formula_present(const QuarlInstBitset *additive, const QuarlInstBitset *subtractive,
                           const char *operation)
{
    QUARL_CHECK_FOR(operation, additive != nullptr && subtractive != nullptr,
                "additive != ((void *)0) && subtractive != ((void *)0)");
}

// Takes the edge out of one node's list of uncalculated edges; it must be
// there.
void remove_from_uncalculated(QuarlInstNode *node, const QuarlInstEdge *edge,
                              const char *operation)
{
    QuarlInstList *list = node->m_uncalculated_edges;
    QuarlInstListElement *element = list->m_head;
    while (element != nullptr && element->m_data != edge)
        element = element->m_next;
    bool ok = element != nullptr;
    QUARL_CHECK_FOR(operation, ok, "ok");
    quarl_inst_list_remove(list, element);
}

void leave_uncalculated_lists(QuarlInstEdge *edge, const char *operation)
{
    remove_from_uncalculated(edge->m_src, edge, operation);
    if (edge->m_dest != edge->m_src)
        remove_from_uncalculated(edge->m_dest, edge, operation);
}

} // namespace

// ---- Bitsets ------------------------------------------------------------
//
// Every bitset record is followed in memory by a private tail. The tail
// names the shared block the bitset was carved from (null when the bitset
// has a block of its own) and the range of chunks that may hold set bits:
// chunks outside it are zero, so the word-wise operations skip them. A
// formula of a routine of n edges has n positions but, in compiled code, a
// handful of set bits close together; the range keeps every operation on it
// to a few chunks. Bits are written only through the operations below,
// which keep the range a superset of the non-zero chunks.

namespace {

struct SharedBlock {
    uint64_t live_bitsets; // released with the last of its bitsets
};

struct BitsetTail {
    SharedBlock *shared;
    uint32_t first_chunk; // the range [first_chunk, end_chunk); empty when
    uint32_t end_chunk;   // first_chunk >= end_chunk
};

const size_t record_bytes = sizeof(QuarlInstBitset) + sizeof(BitsetTail);
static_assert(record_bytes % alignof(QuarlInstBitset) == 0, "records follow each other");

BitsetTail *tail_of(const QuarlInstBitset *bitset)
{
    return reinterpret_cast<BitsetTail *>(const_cast<QuarlInstBitset *>(bitset) + 1);
}

bool range_empty(const BitsetTail *tail) { return tail->first_chunk >= tail->end_chunk; }

void widen_range(BitsetTail *tail, uint32_t first, uint32_t end)
{
    if (first >= end)
        return;
    if (range_empty(tail)) {
        tail->first_chunk = first;
        tail->end_chunk = end;
        return;
    }
    if (first < tail->first_chunk)
        tail->first_chunk = first;
    if (end > tail->end_chunk)
        tail->end_chunk = end;
}

// Narrows the range to its outermost non-zero chunks, after bits were
// cleared, so that later operations skip what became zero.
void trim_range(const QuarlInstBitset *bitset)
{
    BitsetTail *tail = tail_of(bitset);
    while (tail->first_chunk < tail->end_chunk && bitset->m_chunks[tail->first_chunk] == 0)
        tail->first_chunk++;
    while (tail->first_chunk < tail->end_chunk && bitset->m_chunks[tail->end_chunk - 1] == 0)
        tail->end_chunk--;
}

uint32_t chunks_for(uint32_t bits)
{
    return static_cast<uint32_t>((uint64_t{bits} + 31) / bits_per_chunk);
}

// A shared block: its header, the records with their tails, then the
// chunks of every bitset; the records are written at once, the chunks only
// where bits get set.
struct BatchLayout {
    uint64_t header_bytes;
    uint64_t chunk_bytes; // of one bitset
};

BatchLayout batch_layout(uint32_t bits)
{
    const uint64_t align = alignof(QuarlInstBitset);
    return {(sizeof(SharedBlock) + align - 1) / align * align,
            uint64_t{chunks_for(bits)} * sizeof(uint32_t)};
}

// Starts the lives of a record and its tail at `at`; the chunks are zero.
QuarlInstBitset *place_bitset(void *at, uint32_t bits, uint32_t *chunks, SharedBlock *shared,
                              bool full_range)
{
    QuarlInstBitset *bitset = new (at) QuarlInstBitset;
    bitset->m_size = bits;
    bitset->m_chunk_count = chunks_for(bits);
    bitset->m_bit_capacity = bitset->m_chunk_count * bits_per_chunk;
    bitset->m_chunks = chunks;
    new (bitset + 1) BitsetTail{shared, 0, full_range ? bitset->m_chunk_count : 0};
    return bitset;
}

} // namespace

extern "C" QuarlInstBitset *quarl_inst_bitset_create(uint32_t bits)
{
    // One block: record, tail, chunks. A bitset of 0 bits has no chunks;
    // its chunk pointer is the (empty) end of the block.
    uint64_t bytes = record_bytes + uint64_t{chunks_for(bits)} * sizeof(uint32_t);
    void *block = quarl_mem_alloc_zeroed(1, static_cast<size_t>(bytes));
    if (block == nullptr)
        return nullptr;
    uint32_t *chunks = reinterpret_cast<uint32_t *>(static_cast<char *>(block) + record_bytes);
    return place_bitset(block, bits, chunks, nullptr, true);
}

extern "C" bool quarl_inst_bitset_batch_create(QuarlInstBitsetBatch *batch, uint32_t bits,
                                              uint64_t count)
{
    batch->m_taken = 0;
    batch->m_count = count;
    batch->m_bits = bits;
    batch->m_block = nullptr;
    if (count == 0)
        return true;
    BatchLayout layout = batch_layout(bits);
    if (count > (SIZE_MAX - layout.header_bytes) / (record_bytes + layout.chunk_bytes))
        return false;
    // Small pages, not huge ones: the chunks are written sparsely, and a
    // huge page asked for while other work has fragmented memory costs a
    // compaction, several times the work of the routine.
    void *block = quarl_mem_alloc_zeroed(
        1, static_cast<size_t>(layout.header_bytes + count * (record_bytes + layout.chunk_bytes)));
    if (block == nullptr)
        return false;
    new (block) SharedBlock{count};
    batch->m_block = block;
    return true;
}

extern "C" QuarlInstBitset *quarl_inst_bitset_batch_take(QuarlInstBitsetBatch *batch)
{
    QUARL_CHECK(batch->m_taken < batch->m_count, "batch->m_taken < batch->m_count");
    BatchLayout layout = batch_layout(batch->m_bits);
    char *records = static_cast<char *>(batch->m_block) + layout.header_bytes;
    char *record = records + batch->m_taken * record_bytes;
    char *chunks = records + batch->m_count * record_bytes + batch->m_taken * layout.chunk_bytes;
    batch->m_taken++;
    return place_bitset(record, batch->m_bits, reinterpret_cast<uint32_t *>(chunks),
                        static_cast<SharedBlock *>(batch->m_block), false);
}

extern "C" void quarl_inst_bitset_delete(QuarlInstBitset *bitset)
{
    if (bitset == nullptr)
        return;
    SharedBlock *shared = tail_of(bitset)->shared;
    if (shared == nullptr)
        quarl_mem_free(bitset);
    else if (--shared->live_bitsets == 0)
        quarl_mem_free(shared);
}

extern "C" void quarl_inst_bitset_set_bit(QuarlInstBitset *bitset, uint32_t pos)
{
    QUARL_CHECK(pos < bitset->m_size, "pos < ((bitset)->m_size)");
    bitset->m_chunks[pos / bits_per_chunk] |= 1u << (pos % bits_per_chunk);
    widen_range(tail_of(bitset), pos / bits_per_chunk, pos / bits_per_chunk + 1);
}

extern "C" bool quarl_inst_bitset_get_bit(const QuarlInstBitset *bitset, uint32_t pos)
{
    QUARL_CHECK(pos < bitset->m_size, "pos < ((bitset)->m_size)");
    return (bitset->m_chunks[pos / bits_per_chunk] >> (pos % bits_per_chunk)) & 1u;
}

extern "C" void quarl_inst_bitset_clear_bit(QuarlInstBitset *bitset, uint32_t pos)
{
    QUARL_CHECK(pos < bitset->m_size, "pos < ((bitset)->m_size)");
    bitset->m_chunks[pos / bits_per_chunk] &= ~(1u << (pos % bits_per_chunk));
    trim_range(bitset);
}

extern "C" void quarl_inst_bitset_merge_with(QuarlInstBitset *bitset1,
                                            const QuarlInstBitset *bitset2)
{
    QUARL_CHECK(bitset1 != nullptr && bitset2 != nullptr,
                "bitset1 != ((void *)0) && bitset2 != ((void *)0)");
    check_same_chunk_count(bitset1, bitset2, __func__);
    // Groups of zero chunks are not written: in a large shared block, a page
    // that never receives a bit is never touched. Within a group the OR is
    // unconditional, which the compiler turns into vector operations.
    const BitsetTail *from = tail_of(bitset2);
    const uint32_t group = 8;
    uint32_t *to_chunks = bitset1->m_chunks;
    const uint32_t *from_chunks = bitset2->m_chunks;
    uint32_t i = from->first_chunk;
    for (; i + group <= from->end_chunk; i += group) {
        uint32_t any = 0;
        for (uint32_t k = 0; k < group; ++k)
            any |= from_chunks[i + k];
        if (any != 0)
            for (uint32_t k = 0; k < group; ++k)
                to_chunks[i + k] |= from_chunks[i + k];
    }
    for (; i < from->end_chunk; ++i)
        to_chunks[i] |= from_chunks[i];
    widen_range(tail_of(bitset1), from->first_chunk, from->end_chunk);
}

extern "C" bool quarl_inst_bitset_intersects(const QuarlInstBitset *bitset1,
                                            const QuarlInstBitset *bitset2)
{
    check_same_chunk_count(bitset1, bitset2, __func__);
    const BitsetTail *range = tail_of(bitset1);
    for (uint32_t i = range->first_chunk; i < range->end_chunk; ++i)
        if ((bitset1->m_chunks[i] & ~bitset2->m_chunks[i]) != 0)
            return true;
    return false;
}

extern "C" void quarl_inst_bitset_clear_intersection(QuarlInstBitset *bitset1,
                                                    QuarlInstBitset *bitset2)
{
    check_same_chunk_count(bitset1, bitset2, __func__);
    // Only chunks in both ranges can hold a position of both sets.
    const BitsetTail *range1 = tail_of(bitset1);
    const BitsetTail *range2 = tail_of(bitset2);
    uint32_t first = range1->first_chunk > range2->first_chunk ? range1->first_chunk
                                                                 : range2->first_chunk;
    uint32_t end = range1->end_chunk < range2->end_chunk ? range1->end_chunk : range2->end_chunk;
    bool cleared = false;
    for (uint32_t i = first; i < end; ++i) {
        uint32_t a = bitset1->m_chunks[i];
        uint32_t shared = a & bitset2->m_chunks[i];
        if (shared != 0) {
            bitset1->m_chunks[i] = a & ~shared;
            bitset2->m_chunks[i] &= ~shared;
            cleared = true;
        }
    }
    if (cleared) {
        trim_range(bitset1);
        trim_range(bitset2);
    }
}

extern "C" void quarl_inst_bitset_clear_all(QuarlInstBitset *bitset)
{
    BitsetTail *range = tail_of(bitset);
    for (uint32_t i = range->first_chunk; i < range->end_chunk; ++i)
        bitset->m_chunks[i] = 0;
    range->first_chunk = 0;
    range->end_chunk = 0;
}

// ---- Formulas -----------------------------------------------------------

extern "C" void quarl_inst_edge_clear_formula(QuarlInstEdge *edge)
{
    QuarlInstBitset *additive = edge->m_additive;
    QuarlInstBitset *subtractive = edge->m_subtractive;
    check_formula_present(additive, subtractive, __func__);
    quarl_inst_bitset_clear_all(additive);
    quarl_inst_bitset_clear_all(subtractive);
    edge->m_is_computed = 0;
}

extern "C" bool quarl_inst_edge_check_formula_intersection(const QuarlInstEdge *edge,
                                                          const QuarlInstBitset *mask)
{
    check_formula_present(edge->m_additive, edge->m_subtractive, __func__);
    return quarl_inst_bitset_intersects(edge->m_additive, mask) ||
           quarl_inst_bitset_intersects(edge->m_subtractive, mask);
}

extern "C" QuarlInstEdge *quarl_inst_graph_get_edge_for_formula_position(
    const QuarlInstGraph *graph, uint32_t bit_pos)
{
    QUARL_CHECK(bit_pos < graph->m_formula_mask_bits,
                "bit_pos < ((graph)->m_formula_mask_bits)");
    return graph->m_formula_edge_vec[bit_pos];
}

extern "C" void quarl_inst_edge_add_formula_term(QuarlInstEdge *edge, const QuarlInstEdge *term,
                                                bool positive)
{
    QuarlInstBitset *additive = edge->m_additive;
    QuarlInstBitset *subtractive = edge->m_subtractive;
    if (term->m_is_instrumented) {
        // A counter of its own: +p cancels -p, otherwise joins its side.
        uint32_t pos = static_cast<uint32_t>(term->m_formula_bit_pos);
        QuarlInstBitset *cancelling = positive ? subtractive : additive;
        QuarlInstBitset *joining = positive ? additive : subtractive;
        if (quarl_inst_bitset_get_bit(cancelling, pos))
            quarl_inst_bitset_clear_bit(cancelling, pos);
        else
            quarl_inst_bitset_set_bit(joining, pos);
        return;
    }
    // A computed term: union its sides into ours (swapped for a negative
    // sign), then drop positions that now stand on both sides.
    quarl_inst_bitset_merge_with(additive, positive ? term->m_additive : term->m_subtractive);
    quarl_inst_bitset_merge_with(subtractive, positive ? term->m_subtractive : term->m_additive);
    quarl_inst_bitset_clear_intersection(additive, subtractive);
}

// ---- Edge transitions -----------------------------------------------------

extern "C" void quarl_inst_edge_set_as_instrumented(QuarlInstEdge *edge)
{
    QUARL_CHECK(edge != nullptr, "edge != ((void *)0)");
    if (quarl_trace_on(QUARL_TRACE_BUILD)) {
        char name[QUARL_NAME_BUF_LEN];
        fprintf(stderr, "Setting edge [ %s ] as instrumented\n",
                quarl_inst_edge_get_name(edge, name));
        fflush(stderr);
    }
    if (edge->m_is_instrumented)
        return;
    edge->m_is_instrumented = 1;
    leave_uncalculated_lists(edge, __func__);
}

extern "C" void quarl_inst_edge_set_as_computed(QuarlInstEdge *edge)
{
    QUARL_CHECK(edge != nullptr, "edge != ((void *)0)");
    if (quarl_trace_on(QUARL_TRACE_RESOLVE)) {
        char name[QUARL_NAME_BUF_LEN];
        fprintf(stderr, "Setting edge [ %s ] as computed\n", quarl_inst_edge_get_name(edge, name));
        fflush(stderr);
    }
    QUARL_CHECK(!edge->m_is_instrumented, "!((edge)->m_is_instrumented)");
    edge->m_is_computed = 1;
    leave_uncalculated_lists(edge, __func__);
}
