// ValueCheck: whether a list of values fits a variable, and the canonical form it is kept in.
#ifndef CONFIGSRVC_VALUE_CHECK_H
#define CONFIGSRVC_VALUE_CHECK_H

#include <string>
#include <vector>

#include "DeviceModel.h"

namespace configsrvc {

// Checks `values` against `variable`: the count (exactly one for a single variable, within
// the bounds of a list), and each value against the kind (string length, UTF-8 and no control
// characters unless the variable allows them, integer
// syntax and range, boolean spelling, option membership). On success stores the canonical
// form in *canonical (integers in plain decimal, booleans as "true"/"false", other kinds as
// given) and returns true; otherwise stores a reason a person can act on in *reason.
bool checkValues(const VariableDef& variable, const std::vector<std::string>& values,
                 std::vector<std::string>* canonical, std::string* reason);

// Checks one value against the variable's kind, as above, without the count.
bool checkValue(const VariableDef& variable, const std::string& value, std::string* canonical,
                std::string* reason);

// Where the first control character of the UTF-8 text `value` starts (C0, DEL, or C1 as its
// two-byte sequence), or npos when it holds none. A terminal acts on these instead of printing
// them, so a value could rewrite the screen of whoever reads it, or pass for two values.
size_t findControl(const std::string& value);

// Whether `value` is UTF-8 text without NUL characters.
bool isText(const std::string& value);

// `value` in single quotes for a reason: control characters as '?', cut after 40 bytes.
std::string quoted(const std::string& value);

}  // namespace configsrvc

#endif  // CONFIGSRVC_VALUE_CHECK_H
