// quarl profile: reading the profiles that instrumented programs write.
#include "quarl_tool.h"

#include <cxxabi.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <unordered_map>

#include "quarl_profile.h"
#include "quarl_profile_counts.h"

namespace {

const char profile_help[] =
    "usage: quarl profile show [--blocks | --edges | --values] [--function NAME] FILE\n"
    "       quarl profile merge -o OUT IN...\n"
    "\n"
    "Profiles are what programs built with the Quarl LLVM plugin write at exit\n"
    "(default.quarlprof, or the file QUARL_PROFILE_FILE names).\n"
    "\n"
    "  show         per function, hottest first: its entry count, how many of\n"
    "               its blocks ran, its counters, its (demangled) name\n"
    "  show --blocks\n"
    "               for scripts, functions by key: 'function KEY entry COUNT',\n"
    "               then '  block N COUNT' for each block N of its graph\n"
    "               (node 2 + i is the function's i-th basic block)\n"
    "  show --edges\n"
    "               like --blocks, with '  edge SRC -> DEST COUNT' for each edge\n"
    "               of the graph instead: the counts that profile use derives and\n"
    "               turns into branch weights ('counter I' on counted edges,\n"
    "               'pseudo' on edges from the pseudo entry or to the pseudo exit)\n"
    "  show --values\n"
    "               like --blocks, with '  site I call|length total COUNT' for each\n"
    "               indirect call and memory operation of unknown length, then\n"
    "               '    VALUE COUNT' for each callee (by key) or length recorded\n"
    "  Counts derived from counters that contradict each other (plain counters\n"
    "  that threads raced on lose increments) are repaired to consistent ones,\n"
    "  never below zero; show says which functions, --blocks, --edges and\n"
    "  --values with '  repaired: N edge counts came out below zero'.\n"
    "  --function NAME\n"
    "               only the function NAME (its key, its symbol or its\n"
    "               demangled name)\n"
    "  merge        adds the counts of every IN into OUT (records of the same\n"
    "               function and code are summed; a function's records made\n"
    "               from other code are replaced by the later IN's)\n";

struct ProfileDeleter {
    void operator()(QuarlProfile *profile) const
    {
        quarl_profile_release(profile);
        delete profile;
    }
};
using ProfilePtr = std::unique_ptr<QuarlProfile, ProfileDeleter>;

ProfilePtr read_profile(const std::string &path)
{
    ProfilePtr profile(new QuarlProfile QUARL_PROFILE_INIT);
    char error[256];
    if (!quarl_profile_read_file(path.c_str(), profile.get(), error, sizeof error)) {
        report_error("%s: %s", path.c_str(), error);
        return nullptr;
    }
    return profile;
}

// The symbol part of a key ("FILE:" stands before static functions'),
// demangled when it is a C++ name.
std::string readable_name(const std::string &key)
{
    size_t colon = key.rfind(':');
    std::string file = colon == std::string::npos ? "" : key.substr(0, colon + 1);
    std::string symbol = colon == std::string::npos ? key : key.substr(colon + 1);
    if (symbol.compare(0, 2, "_Z") != 0) // a C name such as "f" is no type code
        return file + symbol;
    int status = 0;
    char *demangled = abi::__cxa_demangle(symbol.c_str(), nullptr, nullptr, &status);
    if (status == 0 && demangled != nullptr)
        symbol = demangled;
    free(demangled);
    return file + symbol;
}

// Counts of the real blocks, node 2 + i at index i; false when the record's
// words and counters do not give counts.
bool block_counts(const QuarlProfileFunction &f, std::vector<uint64_t> *counts, uint32_t *repaired)
{
    std::vector<uint64_t> nodes(f.num_nodes);
    if (!quarl_profile_node_counts(&f, nodes.data(), repaired))
        return false;
    counts->assign(nodes.begin() + 2, nodes.begin() + 2 + f.num_blocks);
    return true;
}

// A NAME given to --function names a record by its key, its symbol (the
// key without "FILE:") or its demangled name.
bool names_function(const std::string &name, const std::string &key)
{
    size_t colon = key.rfind(':');
    std::string symbol = colon == std::string::npos ? key : key.substr(colon + 1);
    return name == key || name == symbol || name == readable_name(key);
}

struct Row {
    const QuarlProfileFunction *record;
    std::string key;
    uint64_t entry;
    std::vector<uint64_t> blocks;
    uint32_t repaired; // edges whose count came out below zero
};

enum class ShowForm { Table, Blocks, Edges, Values };

// Callees are recorded by the hash of their keys; a callee with a record of
// its own in the profile is shown by its key.
void print_values(const Row &row, const std::unordered_map<uint64_t, std::string> &key_of_hash)
{
    for (uint32_t i = 0; i < row.record->num_sites; ++i) {
        const QuarlProfileSite &site = row.record->sites[i];
        bool is_call = site.kind == QUARL_VALUE_CALL_TARGET;
        printf("  site %u %s total %llu\n", i, is_call ? "call" : "length", (unsigned long long)site.total);
        std::vector<QuarlProfileValue> values(site.values, site.values + site.num_values);
        std::stable_sort(values.begin(), values.end(),
                         [](const QuarlProfileValue &a, const QuarlProfileValue &b) { return a.count > b.count; });
        for (const QuarlProfileValue &recorded : values) {
            uint64_t value = recorded.value;
            auto known = key_of_hash.find(value);
            if (!is_call)
                printf("    %llu", (unsigned long long)value);
            else if (known != key_of_hash.end())
                printf("    %s", known->second.c_str());
            else
                printf("    0x%016llx", (unsigned long long)value);
            printf(" %llu\n", (unsigned long long)recorded.count);
        }
    }
}

void print_edges(const Row &row)
{
    QuarlProfileEdge *edges = nullptr;
    uint32_t count = 0;
    if (row.record->flags & QUARL_PROFILE_DIRECT_COUNTS) {
        printf("  (edge counts not recorded: direct block counts)\n");
        return;
    }
    if (!quarl_profile_edge_counts(row.record, &edges, &count, nullptr)) {
        printf("  (edge counts not derived: out of memory)\n");
        return;
    }
    for (uint32_t i = 0; i < count; ++i) {
        printf("  edge %u -> %u %llu", edges[i].src, edges[i].dest,
               (unsigned long long)edges[i].count);
        if (edges[i].counter != QUARL_PROFILE_NO_COUNTER)
            printf(" counter %u", edges[i].counter);
        printf("%s\n", edges[i].is_pseudo ? " pseudo" : "");
    }
    free(edges);
}

int show(const std::string &path, ShowForm form, const std::string &function)
{
    ProfilePtr profile = read_profile(path);
    if (!profile)
        return status_bad_data;
    std::vector<Row> rows;
    int status = status_ok;
    for (uint32_t i = 0; i < profile->count; ++i) {
        const QuarlProfileFunction &f = profile->functions[i];
        if (!function.empty() && !names_function(function, f.key))
            continue;
        Row row{&f, f.key, 0, {}, 0};
        if (!block_counts(f, &row.blocks, &row.repaired)) {
            report_error("%s: the record of %s does not give block counts (damaged)", path.c_str(),
                         f.key);
            status = status_bad_data;
            continue;
        }
        row.entry = row.blocks.empty() ? 0 : row.blocks[0];
        rows.push_back(std::move(row));
    }
    if (!function.empty() && rows.empty() && status == status_ok) {
        report_error("%s: no function '%s'", path.c_str(), function.c_str());
        return status_bad_data;
    }
    if (form != ShowForm::Table) {
        // A function whose copies took several shapes has a record each:
        // by checksum, so that the order does not depend on the file's.
        std::sort(rows.begin(), rows.end(), [](const Row &a, const Row &b) {
            return a.key != b.key ? a.key < b.key : a.record->checksum < b.record->checksum;
        });
        std::unordered_map<uint64_t, std::string> key_of_hash;
        for (uint32_t i = 0; form == ShowForm::Values && i < profile->count; ++i)
            key_of_hash[quarl_profile_key_hash(profile->functions[i].key)] = profile->functions[i].key;
        for (const Row &row : rows) {
            printf("function %s entry %llu\n", row.key.c_str(), (unsigned long long)row.entry);
            if (row.repaired != 0)
                printf("  repaired: %u edge counts came out below zero\n", row.repaired);
            if (form == ShowForm::Edges)
                print_edges(row);
            else if (form == ShowForm::Values)
                print_values(row, key_of_hash);
            else
                for (size_t b = 0; b < row.blocks.size(); ++b)
                    printf("  block %zu %llu\n", b + 2, (unsigned long long)row.blocks[b]);
        }
        return status;
    }
    std::stable_sort(rows.begin(), rows.end(),
                     [](const Row &a, const Row &b) { return a.entry > b.entry; });
    printf("%20s  %13s  %8s  %s\n", "entry count", "blocks run", "counters", "function");
    size_t repaired = 0;
    for (const Row &row : rows) {
        size_t run = size_t(std::count_if(row.blocks.begin(), row.blocks.end(),
                                          [](uint64_t count) { return count != 0; }));
        std::string ratio = std::to_string(run) + "/" + std::to_string(row.blocks.size());
        printf("%20llu  %13s  %8u  %s%s\n", (unsigned long long)row.entry, ratio.c_str(),
               row.record->num_counters, readable_name(row.key).c_str(), row.repaired ? " (repaired)" : "");
        repaired += row.repaired != 0;
    }
    if (repaired != 0)
        printf("\n%zu functions marked (repaired) have counters that contradict each other, as plain\n"
               "counters do when threads race on them: their counts were made consistent, never\n"
               "below zero. For exact counts, train with QUARL_ATOMIC_COUNTERS=1.\n",
               repaired);
    return status;
}

int merge(const std::string &out_path, const std::vector<std::string> &inputs)
{
    QuarlProfile merged = QUARL_PROFILE_INIT;
    int status = status_ok;
    for (const std::string &input : inputs) {
        ProfilePtr profile = read_profile(input);
        if (!profile) {
            status = status_bad_data;
            break;
        }
        if (!quarl_profile_add_all(&merged, profile->functions, profile->count)) {
            report_error("out of memory");
            status = status_bad_data;
        }
    }
    if (status == status_ok) {
        FILE *out = fopen(out_path.c_str(), "wb");
        bool written = out != nullptr && quarl_profile_write(out, &merged);
        if (out != nullptr && fclose(out) != 0)
            written = false;
        if (!written) {
            report_error("%s: cannot write: %s", out_path.c_str(), strerror(errno));
            status = status_bad_data;
        }
    }
    quarl_profile_release(&merged);
    return status;
}

int usage(const char *message)
{
    fprintf(stderr, "quarl profile: %s\nTry 'quarl profile --help'.\n", message);
    return status_bad_usage;
}

} // namespace

