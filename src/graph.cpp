// The graph model: graphs, nodes, edges and the lists that hold them.
#include <stdio.h>
#include <string.h>

#include "edgeinst_internal.h"

namespace {

const uint32_t initial_slots = 32;
const uint32_t node_vec_headroom = 128;
const uint32_t edge_vec_linear_step = 128;

void delete_node(QuarlInstNode *node)
{
    quarl_inst_list_delete(node->m_edges);
    quarl_inst_list_delete(node->m_uncalculated_edges);
    quarl_mem_free(node->m_annotation);
    quarl_mem_free(node);
}

void delete_edge(QuarlInstEdge *edge)
{
    quarl_inst_bitset_delete(edge->m_additive);
    quarl_inst_bitset_delete(edge->m_subtractive);
    quarl_mem_free(edge);
}

bool grow_node_vec(QuarlInstGraph *graph, uint32_t node_idx)
{
    uint32_t new_size = node_idx + node_vec_headroom;
    void *grown = quarl_mem_realloc(graph->m_node_vec, sizeof(QuarlInstNode *) * new_size);
    if (grown == nullptr)
        return false;
    graph->m_node_vec = static_cast<QuarlInstNode **>(grown);
    for (uint32_t i = graph->m_node_vec_size; i < new_size; ++i)
        graph->m_node_vec[i] = nullptr;
    graph->m_node_vec_size = new_size;
    return true;
}

bool grow_edge_vec(QuarlInstGraph *graph)
{
    uint32_t old_size = graph->m_edge_vec_size;
    uint32_t new_size = old_size * 2 <= edge_vec_linear_step ? old_size * 2
                                                               : old_size + edge_vec_linear_step;
    void *grown = quarl_mem_realloc(graph->m_edge_vec, sizeof(QuarlInstEdge *) * new_size);
    if (grown == nullptr)
        return false;
    graph->m_edge_vec = static_cast<QuarlInstEdge **>(grown);
    for (uint32_t i = old_size; i < new_size; ++i)
        graph->m_edge_vec[i] = nullptr;
    graph->m_edge_vec_size = new_size;
    return true;
}

// Takes the edge out of one list, if it is there; used to undo a partly
// made edge addition.
void unlink_if_present(QuarlInstList *list, const QuarlInstEdge *edge)
{
    for (QuarlInstListElement *element = list->m_head; element != nullptr;
         element = element->m_next) {
        if (element->m_data == edge) {
            quarl_inst_list_remove(list, element);
            return;
        }
    }
}

// Joins the edge to both lists of one node; on failure the node's lists are
// as they were.
bool join_node_lists(QuarlInstNode *node, QuarlInstEdge *edge)
{
    if (quarl_inst_list_append(node->m_edges, edge) == nullptr)
        return false;
    if (quarl_inst_list_append(node->m_uncalculated_edges, edge) == nullptr) {
        unlink_if_present(node->m_edges, edge);
        return false;
    }
    return true;
}

void leave_node_lists(QuarlInstNode *node, const QuarlInstEdge *edge)
{
    unlink_if_present(node->m_edges, edge);
    unlink_if_present(node->m_uncalculated_edges, edge);
}

} // namespace

// ---- Lists --------------------------------------------------------------

extern "C" QuarlInstList *quarl_inst_list_create(void)
{
    QuarlInstList *list = static_cast<QuarlInstList *>(quarl_mem_alloc(sizeof(QuarlInstList)));
    if (list == nullptr)
        return nullptr;
    list->m_head = nullptr;
    list->m_tail = nullptr;
    list->m_count = 0;
    return list;
}

extern "C" QuarlInstListElement *quarl_inst_list_append(QuarlInstList *list, void *data)
{
    QuarlInstListElement *element =
        static_cast<QuarlInstListElement *>(quarl_mem_alloc(sizeof(QuarlInstListElement)));
    if (element == nullptr)
        return nullptr;
    element->m_data = data;
    element->m_next = nullptr;
    if (list->m_tail != nullptr)
        list->m_tail->m_next = element;
    else
        list->m_head = element;
    element->m_prev = list->m_tail;
    list->m_tail = element;
    list->m_count++;
    return element;
}

extern "C" void quarl_inst_list_delete(QuarlInstList *list)
{
    if (list == nullptr)
        return;
    QuarlInstListElement *element = list->m_head;
    while (element != nullptr) {
        QuarlInstListElement *next = element->m_next;
        quarl_mem_free(element);
        element = next;
    }
    quarl_mem_free(list);
}

extern "C" void quarl_inst_list_remove(QuarlInstList *list, QuarlInstListElement *element)
{
    if (list->m_head == list->m_tail) {
        QUARL_CHECK(element == list->m_head, "element == ((list)->m_head)");
        list->m_head = nullptr;
        list->m_tail = nullptr;
        list->m_count = 0;
    } else {
        if (element == list->m_head) {
            list->m_head = element->m_next;
            list->m_head->m_prev = nullptr;
        } else if (element == list->m_tail) {
            list->m_tail = element->m_prev;
            list->m_tail->m_next = nullptr;
        } else {
            element->m_prev->m_next = element->m_next;
            element->m_next->m_prev = element->m_prev;
        }
        list->m_count--;
        element->m_next = nullptr;
        element->m_prev = nullptr;
    }
    quarl_mem_free(element);
}

