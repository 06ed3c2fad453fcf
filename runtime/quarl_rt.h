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

#define QUARL_RT_VERSION 2u

/* Values a site tells apart while the program runs. */
#define QUARL_RT_SITE_VALUES 8

/* One value site: an indirect call or a memory operation of unknown length,
 * the kinds of quarl_profile.h. A slot holds value + 1, 0 while free; the
 * first QUARL_RT_SITE_VALUES distinct values take the slots, later ones
 * count in other. Counts are atomic when the flags say so (the plugin's
 * atomic mode), plain updates otherwise, as counters are. */
#define QUARL_RT_SITE_ATOMIC 1u

typedef struct QuarlRtValueSite {
    uint32_t kind;
    uint32_t flags;
    uint64_t other; /* executions whose value has no slot */
    uint64_t values[QUARL_RT_SITE_VALUES];
    uint64_t counts[QUARL_RT_SITE_VALUES];
} QuarlRtValueSite;

/* A function of the module whose address is taken, so that a call-target
 * value can name it. */
typedef struct QuarlRtTarget {
    const void *address;
    uint64_t key_hash; /* quarl_profile_key_hash() of its key */
} QuarlRtTarget;

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
    uint32_t num_sites;
    QuarlRtValueSite *sites;
} QuarlRtFunction;

typedef struct QuarlRtModule {
    uint32_t version; /* QUARL_RT_VERSION */
    uint32_t num_functions;
    const QuarlRtFunction *functions;
    struct QuarlRtModule *next; /* the runtime's list */
    uint32_t num_targets;
    const QuarlRtTarget *targets;
} QuarlRtModule;

/* Called from each instrumented module's constructor. */
void __quarl_register_module(QuarlRtModule *module);

/* Called before each value site runs: the callee's address, or the length
 * of a memory operation. Only the lengths the optimiser can specialise for
 * (0 to 8 and powers of two) are told apart; the others count in the
 * site's other executions. */
void __quarl_record_target(QuarlRtValueSite *site, const void *callee);
void __quarl_record_size(QuarlRtValueSite *site, uint64_t size);

#ifdef __cplusplus
}
#endif

#endif /* QUARL_RT_H */
