// The timed workload for yaml-cpp: a generated document of N records
// (nested maps and sequences, anchors and aliases, quoted, plain and block
// scalars) parsed, walked with conversions that sometimes fail (yaml-cpp
// throws then), emitted and parsed again. Prints a checksum.
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

#include "yaml-cpp/yaml.h"

static std::string document(int records)
{
    std::ostringstream out;
    out << "defaults: &defaults\n  retries: 3\n  timeout: 2.5\n  tags: [a, b, c]\nrecords:\n";
    for (int i = 0; i < records; ++i) {
        out << "  - id: " << i << "\n"
            << "    name: \"record " << i << "\"\n"
            << "    size: " << (i % 7 == 0 ? std::string("unknown") : std::to_string(i * 13 % 1000)) << "\n"
            << "    settings:\n      <<: *defaults\n      level: " << i % 5 << "\n"
            << "    points:\n";
        for (int p = 0; p < 4; ++p)
            out << "      - {x: " << p * i << ", y: " << (p + i) % 9 << "}\n";
        out << "    note: |\n      line one of " << i << "\n      line two\n";
    }
    return out.str();
}

static long walk(const YAML::Node &root)
{
    long sum = 0;
    for (const YAML::Node &record : root["records"]) {
        sum += record["id"].as<long>();
        sum += long(record["name"].as<std::string>().size());
        try {
            sum += record["size"].as<int>();
        } catch (const YAML::BadConversion &) {
            sum += 1000; // "unknown"
        }
        for (const YAML::Node &point : record["points"])
            sum += point["x"].as<int>() * 3 + point["y"].as<int>();
        sum += long(record["note"].as<std::string>().size());
        const YAML::Node settings = record["settings"];
        if (settings["level"])
            sum += settings["level"].as<int>();
    }
    return sum;
}

int main(int argc, char **argv)
{
    int records = argc > 1 ? std::atoi(argv[1]) : 1000;
    std::string text = document(records);
    YAML::Node root = YAML::Load(text);
    long sum = walk(root);
    YAML::Emitter emitter;
    emitter << root;
    YAML::Node again = YAML::Load(emitter.c_str());
    sum += walk(again);
    std::printf("%ld %zu\n", sum, std::string(emitter.c_str()).size());
    return 0;
}
