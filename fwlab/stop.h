// How a command of fwlab ends early.
#pragma once

#include <string>

// Thrown to end the command: the exit status, 1 (the answer is "no") or 2 (wrong usage, unreadable
// input), and the reason for the user.
struct Stop {
    int status;
    std::string text;
};
// A text with errno needs the call to be a statement of its own: arguments have no order.
inline void Require(bool isSo, int status, const std::string& text) {
    if (!isSo) {
        throw Stop{status, text};
    }
}
