// The subcommands of fwlab. Each prints its answer and returns the exit status, 0 or 1, or throws
// Stop.
#pragma once

#include "fwlab/package.h"
#include "simphone/description.h"

// Builds the package of a manifest at output. What was there is replaced by a whole package or
// stays as it was. withLargeEmmc admits images that only the kernel's own update (GKI mode) takes.
int Pack(const std::string& manifestFile, const std::string& output, bool withLargeEmmc);

int List(const std::string& packageFile, bool asJson);

// recordFile may be empty: the phone has made no attempt yet.
int Match(const std::string& packageFile, const Description& phone, const std::string& recordFile);

struct RehearseOptions {
    std::string package, phone; // the package and the phone's description
    std::string keep;           // the phone's directory, which stays; empty for a temporary one
    Texts faults;
    bool runAgain;
};
// Runs the ffu that lies beside this program.
int Rehearse(const RehearseOptions& options);

struct SweepRequest {
    std::string package;
    Texts phones;            // their descriptions
    unsigned jobs;           // processes; 0: one for each processor
    std::string junit, html; // files to write, if not empty: whole, or as they were
};
// Runs the ffu that lies beside this program, some thousand times for each phone.
// Interrupted by a signal it ends with 128 and the signal's number.
int Sweep(const SweepRequest& request);

int Outcome(const std::string& directory);
