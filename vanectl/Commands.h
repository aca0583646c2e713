// The subcommands of vanectl, each run against a connected Service. Each returns the process's
// exit status (0, or the failure it reported; see Service.h) and prints its result on standard
// output: plain text for people, or with `json` one JSON document (shapes in README.md).
#ifndef VANECTL_COMMANDS_H
#define VANECTL_COMMANDS_H

#include <optional>
#include <string>
#include <vector>

#include "Common/protobuf/v3/common.pb.h"
#include "Service.h"

namespace vanectl {

struct Output {
    bool json = false;
};

// Reading.
int runGet(Service& service, const Output& output, const std::vector<std::string>& paths);
int runDescribe(Service& service, const Output& output, const std::string& path);
int runList(Service& service, const Output& output, const std::string& path);
int runTree(Service& service, const Output& output, const std::string& path);

// One line (or JSON document) per changed value under `path` until SIGINT or SIGTERM (then 0), or
// until the service goes (kTransportStatus).
int runWatch(Service& service, const Output& output, const std::string& path);

// Changing one thing.
int runSet(Service& service, const Output& output, const std::string& path,
           const std::vector<std::string>& values);
int runValidate(Service& service, const Output& output, const std::string& path,
                const std::vector<std::string>& values);
int runReset(Service& service, const std::string& path);
int runLevels(Service& service, const Output& output, const std::string& path,
              std::optional<CommonIF::eSecurityRole> read,
              std::optional<CommonIF::eSecurityRole> write);
// No `options`: prints them. Otherwise replaces them; `defaultOption` must be one of them (none:
// the first).
int runOptions(Service& service, const Output& output, const std::string& path,
               const std::vector<std::string>& options, const std::string& defaultOption);
int runComponent(Service& service, const std::string& name, bool detach);

// Batches: files of `PATH VALUE...` lines (LineFormat.h); "-" is standard input or output.
int runApply(Service& service, const Output& output, const std::string& file, bool dryRun);
int runExport(Service& service, const Output& output, const std::string& file);
int runImport(Service& service, const Output& output, const std::string& file, bool dryRun);

}  // namespace vanectl

#endif  // VANECTL_COMMANDS_H
