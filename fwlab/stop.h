// How a command of fwlab ends early.
#pragma once

#include <string>

// Thrown to end the command: the exit status, 1 (the answer is "no") or 2 (wrong usage, unreadable
// input), and the reason for the user.
struct Stop {
    int status;
    std::string text;
};

// For a system call that has failed at path with this errno.
Stop FailureAt(const std::string& path, int error);
