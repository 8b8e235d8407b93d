// The course of one run, from the begin flag to the end flag.
#pragma once

// Makes one attempt, at most, to update this phone's boot storage. Returns the exit status: -1 when
// the state directory or the end flag cannot be created, else 0, also after a failed update. The
// flags in the state directory show how the run and the update ended.
[[nodiscard]] int UpdateRun();
