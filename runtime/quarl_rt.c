/* The training runtime: keeps the modules' tables, and writes the profile
 * at exit or on demand. Concurrent processes writing one file serialise on
 * a lock file beside it; each reads the file, adds its counts, writes a
 * temporary file and renames it over the old one, so nothing is lost and a
 * crash mid-write leaves the old file whole. */
#define _GNU_SOURCE
#include "quarl_rt.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "quarl_profile.h"

static QuarlRtModule *g_modules;
static pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;

static void zero_counters(void)
{
    for (QuarlRtModule *m = g_modules; m != NULL; m = m->next)
        for (uint32_t f = 0; f < m->num_functions; ++f) {
            memset(m->functions[f].counters, 0, (size_t)m->functions[f].num_counters * 8);
            for (uint32_t i = 0; i < m->functions[f].num_sites; ++i) {
                QuarlRtValueSite *site = &m->functions[f].sites[i];
                site->other = 0;
                memset(site->values, 0, sizeof site->values);
                memset(site->counts, 0, sizeof site->counts);
            }
        }
}

static void count(uint64_t *counter, uint32_t flags)
{
    if (flags & QUARL_RT_SITE_ATOMIC)
        __atomic_fetch_add(counter, 1, __ATOMIC_RELAXED);
    else /* a plain increment, as plain counters are (a locked one costs tens of cycles) */
        __atomic_store_n(counter, __atomic_load_n(counter, __ATOMIC_RELAXED) + 1, __ATOMIC_RELAXED);
}

/* A free slot is claimed with a compare and swap, so that two threads
 * never hold one value in two slots. */
static void record_value(QuarlRtValueSite *site, uint64_t value)
{
    uint64_t stored = value + 1;
    for (int i = 0; stored != 0 && i < QUARL_RT_SITE_VALUES; ++i) {
        uint64_t seen = __atomic_load_n(&site->values[i], __ATOMIC_RELAXED);
        if (seen == 0 && __atomic_compare_exchange_n(&site->values[i], &seen, stored, 0, __ATOMIC_RELAXED,
                                                     __ATOMIC_RELAXED))
            seen = stored;
        if (seen == stored) {
            count(&site->counts[i], site->flags);
            return;
        }
    }
    count(&site->other, site->flags);
}

void __quarl_record_target(QuarlRtValueSite *site, const void *callee)
{
    record_value(site, (uint64_t)(uintptr_t)callee);
}

void __quarl_record_size(QuarlRtValueSite *site, uint64_t size)
{
    if (size <= 8 || (size & (size - 1)) == 0)
        record_value(site, size);
    else
        count(&site->other, site->flags);
}

/* A forked child starts with its parent's counts; it writes only its own. */
static void after_fork_in_child(void) { zero_counters(); }

static void write_at_exit(void) { quarl_profile_dump(); }

void __quarl_register_module(QuarlRtModule *module)
{
    if (module->version != QUARL_RT_VERSION) {
        fprintf(stderr, "quarl: module built for runtime version %u, this is version %u; its counts are not written\n",
                module->version, QUARL_RT_VERSION);
        return;
    }
    pthread_mutex_lock(&g_lock);
    if (g_modules == NULL) {
        atexit(write_at_exit);
        pthread_atfork(NULL, NULL, after_fork_in_child);
    }
    module->next = g_modules;
    g_modules = module;
    pthread_mutex_unlock(&g_lock);
}

/* QUARL_PROFILE_FILE, or default.quarlprof, with "%p" made the process id. */
static int profile_path(char *path, size_t size)
{
    const char *pattern = getenv("QUARL_PROFILE_FILE");
    if (pattern == NULL || *pattern == '\0')
        pattern = "default.quarlprof";
    size_t at = 0;
    for (const char *c = pattern; *c != '\0'; ++c) {
        int wrote;
        if (c[0] == '%' && c[1] == 'p') {
            wrote = snprintf(path + at, size - at, "%ld", (long)getpid());
            ++c;
        } else {
            wrote = snprintf(path + at, size - at, "%c", *c);
        }
        if (wrote < 0 || (size_t)wrote >= size - at)
            return 0;
        at += (size_t)wrote;
    }
    return 1;
}

