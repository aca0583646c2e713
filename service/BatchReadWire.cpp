// Reads straight from the request's bytes to the answer's bytes, single and batched.
//
// Parsing a hundred paths into messages and building a hundred answers as messages is most of
// what a batch read costs the service: every node is an allocation and every name a copy; for a
// single read the messages cost more than the lookup itself. Here
// the request is read with a small wire reader whose names are views into the payload, every
// instance is looked up as it is read, and the answer is appended as the bytes the runtime would
// write for the same ReadRsp or BatchReadRsp: fields in number order, required ones always,
// optional ones when set, varints in their shortest form, negative enums sign-extended to ten
// bytes.
//
// Only the plain form that clients send is taken: the known fields with their own wire types,
// canonical varints, known enum values, every required field, a printable ASCII requester
// name, a claim the sender may make, instances that all resolve and may all be read, and no
// submission open on the sender's connection (whose staged writes the reads would see). On
// anything else answerReadFromWire() gives up and ConfigService::handle() answers in full,
// refusals and log lines included; a unit test and the fuzz target service_requests hold the
// two to the same bytes.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "Common/protobuf/v3/ConfigProtocol.h"
#include "ConfigService.h"
#include "Overrides.h"
#include "WireWriter.h"

namespace configsrvc {

namespace {

using CommonIF::eSecurityRole;

using namespace wire;

// ReadReq and BatchReadReq, alike on the wire but for one instance against many
constexpr uint32_t kRequesterTag = tagOf(10, kLengthDelimited);
constexpr uint32_t kRoleTag = tagOf(20, kVarint);
constexpr uint32_t kInstanceTag = tagOf(30, kLengthDelimited);
// BatchReadRsp
constexpr uint32_t kBatchErrorTag = tagOf(10, kVarint);
constexpr uint32_t kItemTag = tagOf(20, kLengthDelimited);
// ReadRsp
constexpr uint32_t kItemErrorTag = tagOf(10, kVarint);
constexpr uint32_t kValueTag = tagOf(20, kLengthDelimited);
constexpr uint32_t kIsDefaultTag = tagOf(30, kVarint);
constexpr uint32_t kAnsweredTag = tagOf(40, kLengthDelimited);

// Reads the plain form only: a varint that is not in its shortest form, a length past the end,
// or bytes left over mean "not plain", never a guess.
class WireReader {
  public:
    WireReader(const uint8_t* begin, const uint8_t* end) : at_(begin), end_(end) {}

    bool done() const { return at_ == end_; }

    bool varint(uint64_t* value) {
        uint64_t result = 0;
        for (int shift = 0; shift < 64 && at_ != end_; shift += 7) {
            const uint8_t byte = *at_++;
            result |= static_cast<uint64_t>(byte & 0x7f) << shift;
            if ((byte & 0x80) == 0) {
                // A zero last byte after the first is a longer form than needed; the tenth
                // byte holds a single bit.
                const bool shortest = shift == 0 || byte != 0;
                *value = result;
                return shortest && (shift < 63 || byte <= 1);
            }
        }
        return false;
    }

    // The next `length`-prefixed field as a reader of its own, skipped in this one.
    bool nested(WireReader* inner) {
        std::string_view bytes;
        if (!delimited(&bytes)) {
            return false;
        }
        const auto* begin = reinterpret_cast<const uint8_t*>(bytes.data());
        *inner = WireReader(begin, begin + bytes.size());
        return true;
    }

    bool delimited(std::string_view* bytes) {
        uint64_t length = 0;
        if (!varint(&length) || length > static_cast<uint64_t>(end_ - at_)) {
            return false;
        }
        *bytes = std::string_view(reinterpret_cast<const char*>(at_), length);
        at_ += length;
        return true;
    }

