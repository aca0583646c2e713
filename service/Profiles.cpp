#include "Profiles.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace configsrvc {

namespace {

constexpr char kHeader[] = "# configsrvc profile\n";

void appendQuoted(std::string* out, const std::string& text) {
    static const char kHex[] = "0123456789abcdef";
    out->push_back('"');
    for (unsigned char c : text) {
        if (c == '\\' || c == '"') {
            out->push_back('\\');
            out->push_back(static_cast<char>(c));
        } else if (c == '\n') {
            out->append("\\n");
        } else if (c == '\t') {
            out->append("\\t");
        } else if (c < 0x20 || c == 0x7f) {
            out->append("\\x");
            out->push_back(kHex[c >> 4]);
            out->push_back(kHex[c & 15]);
        } else {
            out->push_back(static_cast<char>(c));
        }
    }
    out->push_back('"');
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

// Reads the quoted string at line[*at] and moves past it and the blanks after it.
bool readQuoted(const std::string& line, size_t* at, std::string* text) {
    if (*at >= line.size() || line[*at] != '"') {
        return false;
    }
    text->clear();
    size_t i = *at + 1;
    for (; i < line.size() && line[i] != '"'; ++i) {
        if (line[i] != '\\') {
            text->push_back(line[i]);
            continue;
        }
        if (++i >= line.size()) {
            return false;
        }
        const char escaped = line[i];
        if (escaped == 'n' || escaped == 't') {
            text->push_back(escaped == 'n' ? '\n' : '\t');
        } else if (escaped == '\\' || escaped == '"') {
            text->push_back(escaped);
        } else if (escaped == 'x' && i + 2 < line.size() && hexDigit(line[i + 1]) >= 0 &&
                   hexDigit(line[i + 2]) >= 0) {
            text->push_back(static_cast<char>(hexDigit(line[i + 1]) * 16 + hexDigit(line[i + 2])));
            i += 2;
        } else {
            return false;
        }
    }
    if (i >= line.size()) {
        return false;
    }
    *at = i + 1;
    while (*at < line.size() && line[*at] == ' ') {
        ++*at;
    }
    return true;
}

// One line of a profile, its word first; false with the reason when it is not a line of one.
bool parseLine(const std::string& line, Profile* profile, bool* sawModel, bool* sawRole,
               std::string* reason) {
    const size_t blank = line.find(' ');
    const std::string word = line.substr(0, blank);
    size_t at = blank == std::string::npos ? line.size() : blank + 1;
    std::string text;
    if (word == "model" && !*sawModel) {
        *sawModel = true;
        if (readQuoted(line, &at, &profile->model) && at == line.size()) {
            return true;
        }
    } else if (word == "role" && !*sawRole) {
        *sawRole = true;
        if (CommonIF::eSecurityRole_Parse(line.substr(at), &profile->role)) {
            return true;
        }
    } else if (word == "value") {
        std::string key;
        if (!readQuoted(line, &at, &key)) {
            *reason = "a value line needs a key in double quotes";
            return false;
        }
        std::vector<std::string> values;
        while (at < line.size() && readQuoted(line, &at, &text)) {
            values.push_back(text);
        }
        if (at != line.size()) {
            *reason = "values are strings in double quotes";
            return false;
        }
        if (!profile->values.emplace(key, std::move(values)).second) {
            *reason = "'" + key + "' is listed twice";
            return false;
        }
        return true;
    } else {
        *reason = "'" + word.substr(0, 40) + "' is not a profile line here";
        return false;
    }
    *reason = "malformed " + word + " line";
    return false;
}

std::string systemError(const char* what, const std::string& name) {
    return std::string(what) + " '" + name + "': " + std::strerror(errno);
}

}  // namespace

std::string formatProfile(const Profile& profile) {
    std::string text = kHeader;
    text += "model ";
    appendQuoted(&text, profile.model);
    text += "\nrole " + CommonIF::eSecurityRole_Name(profile.role) + "\n";
    for (const auto& [key, values] : profile.values) {
        text += "value ";
        appendQuoted(&text, key);
        for (const std::string& value : values) {
            text += ' ';
            appendQuoted(&text, value);
        }
        text += '\n';
    }
    return text;
}

bool parseProfile(const std::string& text, Profile* profile, std::string* error) {
    bool sawModel = false;
    bool sawRole = false;
    size_t number = 0;
    for (size_t start = 0; start < text.size();) {
        const size_t end = std::min(text.find('\n', start), text.size());
        const std::string line = text.substr(start, end - start);
        ++number;
        start = end + 1;
        std::string reason;
        if (!line.empty() && line[0] != '#' &&
            !parseLine(line, profile, &sawModel, &sawRole, &reason)) {
            *error = "line " + std::to_string(number) + ": " + reason;
            return false;
        }
    }
    if (!sawModel || !sawRole) {
        *error = "a profile names its model and its role";
        return false;
    }
    return true;
}

bool ProfileFolder::open(const std::string& path, std::unique_ptr<ProfileFolder>* folder,
                         std::string* error) {
    if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
        *error = systemError("cannot create the profile folder", path);
        return false;
    }
    const int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        *error = systemError("cannot open the profile folder", path);
        return false;
    }
    folder->reset(new ProfileFolder(path, fd));
    return true;
}

