// apply, export and import: many values at once, all of them or none.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <set>

#include "Changes.h"
#include "Commands.h"
#include "LineFormat.h"
#include "Printing.h"

namespace vanectl {

namespace {

std::string fileLabel(const std::string& file) {
    return file == "-" ? "(standard input)" : file;
}

// Dry run: every change checked, each problem reported; the JSON document lists them all, the
// plain text says only that all pass (the problems are on standard error).
int checkChanges(Service& service, const Output& output, Json summary,
                 const std::vector<Change>& changes) {
    Json problems = Json::array();
    const int status = validateChanges(service, changes, &problems);
    if (output.json && (status == 0 || !problems.empty())) {
        summary["problems"] = problems;
        printJson(summary);
    } else if (!output.json && status == 0) {
        printLine(summary["file"].get<std::string>() + ": all " + std::to_string(changes.size()) +
                  " changes pass; nothing was changed (dry run)");
    }
    return status;
}

void printCommitted(const Output& output, Json summary, bool rebootRequired) {
    summary["reboot_required"] = rebootRequired;
    if (output.json) {
        printJson(summary);
    } else if (rebootRequired) {
        printLine("takes effect after a restart");
    }
}

bool writeAll(int fd, const std::string& text) {
    for (size_t done = 0; done < text.size();) {
        const ssize_t written = write(fd, text.data() + done, text.size() - done);
        if (written < 0 && errno != EINTR) {
            return false;
        }
        done += written > 0 ? static_cast<size_t>(written) : 0;
    }
    return true;
}

std::string folderOf(const std::string& file) {
    const size_t slash = file.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : file.substr(0, slash);
}

// Puts `text` in place as `file` only once it is on disk, so that a crash leaves the previous file
// or the new one, never a part.
int writeFileDurably(const std::string& file, const std::string& text) {
    if (file == "-") {
        std::fwrite(text.data(), 1, text.size(), stdout);
        return std::fflush(stdout) == 0 ? 0 : usageError("(standard output)", "cannot be written");
    }
    const std::string temporary = file + ".tmp-" + std::to_string(getpid());
    const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) {
        return usageError(file, std::string("cannot be created: ") + std::strerror(errno));
    }
    const bool written = writeAll(fd, text) && fsync(fd) == 0;
    const int savedErrno = errno;
    close(fd);
    if (!written || rename(temporary.c_str(), file.c_str()) != 0) {
        const std::string reason = std::strerror(written ? errno : savedErrno);
        unlink(temporary.c_str());
        return usageError(file, "cannot be written: " + reason);
    }
    const int folder = open(folderOf(file).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder >= 0) {
        fsync(folder);
        close(folder);
    }
    return 0;
}

// Every variable instance of the model with its value, as `role` reads it.
int readEverything(Service& service, std::vector<TreeItem>* items) {
    VanePath root;
    const int status = walkTree(service, root, items);
    return status != 0 ? status : readValues(service, items);
}

}  // namespace

int runApply(Service& service, const Output& output, const std::string& file, bool dryRun) {
    std::vector<Change> changes;
    const int status = readChanges(file, &changes);
    if (status != 0) {
        return status;
    }
    const Json summary = {{"file", fileLabel(file)}, {"changes", changes.size()}};
    if (dryRun) {
        return checkChanges(service, output, summary, changes);
    }
    bool rebootRequired = false;
    const int committed = commitChanges(service, fileLabel(file), changes, &rebootRequired);
    if (committed == 0) {
        printCommitted(output, summary, rebootRequired);
    }
    return committed;
}

int runExport(Service& service, const Output& output, const std::string& file) {
    std::vector<TreeItem> items;
    const int status = readEverything(service, &items);
    if (status != 0) {
        return status;
    }
    std::string text =
        "# vanectl export as " + CommonIF::eSecurityRole_Name(service.settings().role) +
        ": every value that differs from its default.\n"
        "# `vanectl import` sets these and returns every other value it may read to its "
        "default.\n";
    size_t count = 0;
    for (const TreeItem& item : items) {
        if (item.isVariable && item.error == 0 && !item.isDefault) {
            std::vector<std::string> words = {item.path};
            words.insert(words.end(), item.values.begin(), item.values.end());
            text += joinWords(words) + "\n";
            ++count;
        }
    }
    const int written = writeFileDurably(file, text);
    // Exported to standard output, the lines are the output.
    if (written == 0 && output.json && file != "-") {
        printJson({{"file", file}, {"values", count}});
    }
    return written;
}

int runImport(Service& service, const Output& output, const std::string& file, bool dryRun) {
    std::vector<Change> changes;
    std::vector<TreeItem> items;
    int status = readChanges(file, &changes);
    status = status != 0 ? status : readEverything(service, &items);
    if (status != 0) {
        return status;
    }
    // Everything the file does not list and that this role can see away from its default goes
    // back to it, so that an import gives back exactly what was exported.
    std::set<std::string> listed;
    for (const Change& change : changes) {
        listed.insert(instanceKey(change.inst));
    }
    std::vector<const TreeItem*> resets;
    for (const TreeItem& item : items) {
        if (item.isVariable && item.error == 0 && !item.isDefault &&
            listed.count(instanceKey(item.inst)) == 0) {
            resets.push_back(&item);
        }
    }
    const size_t setCount = changes.size();
    status = addResets(service, resets, &changes);
    if (status != 0) {
        return status;
    }
    const Json summary = {{"file", fileLabel(file)}, {"set", setCount}, {"reset", resets.size()}};
    if (dryRun) {
        return checkChanges(service, output, summary, changes);
    }
    bool rebootRequired = false;
    status = commitChanges(service, fileLabel(file), changes, &rebootRequired);
    if (status == 0) {
        printCommitted(output, summary, rebootRequired);
    }
    return status;
}

}  // namespace vanectl
