// The result of a step of a run, from the package check to the update.
#pragma once

constexpr int STEP_FAILED = -1;
constexpr int STEP_DONE = 0; // done, or go on
constexpr int STEP_NOTHING_TO_DO = 1;
