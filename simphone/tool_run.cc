// Runs the tool on a phone in a new process, with the phone's library ahead of the C library, and
// collects what it left. A tool whose calls do not go through the library is never started: it
// would work on this machine in place of the phone.
#include "simphone/tool_run.h"

#include "simphone/description.h"
#include "simphone/files.h"
#include "simphone/power_loss.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <elf.h>
#include <fcntl.h>
#include <filesystem>
#include <set>
#include <sstream>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr char CONSOLE_FILE[] = "/console.log", ERRORS_FILE[] = "/errors.log";

// What a run starts: the tool on a phone, with the library of the phone in it.
struct Start {
    std::string directory, faults, phoneLibrary, tool;
    const RunOptions* options;
};

// The library to use; empty if there is none. Only one that is ours stands between a tool and this
// machine.
std::string FindLibrary(const std::string& tool, const std::string& given) {
    const std::vector<fs::path> own = {fs::path(tool).parent_path() / "libsimphone.so",
                                       Companion("libsimphone.so")};
    std::error_code status;
    for (const fs::path& place : given.empty() ? own : std::vector<fs::path>{given}) {
        std::string content;
        if (fs::is_regular_file(place, status) && ReadWholeFile(place, content) &&
            content.find("simphone_attach") != std::string::npos) {
            return fs::absolute(place);
        }
    }
    return "";
}

// In a new process: becomes the tool, or what its dynamic linker says of it, and never returns. The
// library is named by a descriptor: LD_PRELOAD takes no path with a blank or a colon. It stands
// high, so that the tool meets the numbers that it would meet on a phone.
[[noreturn]] void Become(const Start& start, bool onlyLoad) {
    const char* sanitizer = getenv("ASAN_OPTIONS");
    const std::string asan = sanitizer != nullptr ? sanitizer : "";
    setenv("ASAN_OPTIONS", (asan + ":verify_asan_link_order=0").c_str(), 1);
    setenv("SIMPHONE", start.directory.c_str(), 1);
    setenv("SIMPHONE_FAULTS", start.faults.c_str(), 1);
    const int library = open(start.phoneLibrary.c_str(), O_RDONLY | O_CLOEXEC);
    const int high = fcntl(library, F_DUPFD, 800);
    const int inherited = high < 0 ? dup(library) : high;
    const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
    if (inherited < 0 || dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO) < 0 ||
        dup2(open((start.directory + CONSOLE_FILE).c_str(), flags, 0644), STDOUT_FILENO) < 0 ||
        dup2(open((start.directory + ERRORS_FILE).c_str(), flags, 0644), STDERR_FILENO) < 0) {
        _exit(EXIT_NO_PHONE);
    }
    std::vector<std::string> words = start.options->launcher;
    std::vector<std::string> variables = {"LD_PRELOAD=/proc/self/fd/" + std::to_string(inherited)};
    if (onlyLoad) {
        variables.emplace_back("LD_TRACE_LOADED_OBJECTS=1");
    }
    for (std::string& variable : variables) {
        if (words.empty()) {
            putenv(variable.data());
        } else {
            words.insert(words.end(), {"-E", variable});
        }
    }
    words.push_back(start.tool);
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    sigset_t none; // that this program holds back does not concern the tool
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    // These outlive exec: the tool ends by SIGALRM, and with the one who waits for it.
    alarm(start.options->secondsLimit);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    execvp(arguments[0], arguments.data());
    perror(arguments[0]);
    _exit(127);
}

