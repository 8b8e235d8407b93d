// The subcommands of fwlab. Each prints its answer and returns the exit status, 0 or 1, or throws
// Stop.
#pragma once

#include "fwlab/package.h"
#include "fwlab/stop.h"
#include "fwlab/text.h"
#include "simphone/description.h"

#include <optional>

// Builds the package of a manifest at output. What was there is replaced by a whole package or
// stays as it was. withLargeEmmc admits images that only the kernel's own update (GKI mode) takes.
int Pack(const std::string& manifestFile, const std::string& output, bool withLargeEmmc,
         bool asJson);

// The same package in memory.
struct Built {
    std::shared_ptr<const std::string> bytes;
    Package package; // of these bytes
    size_t entries;
    Texts inputs; // the files that it was made from
};
Built BuildPackage(const std::string& manifestFile, bool withLargeEmmc);

int List(const std::string& packageFile, bool asJson);

// 0: the packages are the same, 1: they differ. What keeps them from being compared is a Stop with
// 2.
int Diff(const std::string& oldFile, const std::string& newFile, bool asJson);

// Makes a new folder with the images of a package and a manifest of which pack makes the same
// bytes. Stop with 1 for a package that pack cannot make.
int Unpack(const std::string& packageFile, const std::string& folder, bool asJson);

// 0: the package is, byte by byte, what pack makes of the manifest (with --gki-only). 1: it is not.
int Verify(const std::string& packageFile, const std::string& manifestFile, bool asJson);

// recordFile may be empty: the phone has made no attempt yet.
int Match(const std::string& packageFile, const Description& phone, const std::string& recordFile,
          bool asJson);

struct RehearseOptions {
    std::string package, phone; // the package and the phone's description
    Texts settings;             // that replace keys of the description
    std::string keep;           // the phone's directory, which stays; empty for a temporary one
    Texts faults;
    bool runAgain;
    bool quiet; // without the console's lines of one character each
};
// Runs the ffu that lies beside this program.
int Rehearse(const RehearseOptions& options, bool asJson);

struct PlanOptions {
    Texts packages; // one of each technology at most
    std::string fleet;
    std::string records; // a folder of state directories; empty: no phone has made an attempt
};
int Plan(const PlanOptions& options, bool asJson);

struct OutcomeOptions {
    Texts directories;               // state directories, or folders with such below them
    std::optional<double> failAbove; // percent; none: not one may fail
};
int Outcome(const OutcomeOptions& options, bool asJson);

struct CaptureOptions {
    std::string folder, output;
    std::string technology, mode; // empty: told by the nodes
    std::string
        firmwareRevision; // that the phone reports after an update; bytes as Escaped has them
};
// Writes the description of the phone whose nodes lie in the folder.
int Capture(const CaptureOptions& options, bool asJson);

struct SweepRequest {
    std::string package;
    Texts phones;            // their descriptions
    unsigned jobs;           // processes; 0: one for each processor
    std::string junit, html; // files to write, if not empty: whole, or as they were
};
// Runs the ffu that lies beside this program, some thousand times for each phone.
// Interrupted by a signal it ends with 128 and the signal's number.
int Sweep(const SweepRequest& request, bool asJson);
