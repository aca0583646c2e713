#include "ConfigPath.h"

#include <google/protobuf/text_format.h>
#include <google/protobuf/util/message_differencer.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>

#include "TempDir.h"

namespace testsupport {
namespace {

// `text` with every match of `pattern` replaced by what `replace` makes of it, in one pass.
template <typename Replace>
std::string replaceAll(const std::string& text, const std::regex& pattern, Replace replace) {
    std::string out;
    auto last = text.cbegin();
    for (std::sregex_iterator it(text.begin(), text.end(), pattern), end; it != end; ++it) {
        out.append(last, (*it)[0].first);
        out += replace(*it);
        last = (*it)[0].second;
    }
    return out.append(last, text.cend());
}

}  // namespace

ConfigIF::Inst instOf(const std::string& path) {
    ConfigIF::Inst inst;
    for (const std::string& step : split(path, "/")) {
        ConfigIF::Node* node = inst.add_node();
        const size_t blank = step.find(' ');
        node->set_name(step.substr(0, blank));
        node->set_instance(blank == std::string::npos
                               ? 0
                               : static_cast<int32_t>(std::strtol(&step[blank], nullptr, 10)));
    }
    return inst;
}

ConfigIF::ReadReq readRequest(const std::string& path, CommonIF::eSecurityRole role) {
    ConfigIF::ReadReq request;
    request.set_name("test");
    request.set_role(role);
    *request.mutable_instance() = instOf(path);
    return request;
}

ConfigIF::WriteReq writeRequest(const std::string& path, const std::vector<std::string>& values,
                                CommonIF::eSecurityRole role) {
    ConfigIF::WriteReq request;
    request.set_name("test");
    request.set_role(role);
    *request.mutable_instance_val()->mutable_instance() = instOf(path);
    request.mutable_instance_val()->mutable_value()->Add(values.begin(), values.end());
    return request;
}

ConfigIF::SubmitReq submitRequest(const std::string& path, ConfigIF::SubmitType type,
                                  CommonIF::eSecurityRole role) {
    ConfigIF::SubmitReq request;
    request.set_name("test");
    request.set_role(role);
    *request.mutable_instance() = instOf(path);
    request.set_type(type);
    return request;
}

std::string expandText(const std::string& text) {
    if (text == "-") {
        return "";
    }
    static const std::regex kRepeat(R"(<<(\d+): ([^>]*)>>)");
    static const std::regex kPath(R"(\{\{([^}]*)\}\})");
    // Paths first, so that a repeated text is expanded once and not once per copy.
    const std::string paths = replaceAll(
        text, kPath, [](const std::smatch& match) { return instOf(match[1]).ShortDebugString(); });
    return replaceAll(paths, kRepeat, [](const std::smatch& match) {
        std::string copies;
        for (int i = std::stoi(match[1]); i > 0; --i) {
            copies += match[2].str() + " ";
        }
        return copies;
    });
}

std::unique_ptr<google::protobuf::Message> messageOf(const std::string& type,
                                                     const std::string& text) {
    const google::protobuf::Descriptor* descriptor =
        google::protobuf::DescriptorPool::generated_pool()->FindMessageTypeByName("ConfigIF." +
                                                                                  type);
    std::unique_ptr<google::protobuf::Message> message(
        descriptor == nullptr ? nullptr
                              : google::protobuf::MessageFactory::generated_factory()
                                    ->GetPrototype(descriptor)
                                    ->New());
    google::protobuf::TextFormat::Parser parser;
    parser.AllowPartialMessage(true);
    if (message == nullptr || !parser.ParseFromString(expandText(text), message.get())) {
        ADD_FAILURE() << "no message " << type << " of: " << text;
        return nullptr;
    }
    return message;
}

std::unique_ptr<google::protobuf::Message> requestOf(const std::string& type,
                                                     const std::string& role,
                                                     const std::string& fields) {
    return messageOf(type + "Req", "name: 'test' " + (role == "-" ? "" : "role: " + role + " ") +
                                       expandText(fields));
}

bool holdsFields(const google::protobuf::Message& expected, const google::protobuf::Message& answer,
                 std::string* differences) {
    google::protobuf::util::MessageDifferencer differ;
    differ.set_scope(google::protobuf::util::MessageDifferencer::PARTIAL);
    differ.ReportDifferencesToString(differences);
    return differ.Compare(expected, answer);
}

CommonIF::eErrorType errorOf(const google::protobuf::Message& response) {
    const google::protobuf::Descriptor* type = response.GetDescriptor();
    if (const google::protobuf::FieldDescriptor* error = type->FindFieldByName("error")) {
        return static_cast<CommonIF::eErrorType>(
            response.GetReflection()->GetEnumValue(response, error));
    }
    const google::protobuf::FieldDescriptor* ret = type->FindFieldByName("ret_message");
    EXPECT_NE(ret, nullptr) << response.GetTypeName() << " tells no error";
    return ret == nullptr ? CommonIF::kErrGenericError
                          : errorOf(response.GetReflection()->GetMessage(response, ret));
}

}  // namespace testsupport
