// What a sweep has found, as one report: for programs, for people, and for the page and the JUnit
// file, which are made from it.
#pragma once

#include "fwlab/base/json.h"
#include "fwlab/sweep/runner.h"

#include <string>

// What was swept, by which program and when. Of each phone: what the run without a fault came to,
// how often the faults leave what, the calls in their order, and what each fault leaves. The
// violations, each with its sentence and the shell command that shows it. "fine": there are no
// violations, and all phones are updated without a fault. All texts are printable. The date is that
// of SOURCE_DATE_EPOCH, if the environment has it.
Json SweepReport(const std::vector<SweepScenario>& scenarios, const SweepResult& result);

// With what a phone of a sweep may be left; the worst one last.
constexpr Verdict LEFT[] = {Verdict::UPDATED, Verdict::UPDATED_NEXT,      Verdict::NOTHING_TO_DO,
                            Verdict::REFUSED, Verdict::ALREADY_ATTEMPTED, Verdict::STOPPED,
                            Verdict::USED_UP, Verdict::RECORD_UNREADABLE, Verdict::WRONG_IMAGE};

// "3 updated-next, 2 used-up", of an object of the report with numbers by verdict.
std::string CountsText(const Json& counts);

void PrintReport(const Json& report);
