// Attaches a phone to the process, counts the tool's calls, picks their faults and keeps the logs.
// Each log line is one write: when the process is killed, the logs are whole up to its last call.
#include "session.h"
#include "attach.h"
#include "files.h"

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <link.h>
#include <signal.h>
#include <sstream>
#include <unistd.h>

Session* session = nullptr;
static bool callUnderWay = false;

// The executable segments of the program and of libsgutils2.
struct Segment {
    uintptr_t begin, end;
};
static Segment texts[8];
static size_t textCount = 0;

static int NoteText(dl_phdr_info* object, size_t, void* isProgram) {
    bool& program = *static_cast<bool*>(isProgram); // the first object is the program
    if (!program && !strstr(object->dlpi_name, "libsgutils2")) {
        return 0;
    }
    program = false;
    for (int i = 0; i < object->dlpi_phnum && textCount < std::size(texts); i++) {
        const ElfW(Phdr)& segment = object->dlpi_phdr[i];
        if (segment.p_type == PT_LOAD && segment.p_flags & PF_X) {
            const uintptr_t begin = object->dlpi_addr + segment.p_vaddr;
            texts[textCount++] = {begin, begin + segment.p_memsz};
        }
    }
    return 0;
}

bool OfTheTool(const void* caller) {
    if (!session || callUnderWay) {
        return false;
    }
    const auto address = reinterpret_cast<uintptr_t>(caller);
    for (size_t i = 0; i < textCount; i++) {
        if (address >= texts[i].begin && address < texts[i].end) {
            return true;
        }
    }
    return false;
}

bool IsPhonePath(const std::string& path) {
    for (const char* root : {"/dev/block/", "/proc/bootdevice/", "/sys/class/mmc_host/", "/vendor/",
                             "/data/", "/splash2/", "/tmp/ufs_fw_body.bin", "/proc/devices"}) {
        if (path.rfind(root, 0) == 0) {
            return true;
        }
    }
    return false;
}

std::string HostPath(const char* path) {
    return IsPhonePath(path) ? session->directory + path : path;
}

// Log descriptors stand high, so that the tool meets the numbers that it would meet on a phone.
static int OpenLog(const std::string& path, int flags) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | flags, 0644);
    const int high = fcntl(fd, F_DUPFD_CLOEXEC, 900);
    if (high < 0) {
        return fd;
    }
    close(fd);
    return high;
}

static void AppendLine(int log, const std::string& line) {
    const std::string whole = line + "\n";
    (void)!write(log, whole.data(), whole.size());
}

static std::string LinePrefix() {
    return std::to_string(session->calls) + " " + std::to_string(session->consoleBytes) + " ";
}

[[noreturn]] static void EndOfPower() {
    kill(getpid(), SIGKILL);
    for (;;) {
        pause();
    }
}

// A fault that has its effect for the first time is noted.
static const Fault* FaultOf(const Call& call) {
    Fault* met = nullptr;
    for (Fault& fault : session->phone.faults) {
        if (fault.call != "any" && fault.call != call.function && fault.call != call.alias) {
            continue;
        }
        if (!fault.path.empty() && fault.path != call.path) {
            continue;
        }
        fault.seen++;
        if (!met && fault.seen >= fault.first && fault.seen <= fault.last) {
            met = &fault;
        }
    }
    if (!met || !CanHave(call.function, met->effect)) {
        return nullptr;
    }
    if (!met->met) {
        AppendLine(session->faultsLog, std::to_string(session->calls) + " " + met->text);
        met->met = true;
    }
    return met;
}

bool Replaces(const Fault* fault) {
    return fault && fault->effect <= Fault::kReturns;
}

// What has been printed so far, the C library's buffer included; it is emptied on the way.
static long long ConsoleBytes() {
    fflush(stdout);
    return lseek(STDOUT_FILENO, 0, SEEK_CUR);
}