static int by_address(const void *a, const void *b)
{
    uintptr_t x = (uintptr_t)((const QuarlRtTarget *)a)->address;
    uintptr_t y = (uintptr_t)((const QuarlRtTarget *)b)->address;
    return x < y ? -1 : x > y;
}

/* Every module's call targets, sorted by address. */
static QuarlRtTarget *all_targets(size_t *count)
{
    size_t n = 0;
    for (QuarlRtModule *m = g_modules; m != NULL; m = m->next)
        n += m->num_targets;
    QuarlRtTarget *targets = malloc(n * sizeof *targets + 1);
    if (targets == NULL)
        return NULL;
    n = 0;
    for (QuarlRtModule *m = g_modules; m != NULL; m = m->next) {
        if (m->num_targets != 0)
            memcpy(targets + n, m->targets, m->num_targets * sizeof *targets);
        n += m->num_targets;
    }
    qsort(targets, n, sizeof *targets, by_address);
    *count = n;
    return targets;
}

/* A site's values as the profile keeps them: callees named by their keys'
 * hashes (a callee outside the instrumented modules counts in the total
 * only), sizes as they are. */
static void site_values(const QuarlRtValueSite *rt, QuarlProfileSite *site, QuarlProfileValue *values,
                        const QuarlRtTarget *targets, size_t num_targets)
{
    site->kind = rt->kind;
    site->total = rt->other;
    site->num_values = 0;
    site->values = values;
    for (int i = 0; i < QUARL_RT_SITE_VALUES; ++i) {
        site->total += rt->counts[i];
        if (rt->values[i] == 0 || rt->counts[i] == 0)
            continue;
        uint64_t value = rt->values[i] - 1;
        if (rt->kind == QUARL_VALUE_CALL_TARGET) {
            QuarlRtTarget wanted = {(const void *)(uintptr_t)value, 0};
            const QuarlRtTarget *found = bsearch(&wanted, targets, num_targets, sizeof *targets, by_address);
            if (found == NULL)
                continue;
            value = found->key_hash;
        }
        values[site->num_values++] = (QuarlProfileValue){value, rt->counts[i]};
    }
}

/* A function ran when any of its counters or value sites counted. */
static int function_ran(const QuarlRtFunction *f)
{
    for (uint32_t c = 0; c < f->num_counters; ++c)
        if (f->counters[c] != 0)
            return 1;
    for (uint32_t i = 0; i < f->num_sites; ++i) {
        if (f->sites[i].other != 0)
            return 1;
        for (int v = 0; v < QUARL_RT_SITE_VALUES; ++v)
            if (f->sites[i].counts[v] != 0)
                return 1;
    }
    return 0;
}

static int by_key(const void *a, const void *b)
{
    return strcmp(*(const char *const *)a, *(const char *const *)b);
}

/* The keys of the functions that ran, sorted; NULL when memory runs out. */
static const char **keys_that_ran(size_t *count)
{
    size_t n = 0;
    for (QuarlRtModule *m = g_modules; m != NULL; m = m->next)
        n += m->num_functions;
    const char **keys = malloc(n * sizeof *keys + 1);
    if (keys == NULL)
        return NULL;
    n = 0;
    for (QuarlRtModule *m = g_modules; m != NULL; m = m->next)
        for (uint32_t f = 0; f < m->num_functions; ++f)
            if (function_ran(&m->functions[f]))
                keys[n++] = m->functions[f].key;
    qsort(keys, n, sizeof *keys, by_key);
    *count = n;
    return keys;
}

