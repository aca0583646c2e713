// Profiles: saved sets of values, as files in the service's own profile folder.
//
// A profile file is text, one item per line, made to be read (and, with care, edited) by people:
//
//   # configsrvc profile
//   model "example-room-unit"
//   role kAdmin
//   value "network[1]/interface[2]/mtu" "1400"
//   value "network[1]/interface[3]/dns" "10.0.0.1" "10.0.0.2"
//
// `model` is the name of the model it was made from; `role` the role its creator read with, which
// says which instances it speaks for (those that role could read); each `value` line gives an
// instance by its storage key and its values, in the order the instance holds them (none: an
// empty list). Strings are in double quotes with \\, \", \n, \t and \xHH escapes for the bytes
// that would not print; other bytes stand for themselves. Lines starting with '#' and empty lines
// are ignored. Keys are unique.
//
// The folder belongs to the service: profiles are named by a plain file name inside it, and the
// service never follows a link there, never replaces a file and never reads or writes outside
// it.
#ifndef CONFIGSRVC_PROFILES_H
#define CONFIGSRVC_PROFILES_H

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Common/protobuf/v3/common.pb.h"

namespace configsrvc {

constexpr size_t kMaxProfileBytes = 8 * 1024 * 1024;
constexpr size_t kMaxProfileNameBytes = 128;

struct Profile {
    std::string model;
    CommonIF::eSecurityRole role = CommonIF::kUser;
    std::map<std::string, std::vector<std::string>> values;  // by storage key
};

std::string formatProfile(const Profile& profile);
// Reads a profile's text; false with "line N: reason" in *error when it is not one.
bool parseProfile(const std::string& text, Profile* profile, std::string* error);

class ProfileFolder {
  public:
    // Opens the folder at `path`, creating it (mode 0700) when missing.
    static bool open(const std::string& path, std::unique_ptr<ProfileFolder>* folder,
                     std::string* error);
    virtual ~ProfileFolder();
    ProfileFolder(const ProfileFolder&) = delete;
    ProfileFolder& operator=(const ProfileFolder&) = delete;

    // Whether `name` may name a profile: 1 to kMaxProfileNameBytes letters, digits, '.', '_'
    // and '-', not starting with '.'. So no absolute path, no '..' and no sub-folder.
    static bool validName(const std::string& name, std::string* reason);

    // Writes `text` as the profile `name`: to a temporary file, synced, then moved into place
    // only if no file of that name exists. kErrAlreadyExists when one does (even a link),
    // kErrBadParameter for a name validName() refuses, kErrGenericError when the disk fails
    // (nothing is left behind then).
    CommonIF::eErrorType create(const std::string& name, const std::string& text,
                                std::string* reason) const;

    // Reads the profile `name`: a regular file of at most kMaxProfileBytes, never through a
    // link. kErrItemNotFound when there is none, kErrBadParameter for a bad name, a link or
    // anything that is not such a file, kErrGenericError when reading fails.
    CommonIF::eErrorType read(const std::string& name, std::string* text,
                              std::string* reason) const;

    const std::string& path() const { return path_; }

  private:
    ProfileFolder(std::string path, int fd) : path_(std::move(path)), fd_(fd) {}

    std::string path_;
    int fd_;
};

}  // namespace configsrvc

#endif  // CONFIGSRVC_PROFILES_H
