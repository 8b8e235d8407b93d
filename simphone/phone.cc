// Makes, runs, restarts and reads a simulated phone. Called by the simphone command, fwlab and the
// tests.
#include "phone.h"

#include "description.h"
#include "power_loss.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <elf.h>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

static const char kCidNode[] = "/sys/class/mmc_host/mmc0/mmc0:0001/cid";
static const size_t kFirmwareVersion = 254; // JEDEC EXT_CSD, 8 bytes
static const size_t kExtCsdRev = 192;       // JEDEC EXT_CSD

static bool Put(const std::string& path, const std::string& content, std::string& error) {
    std::error_code status;
    fs::create_directories(fs::path(path).parent_path(), status);
    if (!WriteWholeFile(path, content.data(), content.size())) {
        error = path + ": " + strerror(errno);
        return false;
    }
    return true;
}

// The register and the node that show an eMMC device's revision, or a UFS device's node.
static bool PutRevision(const std::string& directory, const Description& phone,
                        const std::string& revision, std::string& extCsd, std::string& error) {
    if (phone.ufs) {
        return Put(directory + "/proc/bootdevice/rev", revision + "\n", error);
    }
    extCsd.replace(kFirmwareVersion, 8, revision + std::string(8 - revision.size(), '\0'));
    return Put(directory + "/device/ext_csd.bin", extCsd, error) &&
           (!phone.gki ||
            Put(directory + "/proc/bootdevice/ext_csd", Hex(extCsd.data(), extCsd.size()), error));
}

static bool PutEmmc(const std::string& directory, const Description& phone, std::string& error) {
    const std::string cid = Hex(phone.cid, sizeof(phone.cid)) + "\n";
    return Put(directory + "/dev/block/mmcblk0", "", error) &&
           Put(directory + "/proc/bootdevice/product_name", phone.productName + "\n", error) &&
           Put(directory + kCidNode, cid, error) &&
           (!phone.gki || Put(directory + "/proc/bootdevice/ffu", "", error));
}

static bool PutUfs(const std::string& directory, const Description& phone, std::string& error) {
    return Put(directory + "/dev/block/sdc", "", error) &&
           Put(directory + "/proc/devices", "Block devices:\n  8 sd\n", error) && // for libsgutils2
           Put(directory + "/proc/bootdevice/manfid", phone.manfid, error) &&
           Put(directory + "/proc/bootdevice/product_name", phone.productName, error);
}