static int add_counts(QuarlProfile *profile)
{
    size_t num_targets = 0, num_ran = 0, num_functions = 0, num_sites = 0;
    for (QuarlRtModule *m = g_modules; m != NULL; m = m->next)
        for (uint32_t f = 0; f < m->num_functions; ++f) {
            num_functions++;
            num_sites += m->functions[f].num_sites;
        }
    QuarlRtTarget *targets = all_targets(&num_targets);
    const char **ran = keys_that_ran(&num_ran);
    QuarlProfileFunction *functions = malloc(num_functions * sizeof *functions + 1);
    QuarlProfileSite *sites = malloc(num_sites * sizeof *sites + 1);
    QuarlProfileValue *values = malloc(num_sites * QUARL_RT_SITE_VALUES * sizeof *values + 1);
    int ok = targets != NULL && ran != NULL && functions != NULL && sites != NULL && values != NULL;
    uint32_t count = 0;
    size_t site_at = 0;
    for (QuarlRtModule *m = g_modules; ok && m != NULL; m = m->next)
        for (uint32_t f = 0; f < m->num_functions; ++f) {
            const QuarlRtFunction *rt = &m->functions[f];
            /* An inline function or template is in every module that uses
             * it: copies of it that never ran, when another did (the linker
             * kept that one, and the others were not inlined anywhere), tell
             * nothing and are left out. */
            if (!function_ran(rt) && bsearch(&rt->key, ran, num_ran, sizeof *ran, by_key) != NULL)
                continue;
            QuarlProfileSite *own = sites + site_at;
            for (uint32_t i = 0; i < rt->num_sites; ++i, ++site_at)
                site_values(&rt->sites[i], &sites[site_at], values + site_at * QUARL_RT_SITE_VALUES, targets,
                            num_targets);
            functions[count++] = (QuarlProfileFunction){(char *)rt->key, rt->checksum, rt->flags, rt->num_blocks,
                                                        rt->num_nodes, rt->num_words, rt->num_counters,
                                                        (uint32_t *)rt->words, rt->counters, rt->num_sites, own};
        }
    ok = ok && quarl_profile_add_all(profile, functions, count);
    free(targets);
    free(ran);
    free(functions);
    free(sites);
    free(values);
    return ok;
}

/* A profile named by a device or a pipe (/dev/null to discard the counts,
 * a FIFO read by another process) gets this run's counts written straight
 * to it: renaming a file over it would replace it. */
static int write_in_place(const char *path)
{
    QuarlProfile profile = QUARL_PROFILE_INIT;
    int ok = add_counts(&profile);
    FILE *out = ok ? fopen(path, "wb") : NULL;
    ok = out != NULL && quarl_profile_write(out, &profile);
    if (out != NULL && fclose(out) != 0)
        ok = 0;
    if (!ok)
        fprintf(stderr, "quarl: cannot write profile %s: %s\n", path, strerror(errno));
    quarl_profile_release(&profile);
    return ok;
}

/* Under the lock: the old profile (if any and readable) plus our counts, to
 * a temporary file renamed over the old one. */
static int merge_into(const char *path)
{
    QuarlProfile profile = QUARL_PROFILE_INIT;
    char error[256];
    if (access(path, F_OK) == 0 && !quarl_profile_read_file(path, &profile, error, sizeof error))
        fprintf(stderr, "quarl: %s: %s; starting it afresh\n", path, error);
    char temporary[4200];
    snprintf(temporary, sizeof temporary, "%s.tmp.%ld", path, (long)getpid());
    int ok = add_counts(&profile);
    FILE *out = ok ? fopen(temporary, "wb") : NULL;
    ok = out != NULL && quarl_profile_write(out, &profile) && fsync(fileno(out)) == 0;
    if (out != NULL && fclose(out) != 0)
        ok = 0;
    if (ok && rename(temporary, path) != 0)
        ok = 0;
    if (!ok) {
        fprintf(stderr, "quarl: cannot write profile %s: %s\n", path, strerror(errno));
        unlink(temporary);
    }
    quarl_profile_release(&profile);
    return ok;
}

int quarl_profile_dump(void)
{
    char path[4096], lock_path[4200];
    if (!profile_path(path, sizeof path)) {
        fprintf(stderr, "quarl: QUARL_PROFILE_FILE is too long\n");
        return -1;
    }
    snprintf(lock_path, sizeof lock_path, "%s.lock", path);
    pthread_mutex_lock(&g_lock);
    struct stat status;
    if (stat(path, &status) == 0 && !S_ISREG(status.st_mode)) {
        int written = write_in_place(path);
        if (written)
            zero_counters();
        pthread_mutex_unlock(&g_lock);
        return written ? 0 : -1;
    }
    int lock = open(lock_path, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (lock < 0 || flock(lock, LOCK_EX) != 0) {
        fprintf(stderr, "quarl: cannot lock %s: %s\n", lock_path, strerror(errno));
        if (lock >= 0)
            close(lock);
        pthread_mutex_unlock(&g_lock);
        return -1;
    }
    int ok = merge_into(path);
    if (ok)
        zero_counters();
    flock(lock, LOCK_UN);
    close(lock);
    pthread_mutex_unlock(&g_lock);
    return ok ? 0 : -1;
}
