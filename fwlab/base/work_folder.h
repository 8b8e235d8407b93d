// A temporary folder that is removed after an interruption too: signals that end fwlab wait for it.
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

    sigset_t mask; // the signals that were held back before
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

// Returns a signal that was held back, and waits for one if there is none. 0 if none came in time.
int TakeSignal(long milliseconds);

// Stop with 128 plus the signal's number if one was held back.
void StopIfInterrupted();