// ---- Node queues ------------------------------------------------------------

extern "C" void quarl_node_queue_release(QuarlNodeQueue *queue)
{
    quarl_mem_free(queue->m_nodes);
    *queue = QuarlNodeQueue QUARL_NODE_QUEUE_INIT;
}

extern "C" bool quarl_node_queue_append(QuarlNodeQueue *queue, QuarlInstNode *node)
{
    if (queue->m_tail == queue->m_capacity) {
        // Grow when most of the array still waits; otherwise the taken half
        // is reused. Either way the waiting nodes move to the front.
        if (queue->m_head <= queue->m_capacity / 2) {
            uint64_t capacity = queue->m_capacity < 16 ? 16 : uint64_t{queue->m_capacity} * 2;
            if (capacity > UINT32_MAX || capacity > SIZE_MAX / sizeof(QuarlInstNode *))
                return false;
            void *grown = quarl_mem_realloc(queue->m_nodes, sizeof(QuarlInstNode *) * capacity);
            if (grown == nullptr)
                return false;
            queue->m_nodes = static_cast<QuarlInstNode **>(grown);
            queue->m_capacity = static_cast<uint32_t>(capacity);
        }
        uint32_t waiting = queue->m_tail - queue->m_head;
        memmove(queue->m_nodes, queue->m_nodes + queue->m_head, sizeof(QuarlInstNode *) * waiting);
        queue->m_head = 0;
        queue->m_tail = waiting;
    }
    queue->m_nodes[queue->m_tail++] = node;
    return true;
}

extern "C" QuarlInstNode *quarl_node_queue_take(QuarlNodeQueue *queue)
{
    return queue->m_head < queue->m_tail ? queue->m_nodes[queue->m_head++] : nullptr;
}

// ---- Graph --------------------------------------------------------------

extern "C" QuarlInstGraph *quarl_inst_graph_create(void)
{
    QuarlInstGraph *graph = static_cast<QuarlInstGraph *>(quarl_mem_alloc(sizeof(QuarlInstGraph)));
    if (graph == nullptr)
        return nullptr;
    graph->m_node_vec = nullptr;
    graph->m_edge_vec = nullptr;
    graph->m_node_vec = static_cast<QuarlInstNode **>(
        quarl_mem_alloc_zeroed(initial_slots, sizeof(QuarlInstNode *)));
    graph->m_node_vec_size = initial_slots;
    graph->m_num_nodes = 0;
    if (graph->m_node_vec != nullptr)
        graph->m_edge_vec = static_cast<QuarlInstEdge **>(
            quarl_mem_alloc_zeroed(initial_slots, sizeof(QuarlInstEdge *)));
    graph->m_edge_vec_size = initial_slots;
    graph->m_num_edges = 0;
    graph->m_num_counters = 0;
    graph->m_formula_mask_bits = 0;
    graph->m_formula_edge_vec = nullptr;
    if (graph->m_node_vec == nullptr || graph->m_edge_vec == nullptr) {
        quarl_mem_free(graph->m_node_vec);
        quarl_mem_free(graph);
        return nullptr;
    }
    return graph;
}

extern "C" void quarl_inst_graph_delete(QuarlInstGraph *graph)
{
    if (graph == nullptr)
        return;
    if (graph->m_node_vec != nullptr) {
        for (uint32_t i = 0; i < graph->m_node_vec_size; ++i)
            if (graph->m_node_vec[i] != nullptr)
                delete_node(graph->m_node_vec[i]);
        quarl_mem_free(graph->m_node_vec);
    }
    if (graph->m_edge_vec != nullptr) {
        for (uint32_t i = 0; i < graph->m_edge_vec_size; ++i)
            if (graph->m_edge_vec[i] != nullptr)
                delete_edge(graph->m_edge_vec[i]);
        quarl_mem_free(graph->m_edge_vec);
    }
    quarl_mem_free(graph->m_formula_edge_vec);
    quarl_mem_free(graph);
}

