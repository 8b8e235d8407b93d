// The workstation tool: builds firmware packages, looks into them, tells what a phone would do with
// them, tries that on a simulated phone, and explains what runs have left on phones.
#include "fwlab/base/json.h"
#include "fwlab/commands/commands.h"
#include "fwlab/phone/device.h"
#include "fwlab/phone/state_directory.h"
#include "simphone/text.h"

#include "version.h"

#include <algorithm>
#include <CLI/CLI.hpp>
#include <csignal>
#include <fmt/format.h>
#include <functional>
#include <iostream>

namespace {

// What the command line says; the parser runs the command that it names.
struct Arguments {
    std::string manifest, package, newPackage, output, phone, record;
    Texts settings;
    bool gkiOnly, json;
    RehearseOptions rehearsal;
    PlanOptions plan;
    OutcomeOptions outcome;
    CaptureOptions capture;
    SweepRequest sweep;
    int status; // of the command
};

// An output must have a name.
const CLI::Validator NAMED([](const std::string& name) { return name.empty() ? "is empty" : ""; },
                           "");

// A command without its own options. `run` returns its exit status.
CLI::App* AddCommand(CLI::App& app, Arguments& args, const char* name, const char* summary,
                     const std::function<int()>& run, const char* footer) {
    CLI::App* command = app.add_subcommand(name, summary);
    command->add_flag("--json", args.json, "print JSON, for programs");
    command->callback([&args, run] { args.status = run(); });
    command->footer(footer);
    return command;
}

void AddPack(CLI::App& app, Arguments& args) {
    CLI::App* pack = AddCommand(
        app, args, "pack", "Build a package from a manifest",
        [&] { return Pack(args.manifest, args.output, args.gkiOnly, args.json); },
        "examples/emmc-package.toml and examples/ufs-package.toml explain the format of manifests. "
        "Exit "
        "status 1: refused. A device that an entry describes must get exactly this entry, from "
        "each of the entry's base revisions.");
    pack->add_option("MANIFEST.toml", args.manifest, "the manifest")->required();
    pack->add_option("-o,--output", args.output, "the package")->required()->check(NAMED);
    pack->add_flag("--gki-only", args.gkiOnly, "allow eMMC images above 1 MiB");
}

void AddList(CLI::App& app, Arguments& args) {
    CLI::App* list = AddCommand(
        app, args, "list", "Show the entries of a package and its flaws",
        [&] { return List(args.package, args.json); },
        "Exit status 1: there are findings. Bytes that are not printable are shown as \\n, \\\\ "
        "and \\xHH.");
    list->add_option("PACKAGE", args.package, "the package")->required();
}

void AddDiff(CLI::App& app, Arguments& args) {
    CLI::App* diff = AddCommand(
        app, args, "diff", "Compare two packages, by entry and by device",
        [&] { return Diff(args.package, args.newPackage, args.json); },
        "The devices are those that an entry describes, without a record of attempts. Each runs, "
        "in turn, every revision that an entry installs or has as a base revision. Exit status 0: "
        "the same bytes. 1: they differ. 2: they cannot be compared.");
    diff->add_option("OLD", args.package, "the older package")->required();
    diff->add_option("NEW", args.newPackage, "the newer package")->required();
}

void AddUnpack(CLI::App& app, Arguments& args) {
    CLI::App* unpack = AddCommand(
        app, args, "unpack", "Take a package apart: a manifest and images",
        [&] { return Unpack(args.package, args.output, args.json); },
        "pack makes the same bytes again from the package.toml there. Exit status 1: refused, as "
        "pack would not make this package; nothing is left behind.");
    unpack->add_option("PACKAGE", args.package, "the package")->required();
    unpack->add_option("-o,--output", args.output, "a new folder")->required()->check(NAMED);
}

void AddVerify(CLI::App& app, Arguments& args) {
    CLI::App* verify = AddCommand(
        app, args, "verify", "Tell whether a package is what a manifest makes",
        [&] { return Verify(args.package, args.manifest, args.json); },
        "The package is made again in memory, nothing is written. Exit status 0: the same bytes. "
        "1: they differ, and where.");
    verify->add_option("PACKAGE", args.package, "the package")->required();
    verify->add_option("--manifest", args.manifest, "what it was made from")->required();
}

void AddSettings(CLI::App& command, Texts& settings) {
    command
        .add_option("--set", settings,
                    "another value for a key of the description, such as "
                    "cid.product_name=SIM065; bytes are \\n, \\\\ and \\xHH")
        ->type_name("KEY=VALUE")
        ->type_size(1);
}

// The phone of a command, which settings may change.
void AddPhone(CLI::App& command, std::string& phone, Texts& settings) {
    command.add_option("--phone", phone, "the phone's description")->required();
    AddSettings(command, settings);
}

void AddMatch(CLI::App& app, Arguments& args) {
    CLI::App* match = AddCommand(
        app, args, "match", "Tell what a phone would do with a package",
        [&] {
            const Description phone = ReadPhone(args.phone, args.settings);
            return Match(args.package, phone, args.record, args.json);
        },
        "Exit status 0: the device gets the entry that the pre-check selected, or one for it with "
        "the same revision. 1: no update, or the attempt is \"used up\": on record and never made "
        "again, but the device does not get the entry.");
    match->add_option("PACKAGE", args.package, "the package")->required();
    AddPhone(*match, args.phone, args.settings);
    match->add_option("--record", args.record, "its fw_result")->check(CLI::ExistingFile);
}

void AddRehearse(CLI::App& app, Arguments& args) {
    RehearseOptions& options = args.rehearsal;
    CLI::App* rehearse = AddCommand(
        app, args, "rehearse", "Run ffu on a simulated phone",
        [&] { return Rehearse(options, args.json); },
        "The last line tells what has become of the phone, by what its device took and by its "
        "record; how the run ended does not count. Exit status 0: the device took the entry's "
        "body, the phone runs its revision after a restart, and the second run, if asked for, "
        "finds nothing to do.");
    rehearse->add_option("PACKAGE", options.package, "the package")->required();
    AddPhone(*rehearse, options.phone, options.settings);
    rehearse
        ->add_option("--fault", options.faults, "a call that fails (see examples/emmc-phone.toml)")
        ->type_size(1);
    rehearse
        ->add_option("--then", options.then,
                     "a further run, without a restart, with this fault; without one if it is ''")
        ->type_size(1);
    rehearse->add_option_function<std::string>(
        "--state", [&](const std::string& folder) { options.state = ReadPulledState(folder); },
        "start with the files of this state directory, pulled from a phone");
    rehearse->add_option("--keep", options.keep, "make the phone in this new folder and keep it")
        ->check(NAMED);
    rehearse->add_flag("--reboot-and-run-again", options.runAgain,
                       "run again after the restart: that run must find nothing to do");
    rehearse->add_flag("--quiet", options.quiet, "leave out console lines of one character each");
}

void AddSweep(CLI::App& app, Arguments& args) {
    SweepRequest& request = args.sweep;
    CLI::App* sweep = AddCommand(
        app, args, "sweep", "Rehearse every failing call and power cut",
        [&] {
            if (request.package.empty() && request.phones.size() > 1) { // it came after --phone
                request.package = request.phones.back();
                request.phones.pop_back();
            }
            return Sweep(request, args.json);
        },
        "Each call of the run fails, in each way, once and permanently. The power fails before "
        "each call that changes the phone, with each loss of what was not synced. Exit status 0: "
        "each phone is updated by the run without a fault, and there are no violations. Each "
        "violation comes with the rehearsal that shows it.");
    sweep->add_option("PACKAGE", request.package, "the package");
    sweep->add_option("--phone", request.phones, "descriptions of phones")->required();
    AddSettings(*sweep, request.settings);
    sweep->add_option_function<std::string>(
        "--state",
        [&](const std::string& folder) {
            request.stateFolder = folder;
            request.state = ReadPulledState(folder);
        },
        "start with the files of this state directory, pulled from a phone");
    sweep->add_option("--jobs", request.jobs, "threads; without it one for each processor")
        ->check(CLI::Range(1, 1024));
    sweep->add_option("--junit", request.junit, "write a JUnit report: a test case for each call")
        ->check(NAMED);
    sweep->add_option("--html", request.html, "write a page with the runs and their time lines")
        ->check(NAMED);
}

void AddOutcome(CLI::App& app, Arguments& args) {
    OutcomeOptions& options = args.outcome;
    CLI::App* outcome = AddCommand(
        app, args, "outcome", "Explain what runs left in /data/vendor/fw",
        [&] { return Outcome(options, args.json); },
        "The first word is what became of the phone: updated; nothing-to-do: no attempt on record; "
        "failed; interrupted; unknown: more than one course of events is possible; stopped: a run "
        "ended early, outside of an attempt; record-unreadable; not-pulled: no file at all; "
        "foreign: no file of a run; unreadable. Exit status 0: all are updated or nothing-to-do. "
        "2: no file of a run could be read.");
    outcome
        ->add_option("DIR", options.directories,
                     "that directory, pulled from a phone, or a folder of many: FOLDER/SERIAL/...")
        ->required();
    outcome->get_option("--json")->description(
        "print a line of JSON for each directory, for programs");
    outcome->add_flag("--list", options.list, "list every directory that is not updated, too");
    outcome
        ->add_option("--fail-above", options.failAbove,
                     "exit status 1 only if more than this share (percent) is not updated, of all "
                     "that are neither \"nothing-to-do\" nor \"foreign\"")
        ->check(CLI::Range(0.0, 100.0))
        ->check(CLI::Validator(
            [](const std::string& text) {
                return text.find_first_not_of("0123456789.") == text.npos ? "" : "no percentage";
            },
            "", ""));
}

void AddPlan(CLI::App& app, Arguments& args) {
    PlanOptions& options = args.plan;
    CLI::App* plan = AddCommand(
        app, args, "plan", "Tell what each phone of a fleet would get",
        [&] { return Plan(options, args.json); },
        "Exit status 0: no phone would use up its attempt or get a wrong image, of each it is "
        "known "
        "what it gets, and each entry is for a phone of the fleet.");
    plan->add_option("PACKAGE", options.packages, "the packages, one of each technology")
        ->required();
    plan->add_option("--fleet", options.fleet, "the device models (see examples/fleet.toml)")
        ->required();
    plan->add_option("--records", options.records,
                     "a folder of state directories of phones that the fleet counts")
        ->check(CLI::ExistingDirectory);
}

void AddCapture(CLI::App& app, Arguments& args) {
    CaptureOptions& options = args.capture;
    CLI::App* capture = AddCommand(
        app, args, "capture", "Describe a phone by nodes pulled from it",
        [&] { return Capture(options, args.json); },
        "DIR holds the nodes as `adb exec-out cat` gives them, under their paths. All phones: "
        "/proc/bootdevice/product_name. UFS: manfid and rev beside it and, if known, "
        "/sys/block/sdc/queue/max_hw_sectors_kb. eMMC: ext_csd beside it and "
        "/sys/class/mmc_host/mmc0/mmc0:0001/cid. Exit status 1: the nodes do not describe a "
        "phone.");
    capture->add_option("DIR", options.folder, "where they are")->required();
    capture->add_option("-o,--output", options.output, "the description")->required()->check(NAMED);
    capture
        ->add_option("--firmware-revision", options.firmwareRevision,
                     "the revision that the phone reports after an update (bytes: \\xHH)")
        ->required();
    capture->add_option("--kind", options.kind, "emmc-gki if /proc/bootdevice/ffu is writable")
        ->required()
        ->check(CLI::IsMember({"emmc-gki", "emmc-normal", "ufs"}));
}

// Stop if the first word is no command, which the parser would say in other words.
void RequireCommand(const CLI::App& app, const std::string& word) {
    const auto commands = app.get_subcommands(nullptr);
    const auto isNamed = [&](const CLI::App* command) { return command->get_name() == word; };
    if (word[0] != '-' && std::none_of(commands.begin(), commands.end(), isNamed)) {
        throw Stop{2, Quoted(word) + " is no command; --help lists them"};
    }
}

int Run(int argc, char** argv) {
    CLI::App app("Makes, inspects, matches and rehearses firmware packages", "fwlab");
    app.set_version_flag("--version", std::string("fwlab ") + FFU_VERSION);
    app.require_subcommand(1);
    app.footer("Exit status: 0 fine, 1 the answer is no or there are findings, 2 wrong usage or "
               "input that cannot be read.");
    Arguments args = {};
    for (const auto add : {AddPack, AddList, AddDiff, AddUnpack, AddVerify, AddMatch, AddRehearse,
                           AddPlan, AddSweep, AddOutcome, AddCapture}) {
        add(app, args);
    }
    try {
        RequireCommand(app, argc < 2 ? "-" : argv[1]);
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) { // a request for help or the version
            return app.exit(error);
        }
        throw Stop{2, std::string(error.what()) + "; --help tells more"};
    }
    return args.status;
}

} // namespace

int main(int argc, char** argv) {
    signal(SIGPIPE, SIG_IGN); // a rehearsal removes its phone even if nobody reads its output
    Stop stop = {2, ""};
    try {
        stop.status = Run(argc, argv);
    } catch (const Stop& refusal) {
        stop = refusal;
    } catch (const std::exception& error) {
        stop.text = error.what();
    }
    if (fflush(stdout) != 0 || ferror(stdout) != 0 || !std::cout) {
        stop = {2, "the answer could not be written"};
    }
    if (!stop.text.empty()) {
        const bool asJson = std::count(argv, argv + argc, std::string_view("--json")) > 0;
        std::cerr << (asJson ? Json{{"error", Displayed(stop.text)}, {"status", stop.status}}.dump()
                             : "fwlab: " + Displayed(stop.text))
                  << "\n";
    }
    return stop.status;
}
