#include "ValueCheck.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace configsrvc {

namespace {

// Values are echoed in reasons; a long or binary one is cut so the reason stays readable.
constexpr size_t kEchoBytes = 40;

}  // namespace

std::string quoted(const std::string& value) {
    std::string out = "'";
    for (size_t i = 0; i < value.size() && i < kEchoBytes; ++i) {
        unsigned char c = static_cast<unsigned char>(value[i]);
        out += (c < 0x20 || c == 0x7f) ? '?' : value[i];
    }
    if (value.size() > kEchoBytes) {
        out += "...";
    }
    return out + "'";
}

namespace {

// Length of the UTF-8 sequence starting at s[i], or 0 when it is not well-formed
// (overlong forms, surrogates and code points above U+10FFFF included).
size_t utf8SequenceLength(const std::string& s, size_t i) {
    unsigned char lead = static_cast<unsigned char>(s[i]);
    if (lead < 0x80) {
        return 1;
    }
    size_t length;
    unsigned min;
    unsigned code;
    if ((lead & 0xe0) == 0xc0) {
        length = 2, min = 0x80, code = lead & 0x1f;
    } else if ((lead & 0xf0) == 0xe0) {
        length = 3, min = 0x800, code = lead & 0x0f;
    } else if ((lead & 0xf8) == 0xf0) {
        length = 4, min = 0x10000, code = lead & 0x07;
    } else {
        return 0;
    }
    if (i + length > s.size()) {
        return 0;
    }
    for (size_t k = 1; k < length; ++k) {
        unsigned char next = static_cast<unsigned char>(s[i + k]);
        if ((next & 0xc0) != 0x80) {
            return 0;
        }
        code = (code << 6) | (next & 0x3f);
    }
    if (code < min || code > 0x10ffff || (code >= 0xd800 && code <= 0xdfff)) {
        return 0;
    }
    return length;
}

}  // namespace

bool isText(const std::string& value) {
    for (size_t i = 0; i < value.size();) {
        if (value[i] == '\0') {
            return false;
        }
        size_t length = utf8SequenceLength(value, i);
        if (length == 0) {
            return false;
        }
        i += length;
    }
    return true;
}

size_t findControl(const std::string& value) {
    for (size_t i = 0; i < value.size(); ++i) {
        const auto c = static_cast<unsigned char>(value[i]);
        const bool c1 =
            c == 0xc2 && i + 1 < value.size() && static_cast<unsigned char>(value[i + 1]) < 0xa0;
        if (c < 0x20 || c == 0x7f || c1) {
            return i;
        }
    }
    return std::string::npos;
}

