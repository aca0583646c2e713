#include "LineFormat.h"

#include <cstdio>

namespace vanectl {

namespace {

bool isBlank(char c) {
    return c == ' ' || c == '\t';
}

bool isControl(char c) {
    const unsigned char byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7f;
}

bool needsQuotes(const std::string& word) {
    if (word.empty() || word[0] == '#') {
        return true;
    }
    for (char c : word) {
        if (isBlank(c) || c == '"' || c == '\\' || isControl(c)) {
            return true;
        }
    }
    return false;
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

// Reads the escape at line[*at] (just after the backslash) into *out and moves past it.
bool readEscape(const std::string& line, size_t* at, std::string* out, std::string* error) {
    if (*at >= line.size()) {
        *error = "a backslash ends the line";
        return false;
    }
    const char c = line[(*at)++];
    switch (c) {
        case '\\':
        case '"':
            out->push_back(c);
            return true;
        case 'n':
            out->push_back('\n');
            return true;
        case 't':
            out->push_back('\t');
            return true;
        case 'x': {
            const int high = *at + 1 < line.size() ? hexDigit(line[*at]) : -1;
            const int low = high >= 0 ? hexDigit(line[*at + 1]) : -1;
            if (low < 0) {
                *error = "\\x needs two hexadecimal digits";
                return false;
            }
            out->push_back(static_cast<char>(high * 16 + low));
            *at += 2;
            return true;
        }
        default:
            *error = std::string("unknown escape \\") + c;
            return false;
    }
}

// Reads the quoted word that starts at line[*at] (the opening quote) and moves past it.
bool readQuoted(const std::string& line, size_t* at, std::string* word, std::string* error) {
    for (++*at; *at < line.size();) {
        const char c = line[(*at)++];
        if (c == '"') {
            if (*at < line.size() && !isBlank(line[*at])) {
                *error = "a closing quote must be followed by a blank";
                return false;
            }
            return true;
        }
        if (c == '\\') {
            if (!readEscape(line, at, word, error)) {
                return false;
            }
        } else {
            word->push_back(c);
        }
    }
    *error = "a quote is not closed";
    return false;
}

}  // namespace

std::string quoteWord(const std::string& word) {
    if (!needsQuotes(word)) {
        return word;
    }
    std::string quoted = "\"";
    for (char c : word) {
        if (c == '"' || c == '\\') {
            quoted += '\\';
            quoted += c;
        } else if (c == '\n') {
            quoted += "\\n";
        } else if (c == '\t') {
            quoted += "\\t";
        } else if (isControl(c)) {
            char escape[5];
            std::snprintf(escape, sizeof escape, "\\x%02x", static_cast<unsigned char>(c));
            quoted += escape;
        } else {
            quoted += c;
        }
    }
    return quoted + "\"";
}

std::string joinWords(const std::vector<std::string>& words) {
    std::string line;
    for (const std::string& word : words) {
        line += (line.empty() ? "" : " ") + quoteWord(word);
    }
    return line;
}

bool splitLine(const std::string& line, std::vector<std::string>* words, std::string* error) {
    words->clear();
    size_t at = 0;
    for (;;) {
        while (at < line.size() && isBlank(line[at])) {
            ++at;
        }
        if (at == line.size() || line[at] == '#') {
            return true;
        }
        std::string word;
        if (line[at] == '"') {
            if (!readQuoted(line, &at, &word, error)) {
                return false;
            }
        } else {
            while (at < line.size() && !isBlank(line[at])) {
                if (line[at] == '"' || line[at] == '\\') {
                    *error = "a quote or backslash inside a bare word; quote the whole word";
                    return false;
                }
                word.push_back(line[at++]);
            }
        }
        words->push_back(word);
    }
}

}  // namespace vanectl
