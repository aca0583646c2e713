// Links the client library from an installed tree: reads one variable of the running service
// and prints its values, or the failure, with a non-zero status.
#include <cstdio>

#include "Common/protobuf/v3/configservice.pb.h"
#include "ConfigSession.h"

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: configclient_user NODE...\n");
        return 2;
    }
    configclient::ConfigSession session;
    if (session.connect("consumer", 2000) != configclient::ConfigSession::kOk) {
        std::fprintf(stderr, "connect: %s\n", MSG_StatusText(session.transportStatus()));
        return 1;
    }
    ConfigIF::ReadReq request;
    request.set_name("consumer");
    request.set_role(CommonIF::kUser);
    for (int i = 1; i < argc; ++i) {
        ConfigIF::Node* node = request.mutable_instance()->add_node();
        node->set_name(argv[i]);
        node->set_instance(0);
    }
    ConfigIF::ReadRsp response;
    const configclient::ConfigSession::Status status = session.read(request, &response, 2000);
    if (status != configclient::ConfigSession::kOk) {
        std::fprintf(stderr, "read: status %d, transport: %s\n", static_cast<int>(status),
                     MSG_StatusText(session.transportStatus()));
        return 1;
    }
    for (const std::string& value : response.value()) {
        std::printf("%s\n", value.c_str());
    }
    return response.error() == CommonIF::kErrNoError ? 0 : 1;
}
