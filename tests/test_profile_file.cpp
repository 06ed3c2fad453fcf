// The profile file: records with value sites written and read back, version
// 1 files, merging of counters and values, and damaged value sites.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "quarl_profile.h"

namespace {

// A profile file built byte by byte, little-endian.
struct Bytes {
    std::vector<uint8_t> data;
    Bytes &u32(uint32_t v)
    {
        for (int shift = 0; shift < 32; shift += 8)
            data.push_back(uint8_t(v >> shift));
        return *this;
    }
    Bytes &u64(uint64_t v) { return u32(uint32_t(v)).u32(uint32_t(v >> 32)); }
    Bytes &text(const std::string &s)
    {
        for (char c : s)
            data.push_back(uint8_t(c));
        return *this;
    }
};

// One record of key "f": 1 block, 3 nodes, 2 words, 1 counter (7); the
// sites follow when the version has them.
Bytes file_with_record(uint32_t version)
{
    Bytes b;
    b.text(QUARL_PROFILE_MAGIC).u32(version).u32(1);
    b.u32(1).text("f").text(std::string(3, '\0')).u64(0x1234).u32(0).u32(1).u32(3).u32(2).u32(1);
    b.u32(0xa).u32(0xb).u64(7);
    return b;
}

struct Parsed {
    QuarlProfile profile = QUARL_PROFILE_INIT;
    bool ok = false;
    std::string error;
    explicit Parsed(const std::vector<uint8_t> &bytes)
    {
        char message[256] = "";
        ok = quarl_profile_parse(bytes.data(), bytes.size(), &profile, message, sizeof message) == 1;
        error = message;
    }
    ~Parsed() { quarl_profile_release(&profile); }
};

std::vector<uint8_t> written(const QuarlProfile &profile)
{
    char *buffer = nullptr;
    size_t size = 0;
    FILE *out = open_memstream(&buffer, &size);
    EXPECT_EQ(quarl_profile_write(out, &profile), 1);
    fclose(out);
    std::vector<uint8_t> bytes(buffer, buffer + size);
    free(buffer);
    return bytes;
}

// A record of key "f" with the given sites over one counter.
struct Record {
    std::vector<std::vector<QuarlProfileValue>> values;
    std::vector<QuarlProfileSite> sites;
    uint32_t words[2] = {0xa, 0xb};
    uint64_t counter = 7;
    QuarlProfileFunction function{};

    Record(std::vector<uint32_t> kinds, std::vector<std::vector<QuarlProfileValue>> site_values,
           std::vector<uint64_t> totals)
        : values(std::move(site_values))
    {
        for (size_t i = 0; i < kinds.size(); ++i)
            sites.push_back({kinds[i], uint32_t(values[i].size()), totals[i], values[i].data()});
        function = {const_cast<char *>("f"), 0x1234, 0, 1, 3, 2, 1, words, &counter,
                    uint32_t(sites.size()), sites.data()};
    }
};

std::vector<QuarlProfileValue> values_of(const QuarlProfileSite &site)
{
    return {site.values, site.values + site.num_values};
}

} // namespace

// Found by the standard algorithms, which look in the type's namespace.
static bool operator==(const QuarlProfileValue &a, const QuarlProfileValue &b)
{
    return a.value == b.value && a.count == b.count;
}

TEST(ProfileFile, ValueSitesRoundTripAndVersionOneReadsWithout)
{
    Record record({QUARL_VALUE_CALL_TARGET, QUARL_VALUE_MEMOP_SIZE, QUARL_VALUE_MEMOP_SIZE},
                  {{{0xfeedULL, 90}, {0xbeefULL, 9}}, {{8, 40}}, {}}, {100, 50, 3});
    QuarlProfile profile = QUARL_PROFILE_INIT;
    ASSERT_EQ(quarl_profile_add(&profile, &record.function), 1);
    std::vector<uint8_t> bytes = written(profile);
    quarl_profile_release(&profile);

    Parsed again(bytes);
    ASSERT_TRUE(again.ok) << again.error;
    ASSERT_EQ(again.profile.count, 1u);
    const QuarlProfileFunction &f = again.profile.functions[0];
    ASSERT_EQ(f.num_sites, 3u);
    for (uint32_t i = 0; i < 3; ++i) {
        EXPECT_EQ(f.sites[i].kind, record.sites[i].kind);
        EXPECT_EQ(f.sites[i].total, record.sites[i].total);
        EXPECT_EQ(values_of(f.sites[i]), record.values[i]);
    }
    EXPECT_EQ(f.counters[0], 7u);

    Parsed old(file_with_record(1).data);
    ASSERT_TRUE(old.ok) << old.error;
    EXPECT_EQ(old.profile.functions[0].num_sites, 0u);
    EXPECT_EQ(old.profile.functions[0].counters[0], 7u);
}

