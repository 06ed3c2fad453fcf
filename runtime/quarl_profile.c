/* Reading, merging and writing profile files. Everything read is checked
 * against the bytes that are there: a damaged file gives a reason, never a
 * crash. */
#include "quarl_profile.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

/* Longest key accepted; a real symbol name is far shorter. */
#define MAX_KEY_BYTES 65536u

typedef struct Reader {
    const uint8_t *bytes;
    size_t size;
    size_t at;
} Reader;

static int take(Reader *reader, void *out, size_t count)
{
    if (count > reader->size - reader->at)
        return 0;
    if (count != 0)
        memcpy(out, reader->bytes + reader->at, count);
    reader->at += count;
    return 1;
}

static int take_u32(Reader *reader, uint32_t *value)
{
    uint8_t b[4];
    if (!take(reader, b, 4))
        return 0;
    *value = (uint32_t)b[0] | (uint32_t)b[1] << 8 | (uint32_t)b[2] << 16 | (uint32_t)b[3] << 24;
    return 1;
}

static int take_u64(Reader *reader, uint64_t *value)
{
    uint32_t low, high;
    if (!take_u32(reader, &low) || !take_u32(reader, &high))
        return 0;
    *value = (uint64_t)high << 32 | low;
    return 1;
}

static void release_sites(QuarlProfileSite *sites, uint32_t num_sites)
{
    for (uint32_t i = 0; sites != NULL && i < num_sites; ++i)
        free(sites[i].values);
    free(sites);
}

static void release_function(QuarlProfileFunction *function)
{
    free(function->key);
    free(function->words);
    free(function->counters);
    release_sites(function->sites, function->num_sites);
}

void quarl_profile_release(QuarlProfile *profile)
{
    for (uint32_t i = 0; i < profile->count; ++i)
        release_function(&profile->functions[i]);
    free(profile->functions);
    profile->functions = NULL;
    profile->count = profile->capacity = 0;
}

static int fail(char *error, size_t error_size, QuarlProfile *profile, const char *reason,
                uint32_t index)
{
    if (error_size > 0)
        snprintf(error, error_size, reason, index);
    quarl_profile_release(profile);
    return 0;
}

static int append(QuarlProfile *profile, const QuarlProfileFunction *function)
{
    if (profile->count == profile->capacity) {
        uint32_t capacity = profile->capacity < 16 ? 16 : profile->capacity * 2;
        if (capacity <= profile->capacity)
            return 0;
        QuarlProfileFunction *grown =
            realloc(profile->functions, (size_t)capacity * sizeof(QuarlProfileFunction));
        if (grown == NULL)
            return 0;
        profile->functions = grown;
        profile->capacity = capacity;
    }
    profile->functions[profile->count++] = *function;
    return 1;
}

/* One record; the arrays are sized only after the bytes for them are known
 * to be there. */
static const char *parse_sites(Reader *reader, QuarlProfileFunction *f)
{
    const size_t site_header_bytes = 16, value_bytes = 16;
    if (!take_u32(reader, &f->num_sites))
        return "truncated in the value sites of function %u";
    if ((uint64_t)f->num_sites * site_header_bytes > reader->size - reader->at)
        return "truncated in the value sites of function %u";
    f->sites = calloc((size_t)f->num_sites + 1, sizeof *f->sites);
    if (f->sites == NULL)
        return "out of memory at function %u";
    for (uint32_t i = 0; i < f->num_sites; ++i) {
        QuarlProfileSite *site = &f->sites[i];
        if (!take_u32(reader, &site->kind) || !take_u32(reader, &site->num_values) ||
            !take_u64(reader, &site->total))
            return "truncated in the value sites of function %u";
        if (site->kind >= QUARL_VALUE_KINDS)
            return "function %u has a value site of unknown kind";
        if (site->num_values > QUARL_PROFILE_MAX_SITE_VALUES)
            return "function %u has a value site with too many values";
        if ((uint64_t)site->num_values * value_bytes > reader->size - reader->at)
            return "truncated in the value sites of function %u";
        site->values = malloc((size_t)site->num_values * sizeof *site->values + 1);
        if (site->values == NULL)
            return "out of memory at function %u";
        for (uint32_t v = 0; v < site->num_values; ++v) {
            take_u64(reader, &site->values[v].value);
            take_u64(reader, &site->values[v].count);
        }
    }
    return NULL;
}

