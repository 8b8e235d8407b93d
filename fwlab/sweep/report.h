// The reports of a sweep: words for people, a page for a browser, a file for a CI system.
#pragma once

#include "fwlab/commands/commands.h"
#include "fwlab/sweep/engine.h"

#include <array>
#include <iterator>

constexpr Fate FATES[] = {Fate::UPDATED, Fate::UPDATED_NEXT, Fate::UNTOUCHED,
                          Fate::USED_UP, Fate::STUCK,        Fate::OTHER_IMAGE};
const char* FateText(Fate fate); // "attempted and used up"

// How many there are of each fate, by its number: "3 updated by the next run, 2 stuck".
using FateCounts = std::array<size_t, std::size(FATES)>;
std::string FateCountsText(const FateCounts& counts);

struct SweepSummary {
    FateCounts failingCalls; // jobs
    FateCounts powerCuts;    // each counted once, by the worst state that it can leave
    FateCounts states;       // all states that the cuts can leave
};
SweepSummary Summarize(const SweepResult& result, size_t scenario);

// The shell command that shows the violation.
std::string RehearseCommand(const SweepRequest& request, const SweepViolation& wrong);

// One HTML page, which loads nothing from elsewhere.
std::string SweepPage(const SweepRequest& request, const SweepResult& result);
// JUnit XML: a suite for each phone, a case for each call.
std::string SweepJunit(const SweepRequest& request, const SweepResult& result);
