// What a sweep has found, as one report: for programs, for people, and for the page and the JUnit
// file, which are made from it.
#pragma once

#include "fwlab/base/json.h"
#include "fwlab/sweep/runner.h"

#include <string>

// A phone of the sweep, for the report.
struct SweepPhone {
    std::string file;  // its description
    Texts settings;    // KEY=VALUE, with which the sweep has read it
    std::string title; // for people
    bool isUpdated;    // by the run without a fault
    std::string why;   // it is not
};

// Of each phone: what the run without a fault came to, how often the faults leave what, the calls
// in their order, and what each fault leaves. The violations, each with its sentence and the shell
// command that shows it. All texts are printable.
// stateFolder: the state directory with which the phones start; empty: none.
Json SweepReport(const std::string& package, const std::string& stateFolder,
                 const std::vector<SweepPhone>& phones, const SweepResult& result);

// Whether it is what a release engineer wants to read: no violations, and all phones are updated.
bool IsFine(const Json& report);

// "3 updated by the next run, 2 stuck", of an object of the report with numbers by fate.
std::string CountsText(const Json& counts);

void PrintReport(const Json& report);