static const char *parse_function(Reader *reader, uint32_t version, QuarlProfileFunction *f)
{
    uint32_t key_bytes;
    memset(f, 0, sizeof *f);
    if (!take_u32(reader, &key_bytes))
        return "truncated in the key of function %u";
    if (key_bytes == 0 || key_bytes > MAX_KEY_BYTES)
        return "function %u has a key length out of range";
    if (key_bytes > reader->size - reader->at)
        return "truncated in the key of function %u";
    f->key = malloc(key_bytes + 1);
    if (f->key == NULL)
        return "out of memory at function %u";
    take(reader, f->key, key_bytes);
    f->key[key_bytes] = '\0';
    if (memchr(f->key, '\0', key_bytes) != NULL)
        return "function %u has a key with a zero byte";
    uint32_t padding = (4 - key_bytes % 4) % 4;
    uint8_t pad[3];
    if (!take(reader, pad, padding) || !take_u64(reader, &f->checksum) ||
        !take_u32(reader, &f->flags) || !take_u32(reader, &f->num_blocks) ||
        !take_u32(reader, &f->num_nodes) || !take_u32(reader, &f->num_words) ||
        !take_u32(reader, &f->num_counters))
        return "truncated in the header of function %u";
    if (f->flags & ~QUARL_PROFILE_DIRECT_COUNTS)
        return "function %u has unknown flags";
    if (f->num_nodes < 2 || f->num_blocks > f->num_nodes - 2)
        return "function %u has more blocks than graph nodes";
    if ((f->flags & QUARL_PROFILE_DIRECT_COUNTS) && f->num_counters != f->num_blocks)
        return "function %u has direct counts that do not match its blocks";
    /* Readers size arrays by the nodes: no graph that decodes has more than
     * this many, and the bound keeps them linear in the file's size. */
    if (f->num_nodes > (uint64_t)f->num_words * 4 + 1024)
        return "function %u has more graph nodes than its words can hold";
    if ((uint64_t)f->num_words * 4 + (uint64_t)f->num_counters * 8 > reader->size - reader->at)
        return "truncated in the words or counters of function %u";
    f->words = malloc((size_t)f->num_words * 4 + 1);
    f->counters = malloc((size_t)f->num_counters * 8 + 1);
    if (f->words == NULL || f->counters == NULL)
        return "out of memory at function %u";
    for (uint32_t i = 0; i < f->num_words; ++i)
        take_u32(reader, &f->words[i]);
    for (uint32_t i = 0; i < f->num_counters; ++i)
        take_u64(reader, &f->counters[i]);
    return version >= 2 ? parse_sites(reader, f) : NULL;
}

int quarl_profile_parse(const uint8_t *bytes, size_t size, QuarlProfile *profile, char *error,
                        size_t error_size)
{
    Reader reader = {bytes, size, 0};
    char magic[8];
    uint32_t version, count;
    profile->functions = NULL;
    profile->count = profile->capacity = 0;
    if (!take(&reader, magic, 8) || memcmp(magic, QUARL_PROFILE_MAGIC, 8) != 0)
        return fail(error, error_size, profile, "not a Quarl profile (no QUARLPRF header)", 0);
    if (!take_u32(&reader, &version) || !take_u32(&reader, &count))
        return fail(error, error_size, profile, "truncated in the file header", 0);
    if (version != 1 && version != QUARL_PROFILE_VERSION)
        return fail(error, error_size, profile,
                    "profile version %u is not supported (this reads versions 1 and 2)", version);
    for (uint32_t i = 0; i < count; ++i) {
        QuarlProfileFunction function;
        const char *problem = parse_function(&reader, version, &function);
        if (problem == NULL && !append(profile, &function))
            problem = "out of memory at function %u";
        if (problem != NULL) {
            release_function(&function);
            return fail(error, error_size, profile, problem, i);
        }
    }
    if (reader.at != size)
        return fail(error, error_size, profile, "%u bytes after the last function", (uint32_t)(size - reader.at));
    return 1;
}

