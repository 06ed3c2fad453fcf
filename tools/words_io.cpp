// Messages, input files, stored words and counter files.
#include "quarl_tool.h"

#include <errno.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>

void report_error(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    fputs("quarl: ", stderr);
    vfprintf(stderr, format, args);
    fputc('\n', stderr);
    va_end(args);
}

std::string display_name(const std::string &path)
{
    return path == "-" ? "<stdin>" : path;
}

bool read_input(const std::string &path, std::string *content)
{
    bool from_stdin = path == "-";
    FILE *file = from_stdin ? stdin : fopen(path.c_str(), "rb");
    if (file == nullptr) {
        report_error("%s: cannot open: %s", path.c_str(), strerror(errno));
        return false;
    }
    char chunk[4096];
    size_t got;
    while ((got = fread(chunk, 1, sizeof chunk, file)) > 0)
        content->append(chunk, got);
    bool failed = ferror(file) != 0;
    if (!from_stdin)
        fclose(file);
    if (failed)
        report_error("%s: cannot read", display_name(path).c_str());
    return !failed;
}

bool parse_unsigned(const std::string &token, uint64_t max, bool hex_only, uint64_t *value)
{
    bool prefixed = token.size() > 2 && token[0] == '0' && (token[1] == 'x' || token[1] == 'X');
    bool hex = hex_only || prefixed;
    size_t start = prefixed ? 2 : 0;
    // Digits only: strtoull alone would also take signs and blanks.
    if (token.size() == start ||
        token.find_first_not_of(hex ? "0123456789abcdefABCDEF" : "0123456789", start) !=
            std::string::npos)
        return false;
    errno = 0;
    unsigned long long result = strtoull(token.c_str() + start, nullptr, hex ? 16 : 10);
    if (errno == ERANGE || result > max)
        return false;
    *value = result;
    return true;
}

std::vector<Token> tokenize(const std::string &text)
{
    std::vector<Token> tokens;
    unsigned line = 1;
    size_t i = 0;
    while (i < text.size()) {
        char c = text[i];
        if (c == '\n') {
            ++line;
            ++i;
        } else if (c == '#') {
            while (i < text.size() && text[i] != '\n')
                ++i;
        } else if (c == ' ' || c == '\t' || c == '\r') {
            ++i;
        } else if (c == '"') { // a quoted token runs to the closing quote
            size_t end = text.find_first_of("\"\n", i + 1);
            if (end == std::string::npos || text[end] != '"')
                end = i; // unterminated: keep the lone quote for the reader to refuse
            tokens.push_back(Token{text.substr(i, end + 1 - i), line});
            i = end + 1;
        } else {
            size_t end = text.find_first_of(" \t\r\n#", i);
            if (end == std::string::npos)
                end = text.size();
            tokens.push_back(Token{text.substr(i, end - i), line});
            i = end;
        }
    }
    return tokens;
}

namespace {

// Stored data always starts with a format id below 4, so its first word
// holds zero bytes; hex text never does.
bool looks_like_text(const std::string &content)
{
    for (unsigned char c : content)
        if (c == 0 || (c < 32 && c != '\n' && c != '\r' && c != '\t') || c > 126)
            return false;
    return true;
}

} // namespace

bool read_words(const std::string &path, std::vector<uint32_t> *words)
{
    std::string content;
    words->reserve(1);
    if (!read_input(path, &content))
        return false;
    if (!looks_like_text(content)) {
        if (content.size() % 4 != 0) {
            report_error("%s: %zu bytes of binary data is not a whole number of 32-bit words",
                         display_name(path).c_str(), content.size());
            return false;
        }
        for (size_t i = 0; i < content.size(); i += 4) {
            const unsigned char *bytes = reinterpret_cast<const unsigned char *>(&content[i]);
            words->push_back(static_cast<uint32_t>(bytes[0]) |
                             static_cast<uint32_t>(bytes[1]) << 8 |
                             static_cast<uint32_t>(bytes[2]) << 16 |
                             static_cast<uint32_t>(bytes[3]) << 24);
        }
        return true;
    }
    for (const Token &token : tokenize(content)) {
        uint64_t value;
        if (!parse_unsigned(token.text, UINT32_MAX, true, &value)) {
            report_error("%s:%u: '%s' is not a 32-bit hexadecimal word",
                         display_name(path).c_str(), token.line, token.text.c_str());
            return false;
        }
        words->push_back(static_cast<uint32_t>(value));
    }
    return true;
}

bool write_words(const std::string &path, const std::vector<uint32_t> &words,
                 const char *format_name, bool binary)
{
    bool to_stdout = path == "-";
    FILE *file = to_stdout ? stdout : fopen(path.c_str(), binary ? "wb" : "w");
    if (file == nullptr) {
        report_error("%s: cannot create: %s", path.c_str(), strerror(errno));
        return false;
    }
    if (binary) {
        for (uint32_t word : words) {
            unsigned char bytes[4] = {static_cast<unsigned char>(word),
                                      static_cast<unsigned char>(word >> 8),
                                      static_cast<unsigned char>(word >> 16),
                                      static_cast<unsigned char>(word >> 24)};
            fwrite(bytes, 1, 4, file);
        }
    } else {
        fprintf(file, "# quarl stored words: format %s, %zu words\n", format_name, words.size());
        print_words(words, file);
    }
    bool failed = fflush(file) != 0 || ferror(file) != 0;
    if (!to_stdout && fclose(file) != 0)
        failed = true;
    if (failed)
        report_error("%s: cannot write", path.c_str());
    return !failed;
}

bool read_counters(const std::string &path, std::vector<uint64_t> *counters)
{
    std::string content;
    counters->reserve(1);
    if (!read_input(path, &content))
        return false;
    for (const Token &token : tokenize(content)) {
        uint64_t value;
        if (!parse_unsigned(token.text, UINT64_MAX, false, &value)) {
            report_error("%s:%u: '%s' is not a counter value (an unsigned 64-bit number)",
                         display_name(path).c_str(), token.line, token.text.c_str());
            return false;
        }
        counters->push_back(value);
    }
    return true;
}