TEST(ProfileFile, DamagedValueSitesGiveTheReason)
{
    const struct { const char *name; std::vector<uint32_t> sites; const char *reason; } cases[] = {
        {"no site count", {}, "truncated in the value sites of function 0"},
        {"more sites than bytes", {2}, "truncated in the value sites of function 0"},
        {"unknown kind", {1, 2, 0, 5, 0}, "function 0 has a value site of unknown kind"},
        {"too many values", {1, 0, 17, 5, 0}, "function 0 has a value site with too many values"},
        {"values cut short", {1, 0, 2, 5, 0, 1, 0, 1, 0}, "truncated in the value sites of function 0"},
        {"unknown version", {}, "profile version 3 is not supported (this reads versions 1 and 2)"},
    };
    for (const auto &c : cases) {
        Bytes b = file_with_record(std::string(c.name) == "unknown version" ? 3 : 2);
        for (uint32_t word : c.sites)
            b.u32(word);
        Parsed parsed(b.data);
        EXPECT_FALSE(parsed.ok) << c.name;
        EXPECT_EQ(parsed.error, c.reason) << c.name;
        EXPECT_EQ(parsed.profile.count, 0u) << c.name;
    }
}

TEST(ProfileFile, MergingSumsValuesAndKeepsTheMostFrequent)
{
    // Same sites: equal values summed, the rest joined, most frequent first.
    Record first({QUARL_VALUE_CALL_TARGET}, {{{1, 10}, {2, 5}}}, {20});
    Record second({QUARL_VALUE_CALL_TARGET}, {{{3, 30}, {2, 1}}}, {40});
    QuarlProfile profile = QUARL_PROFILE_INIT;
    ASSERT_EQ(quarl_profile_add(&profile, &first.function), 1);
    ASSERT_EQ(quarl_profile_add(&profile, &second.function), 1);
    ASSERT_EQ(profile.count, 1u);
    const QuarlProfileSite &site = profile.functions[0].sites[0];
    EXPECT_EQ(values_of(site), (std::vector<QuarlProfileValue>{{3, 30}, {1, 10}, {2, 6}}));
    EXPECT_EQ(site.total, 60u);
    EXPECT_EQ(profile.functions[0].counters[0], 14u);
    quarl_profile_release(&profile);

    // Beyond the most a site keeps: the least frequent go, totals stay.
    std::vector<QuarlProfileValue> low, high;
    for (uint64_t v = 0; v < 10; ++v) {
        low.push_back({v, v + 1});
        high.push_back({100 + v, 100 + v});
    }
    Record many_low({QUARL_VALUE_MEMOP_SIZE}, {low}, {55}), many_high({QUARL_VALUE_MEMOP_SIZE}, {high}, {1045});
    ASSERT_EQ(quarl_profile_add(&profile, &many_low.function), 1);
    ASSERT_EQ(quarl_profile_add(&profile, &many_high.function), 1);
    const QuarlProfileSite &kept = profile.functions[0].sites[0];
    ASSERT_EQ(kept.num_values, QUARL_PROFILE_MAX_SITE_VALUES);
    EXPECT_EQ(kept.values[0].value, 109u);
    EXPECT_EQ(kept.values[9].value, 100u);
    EXPECT_EQ(kept.values[15].value, 4u); // counts 10..5 of the low ones survive
    EXPECT_EQ(kept.total, 1100u);
    quarl_profile_release(&profile);

    // Other site kinds are other code: the later record replaces the first.
    Record call({QUARL_VALUE_CALL_TARGET}, {{{1, 10}}}, {10});
    Record size({QUARL_VALUE_MEMOP_SIZE}, {{{8, 3}}}, {3});
    ASSERT_EQ(quarl_profile_add(&profile, &call.function), 1);
    ASSERT_EQ(quarl_profile_add(&profile, &size.function), 1);
    ASSERT_EQ(profile.count, 1u);
    EXPECT_EQ(profile.functions[0].sites[0].kind, QUARL_VALUE_MEMOP_SIZE);
    EXPECT_EQ(profile.functions[0].counters[0], 7u);
    quarl_profile_release(&profile);
}

