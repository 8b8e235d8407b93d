// Runs the tool on a phone in a new process, with the phone's library ahead of the C library, and
// collects what it left. A tool whose calls do not go through the library is never started: it
// would work on this machine in place of the phone.
#include "simphone/tool_run.h"

#include "simphone/files.h"
#include "simphone/text.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <elf.h>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

using Texts = std::vector<std::string>;

// A descriptor that is closed with its block; the name is for the error if there is none.
struct Descriptor {
    int fd;
    Descriptor(int opened, const std::string& name) : fd(opened) {
        if (fd < 0) {
            throw FailureOf(name);
        }
    }
    ~Descriptor() {
        flock(fd, LOCK_UN); // a process that another thread has forked may have it, too
        close(fd);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
};

// What a run starts: the tool on a phone, with the library of the phone in it.
struct Start {
    const Phone& phone;
    const RunOptions& options;
    std::string tool, phoneLibrary;
};

std::runtime_error Unkept(const Start& start, const std::string& why) {
    return std::runtime_error(start.phone.directory + ": the run could not be kept: " + why);
}

// What the new process needs, all of it made before the fork.
struct Process {
    int input, console, errors, library; // descriptors
    std::vector<char*> arguments, environment;
    unsigned secondsLimit;
};

// In a new process: becomes the tool, and never returns. It has this program's memory, whose other
// threads may hold locks: only async-signal-safe calls.
[[noreturn]] void Become(const Process& process) {
    sigset_t none; // that this program holds back does not concern the tool
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    signal(SIGXFSZ, SIG_DFL);
    // These outlive exec: the tool ends by SIGALRM, and with the thread that waits for it.
    alarm(process.secondsLimit);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (dup2(process.input, STDIN_FILENO) >= 0 && dup2(process.console, STDOUT_FILENO) >= 0 &&
        dup2(process.errors, STDERR_FILENO) >= 0 && fcntl(process.library, F_SETFD, 0) == 0) {
        execvpe(process.arguments[0], process.arguments.data(), process.environment.data());
    }
    const char* why = strerrordesc_np(errno);
    (void)!write(process.errors, why, strlen(why));
    _exit(EXIT_NO_PHONE);
}

std::vector<char*> Pointers(Texts& texts) {
    std::vector<char*> pointers;
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

// This program's environment with other values for these variables (NAME=VALUE).
Texts Environment(const Texts& variables) {
    Texts environment = variables;
    for (char** old = environ; *old != nullptr; old++) {
        const size_t name = strcspn(*old, "=") + 1;
        if (std::none_of(variables.begin(), variables.end(), [&](const std::string& variable) {
                return variable.compare(0, name, *old, name) == 0;
            })) {
            environment.emplace_back(*old);
        }
    }
    return environment;
}

std::string LastLine(std::string text) {
    text.erase(text.find_last_not_of('\n') + 1);
    return text.substr(text.rfind('\n') + 1);
}

// Returns how the tool has ended and what it has written; with `onlyLoad` it ends when it is
// loaded, and tells what was loaded. The library is named by a descriptor: LD_PRELOAD takes no path
// with a blank or a colon.
RunResult Execute(const Start& start, bool onlyLoad) {
    const RunOptions& options = start.options;
    const Descriptor library(OpenHigh(start.phoneLibrary, O_RDONLY), start.phoneLibrary),
        null(open("/dev/null", O_RDONLY | O_CLOEXEC), "/dev/null"),
        console(memfd_create("console", MFD_CLOEXEC), "a file in memory"),
        errors(memfd_create("errors", MFD_CLOEXEC), "a file in memory");
    Texts loading = {"LD_PRELOAD=/proc/self/fd/" + std::to_string(library.fd)};
    loading.insert(loading.end(), onlyLoad ? 1 : 0, "LD_TRACE_LOADED_OBJECTS=1");
    std::string faults;
    for (const Fault& fault : options.faults) {
        faults += FaultText(fault) + "\n";
    }
    const char* asan = getenv("ASAN_OPTIONS");
    Texts variables = {"SIMPHONE=" + start.phone.directory, "SIMPHONE_FAULTS=" + faults,
                       std::string("ASAN_OPTIONS=") + (asan != nullptr ? asan : "") +
                           ":verify_asan_link_order=0"};
    Texts words = options.launcher;
    for (const std::string& variable : loading) {
        if (options.launcher.empty()) {
            variables.push_back(variable);
        } else {
            words.insert(words.end(), {"-E", variable});
        }
    }
    words.push_back(start.tool);
    Texts environment = Environment(variables);
    const Process process = {null.fd,
                             console.fd,
                             errors.fd,
                             library.fd,
                             Pointers(words),
                             Pointers(environment),
                             options.secondsLimit};
    const pid_t child = vfork(); // no page is copied, which would take longer than the tool's run
    if (child == 0) {
        Become(process);
    }
    if (child < 0) {
        throw FailureOf(start.tool);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    RunResult result = {};
    result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    result.timedOut = result.signal == SIGALRM;
    result.console = WholeFile("/proc/self/fd/" + std::to_string(console.fd));
    result.errors = WholeFile("/proc/self/fd/" + std::to_string(errors.fd));
    if (result.exitStatus == EXIT_NO_PHONE) {
        throw Unkept(start, LastLine(result.errors));
    }
    return result;
}

// Whether the program is loaded by glibc's dynamic linker, which alone does what is asked below.
// Programs that run with more rights than their user's load no library of his.
bool IsLoadedByGlibc(const std::string& tool) {
    const std::string image = WholeFile(tool);
    const fs::perms rights = fs::perms::set_uid | fs::perms::set_gid;
    Elf64_Ehdr header = {};
    image.copy(reinterpret_cast<char*>(&header), sizeof(header));
    if ((fs::status(tool).permissions() & rights) != fs::perms::none ||
        image.compare(0, SELFMAG, ELFMAG) != 0) {
        return false;
    }
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

// Only a library that is ours stands between a tool and this machine.
bool IsOurs(const fs::path& library) {
    std::error_code status;
    return fs::is_regular_file(library, status) &&
           WholeFile(library).find("simphone_attach") != std::string::npos;
}

// The library for the tool. Whether the tool's calls will go through it is asked of the dynamic
// linker, which tells what it would load, and runs nothing.
std::string FindLibrary(Start start) {
    const std::string &tool = start.tool, &given = start.options.libsimphone;
    const fs::path beside = fs::path(tool).parent_path() / "libsimphone.so";
    const std::string own = IsOurs(beside) ? beside.string() : Companion("libsimphone.so");
    start.phoneLibrary = fs::absolute(given.empty() ? own : given);
    if (!IsOurs(start.phoneLibrary)) {
        throw std::runtime_error(given.empty() ? "libsimphone.so: not found beside " + tool
                                               : given + ": is not the phone's library");
    }
    if (!IsLoadedByGlibc(tool)) {
        throw std::runtime_error(tool +
                                 ": is no program that loads the phone's library (dynamically "
                                 "linked to glibc, without more rights than its user's)");
    }
    const RunResult result = Execute(start, true);
    const std::string loaded = result.console + result.errors;
    if (loaded.find("/proc/self/fd/") == std::string::npos ||
        loaded.find("cannot be preloaded") != std::string::npos) {
        throw std::runtime_error(tool + ": does not load " + start.phoneLibrary + ": " +
                                 Escaped(loaded));
    }
    return start.phoneLibrary;
}

// Looks for it once for each tool.
std::string LibraryOf(const Start& start) {
    static std::mutex mutex;
    static std::map<std::pair<std::string, std::string>, std::string> known;
    const std::lock_guard<std::mutex> lock(mutex);
    std::string& library = known[{start.tool, start.options.libsimphone}];
    if (library.empty()) {
        library = FindLibrary(start);
    }
    return library;
}

// After a power cut: takes from the state directory what its fault says.
void LoseUnsynced(const std::string& directory, const Fault& cut, const RunResult& result) {
    if (cut.losses.empty()) {
        return;
    }
    for (const Survival& survival : Survivals(result.before, result.after, result.calls, false)) {
        if (survival.losses == cut.losses) {
            WriteStateDirectory(directory, survival.state);
            return;
        }
    }
    throw std::runtime_error("fault " + Quoted(FaultText(cut)) + ": the cut cannot leave that");
}

// Signals that this machine or its user sends; no tool ends by them.
bool IsFromOutside(int signal) {
    const int signals[] = {SIGKILL, SIGXFSZ, SIGXCPU, SIGTERM, SIGINT, SIGQUIT, SIGHUP};
    return std::count(std::begin(signals), std::end(signals), signal) > 0;
}

// What the journal tells of the run, once the tool has ended. After a power cut, what was not
// synced is lost.
void ReadRun(const Start& start, RunResult& result) {
    const std::string& directory = start.phone.directory;
    if (!fs::exists(directory + JOURNAL_FILE)) { // the library makes it
        throw std::runtime_error(start.tool + ": was not started: " +
                                 (result.errors.empty()
                                      ? start.phoneLibrary + ": is not loaded into it"
                                      : LastLine(result.errors)));
    }
    Journal journal = ReadJournal(directory);
    result.calls = std::move(journal.calls);
    result.after = ReadStateDirectory(directory);
    std::vector<Fault> faults = start.options.faults; // in the order of the library
    for (size_t i = 0; i < faults.size(); i++) {
        if (std::count(journal.faults.begin(), journal.faults.end(), i) == 0) {
            result.unmetFaults.push_back(faults[i]);
        }
    }
    const std::vector<Fault>& own = start.phone.description.faults;
    faults.insert(faults.end(), own.begin(), own.end());
    const Fault last = journal.faults.empty() ? Fault() : faults.at(journal.faults.back());
    if (result.signal == SIGKILL && IsPowerCut(last)) {
        LoseUnsynced(directory, last, result);
    } else if (IsFromOutside(result.signal)) {
        throw Unkept(start, std::string("this machine ended it: ") + sigdescr_np(result.signal));
    } else if (result.signal == 0 && !journal.isWhole) {
        throw std::runtime_error(directory + JOURNAL_FILE + ": ends in the middle");
    }
}

void AddLines(const char* source, const std::string& text, std::vector<TimeLineEntry>& entries) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        entries.push_back({source, Escaped(line)});
    }
}

} // namespace

std::string Companion(const std::string& name) {
    std::error_code status;
    const fs::path folder = fs::read_symlink("/proc/self/exe", status).parent_path();
    const fs::path installed = folder.parent_path() / "libexec/ffu" / name;
    return fs::exists(folder / name, status) ? folder / name : installed;
}

RunResult RunTool(const Phone& phone, const std::string& tool, const RunOptions& options) {
    const Descriptor directory(open(phone.directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC),
                               phone.directory);
    if (flock(directory.fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
        throw std::runtime_error(phone.directory + ": another run is on this phone");
    }
    const std::string journal = phone.directory + JOURNAL_FILE,
                      console = phone.directory + "/console.log",
                      errors = phone.directory + "/errors.log";
    Start start = {phone, options, fs::absolute(tool), ""};
    if (access(start.tool.c_str(), X_OK) != 0) {
        throw FailureOf(start.tool);
    }
    if (unlink(journal.c_str()) != 0 && errno != ENOENT) { // nothing of a run before stays
        throw FailureOf(journal);
    }
    WriteWholeFile(console, "");
    WriteWholeFile(errors, "");
    start.phoneLibrary = LibraryOf(start);
    const StateDirectory before = ReadStateDirectory(phone.directory);
    RunResult result = Execute(start, false);
    result.before = before;
    WriteWholeFile(console, result.console);
    WriteWholeFile(errors, result.errors);
    ReadRun(start, result);
    return result;
}

std::vector<TimeLineEntry> TimeLine(const RunResult& run) {
    std::vector<TimeLineEntry> entries;
    size_t printed = 0;
    for (const CallEntry& call : run.calls) {
        if (!call.request && !call.IsMessage()) {
            continue;
        }
        const auto before =
            std::clamp(static_cast<size_t>(call.consoleBytes), printed, run.console.size());
        AddLines("console", run.console.substr(printed, before - printed), entries);
        printed = before;
        AddLines(call.request ? "device" : "log", call.request ? call.request->text : call.message,
                 entries);
    }
    AddLines("console", run.console.substr(printed), entries);
    return entries;
}