bool MakePhone(const std::string& descriptionFile, const std::string& directory,
               std::string& error) {
    Description phone;
    std::string text;
    if (!ReadDescription(descriptionFile, phone, error)) {
        return false;
    }
    std::error_code status;
    if (fs::exists(directory, status) && !fs::is_empty(directory, status)) {
        error = directory + ": is there and not an empty directory";
        return false;
    }
    // Of two that make a phone in one place at one time, one finds this file.
    fs::create_directories(directory, status);
    const int claim = open((directory + "/phone.toml").c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
    if (claim < 0) {
        error = directory + "/phone.toml: " + strerror(errno);
        return false;
    }
    close(claim);
    for (const char* folder : {"/vendor/firmware", "/data/vendor", "/splash2", "/tmp", "/device"}) {
        if (fs::create_directories(directory + folder, status); status) {
            error = directory + folder + ": " + status.message();
            return false;
        }
    }
    std::string extCsd(512, '\0');
    extCsd[kExtCsdRev] = static_cast<char>(phone.extCsdRev);
    return ReadWholeFile(descriptionFile, text) && Put(directory + "/phone.toml", text, error) &&
           (phone.ufs ? PutUfs : PutEmmc)(directory, phone, error) &&
           PutRevision(directory, phone, phone.revision, extCsd, error);
}

bool PutPackage(const std::string& packageFile, const std::string& directory, std::string& error) {
    Description phone;
    if (!ReadDescription(directory + "/phone.toml", phone, error)) {
        return false;
    }
    std::error_code status;
    const std::string place =
        directory + "/vendor/firmware/" + (phone.ufs ? "ufs_emer_fw.bin" : "emmc_emer_fw.bin");
    fs::copy_file(packageFile, place, fs::copy_options::overwrite_existing, status);
    error = status ? packageFile + ", copied to " + place + ": " + status.message() : "";
    return !status;
}

bool RebootPhone(const std::string& directory, std::string& error) {
    Description phone;
    std::string extCsd;
    const std::string device = directory + "/device";
    if (!ReadDescription(directory + "/phone.toml", phone, error)) {
        return false;
    }
    std::error_code status;
    if (!fs::exists(device + "/pending", status)) {
        fs::remove(device + "/downloaded.bin", status);
        return true;
    }
    if (!phone.ufs && (!ReadWholeFile(device + "/ext_csd.bin", extCsd) || extCsd.size() != 512)) {
        error = device + "/ext_csd.bin: is not 512 bytes that can be read";
        return false;
    }
    if (!PutRevision(directory, phone, phone.firmwareRevision, extCsd, error)) {
        return false;
    }
    fs::rename(device + "/downloaded.bin", device + "/running.bin", status);
    fs::remove(device + "/pending", status);
    return true;
}

bool ShowPhone(const std::string& directory, std::string& text, std::string& error) {
    Description phone;
    std::string content;
    if (!ReadDescription(directory + "/phone.toml", phone, error)) {
        return false;
    }
    text = phone.ufs ? "UFS phone\n" : phone.gki ? "eMMC phone, GKI mode\n" : "eMMC phone\n";
    for (const std::string node : {"/proc/bootdevice/manfid", "/proc/bootdevice/product_name",
                                   "/proc/bootdevice/rev", kCidNode}) {
        if (ReadWholeFile(directory + node, content)) {
            text += "  " + node + ": " + Escaped(content) + "\n";
        }
    }
    if (ReadWholeFile(directory + "/device/ext_csd.bin", content) && content.size() == 512) {
        text +=
            "  EXT_CSD FIRMWARE_VERSION: " + Escaped(content.substr(kFirmwareVersion, 8)) + "\n";
    }
    std::error_code status;
    text += "  pending at the next restart: " +
            (fs::exists(directory + "/device/pending", status) ? Escaped(phone.firmwareRevision)
                                                               : "nothing") +
            "\n  /data/vendor/fw:\n";
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(directory + "/data/vendor/fw", status)) {
        files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    for (const fs::path& file : files) {
        text += "    " + file.filename().string() + "\n";
        std::istringstream lines(ReadWholeFile(file, content) ? content : "");
        for (std::string line; std::getline(lines, line);) {
            text += "      " + Escaped(line) + "\n";
        }
    }
    return true;
}

static std::vector<std::string> Lines(const std::string& file) {
    std::string content;
    (void)ReadWholeFile(file, content); // a run that ended before its first line has none
    std::istringstream stream(content);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

// The rest of a line behind the words that were read, without the blank in front.
static std::string Rest(std::istringstream& words) {
    std::string rest;
    words.get();
    std::getline(words, rest);
    return rest;
}

static void ReadLogs(const std::string& directory, RunResult& result) {
    for (const std::string& line : Lines(directory + "/calls.log")) {
        std::istringstream words(line);
        CallEntry call = {};
        std::string word;
        words >> call.number >> call.function >> call.path;
        while (words >> word && word != "=") {
            call.arguments += (call.arguments.empty() ? "" : " ") + word;
        }
        words >> call.result;
        while (words >> word) {
            call.replaced = call.replaced || word == "fault";
            call.error = word == "fault" ? call.error : word;
        }
        result.calls.push_back(call);
    }
    for (const std::string& line : Lines(directory + "/system.log")) {
        std::istringstream words(line);
        SystemLogEntry entry = {};
        words >> entry.number >> entry.consoleBytes >> entry.priority >> entry.tag;
        entry.text = Unescaped(Rest(words));
        result.systemLog.push_back(entry);
    }
    for (const std::string& line : Lines(directory + "/requests.log")) {
        std::istringstream words(line);
        DeviceRequest request = {};
        if (line == "run") {
            result.requests.clear();
            continue;
        }
        words >> request.number >> request.consoleBytes;
        request.text = Rest(words);
        result.requests.push_back(request);
    }
    (void)ReadWholeFile(directory + "/console.log", result.console);
    (void)ReadWholeFile(directory + "/errors.log", result.errors);
}

std::string Companion(const std::string& name) {
    std::error_code status;
    const fs::path folder = fs::read_symlink("/proc/self/exe", status).parent_path();
    const fs::path installed = folder.parent_path() / "libexec/ffu" / name;
    return fs::exists(folder / name, status) ? folder / name : installed;
}

static std::string Library(const std::string& tool, const std::string& given) {
    std::error_code status;
    const std::vector<fs::path> own = {fs::path(tool).parent_path() / "libsimphone.so",
                                       Companion("libsimphone.so")};
    for (const fs::path& place : given.empty() ? own : std::vector<fs::path>{given}) {
        std::string content; // only a library that is ours stands between a tool and this machine
        if (fs::is_regular_file(place, status) && ReadWholeFile(place, content) &&
            content.find("simphone_attach") != std::string::npos) {
            return fs::absolute(place);
        }
    }
    return "";
}

// What a run starts: the tool on a phone, with the library of the phone in it.
struct Start {
    std::string directory, faults, phoneLibrary, tool;
    const RunOptions* options;
};

// Gives the program's environment name=value: by itself, or through the launcher.
static void SetVariable(const Start& start, std::vector<std::string>& words,
                        const std::string& name, const std::string& value) {
    if (start.options->launcher.empty()) {
        setenv(name.c_str(), value.c_str(), 1);
    } else {
        words.insert(words.end(), {"-E", name + "=" + value});
    }
}

// In a new process, with its outputs in place: becomes the tool, or what its dynamic linker says of
// it, and never returns. The library is named by a descriptor: LD_PRELOAD takes no path with a
// blank or a colon. It stands high, so that the tool meets the numbers that it would meet on a
// phone.
[[noreturn]] static void Become(const Start& start, bool onlyLoad) {
    const int library = open(start.phoneLibrary.c_str(), O_RDONLY | O_CLOEXEC);
    const int high = fcntl(library, F_DUPFD, 800);
    const int inherited = high < 0 ? dup(library) : high;
    std::vector<std::string> words = start.options->launcher;
    SetVariable(start, words, "LD_PRELOAD", "/proc/self/fd/" + std::to_string(inherited));
    if (onlyLoad) {
        SetVariable(start, words, "LD_TRACE_LOADED_OBJECTS", "1");
    }
    words.push_back(start.tool);
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (const std::string& word : words) {
        arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    sigset_t none; // that this program holds back does not concern the tool
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
    execvp(arguments[0], arguments.data());
    perror(arguments[0]);
    _exit(127);
}

// In a new process: never returns.
[[noreturn]] static void Run(const Start& start) {
    const char* sanitizer = getenv("ASAN_OPTIONS");
    const std::string asan = std::string(sanitizer ? sanitizer : "") + ":verify_asan_link_order=0";
    setenv("ASAN_OPTIONS", asan.c_str(), 1);
    setenv("SIMPHONE", start.directory.c_str(), 1);
    setenv("SIMPHONE_FAULTS", start.faults.c_str(), 1);
    const int flags = O_WRONLY | O_CREAT | O_TRUNC;
    dup2(open((start.directory + "/console.log").c_str(), flags | O_CLOEXEC, 0644), STDOUT_FILENO);
    dup2(open((start.directory + "/errors.log").c_str(), flags | O_CLOEXEC, 0644), STDERR_FILENO);
    alarm(start.options->secondsLimit); // outlives exec; ends the tool by SIGALRM
    Become(start, false);
}

// Whether the program is loaded by glibc's dynamic linker, which alone does what is asked below.
// Programs that run with more rights than their user's load no library of his.
static bool IsLoadedByGlibc(const std::string& tool) {
    std::string image;
    Elf64_Ehdr header;
    struct stat status;
    if (stat(tool.c_str(), &status) != 0 || status.st_mode & (S_ISUID | S_ISGID) ||
        !ReadWholeFile(tool, image) || image.size() < sizeof(header)) {
        return false;
    }
    memcpy(&header, image.data(), sizeof(header));
    bool isGlibc = false;
    for (size_t i = 0; memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 && i < header.e_phnum; i++) {
        Elf64_Phdr segment = {};
        image.copy(reinterpret_cast<char*>(&segment), sizeof(segment),
                   std::min<size_t>(image.size(), header.e_phoff + i * sizeof(segment)));
        isGlibc = isGlibc || (segment.p_type == PT_INTERP && segment.p_offset < image.size() &&
                              strstr(image.c_str() + segment.p_offset, "/ld-linux"));
    }
    return isGlibc;
}

// Lets the dynamic linker say what it would load, without running anything: a tool whose calls do
// not go through the library would work on this machine in place of the phone.
static bool IsLibraryLoaded(const Start& start, std::string& error) {
    static std::set<std::string> known; // what has been asked already
    const std::string what = start.tool + "\n" + start.phoneLibrary;
    if (known.count(what)) {
        return true;
    }
    error = start.tool + ": is no program that loads the phone's library (dynamically linked to "
                         "glibc, without more rights than its user's)";
    int ends[2];
    if (!IsLoadedByGlibc(start.tool) || pipe2(ends, O_CLOEXEC) != 0) {
        return false;
    }
    const pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], STDOUT_FILENO);
        dup2(ends[1], STDERR_FILENO);
        Become(start, true);
    }
    close(ends[1]);
    std::string loaded;
    char piece[4096];
    for (ssize_t count = 0; (count = read(ends[0], piece, sizeof(piece))) > 0;) {
        loaded.append(piece, static_cast<size_t>(count));
    }
    close(ends[0]);
    (void)waitpid(child, nullptr, 0);
    const size_t line = loaded.find("/proc/self/fd/");
    const bool isLoaded =
        line != std::string::npos && loaded.find("cannot be preloaded") > loaded.size();
    if (isLoaded) {
        known.insert(what);
        error.clear();
    } else {
        error = start.tool + ": does not load " + start.phoneLibrary + ": " + Escaped(loaded);
    }
    return isLoaded;
}