  private:
    const uint8_t* at_;
    const uint8_t* end_;
};

// An int32 field as the runtime reads it from the plain form: 0 to INT32_MAX in at most five
// bytes (a negative number takes ten, which the service's answers never need).
bool readInt32(WireReader* reader, int32_t* value) {
    uint64_t raw = 0;
    if (!reader->varint(&raw) || raw > INT32_MAX) {
        return false;
    }
    *value = static_cast<int32_t>(raw);
    return true;
}

bool readNode(WireReader reader, PathStep* step) {
    bool hasName = false;
    bool hasInstance = false;
    while (!reader.done()) {
        uint64_t tag = 0;
        if (!reader.varint(&tag)) {
            return false;
        }
        if (tag == kNodeNameTag && reader.delimited(&step->name)) {
            hasName = true;
        } else if (tag == kNodeInstanceTag && readInt32(&reader, &step->instance)) {
            hasInstance = true;
        } else {
            return false;
        }
    }
    return hasName && hasInstance;
}

// One requested instance: its path, and its scope when the request gives one.
struct WireInstance {
    std::vector<PathStep> path;
    int32_t scope = -1;  // -1: not given
};

bool readInstance(WireReader reader, WireInstance* instance) {
    instance->path.clear();
    instance->scope = -1;
    while (!reader.done()) {
        uint64_t tag = 0;
        WireReader inner(nullptr, nullptr);
        if (!reader.varint(&tag)) {
            return false;
        }
        if (tag == kNodeTag && reader.nested(&inner)) {
            if (instance->path.size() == kMaxPathDepth ||
                !readNode(inner, &instance->path.emplace_back())) {
                return false;
            }
        } else if (tag == kScopeTag && readInt32(&reader, &instance->scope) &&
                   ConfigIF::Scope_IsValid(instance->scope)) {
            continue;
        } else {
            return false;
        }
    }
    return true;
}

// The head of a read: who asks, as what, and the instances' bytes, in order.
struct WireBatch {
    std::string_view requester;
    int32_t role = -1;
    std::vector<WireReader> instances;
};

// At most `maxInstances` instances: a single read's instance given twice is one instance to the
// runtime (the two are merged), which only the full path reproduces.
bool readBatch(const void* payload, size_t bytes, size_t maxInstances, WireBatch* batch) {
    const auto* begin = static_cast<const uint8_t*>(payload);
    WireReader reader(begin, begin + bytes);
    bool hasRequester = false;
    while (!reader.done()) {
        uint64_t tag = 0;
        if (!reader.varint(&tag)) {
            return false;
        }
        WireReader inner(nullptr, nullptr);
        if (tag == kRequesterTag && reader.delimited(&batch->requester)) {
            hasRequester = true;
        } else if (tag == kRoleTag && readInt32(&reader, &batch->role) &&
                   CommonIF::eSecurityRole_IsValid(batch->role)) {
            continue;
        } else if (tag == kInstanceTag && reader.nested(&inner) &&
                   batch->instances.size() < maxInstances) {
            batch->instances.push_back(inner);
        } else {
            return false;
        }
    }
    const auto printableAscii = [](char c) { return c >= 0x20 && c <= 0x7e; };
    return hasRequester && batch->role >= 0 &&
           std::all_of(batch->requester.begin(), batch->requester.end(), printableAscii);
}

// The size of the ReadRsp of a read that succeeded.
size_t itemSize(const std::vector<std::string>& values, size_t answered) {
    size_t size = varintFieldSize(kItemErrorTag, CommonIF::kErrNoError) +
                  varintFieldSize(kIsDefaultTag, 1) + delimitedSize(kAnsweredTag, answered);
    for (const std::string& value : values) {
        size += delimitedSize(kValueTag, value.size());
    }
    return size;
}

char* putItem(char* at, const std::vector<std::string>& values, bool isDefault,
              const ResolvedVariable& found, int32_t scope, size_t answered) {
    at = putVarintField(at, kItemErrorTag, CommonIF::kErrNoError);
    for (const std::string& value : values) {
        at = putDelimitedHead(at, kValueTag, value.size());
        at = putBytes(at, value);
    }
    at = putVarintField(at, kIsDefaultTag, isDefault ? 1 : 0);
    at = putDelimitedHead(at, kAnsweredTag, answered);
    return putAnswered(at, found, scope);
}

// Appends the ReadRsp of a read that succeeded, as a BatchReadRsp's item when `asItem`.
void appendItem(std::string* out, bool asItem, const std::vector<std::string>& values,
                bool isDefault, const ResolvedVariable& found, int32_t scope) {
    const size_t answered = answeredSize(found, scope);
    const size_t size = itemSize(values, answered);
    const size_t start = out->size();
    out->resize(start + (asItem ? delimitedSize(kItemTag, size) : size));
    char* at = &(*out)[start];
    if (asItem) {
        at = putDelimitedHead(at, kItemTag, size);
    }
    putItem(at, values, isDefault, found, scope, answered);
}

}  // namespace

bool ConfigService::answerReadFromWire(uint32_t requestId, const void* payload, size_t bytes,
                                       const Sender& sender, std::string* encoded,
                                       Answer* answer) const {
    const bool batched = requestId == ConfigProtocol::kBatchReadReqMsgId;
    if (!batched && requestId != ConfigProtocol::kReadReqMsgId) {
        return false;
    }
    // Kept from call to call (each thread its own), so that a warm service reads without
    // allocating: every call clears what it reuses.
    thread_local WireBatch batch;
    thread_local WireInstance instance;
    thread_local ResolvedVariable found;
    batch.requester = {};
    batch.role = -1;
    batch.instances.clear();
    std::string reason;
    if (bytes > kMaxRequestBytes || openSubmission(sender) != nullptr ||
        !readBatch(payload, bytes, batched ? static_cast<size_t>(kMaxBatchInstances) : 1, &batch) ||
        (!batched && batch.instances.size() != 1) ||
        checkClaim(static_cast<eSecurityRole>(batch.role), sender.uid, &reason) !=
            CommonIF::kErrNoError) {
        return false;
    }
    const auto role = static_cast<eSecurityRole>(batch.role);
    const Records& records = state_.committed();
    encoded->clear();
    if (batched) {
        encoded->resize(varintFieldSize(kBatchErrorTag, CommonIF::kErrNoError));
        putVarintField(encoded->data(), kBatchErrorTag, CommonIF::kErrNoError);
    }
    for (const WireReader& bytesOfInstance : batch.instances) {
        if (!readInstance(bytesOfInstance, &instance) || !model_.resolve(instance.path, &found)) {
            return false;
        }
        VariableDef scratch;
        const VariableDef& variable = effectiveVariable(records, found, &scratch);
        if (role < variable.readLevel || detachedOf(records, found.variable->components)) {
            return false;
        }
        const std::vector<std::string>* stored = records.find(RecordKind::kValue, found.key);
        appendItem(encoded, batched, stored ? *stored : variable.defaults, stored == nullptr, found,
                   instance.scope);
    }
    answer->msgId = batched ? ConfigProtocol::kBatchReadRspMsgId : ConfigProtocol::kReadRspMsgId;
    answer->requester = std::string(batch.requester.substr(0, 64));
    return true;
}

}  // namespace configsrvc
