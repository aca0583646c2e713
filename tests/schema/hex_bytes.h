// Byte strings written as spaced hex ("52 03 63"), the way wire examples are easiest to read.
#ifndef TESTS_SCHEMA_HEX_BYTES_H
#define TESTS_SCHEMA_HEX_BYTES_H

#include <cstdio>
#include <string>

namespace schema_test {

// Spaces are ignored; anything else must be pairs of hex digits.
inline std::string hexToBytes(const std::string& hex) {
    std::string bytes;
    std::string digits;
    for (char c : hex) {
        if (c == ' ')
            continue;
        digits.push_back(c);
        if (digits.size() == 2) {
            bytes.push_back(static_cast<char>(std::stoi(digits, nullptr, 16)));
            digits.clear();
        }
    }
    return bytes;
}

inline std::string bytesToHex(const std::string& bytes) {
    std::string hex;
    char pair[4];
    for (unsigned char c : bytes) {
        std::snprintf(pair, sizeof pair, hex.empty() ? "%02x" : " %02x", c);
        hex += pair;
    }
    return hex;
}

}  // namespace schema_test

#endif  // TESTS_SCHEMA_HEX_BYTES_H
