// Formula bitsets, formula terms and the transitions that settle an edge as
// instrumented or computed.
#include <stdio.h>

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

extern "C" QuarlInstBitset *quarl_inst_bitset_create(uint32_t bits)
{
    QuarlInstBitset *bitset =
        static_cast<QuarlInstBitset *>(quarl_mem_alloc(sizeof(QuarlInstBitset)));
    if (bitset == nullptr)
        return nullptr;
    bitset->m_size = bits;
    bitset->m_chunk_count = static_cast<uint32_t>((uint64_t{bits} + 31) / bits_per_chunk);
    bitset->m_bit_capacity = bitset->m_chunk_count * bits_per_chunk;
    bitset->m_chunks =
        static_cast<uint32_t *>(quarl_mem_alloc_zeroed(bitset->m_chunk_count, sizeof(uint32_t)));
    if (bitset->m_chunks == nullptr) {
        quarl_mem_free(bitset);
        return nullptr;
    }
    return bitset;
}

extern "C" void quarl_inst_bitset_delete(QuarlInstBitset *bitset)
{
    if (bitset == nullptr)
        return;
    quarl_mem_free(bitset->m_chunks);
    quarl_mem_free(bitset);
}

extern "C" void quarl_inst_bitset_set_bit(QuarlInstBitset *bitset, uint32_t pos)
{
    QUARL_CHECK(pos < bitset->m_size, "pos < ((bitset)->m_size)");
    bitset->m_chunks[pos / bits_per_chunk] |= 1u << (pos % bits_per_chunk);
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
}

extern "C" void quarl_inst_bitset_merge_with(QuarlInstBitset *bitset1,
                                            const QuarlInstBitset *bitset2)
{
    QUARL_CHECK(bitset1 != nullptr && bitset2 != nullptr,
                "bitset1 != ((void *)0) && bitset2 != ((void *)0)");
    check_same_chunk_count(bitset1, bitset2, __func__);
    for (uint32_t i = 0; i < bitset1->m_chunk_count; ++i)
        bitset1->m_chunks[i] |= bitset2->m_chunks[i];
}

extern "C" bool quarl_inst_bitset_intersects(const QuarlInstBitset *bitset1,
                                            const QuarlInstBitset *bitset2)
{
    check_same_chunk_count(bitset1, bitset2, __func__);
    for (uint32_t i = 0; i < bitset1->m_chunk_count; ++i)
        if ((bitset1->m_chunks[i] & ~bitset2->m_chunks[i]) != 0)
            return true;
    return false;
}

extern "C" void quarl_inst_bitset_clear_intersection(QuarlInstBitset *bitset1,
                                                    QuarlInstBitset *bitset2)
{
    check_same_chunk_count(bitset1, bitset2, __func__);
    for (uint32_t i = 0; i < bitset1->m_chunk_count; ++i) {
        uint32_t a = bitset1->m_chunks[i];
        bitset1->m_chunks[i] = a & ~bitset2->m_chunks[i];
        bitset2->m_chunks[i] &= ~a;
    }
}

// ---- Formulas -----------------------------------------------------------

extern "C" void quarl_inst_edge_clear_formula(QuarlInstEdge *edge)
{
    QuarlInstBitset *additive = edge->m_additive;
    QuarlInstBitset *subtractive = edge->m_subtractive;
    check_formula_present(additive, subtractive, __func__);
    for (uint32_t i = 0; i < additive->m_chunk_count; ++i)
        additive->m_chunks[i] = 0;
    for (uint32_t i = 0; i < subtractive->m_chunk_count; ++i)
        subtractive->m_chunks[i] = 0;
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
