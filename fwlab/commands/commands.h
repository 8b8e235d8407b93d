// The subcommands of fwlab. Each prints its answer and returns the exit status, 0 or 1, or throws
// Stop.
#pragma once

#include "fwlab/base/stop.h"
#include "fwlab/base/text.h"
#include "simphone/description.h"
#include "simphone/power_loss.h"

#include <optional>

// Builds the package of a manifest and writes it to output. A file that was there is replaced only
// by a whole package. withLargeEmmc allows eMMC images above 1 MiB, which only GKI mode takes.
int Pack(const std::string& manifestFile, const std::string& output, bool withLargeEmmc,
         bool asJson);

int List(const std::string& packageFile, bool asJson);

// Returns 0: the packages are the same, 1: they differ. Stop with 2 if they cannot be compared.
int Diff(const std::string& oldFile, const std::string& newFile, bool asJson);

// Makes a new folder with the images of a package and a manifest from which pack makes the same
// bytes. Stop with 1 if pack cannot make this package.
int Unpack(const std::string& packageFile, const std::string& folder, bool asJson);

// Returns 0: the package is, byte by byte, what pack --gki-only makes from the manifest. 1: it is
// not.
int Verify(const std::string& packageFile, const std::string& manifestFile, bool asJson);

// recordFile may be empty: the phone has made no attempt yet.
int Match(const std::string& packageFile, const Description& phone, const std::string& recordFile,
          bool asJson);

struct RehearseOptions {
    std::string package, phone;          // the package and the phone's description
    Texts settings;                      // KEY=VALUE: see ReadDescription
    std::string keep;                    // where to make and keep the phone; empty: it is temporary
    std::optional<StateDirectory> state; // that the phone starts with; see ReadPulledState
    std::vector<std::vector<Fault>> faults; // of each run before the restart; one run at least
    bool runAgain;                          // after a restart
    bool quiet;                             // leave out console lines of one character each
};
// Runs the ffu that was built or installed with this program.
int Rehearse(const RehearseOptions& options, bool asJson);

struct PlanOptions {
    Texts packages; // one of each technology at most
    std::string fleet;
    std::string records; // a folder of state directories; empty: no phone has made an attempt
};
int Plan(const PlanOptions& options, bool asJson);

struct OutcomeOptions {
    Texts directories;               // state directories, or folders with state directories
    std::optional<double> failAbove; // percent; none: all must be updated or nothing
    bool list;                       // also each directory that is not updated
};
int Outcome(const OutcomeOptions& options, bool asJson);

struct CaptureOptions {
    std::string folder, output;
    std::string kind;             // "emmc-gki", "emmc-normal" or "ufs"
    std::string firmwareRevision; // what the phone reports after an update, as Escaped writes it
};
// Writes the description of the phone whose nodes are in the folder.
int Capture(const CaptureOptions& options, bool asJson);

struct SweepRequest {
    std::string package;
    Texts phones;                        // their descriptions
    Texts settings;                      // KEY=VALUE: see ReadDescription
    std::string stateFolder;             // the state directory that they start with; empty: none
    std::optional<StateDirectory> state; // what it has, see ReadPulledState
    unsigned jobs;                       // threads; 0: one for each processor
    std::string junit, html;             // reports to write, each whole or not at all; empty: none
};
// Runs the ffu that was built or installed with this program, some thousand times for each phone.
// Stop with 128 plus the signal's number if a signal interrupts it.
int Sweep(const SweepRequest& request, bool asJson);
