// The one format of the tests' case files: tables of cases kept next to the tests as data.
//
//   # a comment                     ignored, like blank lines
//   field | field | field            a row: fields separated by " | "
//   == field | field                 a block's head; the rows up to the next head are its body
//
// Every field takes the escapes \n \r \t \e (escape) \0 \\ \| (a bar that separates nothing),
// \xHH, and \*Nc for N copies of the character c; "\ " at the end keeps trailing blanks. A file
// without "==" heads is one table of rows. A row's line number is kept so that a failing case
// names its line.
#ifndef TESTS_SUPPORT_CASEFILE_H
#define TESTS_SUPPORT_CASEFILE_H

#include <ostream>
#include <string>
#include <vector>

namespace testsupport {

struct CaseRow {
    int line = 0;
    std::vector<std::string> fields;
    // The field `i`, or "" for a row that has fewer.
    const std::string& operator[](size_t i) const;
    // "file:line" for failure messages.
    std::string where;
};

// Names the row by its place, for parameterised tests over rows.
inline void PrintTo(const CaseRow& row, std::ostream* out) {
    *out << row.where;
}

struct CaseBlock {
    CaseRow head;
    std::vector<CaseRow> body;
    // The body's rows as text, each field list joined by " | " and ended by a newline.
    std::string text() const;
    // The head's field `field` when it has one (a case written in one line), else text().
    std::string text(size_t field) const {
        return head.fields.size() > field ? head.fields[field] : text();
    }
};

struct CaseFile {
    std::vector<CaseRow> rows;      // rows before the first block
    std::vector<CaseBlock> blocks;  // the blocks, in file order
};

// Reads and parses `path`. A file that cannot be read, or that holds no row and no block, is
// reported as a test failure (a missing file must not pass by checking nothing).
CaseFile readCaseFile(const std::string& path);

// `text` with the escapes above resolved.
std::string unescape(const std::string& text);

}  // namespace testsupport

#endif  // TESTS_SUPPORT_CASEFILE_H
