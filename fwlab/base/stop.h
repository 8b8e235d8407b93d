// How a command of fwlab ends early.
#pragma once

#include <string>

// Thrown to end the command, with its exit status and the reason for the user. Status 1: the answer
// is "no"; 2: wrong usage or unreadable input; 128 plus a signal's number: interrupted by it.
struct Stop {
    int status;
    std::string text;
};

// Stop with this status and reason, unless it is right.
void Require(bool isRight, int status, const std::string& otherwise);

// A line for the user that tells it: for programs, or for people.
std::string LineOf(const Stop& stop, bool asJson);

// For a system call that has failed at path with this errno.
Stop FailureAt(const std::string& path, int error);