// A program's records added at once: copies of one function compiled to
// other shapes in other files are kept side by side, copies of one shape
// summed; a later program's set of shapes for a key replaces the earlier
// set where they differ (the code changed), keys it lacks stay.
TEST(ProfileFile, AddingAProgramKeepsEveryShapeOfAFunction)
{
    struct Shape {
        const char *key;
        uint32_t word; // the shape: records of one key differ in their words
        uint64_t counter;
    };
    auto add_all = [](QuarlProfile *profile, std::vector<Shape> shapes) {
        std::vector<uint32_t> words;
        std::vector<uint64_t> counters;
        for (const Shape &shape : shapes) {
            words.push_back(shape.word);
            counters.push_back(shape.counter);
        }
        std::vector<QuarlProfileFunction> functions;
        for (size_t i = 0; i < shapes.size(); ++i)
            functions.push_back({const_cast<char *>(shapes[i].key), shapes[i].word, 0, 1, 3, 1, 1, &words[i],
                                 &counters[i], 0, nullptr});
        return quarl_profile_add_all(profile, functions.data(), uint32_t(functions.size()));
    };
    auto contents = [](const QuarlProfile &profile) {
        std::vector<std::string> out;
        for (uint32_t i = 0; i < profile.count; ++i)
            out.push_back(std::string(profile.functions[i].key) + "/" + std::to_string(profile.functions[i].words[0]) +
                          "=" + std::to_string(profile.functions[i].counters[0]));
        std::sort(out.begin(), out.end());
        return out;
    };
    QuarlProfile profile = QUARL_PROFILE_INIT;
    // Two files' copies of "inline" took shape 1, a third file's shape 2.
    ASSERT_EQ(add_all(&profile, {{"inline", 1, 5}, {"main", 9, 1}, {"inline", 2, 7}, {"inline", 1, 6}}), 1);
    EXPECT_EQ(contents(profile), (std::vector<std::string>{"inline/1=11", "inline/2=7", "main/9=1"}));
    // The same program again: every shape summed.
    ASSERT_EQ(add_all(&profile, {{"inline", 2, 1}, {"inline", 1, 1}, {"main", 9, 1}}), 1);
    EXPECT_EQ(contents(profile), (std::vector<std::string>{"inline/1=12", "inline/2=8", "main/9=2"}));
    // A rebuilt program whose copies all took shape 3, and no main: shapes
    // 1 and 2 were other code; main's record stays.
    ASSERT_EQ(add_all(&profile, {{"inline", 3, 4}}), 1);
    EXPECT_EQ(contents(profile), (std::vector<std::string>{"inline/3=4", "main/9=2"}));
    // One record added on its own replaces every other shape of its key.
    ASSERT_EQ(add_all(&profile, {{"inline", 1, 1}, {"inline", 2, 1}}), 1);
    Record single({}, {}, {});
    single.function.key = const_cast<char *>("inline");
    single.function.num_words = 1;
    single.function.checksum = 2;
    single.words[0] = 2;
    ASSERT_EQ(quarl_profile_add(&profile, &single.function), 1);
    EXPECT_EQ(contents(profile), (std::vector<std::string>{"inline/2=8", "main/9=2"}));
    quarl_profile_release(&profile);
}

TEST(ProfileFile, KeyHashIsFnv1aOfTheKey)
{
    // Call-target values name functions by this hash in files that other
    // tools may read: its values must not drift.
    EXPECT_EQ(quarl_profile_key_hash(""), 0xcbf29ce484222325ULL);
    EXPECT_EQ(quarl_profile_key_hash("a"), 0xaf63dc4c8601ec8cULL);
    EXPECT_NE(quarl_profile_key_hash("f.c:add"), quarl_profile_key_hash("g.c:add"));
}