int quarl_profile_read_file(const char *path, QuarlProfile *profile, char *error,
                            size_t error_size)
{
    profile->functions = NULL;
    profile->count = profile->capacity = 0;
    FILE *in = fopen(path, "rb");
    if (in == NULL) {
        snprintf(error, error_size, "cannot open: %s", strerror(errno));
        return 0;
    }
    uint8_t *bytes = NULL;
    size_t size = 0, capacity = 0;
    for (;;) {
        if (size == capacity) {
            size_t grown_capacity = capacity == 0 ? 65536 : capacity * 2;
            uint8_t *grown = grown_capacity > capacity ? realloc(bytes, grown_capacity) : NULL;
            if (grown == NULL) {
                free(bytes);
                fclose(in);
                snprintf(error, error_size, "out of memory");
                return 0;
            }
            bytes = grown;
            capacity = grown_capacity;
        }
        size_t got = fread(bytes + size, 1, capacity - size, in);
        size += got;
        if (got == 0)
            break;
    }
    int read_error = ferror(in);
    fclose(in);
    int parsed = !read_error && quarl_profile_parse(bytes, size, profile, error, error_size);
    if (read_error)
        snprintf(error, error_size, "read error");
    free(bytes);
    return parsed;
}

static int same_shape(const QuarlProfileFunction *a, const QuarlProfileFunction *b)
{
    if (a->num_sites != b->num_sites)
        return 0;
    for (uint32_t i = 0; i < a->num_sites; ++i)
        if (a->sites[i].kind != b->sites[i].kind)
            return 0;
    return a->checksum == b->checksum && a->flags == b->flags && a->num_blocks == b->num_blocks &&
           a->num_nodes == b->num_nodes && a->num_words == b->num_words &&
           a->num_counters == b->num_counters &&
           memcmp(a->words, b->words, (size_t)a->num_words * 4) == 0;
}

static int copy_sites(QuarlProfileFunction *copy, const QuarlProfileFunction *f)
{
    copy->sites = calloc((size_t)f->num_sites + 1, sizeof *copy->sites);
    if (copy->sites == NULL)
        return 0;
    for (uint32_t i = 0; i < f->num_sites; ++i) {
        size_t bytes = (size_t)f->sites[i].num_values * sizeof(QuarlProfileValue);
        copy->sites[i] = f->sites[i];
        copy->sites[i].values = malloc(bytes + 1);
        if (copy->sites[i].values == NULL)
            return 0;
        if (bytes != 0)
            memcpy(copy->sites[i].values, f->sites[i].values, bytes);
    }
    return 1;
}

static int copy_function(QuarlProfileFunction *copy, const QuarlProfileFunction *f)
{
    size_t key_bytes = strlen(f->key) + 1;
    *copy = *f;
    copy->key = malloc(key_bytes);
    copy->words = malloc((size_t)f->num_words * 4 + 1);
    copy->counters = malloc((size_t)f->num_counters * 8 + 1);
    copy->sites = NULL;
    if (copy->key == NULL || copy->words == NULL || copy->counters == NULL || !copy_sites(copy, f)) {
        release_function(copy);
        return 0;
    }
    memcpy(copy->key, f->key, key_bytes);
    memcpy(copy->words, f->words, (size_t)f->num_words * 4);
    memcpy(copy->counters, f->counters, (size_t)f->num_counters * 8);
    return 1;
}

static int more_frequent_first(const void *a, const void *b)
{
    const QuarlProfileValue *x = a, *y = b;
    if (x->count != y->count)
        return x->count > y->count ? -1 : 1;
    return x->value < y->value ? -1 : x->value > y->value;
}

/* The values of two runs of one site: counts of equal values summed, the
 * most frequent kept. NULL when memory runs out. */
