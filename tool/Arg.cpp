#include "Arg.h"

#include <cstdio>
#include <cstdlib>

#include "LogStream.h"

namespace {

const char kRed[] = "\033[31m";
const char kReset[] = "\033[0m";

const char kHelpHint[] = "Please try `setvane --help' for more information.\n";

// The syntax line names the full configuration tool whose command line this one shares.
const char kUsageText[] =
    "setvane - alternative program of dovek\n"
    "\n"
    "Syntax:\n"
    "    dovek [options]... [command] [parameters]...\n"
    "\n"
    "OPTIONS:\n"
    "    --debug\n"
    "        show full pb message transaction\n"
    "    --client|-c arg_client_name\n"
    "        manually set client name, default is setvane\n"
    "    --role|-r kUser|kAdmin|kSystem|kProvisioning|kStartup\n"
    "        manually set role, default is kAdmin (for write) or kUser (for read)\n"
    "\n"
    "COMMANDS:\n"
    "    [--read] arg_variable_instance\n"
    "        read a variable instance\n"
    "    [--write|-w] arg_variable_instance --value|-v [arg_values]...\n"
    "        write a variable instance\n";

}  // namespace

void Arg::setFlag(int argc, char** argv, int i) {
    if (value != nullptr) {
        printWrongInput(argc, argv, i);
        LogStream::instance() << "'" << value << "' already defined\n";
        exitWithHelpHint();
    }
    value = argv[i];
}

void Arg::setValue(int argc, char** argv, int& i) {
    if (value != nullptr) {
        printWrongInput(argc, argv, i);
        LogStream::instance() << "option '" << argv[i] << "' already set to '" << value << "'\n";
        exitWithHelpHint();
    }
    if (i + 1 >= argc) {
        printWrongInput(argc, argv, i);
        LogStream::instance() << "option '" << argv[i] << "' requires an argument\n";
        exitWithHelpHint();
    }
    ++i;
    value = argv[i];
}

void printWrongInput(int argc, char** argv, int bad) {
    std::fputs("Wrong input: ", stderr);
    for (int i = 0; i < argc; ++i) {
        if (i > 0) {
            std::fputc(' ', stderr);
        }
        if (i == bad) {
            std::fputs(kRed, stderr);
            std::fputs(argv[i], stderr);
            std::fputs(kReset, stderr);
        } else {
            std::fputs(argv[i], stderr);
        }
    }
    std::fputc('\n', stderr);
    std::fflush(stderr);
}

void exitWithHelpHint() {
    std::fputs(kHelpHint, stderr);
    std::fflush(stderr);
    std::exit(1);
}

void printUsage() {
    std::fwrite(kUsageText, 1, sizeof(kUsageText) - 1, stderr);
    std::fflush(stderr);
}
