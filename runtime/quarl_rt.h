/*
 * The Quarl training runtime, linked into programs instrumented by the
 * Quarl LLVM plugin (libquarl_rt.a, plain C). Each instrumented module
 * registers its table of functions from a constructor; at exit the runtime
 * adds the counts to the profile file, by default default.quarlprof in the
 * working directory, or the file QUARL_PROFILE_FILE names ("%p" in it
 * becomes the process id).
 */
#ifndef QUARL_RT_H
#define QUARL_RT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Adds this process's counts to the profile file now, then zeroes them, so
 * that a long-running program can write its profile on demand without
 * counting anything twice. Returns 0 on success, -1 if the file could not
 * be written (a message says why on stderr). */
int quarl_profile_dump(void);

/* ---- The interface between the plugin's code and the runtime ----------- */

#define QUARL_RT_VERSION 1u

/* One instrumented function, as the plugin lays it out. */
typedef struct QuarlRtFunction {
    const char *key;
    uint64_t checksum;
    uint32_t flags; /* QUARL_PROFILE_DIRECT_COUNTS in the naive mode */
    uint32_t num_blocks;
    uint32_t num_nodes;
    uint32_t num_words;
    uint32_t num_counters;
    const uint32_t *words;
    uint64_t *counters;
} QuarlRtFunction;

typedef struct QuarlRtModule {
    uint32_t version; /* QUARL_RT_VERSION */
    uint32_t num_functions;
    const QuarlRtFunction *functions;
    struct QuarlRtModule *next; /* the runtime's list */
} QuarlRtModule;

/* Called from each instrumented module's constructor. */
void __quarl_register_module(QuarlRtModule *module);

#ifdef __cplusplus
}
#endif

#endif /* QUARL_RT_H */
