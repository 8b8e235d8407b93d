// Leaves nothing behind after an interruption: a temporary folder, and the signals that end fwlab.
#pragma once

#include <csignal>
#include <string>

// SIGINT, SIGTERM, SIGQUIT and SIGHUP are held back while it exists: ask TakeSignal for them.
class HeldSignals {
public:
    HeldSignals();
    ~HeldSignals();
    HeldSignals(const HeldSignals&) = delete;
    HeldSignals& operator=(const HeldSignals&) = delete;

    sigset_t mask; // of the signals that were held back before, for processes that are started
};

// A temporary folder; the destructor removes it.
class WorkFolder {
public:
    WorkFolder(); // Stop if it cannot be made
    ~WorkFolder();
    WorkFolder(const WorkFolder&) = delete;
    WorkFolder& operator=(const WorkFolder&) = delete;

    HeldSignals signals;
    std::string path;
};

// Returns the signal that was held back, 0 if none came within the time.
int TakeSignal(long milliseconds);

// Stop, with 128 and its number as exit status, if one was held back.
void StopIfInterrupted();
