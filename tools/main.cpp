// quarl: the command-line face of the Quarl library. Argument handling and
// help texts; the work is in commands.cpp.
#include "quarl_tool.h"

#include <string.h>

#include <map>

namespace {

const char main_help[] =
    "usage: quarl [--help] [--version] COMMAND [ARGS]\n"
    "\n"
    "Edge profiling for optimising compilers, from the command line.\n"
    "\n"
    "Commands:\n"
    "  demo        walk a built-in routine through counter placement, encoding\n"
    "              and profile use, step by step\n"
    "  instrument  place counters on a routine read from a text file and write\n"
    "              the words to store beside the counters\n"
    "  dump        decode stored words and show the graph they hold\n"
    "  blocks      block counts from stored words and counter values\n"
    "  profile     show or merge the profiles of programs built with the Quarl\n"
    "              LLVM plugin\n"
    "\n"
    "Run 'quarl COMMAND --help' for the options of a command.\n"
    "Exit status: 0 success, 1 bad or damaged data, 2 bad usage.\n";

const char demo_help[] =
    "usage: quarl demo [--dot FILE]\n"
    "\n"
    "Runs a built-in routine (a loop with a branch and an early exit) through\n"
    "both moments of profile-guided optimisation: counter selection, placement,\n"
    "encoding, a sample training run and the block counts rebuilt from the\n"
    "stored words.\n"
    "\n"
    "  --dot FILE  also write the placed routine as a Graphviz graph to FILE\n";

const char instrument_help[] =
    "usage: quarl instrument [-o FILE [--binary]] CFG\n"
    "\n"
    "Reads a routine from the text file CFG ('-' for standard input), picks the\n"
    "counters unless some edges are marked with counter=K, places them and\n"
    "prints which edges carry counters and every other edge's formula. The\n"
    "stored words are printed and, with -o, written to FILE.\n"
    "\n"
    "  -o FILE   write the stored words to FILE ('-': standard output, instead\n"
    "            of the report); hex text, one 32-bit word per number\n"
    "  --binary  write raw little-endian words instead of hex text\n"
    "\n"
    "The text format, one statement per line, '#' starts a comment:\n"
    "  block INDEX [entry] [pseudo-entry] [pseudo-exit] [unreachable] [\"note\"]\n"
    "  edge SRC DEST [pseudo] [immeasurable] [unreachable] [cost=N] [counter=K]\n"
    "Blocks are numbered from 0 without gaps and come before the edges that use\n"
    "them; blocks and edges are reachable unless marked unreachable. cost=N is\n"
    "the price of a counter on the edge (quarl counts the cheapest edges);\n"
    "counter=K puts counter K on the edge. Close the flow with a pseudo edge\n"
    "from the pseudo exit back to the pseudo entry.\n";

const char dump_help[] =
    "usage: quarl dump [--dot | --svg FILE] WORDS\n"
    "\n"
    "Decodes stored words (hex text or raw binary; '-' for standard input) and\n"
    "prints the encoded-graph dump and the decoded graph in the text format of\n"
    "'quarl instrument'.\n"
    "\n"
    "  --dot       print the decoded graph as Graphviz DOT instead\n"
    "  --svg FILE  render the decoded graph to FILE with Graphviz's dot\n";

const char blocks_help[] =
    "usage: quarl blocks [--blocks N] WORDS COUNTERS\n"
    "\n"
    "Profile use: rebuilds the block counts of a routine from its stored words\n"
    "(hex text or raw binary) and its counter values (COUNTERS: numbers in\n"
    "decimal or 0x-hex, counter 0 first), and prints one 'block count' line per\n"
    "block. '-' reads one of the two from standard input.\n"
    "\n"
    "  --blocks N  print N blocks (default: up to the highest block index stored)\n";

struct Command {
    const char *help;
    std::vector<std::string> valued; // options that take a value
    std::vector<std::string> flags;
    size_t positionals;
};

const std::map<std::string, Command> commands = {
    {"demo", {demo_help, {"--dot"}, {}, 0}},
    {"instrument", {instrument_help, {"-o"}, {"--binary"}, 1}},
    {"dump", {dump_help, {"--svg"}, {"--dot"}, 1}},
    {"blocks", {blocks_help, {"--blocks"}, {}, 2}},
};

struct Arguments {
    std::map<std::string, std::string> options; // flags map to ""
    std::vector<std::string> positional;

