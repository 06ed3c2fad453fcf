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
#include <unistd.h>

#include "quarl_profile.h"

static QuarlRtModule *g_modules;
static pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;

static void zero_counters(void)
{
    for (QuarlRtModule *m = g_modules; m != NULL; m = m->next)
        for (uint32_t f = 0; f < m->num_functions; ++f)
            memset(m->functions[f].counters, 0, (size_t)m->functions[f].num_counters * 8);
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

static int add_counts(QuarlProfile *profile)
{
    for (QuarlRtModule *m = g_modules; m != NULL; m = m->next)
        for (uint32_t f = 0; f < m->num_functions; ++f) {
            const QuarlRtFunction *rt = &m->functions[f];
            QuarlProfileFunction function = {(char *)rt->key, rt->checksum, rt->flags, rt->num_blocks,
                                             rt->num_nodes, rt->num_words, rt->num_counters,
                                             (uint32_t *)rt->words, rt->counters};
            if (!quarl_profile_add(profile, &function))
                return 0;
        }
    return 1;
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
