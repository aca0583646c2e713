#include "Callbacks.h"

#include <algorithm>

namespace configsrvc {

namespace {

bool sameKey(const Registration& a, const Registration& b) {
    return a.connection == b.connection && a.type == b.type && a.instance == b.instance &&
           a.name == b.name && a.path == b.path;
}

}  // namespace

bool pathIsUnder(const std::string& path, const std::string& under) {
    return under.empty() || path == under ||
           (path.size() > under.size() && path.compare(0, under.size(), under) == 0 &&
            path[under.size()] == '.');
}

bool covers(const Registration& registration, const ChangeSubject& subject) {
    if (!pathIsUnder(*subject.path, registration.path) || registration.role < subject.level) {
        return false;
    }
    if (!registration.skipName.empty() && *subject.requester == registration.skipName) {
        return false;
    }
    const std::vector<int32_t>& instances = *subject.instances;
    return registration.instance == 0 || instances.empty() ||
           (registration.instanceDepth < instances.size() &&
            instances[registration.instanceDepth] == registration.instance);
}

CommonIF::eErrorType Callbacks::add(const Registration& registration, std::string* reason) {
    size_t held = 0;
    for (const Registration& existing : registrations_) {
        if (sameKey(existing, registration)) {
            *reason = "this connection already registered that callback";
            return CommonIF::kErrAlreadyExists;
        }
        held += existing.connection == registration.connection;
    }
    if (held >= kMaxCallbacksPerConnection) {
        *reason = "a connection may hold at most " + std::to_string(kMaxCallbacksPerConnection) +
                  " callbacks";
        return CommonIF::kErrOutOfResources;
    }
    registrations_.push_back(registration);
    return CommonIF::kErrNoError;
}

CommonIF::eErrorType Callbacks::remove(const Registration& key, std::string* reason) {
    auto it = std::find_if(registrations_.begin(), registrations_.end(),
                           [&](const Registration& existing) { return sameKey(existing, key); });
    if (it == registrations_.end()) {
        *reason = "no such callback is registered on this connection";
        return CommonIF::kErrItemNotFound;
    }
    registrations_.erase(it);
    return CommonIF::kErrNoError;
}

size_t Callbacks::removeAll(uint32_t connection, const std::string& name) {
    const size_t before = registrations_.size();
    registrations_.erase(std::remove_if(registrations_.begin(), registrations_.end(),
                                        [&](const Registration& existing) {
                                            return existing.connection == connection &&
                                                   existing.name == name;
                                        }),
                         registrations_.end());
    return before - registrations_.size();
}

size_t Callbacks::dropConnection(uint32_t connection) {
    const size_t before = registrations_.size();
    registrations_.erase(std::remove_if(registrations_.begin(), registrations_.end(),
                                        [&](const Registration& existing) {
                                            return existing.connection == connection;
                                        }),
                         registrations_.end());
    return before - registrations_.size();
}

void Callbacks::rewind(uint32_t connection, uint64_t index) {
    for (Registration& registration : registrations_) {
        if (registration.connection == connection && registration.since > index) {
            registration.since = index;
        }
    }
}

bool Callbacks::any(ConfigIF::CallbackType type) const {
    return std::any_of(registrations_.begin(), registrations_.end(),
                       [&](const Registration& existing) { return existing.type == type; });
}

bool Callbacks::holds(uint32_t connection, ConfigIF::CallbackType type) const {
    return std::any_of(registrations_.begin(), registrations_.end(),
                       [&](const Registration& existing) {
                           return existing.connection == connection && existing.type == type;
                       });
}

bool Callbacks::holdsAny(uint32_t connection) const {
    return std::any_of(
        registrations_.begin(), registrations_.end(),
        [&](const Registration& existing) { return existing.connection == connection; });
}

}  // namespace configsrvc
