// vanectl: the administration tool of the configuration service. Parses the command line, opens
// one session with the service and runs one subcommand (Commands.h); its result is the exit
// status.
#include <unistd.h>

#include <cstdio>
#include <map>
#include <optional>

#include <CLI/CLI.hpp>

#include "Commands.h"
#include "Service.h"

namespace {

using vanectl::Output;
using vanectl::Service;

const char kPathHelp[] =
    "A PATH is the words of a setvane command line joined by '.': node names, each optionally "
    "followed by its instance number, then the variable (network.interface.2.dns). A node "
    "without a number is its instance 1; \".\" (or \"\") is the whole tree.";

const char kFooter[] =
    "Paths: the words of a setvane command line joined by '.', e.g. network.interface.2.dns; a\n"
    "node without a number is its instance 1, and \".\" is the whole tree.\n"
    "\n"
    "Roles: reading and watching claim kUser, changing kAdmin, export and import kAdmin,\n"
    "component kSystem, unless --role says otherwise.\n"
    "\n"
    "Exit status: 0 success; 1 usage errors and no connection to the service; 255 no answer;\n"
    "otherwise the service's error code as setvane ends with it (249 kErrItemNotFound, 248\n"
    "kErrNotAuthorized, 253 kErrBadParameter, ...). Every error is one line on standard error\n"
    "naming the path and the reason. Values starting with '-' follow \"--\".";

// What the command line asked for, beyond the subcommand chosen.
struct Request {
    bool json = false;
    std::string role;
    std::string client;
    int timeoutMs = 10000;
    std::vector<std::string> paths;
    std::string path;
    std::vector<std::string> values;
    std::string file;
    bool dryRun = false;
    std::string readLevel;
    std::string writeLevel;
    std::string defaultOption;
    std::string action;
};

std::optional<CommonIF::eSecurityRole> roleNamed(const std::string& name) {
    static const std::map<std::string, CommonIF::eSecurityRole> kRoles = {
        {"user", CommonIF::kUser},       {"admin", CommonIF::kAdmin},
        {"system", CommonIF::kSystem},   {"provisioning", CommonIF::kProvisioning},
        {"startup", CommonIF::kStartup},
    };
    CommonIF::eSecurityRole role;
    if (CommonIF::eSecurityRole_Parse(name, &role)) {
        return role;
    }
    const auto found = kRoles.find(name);
    return found != kRoles.end() ? std::optional(found->second) : std::nullopt;
}

// The role a subcommand claims unless --role names one.
CommonIF::eSecurityRole defaultRole(const std::string& command, const Request& request) {
    if (command == "component") {
        return CommonIF::kSystem;
    }
    const bool shows =
        (command == "levels" && request.readLevel.empty() && request.writeLevel.empty()) ||
        (command == "options" && request.values.empty());
    const bool reads = command == "get" || command == "describe" || command == "list" ||
                       command == "tree" || command == "watch" || shows;
    return reads ? CommonIF::kUser : CommonIF::kAdmin;
}

// A role given on the command line: 0 with the role in *role (none given: unset), or status 1.
int takeRole(const std::string& option, const std::string& name,
             std::optional<CommonIF::eSecurityRole>* role) {
    if (name.empty()) {
        return 0;
    }
    *role = roleNamed(name);
    return *role ? 0
                 : vanectl::usageError("", "unknown role '" + name + "' for " + option +
                                               " (kUser, kAdmin, kSystem, kProvisioning, "
                                               "kStartup)");
}

CLI::App* addCommand(CLI::App& app, const std::string& name, const std::string& description) {
    CLI::App* command = app.add_subcommand(name, description);
    command->fallthrough();
    return command;
}

void addFileOptions(CLI::App* command, Request& request, const std::string& fileHelp,
                    const std::string& dryRunHelp) {
    command->add_option("FILE", request.file, fileHelp)->required();
    if (!dryRunHelp.empty()) {
        command->add_flag("--dry-run,-n", request.dryRun, dryRunHelp);
    }
}

void defineCommands(CLI::App& app, Request& request) {
    CLI::App* get = addCommand(app, "get", "Read variable instances (in one batch, one state)");
    get->add_option("PATH", request.paths,
                    "The instances to read; one: its values one per "
                    "line; several: a line per path")
        ->required();
    for (const char* name : {"set", "validate"}) {
        const bool check = name[0] == 'v';
        CLI::App* command = addCommand(
            app, name,
            check ? "Check values as a write would, storing nothing"
                  : "Write the values of one variable instance (none: its default, or an "
                    "empty list)");
        command->add_option("PATH", request.path, kPathHelp)->required();
        command->add_option("VALUE", request.values, "The values, as many as the variable takes");
    }
    addCommand(app, "reset",
               "Return a variable instance, or everything under a node, to the defaults")
        ->add_option("PATH", request.path, kPathHelp)
        ->required();
    addCommand(app, "describe",
               "Show a variable's kind, bounds, options, defaults, levels, reboot, instances "
               "and description, or a node's instances and children")
        ->add_option("PATH", request.path, kPathHelp)
        ->required();
    addCommand(app, "list",
               "List every variable instance under PATH with its values, one per "
               "line in the form apply reads; '# default' marks defaults")
        ->add_option("PATH", request.path, "Where to start (default: the whole tree)");
    addCommand(app, "tree", "Show the model under PATH as a tree with current values")
        ->add_option("PATH", request.path, "Where to start (default: the whole tree)");
    addFileOptions(addCommand(app, "apply",
                              "Write every 'PATH VALUE...' line of FILE in one submission: all "
                              "of them or none"),
                   request, "The file of lines, or - for standard input",
                   "Check every line and report each problem with its line number; change "
                   "nothing");
    addFileOptions(addCommand(app, "export",
                              "Save every value that differs from its default to FILE, as "
                              "'PATH VALUE...' lines"),
                   request, "The file to write (replaced once complete), or - for standard output",
                   "");
    addFileOptions(addCommand(app, "import",
                              "Restore an export: set its values and return every other "
                              "readable value to its default, all in one submission"),
                   request, "The exported file, or - for standard input",
                   "Check every change and report each problem; change nothing");
    addCommand(app, "watch",
               "Print a line (PATH VALUE..., as list writes them) for every change of a value "
               "under PATH as it happens, until interrupted")
        ->add_option("PATH", request.path, "What to watch (default: the whole tree)");
    CLI::App* levels = addCommand(
        app, "levels", "Show the read and write levels of a variable instance, or set them");
    levels->add_option("PATH", request.path, kPathHelp)->required();
    levels->add_option("--read", request.readLevel, "The role needed to read it from now on");
    levels->add_option("--write", request.writeLevel, "The role needed to write it from now on");
    CLI::App* options = addCommand(
        app, "options", "Show the options of an option variable instance, or replace them");
    options->add_option("PATH", request.path, kPathHelp)->required();
    options->add_option("OPTION", request.values, "The new options, in order");
    options->add_option("--default", request.defaultOption,
                        "The new default among the options (default: the first)");
    CLI::App* component = addCommand(app, "component",
                                     "Detach a component of the device (its values are kept) or "
                                     "attach it again");
    component->add_option("NAME", request.path, "The component's node path (video)")->required();
    component->add_option("ACTION", request.action, "attach or detach")
        ->required()
        ->check(CLI::IsMember({"attach", "detach"}));
}

int dispatch(const std::string& command, Service& service, const Request& request,
             std::optional<CommonIF::eSecurityRole> read,
             std::optional<CommonIF::eSecurityRole> write) {
    const Output output{request.json};
    if (command == "get") {
        return vanectl::runGet(service, output, request.paths);
    }
    if (command == "set") {
        return vanectl::runSet(service, output, request.path, request.values);
    }
    if (command == "validate") {
        return vanectl::runValidate(service, output, request.path, request.values);
    }
    if (command == "reset") {
        return vanectl::runReset(service, request.path);
    }
    if (command == "describe") {
        return vanectl::runDescribe(service, output, request.path);
    }
    if (command == "list") {
        return vanectl::runList(service, output, request.path);
    }
    if (command == "tree") {
        return vanectl::runTree(service, output, request.path);
    }
    if (command == "apply") {
        return vanectl::runApply(service, output, request.file, request.dryRun);
    }
    if (command == "export") {
        return vanectl::runExport(service, output, request.file);
    }
    if (command == "import") {
        return vanectl::runImport(service, output, request.file, request.dryRun);
    }
    if (command == "watch") {
        return vanectl::runWatch(service, output, request.path);
    }
    if (command == "levels") {
        return vanectl::runLevels(service, output, request.path, read, write);
    }
    if (command == "options") {
        return vanectl::runOptions(service, output, request.path, request.values,
                                   request.defaultOption);
    }
    return vanectl::runComponent(service, request.path, request.action == "detach");
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app(
        "Administer the configuration service: discover the model, read and change "
        "values, levels and options, apply batches of changes as one submission, "
        "export and import configurations.",
        "vanectl");
    app.footer(kFooter);
    app.require_subcommand(1);
    Request request;
    app.add_flag("--json", request.json,
                 "Print one JSON document (shapes in the README) instead of text");
    app.add_option("--role,-r", request.role,
                   "The role to claim: kUser, kAdmin, kSystem, kProvisioning or kStartup");
    app.add_option("--client,-c", request.client,
                   "The client name sent with each request (default: the endpoint's, "
                   "vanectl-PID)");
    app.add_option("--timeout", request.timeoutMs,
                   "Milliseconds to wait for the service to accept and for each answer")
        ->check(CLI::Range(1, 3600000))
        ->default_val(10000);
    defineCommands(app, request);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& help) {
        return app.exit(help);
    } catch (const CLI::ParseError& error) {
        return vanectl::usageError("", std::string(error.what()) + " (see vanectl --help)");
    }

    const std::string command = app.get_subcommands().front()->get_name();
    std::optional<CommonIF::eSecurityRole> role;
    std::optional<CommonIF::eSecurityRole> read;
    std::optional<CommonIF::eSecurityRole> write;
    int status = takeRole("--role", request.role, &role);
    status = status != 0 ? status : takeRole("--read", request.readLevel, &read);
    status = status != 0 ? status : takeRole("--write", request.writeLevel, &write);
    if (status != 0) {
        return status;
    }
    Service::Settings settings;
    settings.clientName = request.client;
    settings.role = role ? *role : defaultRole(command, request);
    settings.timeoutMs = request.timeoutMs;
    Service service(settings);
    status = service.connect();
    status = status != 0 ? status : dispatch(command, service, request, read, write);
    std::fflush(stdout);
    return status;
}
