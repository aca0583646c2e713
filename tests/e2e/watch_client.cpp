// watch_client: a real program on the other side of callbacks, for the end-to-end tests.
//
//   watch_client MODE NAME PATH [FILE]
//
// Connects as NAME, registers for PATH ("" for everything) and serves callbacks until killed.
// MODE: watch (notifications printed as "v PATH VALUES"), resume (the same, kept in FILE with a
// "mark N" line after each commit's notices, and resumed after FILE's last mark when started
// again), veto (a validator that refuses with "vetoed by NAME", registered not to be asked about
// writes of the client named "skipper"), hang (a validator that never answers), write (a
// validator that first tries to write what it is asked about and prints "wrote STATUS ERROR"),
// reboot (an applier that says a reboot is needed). Prints "ready" once registered and "asked
// VALUES" for every callback request.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "CallbackDispatcher.h"

namespace {

using configclient::ConfigSession;

std::string joined(const google::protobuf::RepeatedPtrField<std::string>& values) {
    std::string text;
    for (const std::string& value : values) {
        text += (text.empty() ? "" : ",") + value;
    }
    return text;
}

std::string pathOf(const ConfigIF::Inst& instance) {
    std::string path;
    for (const ConfigIF::Node& node : instance.node()) {
        path += (path.empty() ? "" : ".") + node.name();
    }
    return path;
}

class Client : public configclient::CallbackHandler {
  public:
    Client(std::string mode, std::string name, ConfigSession* session, std::string file)
        : mode_(std::move(mode)), name_(std::move(name)), session_(session), file_(file) {}

    CommonIF::eErrorType validate(const ConfigIF::DynamicValidateReq& request,
                                  std::string* message) override {
        std::printf("asked %s\n", joined(request.instance_val().value()).c_str());
        std::fflush(stdout);
        if (mode_ == "hang") {
            pause();
        }
        if (mode_ == "write") {
            ConfigIF::WriteReq write;
            write.set_name(name_);
            write.set_role(CommonIF::kAdmin);
            *write.mutable_instance_val() = request.instance_val();
            ConfigIF::WriteRsp response;
            const int status = session_->write(write, &response, 5000);
            std::printf("wrote %d %d\n", status, static_cast<int>(response.ret_message().error()));
            std::fflush(stdout);
        }
        if (mode_ == "veto") {
            *message = "vetoed by " + name_;
            return CommonIF::kErrBadParameter;
        }
        return CommonIF::kErrNoError;
    }

    CommonIF::eErrorType apply(const ConfigIF::OnChangeReq& request, bool* reboot,
                               std::string*) override {
        std::printf("asked %s\n", joined(request.instance_val().value()).c_str());
        std::fflush(stdout);
        *reboot = true;
        return CommonIF::kErrNoError;
    }

    void configChanged(const ConfigIF::ConfigChangedNtfy& notice) override {
        const std::string line = "v " + pathOf(notice.instance_val().instance()) + " " +
                                 joined(notice.instance_val().value()) + "\n";
        if (file_.empty()) {
            std::fputs(line.c_str(), stdout);
            std::fflush(stdout);
        } else {
            pending_ += line;
        }
    }

    void committed(uint64_t sequence) override {
        if (file_.empty()) {
            return;
        }
        // One write, but a kill can still cut one that spans pages: what follows the last mark
        // is cut off when the next client starts (resumePoint).
        pending_ += "mark " + std::to_string(sequence) + "\n";
        const int fd = open(file_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
        if (fd < 0 ||
            write(fd, pending_.data(), pending_.size()) != static_cast<ssize_t>(pending_.size())) {
            std::perror(file_.c_str());
            _exit(3);
        }
        close(fd);
        pending_.clear();
    }

    void resyncNeeded(uint64_t oldest, uint64_t sequence) override {
        std::printf("resync %llu %llu\n", static_cast<unsigned long long>(oldest),
                    static_cast<unsigned long long>(sequence));
        std::fflush(stdout);
    }

  private:
    std::string mode_;
    std::string name_;
    ConfigSession* session_;
    std::string file_;
    std::string pending_;
};

ConfigIF::CallbackType typeOf(const std::string& mode) {
    if (mode == "watch" || mode == "resume") {
        return ConfigIF::kChangeNotify;
    }
    return mode == "reboot" ? ConfigIF::kOnChange : ConfigIF::kDynamicValidator;
}

// The number of the last mark in `file`, or 0 when it has none. What follows that mark was cut
// short by a kill (notices whose mark never came) and is cut off, as it will be sent again.
uint64_t resumePoint(const std::string& file) {
    std::ifstream in(file);
    uint64_t last = 0;
    off_t end = 0;
    off_t marked = 0;
    for (std::string line; std::getline(in, line);) {
        end += static_cast<off_t>(line.size()) + 1;
        if (line.rfind("mark ", 0) == 0 && !in.eof()) {
            last = std::stoull(line.substr(5));
            marked = end;
        }
    }
    if (end != 0 && truncate(file.c_str(), marked) != 0) {
        std::perror(file.c_str());
        _exit(3);
    }
    return last;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        std::fprintf(stderr, "usage: watch_client MODE NAME PATH [FILE]\n");
        return 1;
    }
    const std::string mode = argv[1];
    const std::string name = argv[2];
    const std::string file = argc > 4 ? argv[4] : "";
    ConfigSession session;
    if (session.connect(name + "-" + std::to_string(getpid()), 5000) != ConfigSession::kOk) {
        std::fprintf(stderr, "cannot connect\n");
        return 2;
    }
    Client client(mode, name, &session, file);
    configclient::CallbackDispatcher dispatcher(&session, &client);
    if (mode == "resume") {
        const uint64_t after = resumePoint(file);
        CommonIF::eErrorType error = CommonIF::kErrNoError;
        uint64_t sequence = 0;
        if (dispatcher.resume(name, CommonIF::kAdmin, after != 0 ? &after : nullptr, 5000, &error,
                              &sequence) != ConfigSession::kOk ||
            error != CommonIF::kErrNoError) {
            std::fprintf(stderr, "cannot resume\n");
            return 2;
        }
    }
    ConfigIF::RegisterClientCallbackReq request;
    request.set_name(name);
    request.set_role(CommonIF::kAdmin);
    request.set_node_name(argv[3]);
    request.set_type(typeOf(mode));
    request.set_user_context("ctx-" + name);
    if (mode == "veto") {
        request.set_validate_skipname("skipper");
    }
    ConfigIF::RegisterClientCallbackRsp registered;
    if (session.registerClientCallback(request, &registered, 5000) != ConfigSession::kOk ||
        registered.error() != CommonIF::kErrNoError) {
        std::fprintf(stderr, "cannot register: %d\n", static_cast<int>(registered.error()));
        return 2;
    }
    std::printf("ready\n");
    std::fflush(stdout);
    while (dispatcher.dispatch(-1) >= 0) {
    }
    return 0;
}
