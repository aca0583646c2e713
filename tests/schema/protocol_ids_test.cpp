// The protocol's message ids (Common/protobuf/v3/config_protocol.h) against the pinned list in
// protocol_ids.txt and against the schema: every message that travels on its own has exactly one
// id, no two share one, and every request's response is found. (The tool's own four constants are
// checked against the list when the tool compiles: tool/transport/MessageIds.h.)
#include <gtest/gtest.h>

#include <regex>
#include <set>

#include "CaseFile.h"
#include "Common/protobuf/v3/ConfigProtocol.h"
#include "Common/protobuf/v3/configservice.pb.h"
#include "TempDir.h"

namespace testsupport {
namespace {

bool travelsAlone(const std::string& name) {
    return std::regex_search(name, std::regex(".(Req|Rsp|Cmd|Ntfy)$"));
}

TEST(ProtocolIds, AreThePinnedOnesInSchemaOrder) {
    std::vector<std::pair<std::string, uint32_t>> pinned;
    uint32_t id = 0;
    for (const CaseRow& row : readCaseFile(SCHEMA_DATA_DIR "/protocol_ids.txt").rows) {
        id = row[0] == "+" ? id : static_cast<uint32_t>(std::stoul(row[0], nullptr, 16));
        for (const std::string& name : split(row[1], " ")) {
            pinned.emplace_back(name, id++);
        }
    }
    std::vector<std::pair<std::string, uint32_t>> table;
    for (const ConfigProtocol::MessageType& type : ConfigProtocol::kMessageTypes) {
        table.emplace_back(type.name, type.id);
    }
    EXPECT_EQ(table, pinned);

    const google::protobuf::FileDescriptor* file = ConfigIF::ReadReq::descriptor()->file();
    std::vector<std::string> travelling;
    for (int i = 0; i < file->message_type_count(); ++i) {
        if (travelsAlone(file->message_type(i)->name())) {
            travelling.push_back(file->message_type(i)->name());
        }
    }
    std::vector<std::string> named;
    std::set<uint32_t> ids;
    for (const auto& [name, id] : table) {
        named.push_back(name);
        EXPECT_TRUE(ids.insert(id).second) << name << " shares its id";
    }
    EXPECT_EQ(named, travelling);
}

TEST(ProtocolIds, PairEveryRequestWithItsResponse) {
    for (const ConfigProtocol::MessageType& type : ConfigProtocol::kMessageTypes) {
        const std::string name = type.name;
        if (name.size() > 3 && name.compare(name.size() - 3, 3, "Req") == 0) {
            const uint32_t response = ConfigProtocol::responseIdOf(type.id);
            ASSERT_NE(response, 0u) << name;
            EXPECT_EQ(ConfigProtocol::messageNameOf(response),
                      name.substr(0, name.size() - 3) + "Rsp");
        } else {
            EXPECT_EQ(ConfigProtocol::responseIdOf(type.id), 0u) << name << " is no request";
        }
    }
    EXPECT_EQ(ConfigProtocol::responseIdOf(0x12345678), 0u);
}

}  // namespace
}  // namespace testsupport