// The texts of the faults that the run met, in order. A power cut's is the last one.
static std::vector<std::string> MetFaults(const std::string& directory) {
    std::vector<std::string> faults;
    for (const std::string& line : Lines(directory + "/faults.log")) {
        faults.push_back(line.substr(line.find(' ') + 1)); // behind the call's number
    }
    return faults;
}

// After a power cut: takes from the state directory what its fault says.
static void LoseUnsynced(const std::string& directory, const StateDirectory& before,
                         const std::vector<std::string>& met, RunResult& result) {
    Fault cut;
    std::string error;
    if (result.signal != SIGKILL || met.empty() || !ParseFault(met.back(), cut, error) ||
        cut.losses.empty()) {
        return;
    }
    StateDirectory left;
    if (!Lose(before, ReadStateDirectory(directory), result.calls, cut.losses, left, error)) {
        result.error = "fault \"" + cut.text + "\": " + error;
    } else if (!WriteStateDirectory(directory, left)) {
        result.error = directory + ": the state after the power cut: " + strerror(errno);
    }
}

// Checks the faults of a run and puts them together for the library, one a line.
static bool JoinFaults(const std::vector<std::string>& texts, std::string& faults,
                       std::string& error) {
    for (const std::string& text : texts) {
        Fault fault;
        if (!ParseFault(text, fault, error)) {
            return false;
        }
        faults += text + "\n";
    }
    return true;
}