extern "C" QuarlInstNode *quarl_inst_graph_add_node(QuarlInstGraph *graph, uint32_t node_idx)
{
    if (node_idx >= QUARL_MAX_BLOCK_IDX_EXCLUSIVE)
        return nullptr;
    QuarlInstNode *node = static_cast<QuarlInstNode *>(quarl_mem_alloc(sizeof(QuarlInstNode)));
    if (node == nullptr)
        return nullptr;
    node->m_seg_block_idx = node_idx;
    node->m_edges = quarl_inst_list_create();
    node->m_uncalculated_edges = quarl_inst_list_create();
    node->m_exec_count = 0;
    node->m_goto_id = 0;
    node->m_tag_id = 0;
    memset(node->m_src_position.m_words, 0, sizeof(node->m_src_position.m_words));
    node->m_src_position.m_flag = 0;
    node->m_is_reachable = 0;
    node->m_is_pseudo_entry = 0;
    node->m_is_pseudo_exit = 0;
    node->m_is_entry = 0;
    node->m_annotation = nullptr;
    if (node->m_edges == nullptr || node->m_uncalculated_edges == nullptr ||
        (node_idx >= graph->m_node_vec_size && !grow_node_vec(graph, node_idx))) {
        delete_node(node);
        return nullptr;
    }
    QUARL_CHECK(graph->m_node_vec[node_idx] == nullptr,
                "((graph)->m_node_vec)[node_idx] == ((void *)0)");
    graph->m_node_vec[node_idx] = node;
    if (node_idx >= graph->m_num_nodes)
        graph->m_num_nodes = node_idx + 1;
    if (quarl_trace_on(QUARL_TRACE_BUILD))
        fprintf(stderr, "Added node %u\n", node_idx);
    return node;
}

extern "C" QuarlInstNode *quarl_inst_graph_find_node_by_idx(const QuarlInstGraph *graph,
                                                           uint32_t node_idx)
{
    return node_idx < graph->m_num_nodes ? graph->m_node_vec[node_idx] : nullptr;
}

extern "C" QuarlInstEdge *quarl_inst_graph_add_edge(QuarlInstGraph *graph, QuarlInstNode *src,
                                                   QuarlInstNode *dest)
{
    QuarlInstEdge *edge = static_cast<QuarlInstEdge *>(quarl_mem_alloc(sizeof(QuarlInstEdge)));
    if (edge == nullptr)
        return nullptr;
    edge->m_graph = graph;
    edge->m_counter_idx = 0;
    edge->m_src = src;
    edge->m_dest = dest;
    edge->m_cost = 0;
    edge->m_exec_count = 0;
    edge->m_formula_bit_pos = -1;
    edge->m_additive = nullptr;
    edge->m_subtractive = nullptr;
    edge->m_is_reachable = 0;
    edge->m_is_pseudo = 0;
    edge->m_is_instrumented = 0;
    edge->m_is_computed = 0;
    edge->m_is_forced_instrumented = 0;
    edge->m_is_immeasurable = 0;
    if (graph->m_num_edges >= graph->m_edge_vec_size && !grow_edge_vec(graph)) {
        quarl_mem_free(edge);
        return nullptr;
    }
    graph->m_edge_vec[graph->m_num_edges++] = edge;

    if (quarl_trace_on(QUARL_TRACE_BUILD))
        fprintf(stderr, "Adding edge %p to node %u\n", static_cast<void *>(edge),
                src->m_seg_block_idx);
    bool joined = join_node_lists(src, edge);
    if (joined && dest != src) {
        if (quarl_trace_on(QUARL_TRACE_BUILD))
            fprintf(stderr, "Adding edge %p to node %u\n", static_cast<void *>(edge),
                    dest->m_seg_block_idx);
        if (!join_node_lists(dest, edge)) {
            leave_node_lists(src, edge);
            joined = false;
        }
    }
    if (!joined) {
        // Undo the whole addition so that no list invariant is broken.
        graph->m_edge_vec[--graph->m_num_edges] = nullptr;
        quarl_mem_free(edge);
        return nullptr;
    }
    if (quarl_trace_on(QUARL_TRACE_BUILD)) {
        char name[QUARL_NAME_BUF_LEN];
        fprintf(stderr, "Added edge: %s\n", quarl_inst_edge_get_name(edge, name));
    }
    return edge;
}

extern "C" char *quarl_inst_node_annotation_set(QuarlInstNode *node, const char *annotation)
{
    size_t length = strlen(annotation);
    char *copy = static_cast<char *>(quarl_mem_alloc(length + 1));
    if (copy == nullptr)
        return nullptr;
    memcpy(copy, annotation, length + 1);
    quarl_mem_free(node->m_annotation);
    node->m_annotation = copy;
    return copy;
}

extern "C" void quarl_inst_node_src_position_set(QuarlInstNode *node,
                                                const QuarlSrcPosition *position)
{
    for (int i = 0; i < 4; ++i)
        node->m_src_position.m_words[i] = position->m_words[i];
    node->m_src_position.m_flag = position->m_flag;
}

extern "C" int quarl_inst_edge_src_dest_lesser(const void *edge1, const void *edge2)
{
    const QuarlInstEdge *first = *static_cast<const QuarlInstEdge *const *>(edge1);
    const QuarlInstEdge *second = *static_cast<const QuarlInstEdge *const *>(edge2);
    // Differences taken in unsigned arithmetic and read as signed 32-bit:
    // the sign is right for block indices below 2^31.
    uint32_t src_diff = first->m_src->m_seg_block_idx - second->m_src->m_seg_block_idx;
    if (src_diff != 0)
        return static_cast<int32_t>(src_diff);
    return static_cast<int32_t>(first->m_dest->m_seg_block_idx -
                                second->m_dest->m_seg_block_idx);
}
