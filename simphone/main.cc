// The simphone command: makes a simulated phone, runs the tool on it, restarts it and shows it.
// Started by hand and by the demo; exit status 0 fine, 2 an error, and for `run` the tool's own
// (128 + n for a signal), unless a fault of the command line was never met.
#include "simphone/help.h"
#include "simphone/phone.h"
#include "simphone/show.h"
#include "simphone/text.h"
#include "simphone/tool_run.h"

#include "version.h"

#include <algorithm>
#include <CLI/CLI.hpp>
#include <iostream>
#include <iterator>
#include <sstream>

namespace {

// What is wrong, for the user; the exit status then.
int Tell(const std::string& wrong) {
    std::cerr << "simphone: " << wrong << "\n";
    return 2;
}

// What the command line says.
struct Arguments {
    std::string file, directory, package, launcher, tool = Companion("ffu");
    std::vector<std::string> settings, faults;
    RunOptions options = {};
};

int Run(const Arguments& args) {
    RunOptions options = args.options;
    std::transform(args.faults.begin(), args.faults.end(), std::back_inserter(options.faults),
                   ParseFault);
    std::istringstream words(args.launcher);
    options.launcher.assign(std::istream_iterator<std::string>(words), {});
    const RunResult result = RunTool(OpenPhone(args.directory), args.tool, options);
    int status = result.signal != 0 ? 128 + result.signal : result.exitStatus;
    std::cout << result.console << std::flush;
    std::cerr << result.errors;
    if (result.timedOut) {
        (void)Tell(Escaped(args.tool) + " did not end in time");
    } else if (result.signal != 0) {
        (void)Tell(Escaped(args.tool) + " was ended by signal " + std::to_string(result.signal));
    }
    for (const Fault& fault : result.unmetFaults) {
        status = Tell("fault " + Quoted(FaultText(fault)) + ": no call of the run met it");
    }
    return status;
}

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

// Only a fault in the table of options could end the program by an exception.
// NOLINTNEXTLINE(bugprone-exception-escape)
int main(int argc, char** argv) {
    CLI::App app("A phone that is a directory: its nodes, its storage device, its faults",
                 "simphone");
    Arguments args;
    int status = 0;
    AddCommands(app, args);
    try {
        app.parse(argc, argv);
        if (app.got_subcommand("make")) {
            const Phone phone = {args.directory, ReadDescription(args.file, args.settings)};
            MakePhone(phone);
            if (!args.package.empty()) {
                PutPackage(phone, args.package);
            }
        } else if (app.got_subcommand("run")) {
            status = Run(args);
        } else if (app.got_subcommand("reboot")) {
            RebootPhone(OpenPhone(args.directory));
        } else {
            std::cout << ShowPhone(OpenPhone(args.directory));
        }
    } catch (const CLI::ParseError& wrong) {
        return wrong.get_exit_code() == 0 ? app.exit(wrong)
                                          : Tell(Displayed(wrong.what()) + "; --help tells more");
    } catch (const std::exception& wrong) {
        return Tell(Displayed(wrong.what()));
    }
    return std::cout.flush() ? status : Tell("the answer could not be written");
}
