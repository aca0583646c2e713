#include "ConfigClient.h"

#include <cstdio>

#include "ErrorNames.h"
#include "LogStream.h"
#include "Roles.h"
#include "transport/Exchange.h"
#include "transport/MessageIds.h"

const char* ConfigClient::nameToSend(const char* clientName) const {
    return clientName != nullptr ? clientName : endpoint.localName.c_str();
}

int ConfigClient::read(const char* clientName, const char* roleName,
                       const ConfigIF::Inst& instance) {
    ConfigIF::ReadReq request;
    request.set_name(nameToSend(clientName));
    request.set_role(roleFromName(roleName));
    request.mutable_instance()->CopyFrom(instance);

    ConfigIF::ReadRsp response;
    const int status = exchange(kReadReqMsgId, request, kReadRspMsgId, response);
    if (status != 0) {
        return status;
    }
    if (response.error() != CommonIF::kErrNoError) {
        LogStream::instance() << "ReadRsp error " << response.error() << '\n';
        return response.error();
    }
    for (const std::string& value : response.value()) {
        std::fwrite(value.data(), 1, value.size(), stdout);
        std::fputc('\n', stdout);
        std::fflush(stdout);
    }
    return 0;
}

int ConfigClient::write(const char* clientName, const char* roleName,
                        const ConfigIF::InstValue& instanceValue) {
    ConfigIF::WriteReq request;
    request.set_name(nameToSend(clientName));
    request.set_role(roleFromName(roleName));
    request.mutable_instance_val()->CopyFrom(instanceValue);

    ConfigIF::WriteRsp response;
    const int status = exchange(kWriteReqMsgId, request, kWriteRspMsgId, response);
    if (status != 0) {
        return status;
    }
    const CommonIF::eErrorType error = response.ret_message().error();
    if (error != CommonIF::kErrNoError) {
        LogStream::instance() << "WriteRsp error " << error << '\n';
        return error;
    }
    return 0;
}

int ConfigClient::exchange(uint32_t requestId, const google::protobuf::Message& request,
                           uint32_t responseId, google::protobuf::Message& response) {
    return exchangeMessages(endpoint, requestId, request, responseId, response);
}
