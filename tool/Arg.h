// Arg: one command-line option, and the diagnostics for misusing options.
//
// An Arg records where its option was given: `value` points into argv (the flag word itself
// for a flag, the following word for an option with an argument) and is null until then. argv
// lives as long as the process, so nothing is copied.
//
// Misuse ends the process with status 1 after three pieces on standard error: the
// "Wrong input: " echo of the command line with the rejected word in red, one LogStream line
// saying what is wrong, and the help hint.
#ifndef SETVANE_TOOL_ARG_H
#define SETVANE_TOOL_ARG_H

class Arg {
  public:
    virtual ~Arg() {}

    // Records the flag argv[i]; a second occurrence of the same flag ends the process.
    void setFlag(int argc, char** argv, int i);

    // Records option argv[i] with its argument argv[i + 1] and advances i past the argument.
    // The argument is taken whatever it looks like. Ends the process when the option was
    // already given or no word follows it.
    void setValue(int argc, char** argv, int& i);

    const char* value = nullptr;
};

// Echoes the command line on standard error, marking argv[bad] in red.
void printWrongInput(int argc, char** argv, int bad);

// Prints the hint to read the usage text and ends the process with status 1.
[[noreturn]] void exitWithHelpHint();

// Writes the usage text to standard error.
void printUsage();

#endif  // SETVANE_TOOL_ARG_H
