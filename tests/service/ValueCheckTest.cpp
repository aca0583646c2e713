#include "ValueCheck.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace configsrvc {
namespace {

VariableDef integer(int64_t low, int64_t high) {
    VariableDef var;
    var.name = "mtu";
    var.kind = ValueKind::kInteger;
    var.minimum = low;
    var.maximum = high;
    return var;
}

VariableDef text(size_t maxLength) {
    VariableDef var;
    var.name = "host";
    var.maxLength = maxLength;
    return var;
}

VariableDef boolean() {
    VariableDef var;
    var.name = "dhcp";
    var.kind = ValueKind::kBoolean;
    return var;
}

VariableDef option() {
    VariableDef var;
    var.name = "out";
    var.kind = ValueKind::kOption;
    var.options = {"speaker", "hdmi"};
    return var;
}

VariableDef list(size_t minCount, size_t maxCount) {
    VariableDef var = text(255);
    var.name = "dns";
    var.isList = true;
    var.minCount = minCount;
    var.maxCount = maxCount;
    return var;
}

struct Case {
    VariableDef variable;
    std::vector<std::string> values;
    std::vector<std::string> canonical;  // when it fits
    const char* reason;                  // when it does not
};

class ValueCheckCase : public testing::TestWithParam<Case> {};

TEST_P(ValueCheckCase, FitsOrGivesTheReason) {
    const Case& c = GetParam();
    std::vector<std::string> canonical;
    std::string reason;
    bool fits = checkValues(c.variable, c.values, &canonical, &reason);
    if (c.reason == nullptr) {
        EXPECT_TRUE(fits) << reason;
        EXPECT_EQ(canonical, c.canonical);
    } else {
        EXPECT_FALSE(fits);
        EXPECT_EQ(reason, c.reason);
    }
}

const std::string kLong(41, 'x');

const Case kCases[] = {
    {integer(576, 9000), {"1500"}, {"1500"}, nullptr},
    {integer(576, 9000), {"576"}, {"576"}, nullptr},
    {integer(576, 9000), {"9000"}, {"9000"}, nullptr},
    {integer(576, 9000), {"0009000"}, {"9000"}, nullptr},
    {integer(-12, 24), {"-0"}, {"0"}, nullptr},
    {integer(576, 9000), {"575"}, {}, "value 575 of 'mtu' is below the minimum 576"},
    {integer(576, 9000), {"9001"}, {}, "value 9001 of 'mtu' is above the maximum 9000"},
    {integer(576, 9000), {"+1500"}, {}, "value '+1500' of 'mtu' is not an integer"},
    {integer(576, 9000), {" 1500"}, {}, "value ' 1500' of 'mtu' is not an integer"},
    {integer(576, 9000), {"15e2"}, {}, "value '15e2' of 'mtu' is not an integer"},
    {integer(576, 9000), {""}, {}, "value '' of 'mtu' is not an integer"},
    {integer(576, 9000), {"-"}, {}, "value '-' of 'mtu' is not an integer"},
    {integer(INT64_MIN, INT64_MAX),
     {"9223372036854775808"},
     {},
     "value '9223372036854775808' of 'mtu' is not an integer"},
    {integer(INT64_MIN, INT64_MAX), {"-9223372036854775808"}, {"-9223372036854775808"}, nullptr},
    {boolean(), {"on"}, {"true"}, nullptr},
    {boolean(), {"0"}, {"false"}, nullptr},
    {boolean(),
     {"True"},
     {},
     "value 'True' of 'dhcp' is not a boolean (true, false, on, off, yes, no, 1, 0)"},
    {option(), {"hdmi"}, {"hdmi"}, nullptr},
    {option(), {"HDMI"}, {}, "value 'HDMI' of 'out' is not one of: speaker, hdmi"},
    {text(4), {"abcd"}, {"abcd"}, nullptr},
    {text(4), {"abcde"}, {}, "value of 'host' is 5 bytes long; at most 4 are allowed"},
    {text(255), {"gr\xc3\xbc\xc3\x9f"}, {"gr\xc3\xbc\xc3\x9f"}, nullptr},
    {text(255), {"\xff"}, {}, "value of 'host' is not UTF-8 text"},
    {text(255), {"\xc0\xaf"}, {}, "value of 'host' is not UTF-8 text"},      // overlong '/'
    {text(255), {"\xed\xa0\x80"}, {}, "value of 'host' is not UTF-8 text"},  // surrogate
    {text(255), {std::string("a\0b", 3)}, {}, "value of 'host' is not UTF-8 text"},
    {text(255),
     {std::string(kMaxValueBytes + 1, 'a')},
     {},
     "value of 'host' is longer than 4096 bytes"},
    {integer(0, 1),
     {"\x01" + kLong},
     {},
     "value '?xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx...' of 'mtu' is not an integer"},
    {text(255), {}, {}, "'host' takes exactly one value, not 0"},
    {text(255), {"a", "b"}, {}, "'host' takes exactly one value, not 2"},
    {list(0, 2), {}, {}, nullptr},
    {list(0, 2), {"a", "b"}, {"a", "b"}, nullptr},
    {list(0, 2), {"a", "b", "c"}, {}, "'dns' takes at most 2 values, not 3"},
    {list(1, 2), {}, {}, "'dns' takes at least 1 values, not 0"},
    {list(0, 2), {"a", "\xff"}, {}, "value of 'dns' is not UTF-8 text"},
};

INSTANTIATE_TEST_SUITE_P(Table, ValueCheckCase, testing::ValuesIn(kCases));

}  // namespace
}  // namespace configsrvc