static QuarlProfileValue *merged_values(const QuarlProfileSite *a, const QuarlProfileSite *b,
                                        uint32_t *num_values)
{
    QuarlProfileValue *values = malloc(((size_t)a->num_values + b->num_values) * sizeof *values + 1);
    if (values == NULL)
        return NULL;
    uint32_t count = a->num_values;
    if (count != 0)
        memcpy(values, a->values, (size_t)count * sizeof *values);
    for (uint32_t i = 0; i < b->num_values; ++i) {
        uint32_t at = 0;
        while (at < count && values[at].value != b->values[i].value)
            ++at;
        if (at == count)
            values[count++] = (QuarlProfileValue){b->values[i].value, 0};
        values[at].count += b->values[i].count;
    }
    qsort(values, count, sizeof *values, more_frequent_first);
    *num_values = count < QUARL_PROFILE_MAX_SITE_VALUES ? count : QUARL_PROFILE_MAX_SITE_VALUES;
    return values;
}

/* Sums the function's counts into a record of the same shape; the merged
 * sites are all made before anything changes. */
static int add_into(QuarlProfileFunction *existing, const QuarlProfileFunction *function)
{
    uint32_t num_sites = existing->num_sites;
    QuarlProfileValue **values = NULL;
    uint32_t *num_values = NULL;
    if (num_sites != 0) {
        values = calloc(num_sites, sizeof *values);
        num_values = calloc(num_sites, sizeof *num_values);
        int ok = values != NULL && num_values != NULL;
        for (uint32_t i = 0; ok && i < num_sites; ++i) {
            values[i] = merged_values(&existing->sites[i], &function->sites[i], &num_values[i]);
            ok = values[i] != NULL;
        }
        if (!ok) {
            for (uint32_t i = 0; values != NULL && i < num_sites; ++i)
                free(values[i]);
            free(values);
            free(num_values);
            return 0;
        }
    }
    for (uint32_t c = 0; c < function->num_counters; ++c)
        existing->counters[c] += function->counters[c];
    for (uint32_t i = 0; i < num_sites; ++i) {
        QuarlProfileSite *site = &existing->sites[i];
        free(site->values);
        site->values = values[i];
        site->num_values = num_values[i];
        site->total += function->sites[i].total;
    }
    free(values);
    free(num_values);
    return 1;
}

static int by_key_of_function(const void *a, const void *b)
{
    return strcmp((*(const QuarlProfileFunction *const *)a)->key, (*(const QuarlProfileFunction *const *)b)->key);
}

/* True when the batch (sorted by key) has functions of the record's key,
 * none of them of its shape: the record was made from other code. */
static int replaced_by(const QuarlProfileFunction *record, const QuarlProfileFunction **sorted, uint32_t count)
{
    uint32_t low = 0, high = count;
    while (low < high) { /* the first function whose key is not below the record's */
        uint32_t middle = low + (high - low) / 2;
        if (strcmp(sorted[middle]->key, record->key) < 0)
            low = middle + 1;
        else
            high = middle;
    }
    int has_key = 0;
    for (uint32_t i = low; i < count && strcmp(sorted[i]->key, record->key) == 0; ++i) {
        has_key = 1;
        if (same_shape(sorted[i], record))
            return 0;
    }
    return has_key;
}

