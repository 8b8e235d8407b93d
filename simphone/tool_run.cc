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
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

using Texts = std::vector<std::string>;

constexpr char CONSOLE_FILE[] = "/console.log", ERRORS_FILE[] = "/errors.log";

// A descriptor that is closed with its block.
struct Descriptor {
    int fd;
    int error = fd < 0 ? errno : 0;
    Descriptor(const std::string& path, int flags) : fd(open(path.c_str(), flags | O_CLOEXEC)) {
    }
    explicit Descriptor(int number) : fd(number) {
    }
    ~Descriptor() {
        close(fd);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
};

// What a run starts: the tool on a phone, with the library of the phone in it.
struct Start {
    std::string directory, phoneLibrary, tool;
    const RunOptions* options;
};

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
    const struct sigaction standard = {};
    sigaction(SIGXFSZ, &standard, nullptr);
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

// Returns when the new process has become the tool, or has ended: its number, -1 with errno. No
// page of this program is copied for it, which would take longer than the tool's run.
pid_t Spawn(const Process& process) {
    const pid_t child = vfork();
    if (child == 0) {
        Become(process);
    }
    return child;
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

// Returns when the tool has ended, with its wait status and both outputs; false with an error if
// there was no process, or it had no phone. If `onlyLoad`, it ends when it is loaded, and tells
// what was loaded. The library is named by a descriptor: LD_PRELOAD takes no path with a blank or a
// colon. It stands high, so that the tool meets the numbers that it would meet on a phone.
bool Execute(const Start& start, bool onlyLoad, int& status, RunResult& result) {
    const RunOptions& options = *start.options;
    const Descriptor library(start.phoneLibrary, O_RDONLY), null("/dev/null", O_RDONLY),
        out(memfd_create("console", MFD_CLOEXEC)), err(memfd_create("errors", MFD_CLOEXEC)),
        high(fcntl(library.fd, F_DUPFD_CLOEXEC, 800));
    for (const auto& [file, name] : {std::pair(&library, start.phoneLibrary),
                                     {&null, "/dev/null"},
                                     {&out, "a file in memory"},
                                     {&err, "a file in memory"}}) {
        if (file->error != 0) {
            return Failed(result.error, name + ": " + strerror(file->error));
        }
    }
    Process process = {
        null.fd, out.fd, err.fd, high.fd < 0 ? library.fd : high.fd, {}, {}, options.secondsLimit};
    Texts preload = {"LD_PRELOAD=/proc/self/fd/" + std::to_string(process.library)};
    preload.insert(preload.end(), onlyLoad ? 1 : 0, "LD_TRACE_LOADED_OBJECTS=1");
    Texts variables = options.launcher.empty() ? preload : Texts();
    Texts words = options.launcher;
    for (const std::string& variable : words.empty() ? Texts() : preload) {
        words.insert(words.end(), {"-E", variable});
    }
    words.push_back(start.tool);
    std::string faults;
    for (const Fault& fault : options.faults) {
        faults += FaultText(fault) + "\n";
    }
    const char* asan = getenv("ASAN_OPTIONS");
    variables.insert(
        variables.end(),
        {std::string("ASAN_OPTIONS=") + (asan != nullptr ? asan : "") + ":verify_asan_link_order=0",
         "SIMPHONE=" + start.directory, "SIMPHONE_FAULTS=" + faults});
    Texts environment = Environment(variables);
    process.arguments = Pointers(words);
    process.environment = Pointers(environment);
    const pid_t child = Spawn(process);
    while (child > 0 && waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (child < 0) {
        return Failed(result.error, start.tool + ": " + strerror(errno));
    }
    result.console = WholeFile("/proc/self/fd/" + std::to_string(out.fd));
    result.errors = WholeFile("/proc/self/fd/" + std::to_string(err.fd));
    return (WIFEXITED(status) && WEXITSTATUS(status) == EXIT_NO_PHONE)
               ? Failed(result.error,
                        start.directory + ": the run could not be kept: " + LastLine(result.errors))
               : true;
}

// Whether the program is loaded by glibc's dynamic linker, which alone does what is asked below.
// Programs that run with more rights than their user's load no library of his.
bool IsLoadedByGlibc(const std::string& tool) {
    const std::string image = WholeFile(tool);
    Elf64_Ehdr header;
    struct stat status;
    if (stat(tool.c_str(), &status) != 0 || (status.st_mode & (S_ISUID | S_ISGID)) != 0 ||
        image.size() < sizeof(header) || image.compare(0, SELFMAG, ELFMAG) != 0) {
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

bool Put(const std::string& file, const std::string& content, std::string& error) {
    return WriteWholeFile(file, content.data(), content.size()) ||
           Failed(error, file + ": " + strerror(errno));
}

// Only a library that is ours stands between a tool and this machine.
bool IsOurs(const fs::path& library) {
    std::error_code status;
    return fs::is_regular_file(library, status) &&
           WholeFile(library).find("simphone_attach") != std::string::npos;
}

// Whether the tool's calls will go through the library: asks the dynamic linker what it would load,
// which runs nothing.
bool IsLibraryLoaded(const Start& start, std::string& error) {
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
    return (loaded.find("/proc/self/fd/") != std::string::npos &&
            loaded.find("cannot be preloaded") == std::string::npos) ||
           Failed(error,
                  start.tool + ": does not load " + start.phoneLibrary + ": " + Escaped(loaded));
}

// Sets the library that the tool loads. Looks once for each tool.
bool FindLibrary(Start& start, std::string& error) {
    static std::mutex mutex;
    static std::map<std::pair<std::string, std::string>, std::string> known;
    const std::lock_guard<std::mutex> lock(mutex);
    const std::string& given = start.options->libsimphone;
    std::string& library = known[{start.tool, given}];
    if (library.empty()) {
        const fs::path beside = fs::path(start.tool).parent_path() / "libsimphone.so";
        const std::string own = IsOurs(beside) ? beside.string() : Companion("libsimphone.so");
        start.phoneLibrary = fs::absolute(given.empty() ? own : given);
        if (!IsOurs(start.phoneLibrary)) {
            return Failed(error, given.empty() ? "libsimphone.so: not found beside " + start.tool
                                               : given + ": is not the phone's library");
        }
        library = IsLibraryLoaded(start, error) ? start.phoneLibrary : "";
    }
    start.phoneLibrary = library;
    return !library.empty();
}

// Checks all that the run needs before anything is started. Nothing of a run before stays.
bool Prepare(Start& start, std::string& error) {
    std::error_code status;
    if (access(start.tool.c_str(), X_OK) != 0) {
        return Failed(error, start.tool + ": " + strerror(errno));
    }
    if (fs::remove(start.directory + JOURNAL_FILE, status); status) {
        return Failed(error, start.directory + JOURNAL_FILE + ": " + status.message());
    }
    return Put(start.directory + CONSOLE_FILE, "", error) &&
           Put(start.directory + ERRORS_FILE, "", error) && FindLibrary(start, error);
}

// After a power cut: takes from the state directory what its fault says.
void LoseUnsynced(const std::string& directory, const Fault& cut, RunResult& result) {
    StateDirectory left;
    if (cut.losses.empty()) {
        return;
    }
    if (!Lose(result.before, result.after, result.calls, cut.losses, left)) {
        result.error = "fault " + Quoted(FaultText(cut)) + ": the cut cannot leave that";
    } else if (!WriteStateDirectory(directory, left)) {
        result.error = directory + ": the state after the power cut: " + strerror(errno);
    }
}

// Signals that this machine or its user sends; no tool ends by them.
bool IsFromOutside(int signal) {
    const int signals[] = {SIGKILL, SIGXFSZ, SIGXCPU, SIGTERM, SIGINT, SIGQUIT, SIGHUP};
    return std::count(std::begin(signals), std::end(signals), signal) > 0;
}

void AddLines(const char* source, const std::string& text, std::vector<TimeLineEntry>& entries) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        entries.push_back({source, Escaped(line)});
    }
}

// A run on a phone that no other run is on.
void RunAlone(const Phone& phone, const std::string& tool, const RunOptions& options,
              RunResult& result) {
    const std::string& directory = phone.directory;
    Start start = {directory, "", fs::absolute(tool), &options};
    if (!Prepare(start, result.error)) {
        return;
    }
    result.before = ReadStateDirectory(directory);
    int status = 0;
    if (!Execute(start, false, status, result) ||
        !Put(directory + CONSOLE_FILE, result.console, result.error) ||
        !Put(directory + ERRORS_FILE, result.errors, result.error)) {
        return;
    }
    result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    result.timedOut = result.signal == SIGALRM;
    if (!fs::exists(directory + JOURNAL_FILE)) { // the library makes it
        result.error = start.tool + ": was not started: " +
                       (result.errors.empty() ? start.phoneLibrary + ": is not loaded into it"
                                              : LastLine(result.errors));
        return;
    }
    Journal journal = ReadJournal(directory);
    result.calls = std::move(journal.calls);
    result.after = ReadStateDirectory(directory);
    std::vector<Fault> faults = options.faults; // in the order of the library
    for (size_t i = 0; i < faults.size(); i++) {
        if (std::count(journal.faults.begin(), journal.faults.end(), i) == 0) {
            result.unmetFaults.push_back(faults[i]);
        }
    }
    const std::vector<Fault>& own = phone.description.faults;
    faults.insert(faults.end(), own.begin(), own.end());
    const Fault* cut = journal.faults.empty() ? nullptr : &faults.at(journal.faults.back());
    const bool isCut = result.signal == SIGKILL && cut != nullptr && IsPowerCut(*cut);
    if (isCut) {
        LoseUnsynced(directory, *cut, result);
    } else if (IsFromOutside(result.signal)) {
        result.error = directory + ": the run could not be kept: this machine ended it: " +
                       sigdescr_np(result.signal);
    } else if (result.signal == 0 && !journal.isWhole) {
        result.error = directory + JOURNAL_FILE + ": ends in the middle";
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
    RunResult result = {};
    const Descriptor directory(phone.directory, O_RDONLY | O_DIRECTORY);
    if (directory.fd < 0) {
        result.error = phone.directory + ": " + strerror(errno);
    } else if (flock(directory.fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
        result.error = phone.directory + ": another run is on this phone";
    } else {
        try {
            RunAlone(phone, tool, options, result);
        } catch (const std::exception& wrong) { // a file that cannot be read, or no memory
            result.error = phone.directory + ": the run could not be kept: " + wrong.what();
        }
        flock(directory.fd, LOCK_UN); // a process that another thread has forked may have it, too
    }
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