ProfileFolder::~ProfileFolder() {
    ::close(fd_);
}

bool ProfileFolder::validName(const std::string& name, std::string* reason) {
    const bool plain = !name.empty() && name.size() <= kMaxProfileNameBytes && name[0] != '.' &&
                       name.find_first_not_of(
                           "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-") ==
                           std::string::npos;
    if (!plain) {
        *reason =
            "a profile is named by a plain file name in the service's profile folder "
            "(letters, digits, '.', '_', '-'; not starting with '.')";
    }
    return plain;
}

CommonIF::eErrorType ProfileFolder::create(const std::string& name, const std::string& text,
                                           std::string* reason) const {
    if (!validName(name, reason)) {
        return CommonIF::kErrBadParameter;
    }
    const std::string temporary = ".new-" + name;
    const int fd = ::openat(fd_, temporary.c_str(),
                            O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        *reason = systemError("cannot create", temporary);
        return CommonIF::kErrGenericError;
    }
    size_t written = 0;
    while (written < text.size()) {
        const ssize_t n = ::write(fd, text.data() + written, text.size() - written);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        written += static_cast<size_t>(n);
    }
    const bool synced = written == text.size() && ::fsync(fd) == 0;
    *reason = synced ? "" : systemError("cannot write", temporary);
    ::close(fd);
    // Moved into place only where no file of that name is: an existing profile, or a link
    // someone made there, is never replaced.
    if (synced && ::renameat2(fd_, temporary.c_str(), fd_, name.c_str(), RENAME_NOREPLACE) == 0) {
        ::fsync(fd_);
        return CommonIF::kErrNoError;
    }
    const bool exists = synced && errno == EEXIST;
    if (synced) {
        *reason = exists ? "a profile '" + name + "' exists already"
                         : systemError("cannot move into place", name);
    }
    ::unlinkat(fd_, temporary.c_str(), 0);
    return exists ? CommonIF::kErrAlreadyExists : CommonIF::kErrGenericError;
}

CommonIF::eErrorType ProfileFolder::read(const std::string& name, std::string* text,
                                         std::string* reason) const {
    if (!validName(name, reason)) {
        return CommonIF::kErrBadParameter;
    }
    const int fd = ::openat(fd_, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        const bool missing = errno == ENOENT;
        *reason = missing ? "no profile '" + name + "'" : systemError("cannot open", name);
        return missing ? CommonIF::kErrItemNotFound : CommonIF::kErrBadParameter;
    }
    struct stat status;
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode) ||
        static_cast<size_t>(status.st_size) > kMaxProfileBytes) {
        ::close(fd);
        *reason = "'" + name + "' is not a profile file of at most " +
                  std::to_string(kMaxProfileBytes) + " bytes";
        return CommonIF::kErrBadParameter;
    }
    text->assign(static_cast<size_t>(status.st_size), '\0');
    size_t done = 0;
    while (done < text->size()) {
        const ssize_t n = ::read(fd, &(*text)[done], text->size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        done += static_cast<size_t>(n);
    }
    ::close(fd);
    if (done != text->size()) {
        *reason = systemError("cannot read", name);
        return CommonIF::kErrGenericError;
    }
    return CommonIF::kErrNoError;
}

}  // namespace configsrvc
