// The workstation tool: builds firmware packages, looks into them, tells what a phone would do with
// them, tries that on a simulated phone, and explains what runs have left on phones.
#include "fwlab/commands/commands.h"
#include "fwlab/phone/device.h"
#include "fwlab/phone/state_directory.h"
#include "fwlab/phone/verdict.h"
#include "simphone/help.h"
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

// What a command is, for its help.
struct Command {
    const char *name, *summary;
    const char *fine, *no; // what the exit statuses 0 and 1 mean
    std::string more = {};
};

// A command without its own options. `run` returns its exit status.
CLI::App* Add(CLI::App& app, Arguments& args, const Command& command,
              const std::function<int()>& run) {
    CLI::App* added = app.add_subcommand(command.name, command.summary);
    added->add_flag("--json", args.json, "print JSON, for programs");
    added->callback([&args, run] { args.status = run(); });
    added->footer(fmt::format("{}{}Exit status:\n  0  {}\n  1  {}\n"
                              "  2  wrong usage, or input that cannot be read",
                              command.more, command.more.empty() ? "" : "\n\n", command.fine,
                              command.no));
    return added;
}

// An option, or an argument if its name does not begin with "-". `word` is what the help calls an
// option's value; each time that the option is given it takes one.
template <typename Value>
CLI::Option* AddValue(CLI::App* command, const char* name, Value& value, const char* word,
                      const std::string& what) {
    return command->add_option(name, value, what)->type_size(1)->option_text(word);
}

void AddPackage(CLI::App* command, std::string& package) {
    command->add_option("PACKAGE", package, "the package")->required();
}

void AddOutput(CLI::App* command, std::string& output, const char* word, const char* what) {
    AddValue(command, "-o,--output", output, word, what)->required()->check(NAMED);
}

void AddPack(CLI::App& app, Arguments& args) {
    CLI::App* pack = Add(
        app, args,
        {"pack", "Build a package from a manifest", "the package is made",
         "refused: an entry would not work on a phone. A device that an entry describes must get "
         "exactly this entry, from each of the entry's base revisions",
         fmt::format("{} and {} explain the format of manifests.", ExampleFile("emmc-package.toml"),
                     ExampleFile("ufs-package.toml"))},
        [&] { return Pack(args.manifest, args.output, args.gkiOnly, args.json); });
    pack->add_option("MANIFEST.toml", args.manifest, "the manifest")->required();
    AddOutput(pack, args.output, "PACKAGE", "the package");
    pack->add_flag("--gki-only", args.gkiOnly, "allow eMMC images above 1 MiB");
}

void AddList(CLI::App& app, Arguments& args) {
    CLI::App* list =
        Add(app, args,
            {"list", "Show the entries of a package and its flaws", "no flaws", "there are flaws",
             "Bytes that are not printable are shown as \\n, \\\\ and \\xHH."},
            [&] { return List(args.package, args.json); });
    AddPackage(list, args.package);
}

void AddDiff(CLI::App& app, Arguments& args) {
    CLI::App* diff = Add(
        app, args,
        {"diff", "Compare two packages, by entry and by device", "the same bytes", "they differ",
         "The devices are those that an entry describes, without a record of attempts. Each runs, "
         "in turn, every revision that an entry installs or has as a base revision."},
        [&] { return Diff(args.package, args.newPackage, args.json); });
    diff->add_option("OLD", args.package, "the older package")->required();
    diff->add_option("NEW", args.newPackage, "the newer package")->required();
}

void AddUnpack(CLI::App& app, Arguments& args) {
    CLI::App* unpack =
        Add(app, args,
            {"unpack", "Take a package apart: a manifest and images", "the folder is made",
             "refused, as pack would not make this package; nothing is left behind",
             "pack makes the same bytes again from the package.toml in the folder."},
            [&] { return Unpack(args.package, args.output, args.json); });
    AddPackage(unpack, args.package);
    AddOutput(unpack, args.output, "FOLDER", "a new folder");
}

void AddVerify(CLI::App& app, Arguments& args) {
    CLI::App* verify =
        Add(app, args,
            {"verify", "Tell whether a package is what a manifest makes", "the same bytes",
             "they differ, and where", "The package is made again in memory, nothing is written."},
            [&] { return Verify(args.package, args.manifest, args.json); });
    AddPackage(verify, args.package);
    AddValue(verify, "--manifest", args.manifest, "MANIFEST.toml", "what it was made from")
        ->required();
}