int quarl_profile_add_all(QuarlProfile *profile, const QuarlProfileFunction *functions, uint32_t count)
{
    const QuarlProfileFunction **sorted = malloc(sizeof *sorted * count + 1);
    if (sorted == NULL)
        return 0;
    for (uint32_t i = 0; i < count; ++i)
        sorted[i] = &functions[i];
    qsort(sorted, count, sizeof *sorted, by_key_of_function);
    int ok = 1;
    for (uint32_t f = 0; ok && f < count; ++f) {
        const QuarlProfileFunction *function = &functions[f];
        QuarlProfileFunction *same = NULL;
        for (uint32_t i = 0; same == NULL && i < profile->count; ++i)
            if (strcmp(profile->functions[i].key, function->key) == 0 && same_shape(&profile->functions[i], function))
                same = &profile->functions[i];
        QuarlProfileFunction copy;
        if (same != NULL)
            ok = add_into(same, function);
        else if ((ok = copy_function(&copy, function)) && !(ok = append(profile, &copy)))
            release_function(&copy);
    }
    /* Then what the batch replaces: records of its keys in no shape of it. */
    uint32_t kept = 0;
    for (uint32_t i = 0; ok && i < profile->count; ++i) {
        if (replaced_by(&profile->functions[i], sorted, count))
            release_function(&profile->functions[i]);
        else
            profile->functions[kept++] = profile->functions[i];
    }
    if (ok)
        profile->count = kept;
    free(sorted);
    return ok;
}

int quarl_profile_add(QuarlProfile *profile, const QuarlProfileFunction *function)
{
    return quarl_profile_add_all(profile, function, 1);
}

static int put_u32(FILE *out, uint32_t value)
{
    uint8_t b[4] = {(uint8_t)value, (uint8_t)(value >> 8), (uint8_t)(value >> 16), (uint8_t)(value >> 24)};
    return fwrite(b, 1, 4, out) == 4;
}

static int put_u64(FILE *out, uint64_t value)
{
    return put_u32(out, (uint32_t)value) && put_u32(out, (uint32_t)(value >> 32));
}

int quarl_profile_write(FILE *out, const QuarlProfile *profile)
{
    int ok = fwrite(QUARL_PROFILE_MAGIC, 1, 8, out) == 8 && put_u32(out, QUARL_PROFILE_VERSION) &&
             put_u32(out, profile->count);
    for (uint32_t i = 0; ok && i < profile->count; ++i) {
        const QuarlProfileFunction *f = &profile->functions[i];
        uint32_t key_bytes = (uint32_t)strlen(f->key);
        static const uint8_t zeros[3] = {0, 0, 0};
        ok = put_u32(out, key_bytes) && fwrite(f->key, 1, key_bytes, out) == key_bytes &&
             fwrite(zeros, 1, (4 - key_bytes % 4) % 4, out) == (4 - key_bytes % 4) % 4 &&
             put_u64(out, f->checksum) && put_u32(out, f->flags) && put_u32(out, f->num_blocks) &&
             put_u32(out, f->num_nodes) && put_u32(out, f->num_words) &&
             put_u32(out, f->num_counters);
        for (uint32_t w = 0; ok && w < f->num_words; ++w)
            ok = put_u32(out, f->words[w]);
        for (uint32_t c = 0; ok && c < f->num_counters; ++c)
            ok = put_u64(out, f->counters[c]);
        ok = ok && put_u32(out, f->num_sites);
        for (uint32_t i = 0; ok && i < f->num_sites; ++i) {
            const QuarlProfileSite *site = &f->sites[i];
            ok = put_u32(out, site->kind) && put_u32(out, site->num_values) && put_u64(out, site->total);
            for (uint32_t v = 0; ok && v < site->num_values; ++v)
                ok = put_u64(out, site->values[v].value) && put_u64(out, site->values[v].count);
        }
    }
    return ok && fflush(out) == 0;
}

#define FNV_OFFSET_BASIS 0xcbf29ce484222325ull
#define FNV_PRIME 0x100000001b3ull

uint64_t quarl_profile_checksum(const uint32_t *words, uint32_t num_words)
{
    uint64_t hash = FNV_OFFSET_BASIS;
    for (uint32_t i = 0; i < num_words; ++i)
        for (int shift = 0; shift < 32; shift += 8) {
            hash ^= (uint8_t)(words[i] >> shift);
            hash *= FNV_PRIME;
        }
    return hash;
}

uint64_t quarl_profile_key_hash(const char *key)
{
    uint64_t hash = FNV_OFFSET_BASIS;
    for (const char *c = key; *c != '\0'; ++c) {
        hash ^= (uint8_t)*c;
        hash *= FNV_PRIME;
    }
    return hash;
}
