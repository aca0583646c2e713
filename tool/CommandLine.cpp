#include "CommandLine.h"

#include <cstdlib>
#include <cstring>

#include "Arg.h"
#include "LogStream.h"

namespace {

bool isWord(const char* word, const char* expected) {
    return std::strcmp(word, expected) == 0;
}

bool isCommandWord(const char* word) {
    return isWord(word, "--read") || isWord(word, "--write") || isWord(word, "-w") ||
           isWord(word, "--help");
}

bool isValueModeWord(const char* word) {
    return isWord(word, "--value") || isWord(word, "-v");
}

[[noreturn]] void rejectUnknownOption(int argc, char** argv, int i) {
    printWrongInput(argc, argv, i);
    LogStream::instance() << "unrecognized option '" << argv[i] << "'\n";
    exitWithHelpHint();
}

[[noreturn]] void exitWithUsage() {
    printUsage();
    std::exit(1);
}

void addValue(const char* valueMode, const char* word, ConfigIF::InstValue& request) {
    if (!isValueModeWord(valueMode)) {
        LogStream::instance() << "internal error\n";
        std::exit(1);
    }
    request.add_value(word);
}

ConfigIF::Node* addNode(const char* word, ConfigIF::Inst& instance) {
    ConfigIF::Node* node = instance.add_node();
    node->set_name(word);
    node->set_instance(0);  // set explicitly so that it is always on the wire
    return node;
}

// After the last word: the command when none was given, and the role for it.
void resolveCommand(const Arg& command, const Arg& role, CommandLine& line) {
    line.command = command.value;
    if (line.command != nullptr && isWord(line.command, "--help")) {
        exitWithUsage();
    }
    if (line.command == nullptr) {
        if (line.request.instance().node_size() == 0) {
            exitWithUsage();
        }
        line.command = line.request.value_size() > 0 ? "--write" : "--read";
    }
    // Only the long spelling selects the write role: -w keeps the read role unless --role says
    // otherwise, which scripts written for this tool rely on.
    line.roleName = role.value;
    if (line.roleName == nullptr) {
        line.roleName = isWord(line.command, "--write") ? "kAdmin" : "kUser";
    }
}

}  // namespace

void parseCommandLine(int argc, char** argv, CommandLine& line) {
    Arg client;
    Arg role;
    Arg command;
    Arg debug;
    const char* valueMode = nullptr;
    ConfigIF::Inst& instance = *line.request.mutable_instance();
    ConfigIF::Node* currentNode = nullptr;

    for (int i = 1; i < argc; ++i) {
        const char* word = argv[i];
        if (isWord(word, "--client") || isWord(word, "-c")) {
            client.setValue(argc, argv, i);
        } else if (isWord(word, "--role") || isWord(word, "-r")) {
            role.setValue(argc, argv, i);
        } else if (isWord(word, "--debug")) {
            debug.setFlag(argc, argv, i);
        } else if (isCommandWord(word)) {
            command.setFlag(argc, argv, i);
        } else if (isValueModeWord(word)) {
            valueMode = word;
        } else if (word[0] == '-') {
            rejectUnknownOption(argc, argv, i);
        } else if (valueMode != nullptr) {
            addValue(valueMode, word, line.request);
        } else if (word[0] >= '0' && word[0] <= '9') {
            // An instance number before any node has nothing to number and is dropped.
            if (currentNode != nullptr) {
                currentNode->set_instance(std::atoi(word));
            }
        } else {
            currentNode = addNode(word, instance);
        }
    }

    resolveCommand(command, role, line);
    line.clientName = client.value;
    line.debug = debug.value != nullptr;
}
