// WireWriter: writing protocol messages as the bytes the protocol buffer runtime would write
// for them (fields in number order, varints in their shortest form, int32 and enum values that
// are negative sign-extended to ten bytes), for the answers and notices the service makes so
// often that building them as messages would cost more than the work behind them.
//
// The writers write into room the caller has already made, sized with the *Size functions, and
// return the end of what they wrote: growing a string for every small field costs more than
// working the sizes out first. Nothing here checks room; callers size first, then write.
#ifndef CONFIGSRVC_WIREWRITER_H
#define CONFIGSRVC_WIREWRITER_H

#include <cstdint>
#include <cstring>
#include <string_view>

#include "Common/protobuf/v3/configservice.pb.h"
#include "DeviceModel.h"

namespace configsrvc {
namespace wire {

enum WireType : uint32_t { kVarint = 0, kLengthDelimited = 2 };

constexpr uint32_t tagOf(uint32_t field, WireType type) {
    return field << 3 | type;
}

// Inst and Node, as every answer and notice about an instance carries them.
constexpr uint32_t kNodeTag = tagOf(ConfigIF::Inst::kNodeFieldNumber, kLengthDelimited);
constexpr uint32_t kScopeTag = tagOf(ConfigIF::Inst::kScopeFieldNumber, kVarint);
constexpr uint32_t kNodeNameTag = tagOf(ConfigIF::Node::kNameFieldNumber, kLengthDelimited);
constexpr uint32_t kNodeInstanceTag = tagOf(ConfigIF::Node::kInstanceFieldNumber, kVarint);

inline size_t varintSize(uint64_t value) {
    size_t size = 1;
    while (value >= 0x80) {
        value >>= 7;
        ++size;
    }
    return size;
}

// How the runtime writes an int32 or enum: negative numbers as their 64-bit two's complement.
inline uint64_t asVarint(int32_t value) {
    return static_cast<uint64_t>(static_cast<int64_t>(value));
}

inline size_t delimitedSize(uint32_t tag, size_t length) {
    return varintSize(tag) + varintSize(length) + length;
}

inline size_t varintFieldSize(uint32_t tag, int32_t value) {
    return varintSize(tag) + varintSize(asVarint(value));
}

inline char* putVarint(char* at, uint64_t value) {
    while (value >= 0x80) {
        *at++ = static_cast<char>(value | 0x80);
        value >>= 7;
    }
    *at++ = static_cast<char>(value);
    return at;
}

inline char* putVarintField(char* at, uint32_t tag, int32_t value) {
    return putVarint(putVarint(at, tag), asVarint(value));
}

inline char* putDelimitedHead(char* at, uint32_t tag, size_t length) {
    return putVarint(putVarint(at, tag), length);
}

inline char* putBytes(char* at, std::string_view bytes) {
    std::memcpy(at, bytes.data(), bytes.size());
    return at + bytes.size();
}

inline size_t answeredNodeSize(const PathStep& step) {
    return delimitedSize(kNodeNameTag, step.name.size()) +
           varintFieldSize(kNodeInstanceTag, step.instance);
}

// The Inst of `found` as the service answers it: the model's names and instance numbers, and
// `scope` when it is not negative.
inline size_t answeredSize(const ResolvedVariable& found, int32_t scope) {
    size_t size = scope >= 0 ? varintFieldSize(kScopeTag, scope) : 0;
    for (const PathStep& step : found.answered) {
        size += delimitedSize(kNodeTag, answeredNodeSize(step));
    }
    return size;
}

inline char* putAnswered(char* at, const ResolvedVariable& found, int32_t scope) {
    for (const PathStep& step : found.answered) {
        at = putDelimitedHead(at, kNodeTag, answeredNodeSize(step));
        at = putDelimitedHead(at, kNodeNameTag, step.name.size());
        at = putBytes(at, step.name);
        at = putVarintField(at, kNodeInstanceTag, step.instance);
    }
    return scope >= 0 ? putVarintField(at, kScopeTag, scope) : at;
}

}  // namespace wire
}  // namespace configsrvc

#endif  // CONFIGSRVC_WIREWRITER_H
