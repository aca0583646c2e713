// The one text form of values that vanectl reads and writes: lines of words, `PATH VALUE...`.
//
// Words are separated by blanks (spaces and tabs). A word that is empty, or holds a blank, a
// double quote, a backslash or a control character, or starts with '#', is written in double
// quotes with the escapes \\ \" \n \t and \xHH. Outside quotes, a word starting with '#' begins a
// comment that runs to the end of the line. `apply` and `import` read this form, `list` and
// `export` write it, so what one prints the other takes back unchanged.
#ifndef VANECTL_LINEFORMAT_H
#define VANECTL_LINEFORMAT_H

#include <string>
#include <vector>

namespace vanectl {

// `word` as it is written in a line: bare when it can be, else quoted.
std::string quoteWord(const std::string& word);

// `words` quoted and joined by single blanks.
std::string joinWords(const std::vector<std::string>& words);

// Splits `line` (without its newline) into *words, dropping a comment. False, with the reason in
// *error, for an unterminated quote, an unknown or short escape, or a quote followed by anything
// but a blank or the end.
bool splitLine(const std::string& line, std::vector<std::string>* words, std::string* error);

}  // namespace vanectl

#endif  // VANECTL_LINEFORMAT_H