int run_profile(int argc, char **argv)
{
    std::vector<std::string> args(argv, argv + argc);
    if (!args.empty() && (args[0] == "--help" || args[0] == "-h")) {
        fputs(profile_help, stdout);
        return status_ok;
    }
    if (args.empty())
        return usage("expected 'show' or 'merge'");
    std::string action = args[0];
    args.erase(args.begin());
    if (action == "show") {
        ShowForm form = ShowForm::Table;
        std::string function;
        std::vector<std::string> files;
        for (size_t i = 0; i < args.size(); ++i) {
            const std::string &arg = args[i];
            if (arg == "--blocks" || arg == "--edges" || arg == "--values") {
                ShowForm wanted = arg == "--blocks" ? ShowForm::Blocks
                                  : arg == "--edges" ? ShowForm::Edges
                                                     : ShowForm::Values;
                if (form != ShowForm::Table && form != wanted)
                    return usage("--blocks, --edges and --values exclude each other");
                form = wanted;
            } else if (arg == "--function" && i + 1 < args.size()) {
                function = args[++i];
            } else if (arg == "--function") {
                return usage("option --function needs a NAME");
            } else if (arg == "--help" || arg == "-h") {
                return fputs(profile_help, stdout), status_ok;
            } else if (arg.size() > 1 && arg[0] == '-') {
                return usage(("unknown option '" + arg + "'").c_str());
            } else {
                files.push_back(arg);
            }
        }
        if (files.size() != 1)
            return usage("show takes one FILE");
        return show(files[0], form, function);
    }
    if (action == "merge") {
        std::string out;
        std::vector<std::string> inputs;
        for (size_t i = 0; i < args.size(); ++i) {
            if (args[i] == "-o" && i + 1 < args.size())
                out = args[++i];
            else if (args[i] == "-o")
                return usage("option -o needs a value");
            else if (args[i].size() > 1 && args[i][0] == '-')
                return usage(("unknown option '" + args[i] + "'").c_str());
            else
                inputs.push_back(args[i]);
        }
        if (out.empty() || inputs.empty())
            return usage("merge needs -o OUT and at least one IN");
        return merge(out, inputs);
    }
    return usage(("unknown action '" + action + "' (expected 'show' or 'merge')").c_str());
}
