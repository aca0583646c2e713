// watch: one line per change of a value, as the service reports it, until interrupted.
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <map>

#include "CallbackDispatcher.h"
#include "Commands.h"
#include "LineFormat.h"
#include "ModelTree.h"
#include "Printing.h"

namespace vanectl {

namespace {

// Set by SIGINT and SIGTERM, which also write to the pipe that wakes the poll loop.
volatile std::sig_atomic_t interrupted = 0;
int wakeWriteFd = -1;

void onInterrupt(int) {
    interrupted = 1;
    const char byte = 0;
    (void)!write(wakeWriteFd, &byte, 1);
}

// Prints each changed value. Paths are written as list writes them: without the number of a
// node that has one instance, which it asks the service once per node.
class ChangePrinter : public configclient::CallbackHandler {
  public:
    ChangePrinter(Service& service, const Output& output) : service_(service), output_(output) {}

    void configChanged(const ConfigIF::ConfigChangedNtfy& notice) override {
        const std::string path = pathOf(notice.instance_val().instance());
        const std::vector<std::string> values(notice.instance_val().value().begin(),
                                              notice.instance_val().value().end());
        if (output_.json) {
            printJson({{"path", path}, {"values", values}});
        } else {
            std::vector<std::string> words = {path};
            words.insert(words.end(), values.begin(), values.end());
            printLine(joinWords(words));
        }
        std::fflush(stdout);
    }

  private:
    std::string pathOf(const ConfigIF::Inst& inst) {
        ConfigIF::Inst shown = inst;
        std::string nodeName;
        for (int i = 0; i + 1 < shown.node_size(); ++i) {
            nodeName += (nodeName.empty() ? "" : ".") + shown.node(i).name();
            if (instancesOf(nodeName) == 1) {
                shown.mutable_node(i)->set_instance(0);
            }
        }
        if (shown.node_size() > 0) {
            shown.mutable_node(shown.node_size() - 1)->set_instance(0);  // the variable's own
        }
        return pathText(shown);
    }

    // The node's instances; 0 when the service does not say (the number is then shown).
    int instancesOf(const std::string& nodeName) {
        auto known = instances_.find(nodeName);
        if (known == instances_.end()) {
            ModelElement node;
            int error = 0;
            const bool described =
                fetchElement(service_, nodeName, nodeName, &node, &error) == 0 && error == 0;
            known = instances_.emplace(nodeName, described ? node.instances : 0).first;
        }
        return known->second;
    }

    Service& service_;
    Output output_;
    std::map<std::string, int> instances_;
};

// The registration for `path`: its names, and the instance of its deepest node (a node without a
// number is its instance 1, as everywhere). Numbers above that node cannot be told to the
// service and must be 0 or 1.
int registrationOf(Service& service, const VanePath& path,
                   ConfigIF::RegisterClientCallbackReq* request) {
    ModelElement element;
    const int status = describeElement(service, path.nodeName, path.text, &element);
    if (status != 0) {
        return status;
    }
    request->set_node_name(path.nodeName);
    request->set_type(ConfigIF::kChangeNotify);
    request->set_user_context("vanectl watch " + path.text);
    const int deepest = path.inst.node_size() - (element.isVariable ? 2 : 1);
    for (int i = 0; i < deepest; ++i) {
        if (path.inst.node(i).instance() > 1) {
            return usageError(path.text, "watch takes an instance number only on the deepest node");
        }
    }
    if (deepest >= 0) {
        const int instance = path.inst.node(deepest).instance();
        request->set_instance(instance == 0 ? 1 : instance);
    }
    return 0;
}

int serve(configclient::CallbackDispatcher& dispatcher, int wakeFd, const std::string& subject) {
    while (!interrupted) {
        pollfd watched[2] = {{dispatcher.pollFd(), POLLIN, 0}, {wakeFd, POLLIN, 0}};
        if (poll(watched, 2, -1) < 0 && errno != EINTR) {
            reportLine(subject, "cannot wait for the service's notifications");
            return kTransportStatus;
        }
        if (!interrupted && dispatcher.dispatch(0) < 0) {
            reportLine(subject, "the configuration service closed the connection");
            return kTransportStatus;
        }
    }
    return 0;
}

}  // namespace

int runWatch(Service& service, const Output& output, const std::string& text) {
    VanePath path;
    ConfigIF::RegisterClientCallbackReq request;
    ConfigIF::RegisterClientCallbackRsp response;
    int status = takePath(text, &path);
    status = status != 0 ? status : registrationOf(service, path, &request);
    status = status != 0 ? status
                         : service.call(&configclient::ConfigSession::registerClientCallback,
                                        request, &response, path.text);
    status = status != 0 ? status : service.serviceError(response.error(), path.text);
    int wake[2];
    if (status != 0 || pipe(wake) != 0) {
        return status != 0 ? status : usageError(path.text, "cannot make a pipe");
    }
    wakeWriteFd = wake[1];
    struct sigaction action = {};
    action.sa_handler = onInterrupt;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    ChangePrinter printer(service, output);
    configclient::CallbackDispatcher dispatcher(&service.session(), &printer);
    return serve(dispatcher, wake[0], path.text);
}

}  // namespace vanectl
