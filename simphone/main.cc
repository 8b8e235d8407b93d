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

} // namespace

// An exception ends the command with its text, as it should.
// NOLINTNEXTLINE(bugprone-exception-escape)
int main(int argc, char** argv) {
    CLI::App app("A phone that is a directory: its nodes, its storage device, its faults",
                 "simphone");
    app.formatter_fn(HelpText);
    app.set_help_flag("-h,--help", "print this help");
    app.set_version_flag("--version", std::string("simphone ") + FFU_VERSION, "print the version");
    app.footer("`simphone COMMAND --help` explains a command.\n\nExit status:\n  0  fine\n"
               "  2  wrong usage, or the phone cannot be made, run or read");
    app.require_subcommand(1);
    std::string file, directory, package, launcher, error;
    std::string tool = Companion("ffu");
    RunOptions options;
    std::vector<std::string> settings, faults;
    Phone phone;

    CLI::App* make = app.add_subcommand("make", "Make a phone after a description");
    make->add_option("PHONE.toml", file, "its description")->required();
    make->add_option("DIR", directory, "a missing or empty directory")->required();
    make->add_option("--set", settings,
                     "another value for a key of the description, such as "
                     "cid.product_name=SIM065; bytes are \\n, \\\\ and \\xHH")
        ->type_size(1)
        ->option_text("KEY=VALUE");
    make->add_option("--package", package, "the firmware package that the phone has")
        ->option_text("PACKAGE");
    make->footer("Exit status:\n  0  the phone is made\n  2  it is not");

    CLI::App* run = app.add_subcommand("run", "Run an unmodified tool on a phone");
    run->add_option("DIR", directory, "the phone")->required();
    run->add_option("TOOL", tool, "the program, if not the ffu that comes with simphone");
    run->add_option("--fault", faults,
                    "a call that fails (" + ExampleFile("emmc-phone.toml") + " explains faults)")
        ->type_size(1)
        ->option_text("FAULT");
    run->add_option("--launcher", launcher, "a program that starts the tool, as qemu-aarch64")
        ->option_text("PROGRAM");
    run->add_option("--library", options.libsimphone, "libsimphone.so, if not beside TOOL")
        ->option_text("FILE");
    run->add_option("--seconds", options.secondsLimit,
                    "end the tool after so many seconds; 0: never")
        ->option_text("N");
    run->footer("Exit status: the tool's own; 128 and the signal's number if a signal ended it; 2 "
                "if it could not be run, or if no call met a --fault.\n");

    CLI::App* reboot = app.add_subcommand("reboot", "Restart a phone with its pending firmware");
    reboot->add_option("DIR", directory, "the phone")->required();
    reboot->footer("Exit status:\n  0  the phone has restarted\n  2  it has not");

    CLI::App* show = app.add_subcommand("show", "Show what a phone is and what the tool left");
    show->add_option("DIR", directory, "the phone")->required();
    show->footer("Exit status:\n  0  shown\n  2  the phone cannot be read");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& wrong) {
        return wrong.get_exit_code() == 0
                   ? app.exit(wrong)
                   : Finish(false, std::string(wrong.what()) + "; --help tells more");
    }

    if (*make) {
        const bool isMade = ReadDescription(file, settings, phone.description, error) &&
                            MakePhone(phone.description, directory, error);
        phone.directory = directory;
        return Finish(isMade && (package.empty() || PutPackage(phone, package, error)), error);
    }
    for (const std::string& text : faults) {
        if (!ParseFault(text, options.faults.emplace_back(), error)) {
            return Finish(false, error);
        }
    }
    if (!OpenPhone(directory, phone, error)) {
        return Finish(false, error);
    }
    if (*run) {
        std::istringstream words(launcher);
        options.launcher.assign(std::istream_iterator<std::string>(words), {});
        return Run(phone, tool, options);
    }
    if (*reboot) {
        return Finish(RebootPhone(phone, error), error);
    }
    std::cout << ShowPhone(phone);
    return Finish(true, "");
}