    bool has(const char *name) const { return options.count(name) != 0; }
    const char *value(const char *name) const
    {
        auto found = options.find(name);
        return found == options.end() ? nullptr : found->second.c_str();
    }
};

int usage_error(const std::string &command, const std::string &message)
{
    fprintf(stderr, "quarl %s: %s\nTry 'quarl %s --help'.\n", command.c_str(), message.c_str(),
            command.c_str());
    return status_bad_usage;
}

bool contains(const std::vector<std::string> &names, const std::string &name)
{
    for (const std::string &candidate : names)
        if (candidate == name)
            return true;
    return false;
}

// Returns -1 when the arguments are good, else the exit status.
int parse_arguments(const std::string &name, const Command &command, int argc, char **argv,
                    Arguments *arguments)
{
    bool options_done = false;
    for (int i = 0; i < argc; ++i) {
        std::string word = argv[i];
        if (options_done || word == "-" || word.empty() || word[0] != '-') {
            arguments->positional.push_back(word);
        } else if (word == "--") {
            options_done = true;
        } else if (word == "--help" || word == "-h") {
            fputs(command.help, stdout);
            return status_ok;
        } else if (contains(command.flags, word)) {
            arguments->options[word] = "";
        } else if (contains(command.valued, word)) {
            if (i + 1 == argc)
                return usage_error(name, "option " + word + " needs a value");
            arguments->options[word] = argv[++i];
        } else {
            return usage_error(name, "unknown option '" + word + "'");
        }
    }
    if (arguments->positional.size() != command.positionals)
        return usage_error(name, "expected " + std::to_string(command.positionals) +
                                     " argument(s), got " +
                                     std::to_string(arguments->positional.size()));
    return -1;
}

int run_command(const std::string &name, const Arguments &args)
{
    const std::vector<std::string> &files = args.positional;
    if (name == "demo")
        return run_demo(args.value("--dot"));
    if (name == "instrument") {
        if (args.has("--binary") && !args.has("-o"))
            return usage_error(name, "--binary needs -o FILE");
        return run_instrument(files[0], args.value("-o"), args.has("--binary"));
    }
    if (name == "dump") {
        if (args.has("--dot") && args.has("--svg"))
            return usage_error(name, "--dot and --svg exclude each other");
        return run_dump(files[0], args.has("--dot"), args.value("--svg"));
    }
    if (files[0] == "-" && files[1] == "-")
        return usage_error(name, "only one of WORDS and COUNTERS can be standard input");
    uint64_t num_blocks = 0;
    const char *blocks = args.value("--blocks");
    if (blocks != nullptr && !parse_unsigned(blocks, 1u << 24, false, &num_blocks))
        return usage_error(name, "--blocks needs a number from 0 to 16777216");
    int64_t count = blocks != nullptr ? static_cast<int64_t>(num_blocks) : -1;
    return run_blocks(files[0], files[1], count);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2) {
        fputs(main_help, stderr);
        return status_bad_usage;
    }
    std::string first = argv[1];
    if (first == "--help" || first == "-h") {
        fputs(main_help, stdout);
        return status_ok;
    }
    if (first == "--version") {
        printf("quarl %s\n", QUARL_VERSION_STRING);
        return status_ok;
    }
    if (first == "profile")
        return run_profile(argc - 2, argv + 2);
    auto command = commands.find(first);
    if (command == commands.end()) {
        fprintf(stderr, "quarl: unknown command '%s'\nTry 'quarl --help'.\n", first.c_str());
        return status_bad_usage;
    }
    Arguments arguments;
    int status = parse_arguments(first, command->second, argc - 2, argv + 2, &arguments);
    if (status >= 0)
        return status;
    return run_command(first, arguments);
}