const Fault* BeginCall(Call& call) {
    callUnderWay = true;
    session->calls++;
    const Fault* fault = FaultOf(call);
    if (!call.request.empty() || strcmp(call.function, "__android_log_print") == 0) {
        session->consoleBytes = ConsoleBytes();
    }
    if (fault && fault->effect == Fault::kEnd) {
        EndOfPower();
    }
    const bool moves = fault && (fault->effect == Fault::kShort || fault->effect == Fault::kTorn);
    if (moves && call.count) {
        *call.count = std::min(*call.count, static_cast<size_t>(fault->value));
    }
    return fault;
}

std::string ResultText(long long number) {
    return std::to_string(number);
}

std::string ResultText(const void* pointer) {
    char text[32];
    snprintf(text, sizeof(text), "%p", pointer);
    return text;
}

void EndCall(const Call& call, const Fault* fault, const std::string& result, int error) {
    const std::string name = error ? strerrorname_np(error) : "";
    AppendLine(session->callsLog, std::to_string(session->calls) + " " + call.function + " " +
                                      call.path + (call.arguments.empty() ? "" : " ") +
                                      call.arguments + " = " + result + (error ? " " + name : "") +
                                      (Replaces(fault) ? " fault" : ""));
    if (!call.request.empty()) {
        const std::string answer = error                   ? result + " " + name
                                   : call.response.empty() ? result
                                                           : call.response;
        AppendLine(session->requestsLog, LinePrefix() + call.request + " -> " + answer);
    }
    const bool torn = fault && fault->effect == Fault::kTorn && call.count;
    if (torn || (fault && fault->effect == Fault::kEndAfter)) {
        EndOfPower();
    }
    callUnderWay = false;
}

void LogSystemMessage(int priority, const char* tag, const std::string& text) {
    AppendLine(session->systemLog, LinePrefix() + std::to_string(priority) + " " +
                                       (tag ? tag : "-") + " " + Escaped(text));
}

void simphone_detach() {
    Session* ended = session;
    session = nullptr;
    if (ended) {
        for (const int log :
             {ended->callsLog, ended->systemLog, ended->requestsLog, ended->faultsLog}) {
            close(log);
        }
    }
    delete ended;
}

int simphone_attach(const char* directory, const char* faults) {
    simphone_detach();
    auto* run = new Session{};
    std::string error;
    bool ready = ReadDescription(std::string(directory) + "/phone.toml", run->phone, error);
    std::istringstream lines(faults ? faults : "");
    std::vector<Fault> first; // before those of the description
    for (std::string line; ready && std::getline(lines, line);) {
        first.emplace_back();
        ready = line.empty() || ParseFault(line, first.back(), error);
    }
    run->phone.faults.insert(run->phone.faults.begin(), first.begin(), first.end());
    char* resolved = realpath(directory, nullptr);
    if (!ready || !resolved) {
        fprintf(stderr, "simphone: %s\n", ready ? strerror(errno) : error.c_str());
        free(resolved);
        delete run;
        return -1;
    }
    run->directory = resolved;
    free(resolved);
    run->now = {mktime(&run->phone.clock), run->phone.clockMicroseconds};
    run->callsLog = OpenLog(run->directory + "/calls.log", O_TRUNC);
    run->systemLog = OpenLog(run->directory + "/system.log", O_TRUNC);
    run->requestsLog = OpenLog(run->directory + "/requests.log", 0);
    run->faultsLog = OpenLog(run->directory + "/faults.log", O_TRUNC);
    AppendLine(run->requestsLog, "run");
    bool program = true;
    textCount = 0;
    dl_iterate_phdr(NoteText, &program);
    session = run;
    return 0;
}

__attribute__((constructor)) static void AttachAtStart() {
    const char* directory = getenv("SIMPHONE");
    if (directory && simphone_attach(directory, getenv("SIMPHONE_FAULTS")) != 0) {
        _exit(125);
    }
}
