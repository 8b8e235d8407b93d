// The workstation tool: builds firmware packages, looks into them, tells what a phone would do with
// them, tries that on a simulated phone, and explains what runs have left on phones.
#include "fwlab/commands.h"
#include "fwlab/manifest.h"
#include "simphone/files.h"

#include <algorithm>
#include <cctype>
#include <CLI/CLI.hpp>
#include <csignal>
#include <iostream>

namespace {

// What the command line says; the parser runs the command that it names.
struct Arguments {
    std::string manifest, package, output, phone, record, directory;
    bool gkiOnly, json;
    Description device; // by hand
    RehearseOptions rehearsal;
    SweepRequest sweep;
    int status; // of the command
};

void AddPack(CLI::App& app, Arguments& args) {
    CLI::App* pack = app.add_subcommand("pack", "Build a package from a manifest");
    pack->add_option("MANIFEST.toml", args.manifest, "what goes into it")->required();
    pack->add_option("-o,--output", args.output, "the package")->required();
    pack->add_flag("--gki-only", args.gkiOnly, "admit eMMC images above 1 MiB");
    pack->footer("fwlab/emmc-package.toml and fwlab/ufs-package.toml explain manifests. Exit "
                 "status 1: refused, as a phone would not treat it as meant. A device that an "
                 "entry describes must get this very entry from each of its base revisions.");
    pack->callback([&] { args.status = Pack(args.manifest, args.output, args.gkiOnly); });
}

void AddList(CLI::App& app, Arguments& args) {
    CLI::App* list = app.add_subcommand("list", "Show the entries of a package and its flaws");
    list->add_option("PACKAGE", args.package, "the package")->required();
    list->add_flag("--json", args.json, "for programs");
    list->footer("Exit status 1: there are findings. Bytes that are not printable are shown as "
                 "\\n, \\\\ and \\xHH.");
    list->callback([&] { args.status = List(args.package, args.json); });
}

std::string Bytes(const std::string& text) {
    for (size_t p = text.find('\\'); p != std::string::npos; p = text.find('\\', p + 2)) {
        const char next = text[p + 1]; // a zero byte at the end
        const size_t hexEnd = text.find_first_not_of("0123456789abcdefABCDEF", p + 2);
        const bool isHex = next == 'x' && p + 4 <= std::min(text.size(), hexEnd);
        Require(next == 'n' || next == '\\' || isHex, 2,
                text + R"(: a backslash begins \n, \\ or \xHH)");
    }
    return Unescaped(text);
}

// The device that the options describe, as its nodes and registers have it.
Description ByHand(Description device) {
    const Layout& layout = device.ufs ? UFS : EMMC;
    device.manfid = Bytes(device.manfid);
    device.productName = Bytes(device.productName);
    device.revision = Bytes(device.revision);
    Require((device.ufs || device.productName.size() == layout.name.size) &&
                device.productName.size() <= layout.name.size &&
                device.revision.size() <= layout.revision.size &&
                device.manfid.size() <= UFS.manufacturer.size,
            2, "too long, or an eMMC product name that has not 6 characters");
    const char* end = device.ufs ? "\n" : "";
    device.manfid += end;
    device.productName += end;
    return device;
}

void AddMatch(CLI::App& app, Arguments& args) {
    Description& device = args.device;
    CLI::App* match = app.add_subcommand("match", "Tell what a phone would do with a package");
    match->add_option("PACKAGE", args.package, "the package")->required();
    match->add_option("--record", args.record, "its fw_result")->check(CLI::ExistingFile);
    CLI::App* which = match->add_option_group("device", "a simulated phone, or one by hand");
    auto* name = match->add_option("--product", device.productName, "product name");
    auto* rev = match->add_option("--revision", device.revision, "running revision (bytes: \\xHH)");
    auto* csd = match->add_option("--ext-csd-rev", device.extCsdRev, "eMMC: 7 for 5.0, 8 for 5.1");
    auto* phone = which->add_option("--phone", args.phone, "its description");
    auto* manfid = which->add_option("--manfid", device.manfid, "UFS: as the node prints it");
    phone->excludes(name, rev, csd);
    manfid->needs(name, rev)->excludes(csd);
    which->add_option("--manufacturer-id", device.cid[0], "eMMC: MID")->needs(name, rev, csd);
    which->require_option(1);
    match->footer("Exit status 0: the pre-check goes on and the update downloads what it saw.");
    match->callback([=, &args] {
        args.device.ufs = manfid->count() > 0;
        const bool isByHand = phone->count() == 0;
        args.status = Match(args.package, isByHand ? ByHand(args.device) : ReadPhone(args.phone),
                            args.record);
    });
}

void AddRehearse(CLI::App& app, Arguments& args) {
    RehearseOptions& options = args.rehearsal;
    CLI::App* rehearse = app.add_subcommand("rehearse", "Run ffu on a simulated phone");
    rehearse->add_option("PACKAGE", options.package, "the package")->required();
    rehearse->add_option("--phone", options.phone, "the phone's description")->required();
    rehearse->add_option("--fault", options.faults, "a call that fails (see simphone/emmc.toml)")
        ->type_size(1);
    rehearse->add_option("--keep", options.keep, "make the phone in this directory and keep it");
    rehearse->add_flag("--reboot-and-run-again", options.runAgain,
                       "run again after the restart: that run must find nothing to do");
    rehearse->footer("Exit status 0: the device took the entry's body, and the phone runs its "
                     "revision after a restart.");
    rehearse->callback([&] { args.status = Rehearse(options); });
}

void AddSweep(CLI::App& app, Arguments& args) {
    SweepRequest& request = args.sweep;
    CLI::App* sweep = app.add_subcommand("sweep", "Rehearse every failing call and power cut");
    sweep->add_option("PACKAGE", request.package, "the package")->required();
    sweep->add_option("--phone", request.phones, "descriptions of phones")->required();
    sweep->add_option("--jobs", request.jobs, "processes; without it one for each processor")
        ->check(CLI::Range(1, 1024));
    sweep->add_option("--junit", request.junit, "write a JUnit report: a test case for each call");
    sweep->add_option("--html", request.html, "write a page with the runs and their time lines");
    sweep->footer("Each call of the run fails, in each way, once and for good, and the power fails "
                  "before each call that changes the phone, with all that may be lost as it was "
                  "not synced. Exit status 1: a run did what it must not.");
    sweep->callback([&] { args.status = Sweep(request); });
}

void AddOutcome(CLI::App& app, Arguments& args) {
    CLI::App* outcome = app.add_subcommand("outcome", "Explain a phone's /data/vendor/fw");
    outcome->add_option("DIR", args.directory, "the directory, pulled from a phone")->required();
    outcome->footer("Exit status 0: the last run came to its regular end, and no failed update or "
                    "damaged record is left.");
    outcome->callback([&] { args.status = Outcome(args.directory); });
}

int Run(int argc, char** argv) {
    CLI::App app("Makes, inspects, matches and rehearses firmware packages");
    app.require_subcommand(1);
    app.footer("Exit status: 0 fine, 1 the answer is no or there are findings, 2 wrong usage or "
               "input that cannot be read.");
    Arguments args = {};
    AddPack(app, args);
    AddList(app, args);
    AddMatch(app, args);
    AddRehearse(app, args);
    AddSweep(app, args);
    AddOutcome(app, args);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    return args.status;
}

} // namespace

int main(int argc, char** argv) {
    int status = 2;
    signal(SIGPIPE, SIG_IGN); // a rehearsal tidies up when nobody reads on
    try {
        status = Run(argc, argv);
    } catch (const Stop& stop) {
        std::string text = stop.text;
        std::replace_if(
            text.begin(), text.end(), [](unsigned char c) { return iscntrl(c) != 0; }, '?');
        std::cerr << "fwlab: " << text << "\n";
        status = stop.status;
    } catch (const std::exception& error) {
        std::cerr << "fwlab: " << error.what() << "\n";
    }
    if (fflush(stdout) != 0) {
        std::cerr << "fwlab: the answer could not be written\n";
        status = 2;
    }
    return status;
}
