// Writes the report of a sweep down as files, by the templates page.html and junit.xml.
#pragma once

#include "fwlab/base/json.h"
#include "fwlab/sweep/runner.h"

#include <string>

// One HTML page, which loads nothing from elsewhere: what it says in short, and the report with the
// time lines of the result, which page.js draws.
std::string SweepPage(const Json& report, const SweepResult& result);

// JUnit XML: a suite for each phone; a case for the update without a fault, and one for each call.
std::string SweepJunit(const Json& report);
