// The verdict that each step of a run hands on, from the package check to the end.
#pragma once

constexpr int STEP_FAILED = -1;
constexpr int STEP_DONE = 0; // or go on
constexpr int STEP_NOTHING_TO_DO = 1;
