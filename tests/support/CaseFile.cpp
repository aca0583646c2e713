#include "CaseFile.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstring>

#include "TempDir.h"

namespace testsupport {
namespace {

// The character of the escape `c` (after a backslash), or -1 when there is none.
int simpleEscape(char c) {
    static const char kFrom[] = "nrte0\\| ", kTo[] = "\n\r\t\033\0\\| ";
    const char* at = c != '\0' ? std::strchr(kFrom, c) : nullptr;
    return at != nullptr ? kTo[at - kFrom] : -1;
}

// Splits at " | " outside escapes, keeping each field's escapes for unescape.
std::vector<std::string> splitFields(const std::string& line) {
    std::vector<std::string> fields(1);
    for (size_t i = 0; i < line.size(); ++i) {
        if (line[i] == '\\' && i + 1 < line.size()) {
            fields.back() += line.substr(i, 2);
            ++i;
        } else if (line.compare(i, 3, " | ") == 0) {
            fields.emplace_back();
            i += 2;
        } else {
            fields.back() += line[i];
        }
    }
    for (std::string& field : fields) {
        field = unescape(field);
    }
    return fields;
}

}  // namespace

const std::string& CaseRow::operator[](size_t i) const {
    static const std::string kNone;
    return i < fields.size() ? fields[i] : kNone;
}

std::string CaseBlock::text() const {
    std::string joined;
    for (const CaseRow& row : body) {
        for (size_t i = 0; i < row.fields.size(); ++i) {
            joined += (i > 0 ? " | " : "") + row.fields[i];
        }
        joined += '\n';
    }
    return joined;
}

std::string unescape(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 == text.size()) {
            out += text[i];
            continue;
        }
        const int simple = simpleEscape(text[i + 1]);
        if (simple >= 0) {
            out += static_cast<char>(simple);
            ++i;
        } else if (text[i + 1] == '*' && i + 3 < text.size() && std::isdigit(text[i + 2]) != 0) {
            size_t digits = 0;
            const int count = std::stoi(text.substr(i + 2), &digits);
            if (i + 2 + digits < text.size()) {
                out.append(static_cast<size_t>(count), text[i + 2 + digits]);
            }
            i += 2 + digits;
        } else if (text[i + 1] == 'x' && i + 3 < text.size() &&
                   std::isxdigit(static_cast<unsigned char>(text[i + 2])) != 0 &&
                   std::isxdigit(static_cast<unsigned char>(text[i + 3])) != 0) {
            out += static_cast<char>(std::stoi(text.substr(i + 2, 2), nullptr, 16));
            i += 3;
        } else {
            out += text[i];  // not an escape: the backslash stays
        }
    }
    return out;
}

CaseFile readCaseFile(const std::string& path) {
    CaseFile file;
    const std::vector<std::string> lines = split(readFile(path), "\n");
    for (size_t n = 0; n < lines.size(); ++n) {
        const std::string& line = lines[n];
        if (line.empty() || line[0] == '#') {
            continue;
        }
        CaseRow row;
        row.line = static_cast<int>(n + 1);
        row.where = path + ":" + std::to_string(row.line);
        const bool head = line.rfind("== ", 0) == 0;
        row.fields = splitFields(head ? line.substr(3) : line);
        if (head) {
            file.blocks.push_back(CaseBlock{row, {}});
        } else if (!file.blocks.empty()) {
            file.blocks.back().body.push_back(row);
        } else {
            file.rows.push_back(row);
        }
    }
    EXPECT_FALSE(file.rows.empty() && file.blocks.empty()) << path << " holds no case";
    return file;
}

}  // namespace testsupport