// The phone of a command, which settings may change.
void AddPhone(CLI::App* command, std::string& phone, Texts& settings) {
    AddValue(command, "--phone", phone, "PHONE.toml", "the phone's description")->required();
    AddSettings(*command, settings);
}

// `take` gets the folder.
void AddState(CLI::App* command, const std::function<void(const std::string&)>& take) {
    command
        ->add_option_function("--state", take,
                              "start with the files of this state directory, pulled from a phone")
        ->option_text("FOLDER");
}

std::vector<Fault> FaultsOf(const Texts& texts) {
    std::vector<Fault> faults(texts.size());
    std::transform(texts.begin(), texts.end(), faults.begin(), ParseFault);
    return faults;
}

void AddMatch(CLI::App& app, Arguments& args) {
    CLI::App* match =
        Add(app, args,
            {"match", "Tell what a phone would do with a package",
             "the device gets the entry that the pre-check selects, or one for it with the same "
             "revision",
             "no update, or the attempt is \"used up\": on record and never made again, but the "
             "device does not get the entry"},
            [&] {
                const Description phone = ReadDescription(args.phone, args.settings);
                return Match(args.package, phone, args.record, args.json);
            });
    AddPackage(match, args.package);
    AddPhone(match, args.phone, args.settings);
    AddValue(match, "--record", args.record, "fw_result",
             "its record of attempts, pulled from the phone")
        ->check(CLI::ExistingFile);
}

void AddRehearse(CLI::App& app, Arguments& args) {
    RehearseOptions& options = args.rehearsal;
    options.faults.resize(1);
    CLI::App* rehearse =
        Add(app, args,
            {"rehearse", "Run ffu on a simulated phone",
             "the device took the entry's body, the phone runs its revision after a restart, and "
             "the second run, if asked for, finds nothing to do",
             "anything else, or a violation of what must hold in every run",
             "The last line tells what has become of the phone, by what its device took and by its "
             "record; how the run ended does not count."},
            [&] { return Rehearse(options, args.json); });
    AddPackage(rehearse, options.package);
    AddPhone(rehearse, options.phone, options.settings);
    const auto addFaults = [&](const char* name, const std::string& what,
                               const std::function<void(const Texts&)>& take) {
        rehearse->add_option_function(name, take, what)->type_size(1)->option_text("FAULT");
    };
    addFaults("--fault",
              fmt::format("a call that fails in the first run ({} explains faults)",
                          ExampleFile("emmc-phone.toml")),
              [&](const Texts& texts) { options.faults.front() = FaultsOf(texts); });
    addFaults("--then",
              "a further run, without a restart, with this fault; without one if it is ''",
              [&](const Texts& texts) {
                  for (const std::string& text : texts) {
                      options.faults.push_back(FaultsOf(text.empty() ? Texts() : Texts{text}));
                  }
              });
    AddState(rehearse, [&](const std::string& folder) { options.state = ReadPulledState(folder); });
    AddValue(rehearse, "--keep", options.keep, "FOLDER",
             "make the phone in this new folder and keep it")
        ->check(NAMED);
    rehearse->add_flag("--reboot-and-run-again", options.runAgain,
                       "run again after the restart: that run must find nothing to do");
    rehearse->add_flag("--quiet", options.quiet, "leave out console lines of one character each");
}

void AddSweep(CLI::App& app, Arguments& args) {
    SweepRequest& request = args.sweep;
    CLI::App* sweep = Add(
        app, args,
        {"sweep", "Rehearse every failing call and power cut",
         "each phone is updated by the run without a fault, and there are no violations",
         "anything else. Each violation comes with the rehearsal that shows it",
         "Each call of the run fails, in each way, once and permanently. The power fails before "
         "each call that changes the phone, with each loss of what was not synced."},
        [&] {
            if (request.package.empty() && request.phones.size() > 1) { // it came after --phone
                request.package = request.phones.back();
                request.phones.pop_back();
            }
            return Sweep(request, args.json);
        });
    sweep->add_option("PACKAGE", request.package, "the package; it is required");
    sweep->add_option("--phone", request.phones, "descriptions of phones")
        ->required()
        ->option_text("PHONE.toml...");
    AddSettings(*sweep, request.settings);
    AddState(sweep, [&](const std::string& folder) {
        request.stateFolder = folder;
        request.state = ReadPulledState(folder);
    });
    AddValue(sweep, "--jobs", request.jobs, "N", "threads; without it one for each processor")
        ->check(CLI::Range(1, 1024));
    AddValue(sweep, "--junit", request.junit, "FILE",
             "write a JUnit report: a test case for each call")
        ->check(NAMED);
    AddValue(sweep, "--html", request.html, "FILE",
             "write a page with the runs and their time lines")
        ->check(NAMED);
}