RunResult RunTool(const std::string& directory, const std::string& tool,
                  const RunOptions& options) {
    RunResult result = {};
    Description phone;
    std::string faults;
    if (!ReadDescription(directory + "/phone.toml", phone, result.error) ||
        !JoinFaults(options.faults, faults, result.error)) {
        return result;
    }
    const std::string library = Library(tool, options.libsimphone);
    if (library.empty() || access(tool.c_str(), X_OK) != 0) {
        result.error = access(tool.c_str(), X_OK) != 0 ? tool + ": " + strerror(errno)
                       : options.libsimphone.empty()
                           ? "libsimphone.so: not found beside " + tool
                           : options.libsimphone + ": is not the phone's library";
        return result;
    }
    const Start start = {directory, faults, library, fs::absolute(tool), &options};
    if (!IsLibraryLoaded(start, result.error)) {
        return result;
    }
    for (const char* log : {"/calls.log", "/system.log", "/faults.log"}) {
        (void)WriteWholeFile(directory + log, "",
                             0); // nothing of the run before, even if this fails
    }
    const StateDirectory before = ReadStateDirectory(directory);
    const pid_t child = fork();
    if (child == 0) {
        Run(start);
    }
    int status = 0;
    while (child > 0 && waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    result.error = child < 0 ? std::string("fork: ") + strerror(errno) : "";
    result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    result.timedOut = result.signal == SIGALRM;
    ReadLogs(directory, result);
    const std::vector<std::string> met = MetFaults(directory);
    std::copy_if(options.faults.begin(), options.faults.end(),
                 std::back_inserter(result.unmetFaults), [&](const std::string& text) {
                     return std::find(met.begin(), met.end(), text) == met.end();
                 });
    LoseUnsynced(directory, before, met, result);
    return result;
}

static void AddLines(const char* source, const std::string& text,
                     std::vector<TimeLineEntry>& entries) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        entries.push_back({source, Escaped(line)});
    }
}

std::vector<TimeLineEntry> TimeLine(const RunResult& run) {
    struct Event {
        long long consoleBytes; // before it
        const char* source;
        std::string text;
    };
    std::map<long, Event> events; // by the number of the call that it was
    for (const SystemLogEntry& log : run.systemLog) {
        events[log.number] = {log.consoleBytes, "log", log.text};
    }
    for (const DeviceRequest& request : run.requests) {
        events[request.number] = {request.consoleBytes, "device", request.text};
    }
    events[LONG_MAX] = {static_cast<long long>(run.console.size()), "", ""};
    std::vector<TimeLineEntry> entries;
    size_t printed = 0;
    for (const auto& [number, event] : events) {
        const auto before = static_cast<size_t>(event.consoleBytes);
        AddLines("console", run.console.substr(printed, before - printed), entries);
        printed = before;
        AddLines(event.source, event.text, entries);
    }
    return entries;
}
