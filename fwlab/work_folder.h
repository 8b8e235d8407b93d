// A temporary folder for simulated phones that is removed in the end, after an interruption too.
#pragma once

#include <csignal>
#include <string>

// SIGINT, SIGTERM and SIGHUP are held back while it is there: whoever works in it asks for them.
class WorkFolder {
public:
    WorkFolder(); // Stop if it cannot be made
    ~WorkFolder();
    WorkFolder(const WorkFolder&) = delete;
    WorkFolder& operator=(const WorkFolder&) = delete;

    std::string path;
    sigset_t mask; // of the signals that were held back before, for processes that are started
};

// Returns the signal that was held back, 0 if none came within the time.
int TakeSignal(long milliseconds);

// Stop, with 128 and its number as exit status, if one was held back.
void StopIfInterrupted();
