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
#define QUARL_PROFILE_VERSION 1u

/* Record flag: the counters are the entry counts of the real blocks, one
 * each, instead of Quarl's counters (the plugin's naive counting mode). */
#define QUARL_PROFILE_DIRECT_COUNTS 1u

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
 * shape, whose counters are summed (modulo 2^64); a record of that key with
 * another checksum or shape was made from other code and is replaced;
 * otherwise the function is appended. The function's arrays are copied.
 * Returns 0 when memory runs out (the profile is unchanged). */
int quarl_profile_add(QuarlProfile *profile, const QuarlProfileFunction *function);

/* Writes the profile; returns 1, or 0 when a write fails. */
int quarl_profile_write(FILE *out, const QuarlProfile *profile);

void quarl_profile_release(QuarlProfile *profile);

/* 64-bit FNV-1a of the words' little-endian bytes: the checksum that ties
 * a record to the code it was made from. */
uint64_t quarl_profile_checksum(const uint32_t *words, uint32_t num_words);

#ifdef __cplusplus
}
#endif

#endif /* QUARL_PROFILE_H */
