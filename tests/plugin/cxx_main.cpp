// C++ as it is written: containers, objects whose destructors run on
// every way out, several calls that may throw in one scope, templates
// instantiated in two units, virtual calls, nested try/catch with rethrow,
// noexcept functions, and code that runs before main and after it.
#include <cstdio>
#include <cstdlib>
#include <map>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

#include "cxx_shapes.h"

namespace {

int guards_closed = 0;

struct Guard {
    explicit Guard(const char *what) : what_(what) {}
    ~Guard() { ++guards_closed; }
    const char *what_;
};

// Runs before main.
struct Registry {
    Registry()
    {
        for (int i = 0; i < 5; ++i)
            names[i] = "entry" + std::to_string(i);
    }
    ~Registry() { std::printf("registry closed with %zu names\n", names.size()); }
    std::map<int, std::string> names;
};
Registry registry;

int parse_digit(char c)
{
    if (c < '0' || c > '9')
        throw std::runtime_error(std::string("not a digit: ") + c);
    return c - '0';
}

// Two calls that may throw under one guard: one landing pad, two invokes.
int parse_pair(const std::string &text)
{
    Guard guard("pair");
    int high = parse_digit(text.at(0));
    return high * 10 + parse_digit(text.at(1));
}

// Catches, counts and rethrows what it cannot handle.
int parse_or_rethrow(const std::string &text, int *range_errors)
{
    try {
        Guard guard("outer");
        try {
            return parse_pair(text);
        } catch (const std::out_of_range &) {
            ++*range_errors;
            throw;
        }
    } catch (const std::runtime_error &) {
        return -1;
    }
}

void at_exit_report() { std::printf("guards closed: %d\n", guards_closed); }

} // namespace

int main()
{
    std::atexit(at_exit_report);
    const char *inputs[] = {"42", "7x", "x7", "9", "", "13", "99", "5"};
    std::map<int, int> seen;
    std::unordered_map<std::string, int> failures;
    int range_errors = 0, parsed = 0;
    for (int round = 0; round < 50; ++round) {
        for (const char *input : inputs) {
            try {
                int value = parse_or_rethrow(input, &range_errors);
                if (value < 0)
                    failures[input]++;
                else
                    seen[value]++, ++parsed;
            } catch (const std::out_of_range &) {
                failures["short"]++;
            }
        }
    }
    std::vector<std::unique_ptr<Shape>> shapes = make_shapes(40);
    long picked = 0;
    int missing = 0;
    for (size_t index = 0; index < 40; index += 3) {
        try {
            picked += area_of(shapes, index);
        } catch (const std::out_of_range &) {
            ++missing;
        }
    }
    std::map<std::string, int> by_name;
    for (const auto &shape : shapes)
        by_name[shape->name()]++;
    std::vector<long> counts;
    for (const auto &[value, count] : seen)
        counts.push_back(count);
    int limited = 0;
    try {
        checked_sum(counts, 120L, [](long count) { return count > 0; });
    } catch (const std::string &) {
        limited = 1;
    }
    std::printf("parsed %d, range errors %d, failures %zu, values %zu\n", parsed, range_errors,
                failures.size(), seen.size());
    std::printf("shapes %zu, area %ld, names %zu, at least 50: %d, limited %d\n", shapes.size(),
                total_area(shapes), by_name.size(), count_at_least(counts, 50L), limited);
    std::printf("picked %ld, missing %d\n", picked, missing);
    std::printf("registry has %zu names\n", registry.names.size());
    return 0;
}
