// A temporary folder that is removed after an interruption too: signals that end fwlab wait for it.
#pragma once

#include <csignal>
#include <string>

// A temporary folder; the destructor removes it. SIGINT, SIGTERM, SIGQUIT and SIGHUP are held back
// while it exists: ask TakeSignal for them.
class WorkFolder {
public:
    WorkFolder();                                  // for phones, in TMPDIR
    explicit WorkFolder(const std::string& begin); // of its path. Stop if it cannot be made
    ~WorkFolder();
    WorkFolder(const WorkFolder&) = delete;
    WorkFolder& operator=(const WorkFolder&) = delete;

    std::string path;

private:
    sigset_t mask; // the signals that were held back before
};

// Returns a signal that was held back; 0 if none came.
int TakeSignal();

// Stop with 128 plus the signal's number if one was held back.
void StopIfInterrupted();