void AddOutcome(CLI::App& app, Arguments& args) {
    OutcomeOptions& options = args.outcome;
    std::string words = "The first word is what became of the phone:";
    for (const Verdict verdict :
         {Verdict::UPDATED, Verdict::NOTHING_TO_DO, Verdict::FAILED, Verdict::INTERRUPTED,
          Verdict::UNKNOWN, Verdict::STOPPED, Verdict::RECORD_UNREADABLE, Verdict::NOT_PULLED,
          Verdict::FOREIGN, Verdict::UNREADABLE}) {
        words += fmt::format("\n  -  {}: {}", WordOf(verdict), SentenceOf(verdict));
    }
    CLI::App* outcome =
        Add(app, args,
            {"outcome", "Explain what runs left in /data/vendor/fw",
             "all are \"updated\" or \"nothing-to-do\", or few enough are not: see --fail-above",
             "others are not", words},
            [&] { return Outcome(options, args.json); });
    outcome
        ->add_option("DIR", options.directories,
                     "that directory, pulled from a phone, or a folder of many: FOLDER/SERIAL/...")
        ->required();
    outcome->get_option("--json")->description(
        "print a line of JSON for each directory, for programs");
    outcome->add_flag("--list", options.list, "list every directory that is not updated, too");
    outcome
        ->add_option("--fail-above", options.failAbove,
                     "exit status 1 only if more than this share is not updated, of all that are "
                     "neither \"nothing-to-do\" nor \"foreign\"")
        ->check(CLI::Range(0.0, 100.0))
        ->check(CLI::Validator(
            [](const std::string& text) {
                return text.find_first_not_of("0123456789.") == text.npos ? "" : "no percentage";
            },
            "", ""))
        ->option_text("PERCENT");
}

void AddPlan(CLI::App& app, Arguments& args) {
    PlanOptions& options = args.plan;
    CLI::App* plan =
        Add(app, args,
            {"plan", "Tell what each phone of a fleet would get",
             "no phone would use up its attempt or get a wrong image, of each it is known what it "
             "gets, and each entry is for a phone of the fleet",
             "anything else"},
            [&] { return Plan(options, args.json); });
    plan->add_option("PACKAGE", options.packages, "the packages, one of each technology")
        ->required();
    AddValue(plan, "--fleet", options.fleet, "FLEET.toml",
             fmt::format("the device models ({} explains the file)", ExampleFile("fleet.toml")))
        ->required();
    AddValue(plan, "--records", options.records, "FOLDER",
             "a folder of state directories of phones that the fleet counts")
        ->check(CLI::ExistingDirectory);
}

void AddCapture(CLI::App& app, Arguments& args) {
    CaptureOptions& options = args.capture;
    CLI::App* capture =
        Add(app, args,
            {"capture", "Describe a phone by nodes pulled from it", "the description is written",
             "the nodes do not describe a phone",
             "DIR holds the nodes as `adb exec-out cat` gives them, under their paths. All phones: "
             "/proc/bootdevice/product_name. UFS: manfid and rev beside it and, if known, "
             "/sys/block/sdc/queue/max_hw_sectors_kb. eMMC: ext_csd beside it and "
             "/sys/class/mmc_host/mmc0/mmc0:0001/cid."},
            [&] { return Capture(options, args.json); });
    capture->add_option("DIR", options.folder, "where they are")->required();
    AddOutput(capture, options.output, "PHONE.toml", "the description");
    AddValue(capture, "--firmware-revision", options.firmwareRevision, "REVISION",
             "the revision that the phone reports after an update (bytes: \\xHH)")
        ->required();
    AddValue(capture, "--kind", options.kind, "emmc-gki|emmc-normal|ufs",
             "emmc-gki if /proc/bootdevice/ffu is writable")
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
    AddCommonOptions(app, FFU_VERSION);
    app.footer("`fwlab COMMAND --help` explains a command.\n\nExit status:\n  0  fine\n"
               "  1  the answer is no, or there are flaws\n"
               "  2  wrong usage, or input that cannot be read");
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
        std::cerr << LineOf(stop, asJson) << "\n";
    }
    return stop.status;
}
