// Attaches a phone to the process, counts the tool's calls, picks their faults and keeps the
// journal. Each line of it is one write: when the process is killed, it is whole up to its last
// call.
#include "simphone/preload/session.h"

#include "simphone/files.h"
#include "simphone/preload/attach.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <link.h>
#include <memory>
#include <new>
#include <sstream>
#include <unistd.h>

Session* session = nullptr;

namespace {

bool isCallUnderWay = false;

void Append(const std::string& line) {
    ssize_t count = 0;
    for (size_t at = 0; at < line.size(); at += static_cast<size_t>(count)) {
        count = write(session->journal, line.data() + at, line.size() - at);
        if (count < 0) {
            throw FailureOf(JOURNAL_FILE);
        }
    }
}

// Whether the error says what this machine has not; a device and a phone's file system are told by
// faults.
bool IsOfThisMachine(int error) {
    const int errors[] = {ENOSPC, EDQUOT, EFBIG, EMFILE, ENFILE, ENOMEM, EAGAIN, EIO, EROFS};
    return std::find(std::begin(errors), std::end(errors), error) != std::end(errors);
}

[[noreturn]] void EndPower() {
    for (;;) {
        kill(getpid(), SIGKILL);
    }
}

bool Matches(const Fault& fault, const Call& call) {
    return (fault.call == "any" || fault.call == call.function || fault.call == call.alias) &&
           (fault.path.empty() || fault.path == call.path);
}

// What has been printed so far, the C library's buffer included; it is emptied on the way. 0 when
// the tool has closed its standard output.
long long ConsoleBytes() {
    if (fflush(stdout) != 0 && IsOfThisMachine(errno)) {
        throw FailureOf("the console");
    }
    return std::max<long long>(lseek(STDOUT_FILENO, 0, SEEK_CUR), 0);
}

__attribute__((constructor)) void AttachAtStart() {
    const char* directory = getenv("SIMPHONE");
    if (directory != nullptr) {
        std::set_new_handler([] { EndUnkept("memory: Cannot allocate memory"); });
        if (simphone_attach(directory, getenv("SIMPHONE_FAULTS")) != 0) {
            _exit(EXIT_NO_PHONE);
        }
    }
}

// The tool has ended by itself; the C library has yet to write what it printed last.
__attribute__((destructor)) void FlushAtEnd() {
    try {
        (void)(session != nullptr ? ConsoleBytes() : 0);
    } catch (const std::exception& wrong) {
        EndUnkept(wrong.what());
    }
}

} // namespace

void EndUnkept(const char* why) {
    dprintf(STDERR_FILENO, "simphone: %s\n", why);
    _exit(EXIT_NO_PHONE);
}

void RequireKept(const Call& call, int error) {
    if (!call.request && IsOfThisMachine(error)) {
        throw FailureOf(call.function + " " + call.path, error);
    }
}

bool IsOfTheTool(void* caller) {
    dl_find_object object;
    if (session == nullptr || isCallUnderWay || _dl_find_object(caller, &object) != 0) {
        return false;
    }
    const char* name = object.dlfo_link_map->l_name; // the program has none
    return *name == '\0' || strstr(name, "libsgutils2") != nullptr;
}

bool IsPhonePath(const std::string& path) {
    const char* roots[] = {
        "/dev/block/", "/proc/bootdevice/", "/sys/class/mmc_host/", "/vendor/",
        "/data/",      "/splash2/",         "/tmp/ufs_fw_body.bin", "/proc/devices"};
    return std::any_of(std::begin(roots), std::end(roots),
                       [&](const char* root) { return path.rfind(root, 0) == 0; });
}

std::string HostPath(const char* path) {
    return IsPhonePath(path) ? session->phone.directory + path : path;
}

void BeginCall(Call& call) {
    isCallUnderWay = true;
    call.number = ++session->calls;
    call.consoleBytes = call.request || call.IsMessage() ? ConsoleBytes() : 0;
    ActiveFault* met = nullptr;
    for (ActiveFault& active : session->faults) {
        if (Matches(active.fault, call)) {
            active.seen++;
            const bool isIn = active.seen >= active.fault.first && active.seen <= active.fault.last;
            met = met == nullptr && isIn ? &active : met;
        }
    }
    if (met == nullptr || !CanHave(call.function, met->fault.effect)) {
        return;
    }
    if (!met->isMet) {
        Append(FaultLine(static_cast<size_t>(met - session->faults.data()), met->fault));
        met->isMet = true;
    }
    call.fault = &met->fault;
    call.replaced = met->fault.effect <= Effect::RETURNS;
    if (met->fault.effect == Effect::ENDS) {
        EndPower();
    }
    if (!call.replaced && call.count != nullptr) {
        *call.count = std::min(*call.count, static_cast<size_t>(met->fault.value));
    }
}

void EndCall(Call& call, const std::string& result, int error) {
    call.result = result;
    call.error = error != 0 ? strerrorname_np(error) : "";
    if (call.request) {
        const std::string& answer = call.reply->text;
        call.request->taken = call.reply->taken;
        call.request->text += " -> " + (error == 0 && !answer.empty() ? answer : result);
        call.request->text += error != 0 ? " " + call.error : "";
    }
    Append(CallLine(call));
    if (call.fault != nullptr && call.fault->effect == Effect::TORN) {
        EndPower();
    }
    isCallUnderWay = false;
}

void simphone_detach() {
    if (session != nullptr) {
        close(session->journal);
    }
    delete session;
    session = nullptr;
}

int simphone_attach(const char* directory, const char* faults) {
    simphone_detach();
    try {
        auto run = std::make_unique<Session>();
        std::istringstream lines(faults != nullptr ? faults : "");
        for (std::string line; std::getline(lines, line);) {
            run->faults.push_back({ParseFault(line), 0, false});
        }
        const std::string place = std::filesystem::canonical(directory);
        run->phone = {place, ReadDescription(place + "/phone.toml")};
        for (const Fault& fault : run->phone.description.faults) {
            run->faults.push_back({fault, 0, false});
        }
        run->journal = OpenHigh(place + JOURNAL_FILE, O_WRONLY | O_CREAT | O_TRUNC | O_APPEND);
        session = run.release();
    } catch (const std::exception& wrong) {
        fprintf(stderr, "simphone: %s\n", wrong.what());
        return -1;
    }
    return 0;
}
