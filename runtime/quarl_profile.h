/*
 * The Quarl profile file: what an instrumented program writes at exit and
 * what `quarl profile` and the compiler read back. Plain C, shared by the
 * training runtime, the command-line tool and the compiler plugin. The byte
 * layout is described in docs/profile-format.md.
 */
#ifndef QUARL_PROFILE_H
#define QUARL_PROFILE_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

#define QUARL_PROFILE_MAGIC "QUARLPRF"
#define QUARL_PROFILE_VERSION 2u /* version 1 files, without value sites, are read too */

/* Record flag: the counters are the entry counts of the real blocks, one
 * each, instead of Quarl's counters (the plugin's naive counting mode). */
#define QUARL_PROFILE_DIRECT_COUNTS 1u

/* What a value site records. */
#define QUARL_VALUE_CALL_TARGET 0u /* an indirect call's callee: quarl_profile_key_hash() of its key */
#define QUARL_VALUE_MEMOP_SIZE 1u  /* a memcpy, memmove or memset's length in bytes */
#define QUARL_VALUE_KINDS 2u

/* Values kept per site in a file; merging keeps the most frequent. */
#define QUARL_PROFILE_MAX_SITE_VALUES 16u

typedef struct QuarlProfileValue {
    uint64_t value;
    uint64_t count;
} QuarlProfileValue;

/* One value site of a function, in the order of its instructions. */
typedef struct QuarlProfileSite {
    uint32_t kind;       /* QUARL_VALUE_CALL_TARGET or QUARL_VALUE_MEMOP_SIZE */
    uint32_t num_values; /* at most QUARL_PROFILE_MAX_SITE_VALUES */
    uint64_t total;      /* executions of the site, those of values not kept included */
    QuarlProfileValue *values; /* owned */
} QuarlProfileSite;

/* One function's record. */
typedef struct QuarlProfileFunction {
    char *key;         /* symbol name, "FILE:" before it for internal linkage; owned */
    uint64_t checksum; /* of the encoded graph's words */
    uint32_t flags;
    uint32_t num_blocks; /* real blocks; graph nodes 2 .. num_blocks + 1 */
    uint32_t num_nodes;  /* every node of the graph, pseudo and split ones included */
    uint32_t num_words;
    uint32_t num_counters;
    uint32_t *words;    /* the encoded graph; owned */
    uint64_t *counters; /* owned */
    uint32_t num_sites;
    QuarlProfileSite *sites; /* owned */
} QuarlProfileFunction;

typedef struct QuarlProfile {
    QuarlProfileFunction *functions;
    uint32_t count;
    uint32_t capacity;
} QuarlProfile;

#define QUARL_PROFILE_INIT {NULL, 0, 0}

/* Reads a profile from bytes. Returns 1, or 0 with a one-line reason in
 * error (what is wrong and where) and profile left empty. Never reads past
 * size, whatever the bytes. */
int quarl_profile_parse(const uint8_t *bytes, size_t size, QuarlProfile *profile, char *error,
                        size_t error_size);

/* Reads a whole file; 0 with the reason in error when it cannot be opened,
 * read or parsed. */
int quarl_profile_read_file(const char *path, QuarlProfile *profile, char *error,
                            size_t error_size);

/* Adds one function's counts: to the record with the same key, checksum and
 * shape (value sites of the same kinds included), whose counters are summed
 * (modulo 2^64) and whose sites' values are merged, keeping the most
 * frequent QUARL_PROFILE_MAX_SITE_VALUES of each; records of that key with
 * another checksum or shape were made from other code and are replaced by
 * it; otherwise the function is appended. The function's arrays are
 * copied. Returns 0 when memory runs out (the profile is unchanged). */
int quarl_profile_add(QuarlProfile *profile, const QuarlProfileFunction *function);

/* Adds the counts of a whole program's functions (or a whole profile's
 * records) at once. A key may come with several shapes: an inline function
 * or template is compiled into every file that uses it, not always to the
 * same graph, and each file's copy counts on its own. Each function is
 * added to the record of its key and shape, or appended; a key's records
 * whose shape none of the batch's functions of that key has were made from
 * other code and are dropped. Returns 0 when memory runs out, when the
 * profile may hold part of the counts (a batch of one: the profile is
 * unchanged). */
int quarl_profile_add_all(QuarlProfile *profile, const QuarlProfileFunction *functions, uint32_t count);

/* Writes the profile; returns 1, or 0 when a write fails. */
int quarl_profile_write(FILE *out, const QuarlProfile *profile);

void quarl_profile_release(QuarlProfile *profile);

/* 64-bit FNV-1a of the words' little-endian bytes: the checksum that ties
 * a record to the code it was made from. */
uint64_t quarl_profile_checksum(const uint32_t *words, uint32_t num_words);

/* 64-bit FNV-1a of a key's bytes: how call-target values name functions. */
uint64_t quarl_profile_key_hash(const char *key);

#ifdef __cplusplus
}
#endif

#endif /* QUARL_PROFILE_H */
