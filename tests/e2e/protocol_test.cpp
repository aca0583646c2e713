// The whole protocol through the client library against the real configsrvc: the sessions of
// protocol_sessions.txt, and discovery of the example model over the protocol alone.
#include <google/protobuf/util/message_differencer.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>
#include <pugixml.hpp>

#include <memory>
#include <string>

#include "CaseFile.h"
#include "ModelLoader.h"
#include "ServiceClient.h"

namespace {

using configclient::ConfigSession;
using google::protobuf::Message;
using testsupport::kAnswerMs;
using testsupport::kConnectMs;
// This process may claim up to kSystem, so that claims above it can be refused.
constexpr char kOwnClaim[] = "kSystem";

class Protocol : public testing::Test {
  protected:
    // The example model, with this process's uid limited to kOwnClaim.
    void SetUp() override {
        std::string model = testsupport::readFile(testsupport::kExampleModel);
        const std::string claims = "<claims others=\"kAdmin\">";
        ASSERT_NE(model.find(claims), std::string::npos);
        model.insert(model.find(claims) + claims.size(),
                     "<uid id=\"" + std::to_string(geteuid()) + "\" max=\"" + kOwnClaim + "\"/>");
        service_.model = service_.root() + "/model.xml";
        ASSERT_TRUE(testsupport::writeFile(service_.model, model));
        ASSERT_TRUE(service_.start(&error_)) << error_;
        connect();
    }

    void connect() {
        session_ = std::make_unique<ConfigSession>();
        ASSERT_EQ(session_->connect("protocol-test", kConnectMs), ConfigSession::kOk);
    }

    // Sends the request of row "Type ROLE | request | expected response" and compares the
    // answer with the response, field by field.
    void ask(const testsupport::CaseRow& row) {
        const std::string type = row[0].substr(0, row[0].find(' '));
        const std::string role = row[0].substr(type.size() + 1);
        const std::unique_ptr<Message> request = testsupport::messageOf(
            type + "Req", "name: \"t\" role: " + role + " " + testsupport::expandText(row[1]));
        const std::unique_ptr<Message> expected = testsupport::messageOf(type + "Rsp", row[2]);
        const std::unique_ptr<Message> answer = testsupport::messageOf(type + "Rsp", "");
        ASSERT_TRUE(request && expected && answer);
        const uint32_t id = ConfigProtocol::messageIdOf(type + "Req");
        ASSERT_EQ(
            session_->call(id, *request, ConfigProtocol::responseIdOf(id), answer.get(), kAnswerMs),
            ConfigSession::kOk);
        std::string differences;
        google::protobuf::util::MessageDifferencer differ;
        differ.ReportDifferencesToString(&differences);
        EXPECT_TRUE(differ.Compare(*expected, *answer))
            << differences << "answer: " << answer->ShortDebugString();
    }

    // Ends the service as a power cut would, and starts it again on the same state.
    void kill() {
        session_.reset();
        ASSERT_EQ(service_.stop(SIGKILL), 128 + SIGKILL);
        ASSERT_TRUE(service_.start(&error_)) << error_;
        connect();
    }

    testsupport::ServiceProcess service_;
    std::unique_ptr<ConfigSession> session_;
    std::string error_;
};

const std::vector<testsupport::CaseBlock>& sessions() {
    static const std::vector<testsupport::CaseBlock> blocks =
        testsupport::readCaseFile(PROTOCOL_SESSIONS).blocks;
    return blocks;
}

class ProtocolSessions : public Protocol, public testing::WithParamInterface<size_t> {};

// The session of protocol_sessions.txt numbered by the parameter, on a fresh service.
TEST_P(ProtocolSessions, AnswerAsListed) {
    for (const testsupport::CaseRow& row : sessions()[GetParam()].body) {
        SCOPED_TRACE(row.where);
        if (row[0] == "(kill)") {
            kill();
        } else {
            ask(row);
        }
        if (HasFatalFailure()) {
            return;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(File, ProtocolSessions, testing::Range(size_t{0}, sessions().size()),
                         [](const testing::TestParamInfo<size_t>& info) {
                             return "line" + std::to_string(sessions()[info.param].head.line);
                         });

std::vector<std::string> childValues(const pugi::xml_node& element, const char* child,
                                     const char* attribute) {
    std::vector<std::string> values;
    for (const pugi::xml_node& entry : element.children(child)) {
        values.push_back(attribute ? entry.attribute(attribute).value() : entry.text().get());
    }
    return values;
}

size_t countVariables(const configsrvc::NodeDef& node) {
    size_t count = node.variables.size();
    for (const auto& child : node.nodes) {
        count += countVariables(*child);
    }
    return count;
}

// From the root down, with GetAttributeReq alone, a client finds every node and variable of the
// model and what the model says of each.
TEST_F(Protocol, DiscoversTheWholeModel) {
    configsrvc::DeviceModel model;
    ASSERT_TRUE(configsrvc::loadModelFile(service_.model, &model, &error_)) << error_;
    std::vector<std::string> pending = {""};
    size_t variables = 0;
    while (!pending.empty()) {
        ConfigIF::GetAttributeReq request;
        request.set_name("t");
        request.set_role(CommonIF::kUser);
        request.set_node_name(pending.back());
        pending.pop_back();
        SCOPED_TRACE("node_name '" + request.node_name() + "'");
        ConfigIF::GetAttributeRsp answer;
        ASSERT_EQ(session_->getAttribute(request, &answer, kAnswerMs), ConfigSession::kOk);
        ASSERT_EQ(answer.error(), CommonIF::kErrNoError);
        pugi::xml_document document;
        ASSERT_TRUE(document.load_string(answer.node_xml_attributes().c_str()));
        const pugi::xml_node element = document.document_element();
        const configsrvc::NodeDef* node = nullptr;
        const configsrvc::VariableDef* variable = nullptr;
        ASSERT_TRUE(model.findByPath(request.node_name(), &node, &variable));
        EXPECT_EQ(element.attribute("path").value(), request.node_name());
        if (node != nullptr) {
            ASSERT_STREQ(element.name(), "node");
            EXPECT_EQ(element.attribute("instances").as_int(), node->instances);
            const std::string prefix = node->path.empty() ? "" : node->path + ".";
            for (const char* kind : {"node", "variable"}) {
                for (const std::string& name : childValues(element, kind, "name")) {
                    pending.push_back(prefix + name);
                }
            }
            EXPECT_EQ(childValues(element, "node", "name").size(), node->nodes.size());
            continue;
        }
        ++variables;
        ASSERT_STREQ(element.name(), "variable");
        EXPECT_EQ(element.attribute("kind").value(), std::string(kindName(variable->kind)));
        EXPECT_EQ(element.attribute("read").value(),
                  CommonIF::eSecurityRole_Name(variable->readLevel));
        EXPECT_EQ(element.attribute("write").value(),
                  CommonIF::eSecurityRole_Name(variable->writeLevel));
        EXPECT_EQ(element.attribute("list").as_bool(), variable->isList);
        EXPECT_EQ(variable->isList ? childValues(element, "default", nullptr)
                                   : std::vector<std::string>{element.attribute("default").value()},
                  variable->defaults);
        EXPECT_EQ(childValues(element, "option", nullptr), variable->options);
    }
    EXPECT_EQ(variables, countVariables(model.root()));
}

}  // namespace
