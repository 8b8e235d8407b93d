// The course of one run, from the begin flag to the end flag.
#pragma once

// Performs one update attempt of this device's boot storage. Returns the exit status: -1 when the
// state directory or the end flag cannot be created, else 0, however the attempt ended: that is
// told by the flags in the state directory.
[[nodiscard]] int UpdateRun();
