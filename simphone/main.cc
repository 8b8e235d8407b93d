// The simphone command: makes a simulated phone, runs the tool on it, restarts it and shows it.
// Started by hand and by the demo; exit status 0 fine, 2 an error, and for `run` the tool's own
// (128 + n for a signal), unless a fault of the command line was never met.
#include "simphone/help.h"
#include "simphone/phone.h"
#include "simphone/show.h"
#include "simphone/text.h"
#include "simphone/tool_run.h"

#include "version.h"

#include <CLI/CLI.hpp>
#include <iostream>

namespace {

int Finish(bool right, const std::string& error) {
    if (!right) {
        std::cerr << "simphone: " << Displayed(error) << "\n";
    } else if (!std::cout.flush()) {
        std::cerr << "simphone: the answer could not be written\n";
    }
    return right && std::cout ? 0 : 2;
}

int Run(const Phone& phone, const std::string& tool, const RunOptions& options) {
    const RunResult result = RunTool(phone, tool, options);
    if (!result.error.empty()) {
        return Finish(false, result.error);
    }
    std::cout << result.console << std::flush;
    std::cerr << result.errors;
    if (result.timedOut) {
        std::cerr << "simphone: " << Escaped(tool) << " did not end in time\n";
    } else if (result.signal != 0) {
        std::cerr << "simphone: " << Escaped(tool) << " was ended by signal " << result.signal
                  << "\n";
    }
    for (const Fault& fault : result.unmetFaults) {
        std::cerr << "simphone: fault " << Quoted(FaultText(fault))
                  << ": no call of the run met it\n";
    }
    if (!result.unmetFaults.empty() || Finish(true, "") != 0) {
        return 2;
    }
    return result.signal != 0 ? 128 + result.signal : result.exitStatus;
}

// What the command line says.
struct Arguments {
    std::string file, directory, package, launcher, tool = Companion("ffu");
    std::vector<std::string> settings, faults;
    RunOptions options = {};
};

void AddCommands(CLI::App& app, Arguments& args) {
    AddCommonOptions(app, FFU_VERSION);
    app.footer("`simphone COMMAND --help` explains a command.\n\nExit status:\n  0  fine\n"
               "  2  wrong usage, or the phone cannot be made, run or read");

    CLI::App* make = app.add_subcommand("make", "Make a phone after a description");
    make->add_option("PHONE.toml", args.file, "its description")->required();
    make->add_option("DIR", args.directory, "a missing or empty directory")->required();
    AddSettings(*make, args.settings);
    make->add_option("--package", args.package, "the firmware package that the phone has")
        ->option_text("PACKAGE");
    make->footer("Exit status:\n  0  the phone is made\n  2  it is not");

    CLI::App* run = app.add_subcommand("run", "Run an unmodified tool on a phone");
    run->add_option("DIR", args.directory, "the phone")->required();
    run->add_option("TOOL", args.tool, "the program, if not the ffu that comes with simphone");
    run->add_option("--fault", args.faults,
                    "a call that fails (" + ExampleFile("emmc-phone.toml") + " explains faults)")
        ->type_size(1)
        ->option_text("FAULT");
    run->add_option("--launcher", args.launcher, "a program that starts the tool, as qemu-aarch64")
        ->option_text("PROGRAM");
    run->add_option("--library", args.options.libsimphone, "libsimphone.so, if not beside TOOL")
        ->option_text("FILE");
    run->add_option("--seconds", args.options.secondsLimit,
                    "end the tool after so many seconds; 0: never")
        ->option_text("N");
    run->footer("Exit status: the tool's own; 128 and the signal's number if a signal ended it; 2 "
                "if it could not be run, or if no call met a --fault.\n");

    CLI::App* reboot = app.add_subcommand("reboot", "Restart a phone with its pending firmware");
    reboot->add_option("DIR", args.directory, "the phone")->required();
    reboot->footer("Exit status:\n  0  the phone has restarted\n  2  it has not");

    CLI::App* show = app.add_subcommand("show", "Show what a phone is and what the tool left");
    show->add_option("DIR", args.directory, "the phone")->required();
    show->footer("Exit status:\n  0  shown\n  2  the phone cannot be read");
}

} // namespace

// An exception ends the command with its text, as it should.
// NOLINTNEXTLINE(bugprone-exception-escape)
int main(int argc, char** argv) {
    CLI::App app("A phone that is a directory: its nodes, its storage device, its faults",
                 "simphone");
    Arguments args;
    Phone phone;
    std::string error;
    AddCommands(app, args);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& wrong) {
        return wrong.get_exit_code() == 0
                   ? app.exit(wrong)
                   : Finish(false, std::string(wrong.what()) + "; --help tells more");
    }

    if (app.got_subcommand("make")) {
        const bool isMade = ReadDescription(args.file, args.settings, phone.description, error) &&
                            MakePhone(phone.description, args.directory, error);
        phone.directory = args.directory;
        return Finish(isMade && (args.package.empty() || PutPackage(phone, args.package, error)),
                      error);
    }
    for (const std::string& text : args.faults) {
        if (!ParseFault(text, args.options.faults.emplace_back(), error)) {
            return Finish(false, error);
        }
    }
    if (!OpenPhone(args.directory, phone, error)) {
        return Finish(false, error);
    }
    if (app.got_subcommand("run")) {
        std::istringstream words(args.launcher);
        args.options.launcher.assign(std::istream_iterator<std::string>(words), {});
        return Run(phone, args.tool, args.options);
    }
    if (app.got_subcommand("reboot")) {
        return Finish(RebootPhone(phone, error), error);
    }
    std::cout << ShowPhone(phone);
    return Finish(true, "");
}
