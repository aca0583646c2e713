#include "Changes.h"

#include <fstream>
#include <iostream>

#include "LineFormat.h"

namespace vanectl {

namespace {

// A change's refusal in the shape that dry runs print.
Json problemJson(const Change& change, int error, const std::string& reason) {
    return {{"line", change.line},
            {"path", change.path},
            {"error", errorName(error)},
            {"reason", reason}};
}

std::string reasonOf(const ConfigIF::ReturnMessage& message) {
    std::string reason;
    for (const std::string& line : message.error_message()) {
        reason += (reason.empty() ? "" : "; ") + line;
    }
    return reason;
}

// Parses one line into *change (false: `error` says why); an empty or comment line gives a
// change without a path.
bool parseChange(const std::string& line, Change* change, std::string* error) {
    std::vector<std::string> words;
    if (!splitLine(line, &words, error)) {
        return false;
    }
    if (words.empty()) {
        return true;
    }
    VanePath path;
    if (!parsePath(words[0], &path, error)) {
        return false;
    }
    if (path.inst.node_size() == 0) {
        *error = "a line names the root, which holds no value";
        return false;
    }
    change->path = path.text;
    change->inst = path.inst;
    change->values.assign(words.begin() + 1, words.end());
    return true;
}

int submit(Service& service, ConfigIF::SubmitType type, const std::string& subject) {
    ConfigIF::SubmitReq request;
    request.mutable_instance();  // no nodes: the whole model
    request.set_type(type);
    ConfigIF::SubmitRsp response;
    const int status =
        service.call(&configclient::ConfigSession::submit, request, &response, subject);
    return status != 0 ? status : service.serviceError(response.error(), subject);
}

}  // namespace

int readChanges(const std::string& file, std::vector<Change>* changes) {
    std::ifstream opened;
    if (file != "-") {
        opened.open(file);
        if (!opened) {
            return usageError(file, "cannot be read");
        }
    }
    std::istream& in = file == "-" ? std::cin : opened;
    const std::string name = file == "-" ? "(standard input)" : file;
    int status = 0;
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        Change change;
        std::string error;
        if (!parseChange(line, &change, &error)) {
            status = usageError(name + ":" + std::to_string(number), error);
        } else if (!change.path.empty()) {
            change.line = number;
            change.subject = name + ":" + std::to_string(number) + ": " + change.path;
            changes->push_back(change);
        }
    }
    if (in.bad()) {
        return usageError(name, "could not be read to its end");
    }
    return status;
}

int addResets(Service& service, const std::vector<const TreeItem*>& items,
              std::vector<Change>* changes) {
    for (const TreeItem* item : items) {
        ConfigIF::ReadAttributesReq request;
        *request.mutable_instance() = item->inst;
        ConfigIF::ReadAttributesRsp response;
        int status = service.call(&configclient::ConfigSession::readAttributes, request, &response,
                                  item->path);
        status = status != 0 ? status : service.serviceError(response.error(), item->path);
        if (status != 0) {
            return status;
        }
        Change change;
        change.subject = item->path;
        change.path = item->path;
        change.inst = item->inst;
        bool isList = false;
        std::vector<std::string> defaults;
        for (const ConfigIF::AttrValuePair& pair : response.value_pairs()) {
            if (pair.attribute() == "list") {
                isList = pair.value_size() > 0 && pair.value(0) == "true";
            } else if (pair.attribute() == "default") {
                defaults.assign(pair.value().begin(), pair.value().end());
            }
        }
        // A write of no values returns a single variable to its default; for a list it would be
        // the empty list, so a list is written its default values.
        if (isList) {
            change.values = defaults;
        }
        changes->push_back(change);
    }
    return 0;
}

int validateChanges(Service& service, const std::vector<Change>& changes, Json* problems) {
    int first = 0;
    for (const Change& change : changes) {
        ConfigIF::ValidateReq request;
        *request.mutable_instance_val()->mutable_instance() = change.inst;
        for (const std::string& value : change.values) {
            request.mutable_instance_val()->add_value(value);
        }
        ConfigIF::ValidateRsp response;
        const int status = service.call(&configclient::ConfigSession::validate, request, &response,
                                        change.subject);
        if (status != 0) {
            return status;  // the service is gone: nothing more can be checked
        }
        const int refused = service.serviceError(response.ret_message(), change.subject);
        if (refused != 0) {
            problems->push_back(problemJson(change, refused, reasonOf(response.ret_message())));
            first = first != 0 ? first : refused;
        }
    }
    return first;
}

int commitChanges(Service& service, const std::string& subject, const std::vector<Change>& changes,
                  bool* rebootRequired) {
    *rebootRequired = false;
    int status = submit(service, ConfigIF::kSubmitStart, subject);
    for (size_t i = 0; status == 0 && i < changes.size(); ++i) {
        ConfigIF::WriteReq request;
        *request.mutable_instance_val()->mutable_instance() = changes[i].inst;
        for (const std::string& value : changes[i].values) {
            request.mutable_instance_val()->add_value(value);
        }
        ConfigIF::WriteRsp response;
        status = service.call(&configclient::ConfigSession::write, request, &response,
                              changes[i].subject);
        status =
            status != 0 ? status : service.serviceError(response.ret_message(), changes[i].subject);
        *rebootRequired = *rebootRequired || response.ret_message().reboot_required();
    }
    // A refused write leaves the submission open: it ends unapplied when the connection closes,
    // which the end of this process does.
    return status != 0 ? status : submit(service, ConfigIF::kSubmitEnd, subject);
}

std::string instanceKey(const ConfigIF::Inst& inst) {
    std::string key;
    for (const ConfigIF::Node& node : inst.node()) {
        key +=
            node.name() + "[" + std::to_string(node.instance() == 0 ? 1 : node.instance()) + "]/";
    }
    return key;
}

}  // namespace vanectl
