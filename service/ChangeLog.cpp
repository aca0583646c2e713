#include "ChangeLog.h"

#include <sstream>
#include <string_view>

#include <pugixml.hpp>

#include "Overrides.h"
#include "WireWriter.h"

namespace configsrvc {

namespace {

void appendVarint(uint64_t value, std::string* out) {
    char bytes[10];  // a 64-bit varint takes at most ten
    size_t count = 0;
    while (value >= 0x80) {
        bytes[count++] = static_cast<char>((value & 0x7f) | 0x80);
        value >>= 7;
    }
    bytes[count++] = static_cast<char>(value);
    out->append(bytes, count);
}

// The entry of a notification of type Notice, `body` being its encoding without user_context,
// about `path`.
template <typename Notice>
ChangeEntry entryOfBody(ConfigIF::CallbackType type, uint32_t msgId, std::string body,
                        std::string path) {
    ChangeEntry entry;
    entry.type = type;
    entry.msgId = msgId;
    entry.contextField = Notice::kUserContextFieldNumber;
    entry.path = std::move(path);
    entry.body = std::move(body);
    return entry;
}

template <typename Notice>
ChangeEntry entryOf(ConfigIF::CallbackType type, uint32_t msgId, const Notice& notice,
                    std::string path) {
    return entryOfBody<Notice>(type, msgId, notice.SerializePartialAsString(), std::move(path));
}

// A ConfigChangedNtfy without user_context, written as the runtime writes it. Every committed
// value change has one; building and encoding it as messages cost more than the rest of the
// commit's bookkeeping together.
std::string valueNoticeBody(const ResolvedVariable& found, const std::vector<std::string>& values) {
    using namespace wire;
    constexpr uint32_t kInstanceValTag =
        tagOf(ConfigIF::ConfigChangedNtfy::kInstanceValFieldNumber, kLengthDelimited);
    constexpr uint32_t kInstanceTag =
        tagOf(ConfigIF::InstValue::kInstanceFieldNumber, kLengthDelimited);
    constexpr uint32_t kValueTag = tagOf(ConfigIF::InstValue::kValueFieldNumber, kLengthDelimited);
    const size_t instance = answeredSize(found, -1);
    size_t instanceValue = delimitedSize(kInstanceTag, instance);
    for (const std::string& value : values) {
        instanceValue += delimitedSize(kValueTag, value.size());
    }
    std::string body(delimitedSize(kInstanceValTag, instanceValue), '\0');
    char* at = putDelimitedHead(body.data(), kInstanceValTag, instanceValue);
    at = putAnswered(putDelimitedHead(at, kInstanceTag, instance), found, -1);
    for (const std::string& value : values) {
        at = putBytes(putDelimitedHead(at, kValueTag, value.size()), value);
    }
    return body;
}

void fillInstance(const ResolvedVariable& found, ConfigIF::Inst* instance,
                  std::vector<int32_t>* numbers) {
    for (const PathStep& step : found.answered) {
        ConfigIF::Node* node = instance->add_node();
        node->set_name(std::string(step.name));
        node->set_instance(step.instance);
        numbers->push_back(step.instance);
    }
}

// <attributes NAME="VALUE" .../>, in the vocabulary SetAttributeReq takes.
std::string attributesXml(const std::vector<std::string>& pairs) {
    pugi::xml_document document;
    pugi::xml_node root = document.append_child("attributes");
    for (size_t i = 0; i + 1 < pairs.size(); i += 2) {
        root.append_attribute(pairs[i].c_str()) = pairs[i + 1].c_str();
    }
    std::ostringstream text;
    document.save(text, "", pugi::format_raw | pugi::format_no_declaration);
    return text.str();
}

ChangeEntry attributeNotice(const std::string& path, const std::vector<std::string>& pairs) {
    ConfigIF::AttributeChangedNtfy notice;
    notice.set_node_name(path);
    notice.set_node_xml_attributes(attributesXml(pairs));
    return entryOf(ConfigIF::kAttribute, ConfigProtocol::kAttributeChangedNtfyMsgId, notice, path);
}

// The notice of a changed value, options or levels record of an instance.
bool instanceNotice(const DeviceModel& model, const Records& after, const StoredChange& change,
                    ChangeEntry* entry) {
    thread_local ResolvedVariable found;  // its room is kept from commit to commit
    if (!model.resolveKey(change.key, &found)) {
        return false;
    }
    VariableDef scratch;
    const VariableDef& variable = effectiveVariable(after, found, &scratch);
    std::vector<int32_t> numbers;
    numbers.reserve(found.answered.size());
    if (change.kind == RecordKind::kValue) {
        for (const PathStep& step : found.answered) {
            numbers.push_back(step.instance);
        }
        *entry = entryOfBody<ConfigIF::ConfigChangedNtfy>(
            ConfigIF::kChangeNotify, ConfigProtocol::kConfigChangedNtfyMsgId,
            valueNoticeBody(found, change.reset ? variable.defaults : change.values),
            variable.path);
    } else if (change.kind == RecordKind::kOptions) {
        ConfigIF::OptionsChangedNtfy notice;
        fillInstance(found, notice.mutable_instance(), &numbers);
        for (const std::string& option : variable.options) {
            notice.add_new_options(option);
        }
        *entry = entryOf(ConfigIF::kOptions, ConfigProtocol::kOptionsChangedNtfyMsgId, notice,
                         variable.path);
    } else {
        ConfigIF::AccessLevelChangedNtfy notice;
        fillInstance(found, notice.mutable_instance(), &numbers);
        notice.set_read_role(variable.readLevel);
        notice.set_write_role(variable.writeLevel);
        *entry = entryOf(ConfigIF::kAccessLevel, ConfigProtocol::kAccessLevelChangedNtfyMsgId,
                         notice, variable.path);
    }
    entry->instances = std::move(numbers);
    entry->level = variable.readLevel;
    return true;
}

}  // namespace

void noticesOf(const DeviceModel& model, const Records& after, const StoredChange& change,
               const std::vector<std::string>* before, std::vector<ChangeEntry>* entries) {
    const bool unchanged =
        change.reset ? before == nullptr : before != nullptr && *before == change.values;
    if (unchanged) {
        return;
    }
    static const std::vector<std::string> kNone;
    switch (change.kind) {
        case RecordKind::kAttributes:
            // A reset is told as no attributes of its own: the model's hold again.
            entries->push_back(attributeNotice(change.key, change.reset ? kNone : change.values));
            return;
        case RecordKind::kComponents:
            entries->push_back(
                attributeNotice(change.key, {"detached", change.reset ? "false" : "true"}));
            return;
        default: {
            ChangeEntry entry;
            if (instanceNotice(model, after, change, &entry)) {
                entries->push_back(std::move(entry));
            }
        }
    }
}

ChangeEntry submitNotice(const std::string& scope, ConfigIF::SubmitType type) {
    ConfigIF::SubmitNtfy notice;
    notice.mutable_instance()->ParsePartialFromString(scope);
    notice.set_type(type);
    std::string path;
    std::vector<int32_t> numbers;
    for (const ConfigIF::Node& node : notice.instance().node()) {
        path += (path.empty() ? "" : ".") + node.name();
        numbers.push_back(node.instance());
    }
    ChangeEntry entry =
        entryOf(ConfigIF::kSubmit, ConfigProtocol::kSubmitNtfyMsgId, notice, std::move(path));
    entry.instances = std::move(numbers);
    return entry;
}

std::string encodeNotice(const ChangeEntry& entry, const std::string& userContext) {
    std::string encoded;
    encoded.reserve(entry.body.size() + userContext.size() + 8);
    encoded = entry.body;
    appendVarint(entry.contextField << 3 | 2, &encoded);  // a length-delimited field
    appendVarint(userContext.size(), &encoded);
    encoded += userContext;
    return encoded;
}

ChangeLog::ChangeLog(uint64_t lastSequence, size_t maxEntries)
    : maxEntries_(maxEntries), last_(lastSequence), forgotten_(lastSequence) {}

void ChangeLog::commit(uint64_t sequence, std::vector<ChangeEntry>* entries) {
    last_ = sequence;
    for (ChangeEntry& entry : *entries) {
        entry.sequence = sequence;
        entries_.push_back(std::move(entry));
    }
    entries->clear();
    while (entries_.size() > maxEntries_) {
        const uint64_t oldest = entries_.front().sequence;
        while (!entries_.empty() && entries_.front().sequence == oldest) {
            entries_.pop_front();
            ++first_;
        }
        forgotten_ = oldest;
    }
}

bool ChangeLog::indexAfter(uint64_t sequence, uint64_t* index) const {
    if (sequence < forgotten_) {
        return false;
    }
    uint64_t at = end();
    while (at > first_ && entries_[at - 1 - first_].sequence > sequence) {
        --at;
    }
    *index = at;
    return true;
}

}  // namespace configsrvc