// Returns when the tool has ended, with its wait status and both outputs; false with an error if
// there was no process, or it had no phone.
bool Execute(const Start& start, bool onlyLoad, int& status, RunResult& result) {
    const pid_t child = fork();
    if (child == 0) {
        Become(start, onlyLoad);
    }
    while (child > 0 && waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (child < 0) {
        result.error = std::string("fork: ") + strerror(errno);
        return false;
    }
    (void)ReadWholeFile(start.directory + CONSOLE_FILE, result.console);
    (void)ReadWholeFile(start.directory + ERRORS_FILE, result.errors);
    if (WIFEXITED(status) && WEXITSTATUS(status) == EXIT_NO_PHONE) {
        result.error = start.directory + ": the run could not be kept: " + result.errors;
    }
    return result.error.empty();
}

// Whether the program is loaded by glibc's dynamic linker, which alone does what is asked below.
// Programs that run with more rights than their user's load no library of his.
bool IsLoadedByGlibc(const std::string& tool) {
    std::string image;
    Elf64_Ehdr header;
    struct stat status;
    if (stat(tool.c_str(), &status) != 0 || (status.st_mode & (S_ISUID | S_ISGID)) != 0 ||
        !ReadWholeFile(tool, image) || image.size() < sizeof(header) ||
        image.compare(0, SELFMAG, ELFMAG) != 0) {
        return false;
    }
    memcpy(&header, image.data(), sizeof(header));
    for (size_t i = 0; i < header.e_phnum; i++) {
        Elf64_Phdr segment = {};
        image.copy(reinterpret_cast<char*>(&segment), sizeof(segment),
                   std::min<size_t>(image.size(), header.e_phoff + i * sizeof(segment)));
        if (segment.p_type == PT_INTERP && segment.p_offset < image.size()) {
            return strstr(image.c_str() + segment.p_offset, "/ld-linux") != nullptr;
        }
    }
    return false;
}

// Whether the tool's calls will go through the library: asks the dynamic linker what it would load,
// which runs nothing.
bool IsLibraryLoaded(const Start& start, std::string& error) {
    static std::set<std::string> known; // what has been asked already
    const std::string what = start.tool + "\n" + start.phoneLibrary;
    if (known.count(what) > 0) {
        return true;
    }
    if (!IsLoadedByGlibc(start.tool)) {
        return Failed(error,
                      start.tool +
                          ": is no program that loads the phone's library (dynamically linked "
                          "to glibc, without more rights than its user's)");
    }
    RunResult result = {};
    int status = 0;
    if (!Execute(start, true, status, result)) {
        return Failed(error, result.error);
    }
    const std::string loaded = result.console + result.errors;
    if (loaded.find("/proc/self/fd/") == std::string::npos ||
        loaded.find("cannot be preloaded") != std::string::npos) {
        return Failed(error, start.tool + ": does not load " + start.phoneLibrary + ": " +
                                 Escaped(loaded));
    }
    known.insert(what);
    return true;
}

// Checks all that the run needs before anything is started. Nothing of the run before stays.
bool Prepare(const std::string& directory, const std::string& tool, const RunOptions& options,
             Start& start, std::string& error) {
    Description phone;
    if (!ReadDescription(directory + "/phone.toml", {}, phone, error)) {
        return false;
    }
    start = {directory, "", FindLibrary(tool, options.libsimphone), fs::absolute(tool), &options};
    for (const std::string& text : options.faults) {
        Fault fault;
        if (!ParseFault(text, fault, error)) {
            return false;
        }
        start.faults += text + "\n";
    }
    if (access(tool.c_str(), X_OK) != 0) {
        return Failed(error, tool + ": " + strerror(errno));
    }
    if (start.phoneLibrary.empty()) {
        return Failed(error, options.libsimphone.empty()
                                 ? "libsimphone.so: not found beside " + tool
                                 : options.libsimphone + ": is not the phone's library");
    }
    for (const char* log : {CONSOLE_FILE, ERRORS_FILE, JOURNAL_FILE}) {
        if (!WriteWholeFile(directory + log, "", 0)) {
            return Failed(error, directory + log + ": " + strerror(errno));
        }
    }
    return IsLibraryLoaded(start, error);
}

// After a power cut: takes from the state directory what its fault says.
void LoseUnsynced(const std::string& directory, const StateDirectory& before,
                  const std::string& cutText, RunResult& result) {
    Fault cut;
    std::string error;
    StateDirectory left;
    if (!ParseFault(cutText, cut, error) || cut.losses.empty()) {
        return;
    }
    if (!Lose(before, ReadStateDirectory(directory), result.calls, cut.losses, left)) {
        result.error = "fault \"" + cut.text + "\": the cut cannot leave that";
    } else if (!WriteStateDirectory(directory, left)) {
        result.error = directory + ": the state after the power cut: " + strerror(errno);
    }
}

void AddLines(const char* source, const std::string& text, std::vector<TimeLineEntry>& entries) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        entries.push_back({source, Escaped(line)});
    }
}

// A run on a phone that no other run is on.
void RunAlone(const std::string& directory, const std::string& tool, const RunOptions& options,
              RunResult& result) {
    Start start;
    if (!Prepare(directory, tool, options, start, result.error)) {
        return;
    }
    const StateDirectory before = ReadStateDirectory(directory);
    int status = 0;
    if (!Execute(start, false, status, result)) {
        return;
    }
    result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    result.timedOut = result.signal == SIGALRM;
    Journal journal = ReadJournal(directory);
    result.calls = std::move(journal.calls);
    std::copy_if(options.faults.begin(), options.faults.end(),
                 std::back_inserter(result.unmetFaults), [&](const std::string& text) {
                     return std::count(journal.faults.begin(), journal.faults.end(), text) == 0;
                 });
    if (result.signal == SIGKILL && !journal.faults.empty()) {
        LoseUnsynced(directory, before, journal.faults.back(), result);
    }
}

} // namespace

std::string Companion(const std::string& name) {
    std::error_code status;
    const fs::path folder = fs::read_symlink("/proc/self/exe", status).parent_path();
    const fs::path installed = folder.parent_path() / "libexec/ffu" / name;
    return fs::exists(folder / name, status) ? folder / name : installed;
}

RunResult RunTool(const std::string& directory, const std::string& tool,
                  const RunOptions& options) {
    RunResult result = {};
    const int phone = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (phone < 0) {
        result.error = directory + ": " + strerror(errno);
    } else if (flock(phone, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
        result.error = directory + ": another run is on this phone";
    } else {
        RunAlone(directory, tool, options, result);
    }
    close(phone);
    return result;
}

std::vector<TimeLineEntry> TimeLine(const RunResult& run) {
    std::vector<TimeLineEntry> entries;
    size_t printed = 0;
    for (const CallEntry& call : run.calls) {
        if (call.text.empty()) {
            continue;
        }
        const auto before =
            std::clamp(static_cast<size_t>(call.consoleBytes), printed, run.console.size());
        AddLines("console", run.console.substr(printed, before - printed), entries);
        printed = before;
        AddLines(call.IsMessage() ? "log" : "device", call.text, entries);
    }
    AddLines("console", run.console.substr(printed), entries);
    return entries;
}