namespace {

bool checkString(const VariableDef& var, const std::string& value, std::string* reason) {
    if (!isText(value)) {
        *reason = "value of '" + var.name + "' is not UTF-8 text";
        return false;
    }
    const size_t control = var.controlsAllowed ? std::string::npos : findControl(value);
    if (control != std::string::npos) {
        const unsigned code = static_cast<unsigned char>(value[control]) == 0xc2
                                  ? static_cast<unsigned char>(value[control + 1])
                                  : static_cast<unsigned char>(value[control]);
        char where[40];
        std::snprintf(where, sizeof where, "U+%04X at byte %zu", code, control);
        *reason = "value of '" + var.name + "' holds a control character (" + where +
                  "), which the model does not allow for it";
        return false;
    }
    if (value.size() > var.maxLength) {
        *reason = "value of '" + var.name + "' is " + std::to_string(value.size()) +
                  " bytes long; at most " + std::to_string(var.maxLength) + " are allowed";
        return false;
    }
    return true;
}

bool checkInteger(const VariableDef& var, const std::string& value, std::string* canonical,
                  std::string* reason) {
    // Plain decimal only: strtoll alone would also take leading blanks and a '+'.
    size_t digitsFrom = (!value.empty() && value[0] == '-') ? 1 : 0;
    bool wellFormed = value.size() > digitsFrom && value.size() <= 21;
    for (size_t i = digitsFrom; wellFormed && i < value.size(); ++i) {
        wellFormed = value[i] >= '0' && value[i] <= '9';
    }
    errno = 0;
    long long number = wellFormed ? std::strtoll(value.c_str(), nullptr, 10) : 0;
    if (!wellFormed || errno == ERANGE) {
        *reason = "value " + quoted(value) + " of '" + var.name + "' is not an integer";
        return false;
    }
    if (number < var.minimum) {
        *reason = "value " + value + " of '" + var.name + "' is below the minimum " +
                  std::to_string(var.minimum);
        return false;
    }
    if (number > var.maximum) {
        *reason = "value " + value + " of '" + var.name + "' is above the maximum " +
                  std::to_string(var.maximum);
        return false;
    }
    *canonical = std::to_string(number);
    return true;
}

bool checkBoolean(const VariableDef& var, const std::string& value, std::string* canonical,
                  std::string* reason) {
    static const char* const kTrue[] = {"true", "on", "yes", "1"};
    static const char* const kFalse[] = {"false", "off", "no", "0"};
    for (const char* word : kTrue) {
        if (value == word) {
            *canonical = "true";
            return true;
        }
    }
    for (const char* word : kFalse) {
        if (value == word) {
            *canonical = "false";
            return true;
        }
    }
    *reason = "value " + quoted(value) + " of '" + var.name +
              "' is not a boolean (true, false, on, off, yes, no, 1, 0)";
    return false;
}

bool checkOption(const VariableDef& var, const std::string& value, std::string* reason) {
    for (const std::string& option : var.options) {
        if (value == option) {
            return true;
        }
    }
    std::string list;
    for (const std::string& option : var.options) {
        list += (list.empty() ? "" : ", ") + option;
    }
    *reason = "value " + quoted(value) + " of '" + var.name + "' is not one of: " + list;
    return false;
}

bool checkCount(const VariableDef& var, size_t count, std::string* reason) {
    if (!var.isList) {
        if (count == 1) {
            return true;
        }
        *reason = "'" + var.name + "' takes exactly one value, not " + std::to_string(count);
        return false;
    }
    if (count < var.minCount) {
        *reason = "'" + var.name + "' takes at least " + std::to_string(var.minCount) +
                  " values, not " + std::to_string(count);
        return false;
    }
    if (count > var.maxCount) {
        *reason = "'" + var.name + "' takes at most " + std::to_string(var.maxCount) +
                  " values, not " + std::to_string(count);
        return false;
    }
    return true;
}

}  // namespace

bool checkValue(const VariableDef& variable, const std::string& value, std::string* canonical,
                std::string* reason) {
    // Cheap size bound first, so no check below ever walks a huge value.
    if (value.size() > kMaxValueBytes) {
        *reason = "value of '" + variable.name + "' is longer than " +
                  std::to_string(kMaxValueBytes) + " bytes";
        return false;
    }
    *canonical = value;
    switch (variable.kind) {
        case ValueKind::kString:
            return checkString(variable, value, reason);
        case ValueKind::kInteger:
            return checkInteger(variable, value, canonical, reason);
        case ValueKind::kBoolean:
            return checkBoolean(variable, value, canonical, reason);
        case ValueKind::kOption:
            return checkOption(variable, value, reason);
    }
    return false;
}

bool checkValues(const VariableDef& variable, const std::vector<std::string>& values,
                 std::vector<std::string>* canonical, std::string* reason) {
    if (!checkCount(variable, values.size(), reason)) {
        return false;
    }
    canonical->clear();
    canonical->reserve(values.size());
    for (const std::string& value : values) {
        std::string normal;
        if (!checkValue(variable, value, &normal, reason)) {
            return false;
        }
        canonical->push_back(std::move(normal));
    }
    return true;
}

}  // namespace configsrvc
