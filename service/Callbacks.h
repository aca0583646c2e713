// Callbacks: the callbacks clients registered, and which of them a change concerns.
//
// A registration belongs to the connection it came on and to the client name it gave; it names
// a kind of callback, a node or variable path of names ("" is the whole tree) and optionally an
// instance number of the path's deepest node, and carries the client's user_context, returned
// in every message it causes. Its key is (connection, name, type, path, instance): a second
// registration with the same key is refused, and unregistering names it by that key. A
// registration ends when it is unregistered or its connection goes away.
//
// A registration covers what lies under its path (the path itself included) and, with an
// instance number, only that instance of the path's deepest node (for a variable path, of the
// variable's node). Of what it covers it sees only what its role may: values whose read level
// (write level, for validators and appliers) the role reaches. Changes requested by a client
// whose name is the registration's skip name are not shown to it. For the serving thread only.
#ifndef CONFIGSRVC_CALLBACKS_H
#define CONFIGSRVC_CALLBACKS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Common/protobuf/v3/configservice.pb.h"

namespace configsrvc {

// Most registrations one connection may hold.
constexpr size_t kMaxCallbacksPerConnection = 256;

struct Registration {
    uint32_t connection = 0;
    std::string name;  // the client's name
    ConfigIF::CallbackType type = ConfigIF::kChangeNotify;
    std::string path;          // names joined by '.'; "" for the whole tree
    int32_t instance = 0;      // 0: every instance
    size_t instanceDepth = 0;  // which step of an instance's path `instance` is compared with
    CommonIF::eSecurityRole role = CommonIF::kUser;
    std::string userContext;
    std::string skipName;  // "": none
    uint64_t since = 0;    // the first change it is told of (an index of the change log)
};

// What a change is about, for matching registrations.
struct ChangeSubject {
    const std::string* path = nullptr;                // names joined by '.'
    const std::vector<int32_t>* instances = nullptr;  // per step of the path; empty: all
    CommonIF::eSecurityRole level = CommonIF::kUser;  // the level a registration's role must reach
    const std::string* requester = nullptr;           // the client that asked for the change
};

// Whether `path` is `under` or lies below it ("" holds everything).
bool pathIsUnder(const std::string& path, const std::string& under);

// Whether `registration` is to be told of a change of `subject`.
bool covers(const Registration& registration, const ChangeSubject& subject);

class Callbacks {
  public:
    Callbacks() = default;
    virtual ~Callbacks() = default;

    // Adds `registration`: kErrAlreadyExists for a second one with its key, kErrOutOfResources
    // beyond kMaxCallbacksPerConnection on its connection; the reason in *reason.
    CommonIF::eErrorType add(const Registration& registration, std::string* reason);
    // Removes the registration with the key of `key`; kErrItemNotFound when there is none.
    CommonIF::eErrorType remove(const Registration& key, std::string* reason);
    // Removes every registration of `connection` under `name`; how many there were.
    size_t removeAll(uint32_t connection, const std::string& name);
    // Removes every registration of `connection`; how many there were.
    size_t dropConnection(uint32_t connection);

    // Lets the registrations of `connection` see the changes from change-log index `index` on,
    // when they saw only later ones: for a subscriber that resumes after reconnecting.
    void rewind(uint32_t connection, uint64_t index);

    const std::vector<Registration>& all() const { return registrations_; }
    // Whether any registration is of `type`.
    bool any(ConfigIF::CallbackType type) const;
    // Whether `connection` holds a registration of `type`.
    bool holds(uint32_t connection, ConfigIF::CallbackType type) const;
    // Whether `connection` holds any registration.
    bool holdsAny(uint32_t connection) const;

  private:
    std::vector<Registration> registrations_;  // in registration order
};

}  // namespace configsrvc

#endif  // CONFIGSRVC_CALLBACKS_H
