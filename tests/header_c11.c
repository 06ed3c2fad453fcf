/* Compiled as C11: the public header must stand alone in a C compiler. */
#include "quarl/edgeinst.h"

int quarl_header_compiles_as_c11(void)
{
    QuarlInstGraph *graph = quarl_inst_graph_create();
    QuarlEncodingFormat format = c_encode16;
    quarl_inst_graph_delete(graph);
    return (int)format;
}
