// The fixture's side of phone.h. A phone that cannot be made fails its test at once.
#include "test/phone/phone.h"

#include <algorithm>
#include <endian.h>
#include <fcntl.h>
#include <filesystem>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <sys/mman.h>

namespace fs = std::filesystem;

namespace {

std::string ShippedDescription(const char* file, const Overrides& overrides) {
    Texts settings;
    for (const auto& [key, value] : overrides) {
        settings.push_back(std::string(key).append("=").append(value));
    }
    return ReadDescription(std::string(DESCRIPTIONS).append(file), settings).text;
}

// How the tool opens what it opens, and the mode of what it makes. A path that ends with a slash
// stands for all below it; a refused copy leaves the name of a node or a file empty.
const std::string TRIGGER = "/splash2/test_ffu_trigger.tmp";
const std::string BODY_FILE = STATE + "/ufs_fw_body.bin", TMP_BODY_FILE = "/tmp/ufs_fw_body.bin";
const struct {
    Texts paths;
    unsigned long flags;
    const char* mode = "";
} OPENS[] = {
    {{"/vendor/", "/proc/", "/sys/", BODY_FILE, TMP_BODY_FILE, ""}, O_RDONLY},
    // The last one is where a test's link leads.
    {{"/proc/bootdevice/ffu", "/dev/block/mmcblk0", "/dev/block/real"}, O_RDWR},
    {{"/dev/block/sdc", ""}, O_RDWR | O_NONBLOCK},
    {{STATE + "/ffu.bgn", STATE + "/ffu.end"}, O_RDWR | O_CREAT, "0770"},
    {{STATE + "/ffu.ok", STATE + "/ffu.fail", STATE + "/fw_result"},
     O_RDWR | O_CREAT | O_APPEND,
     "0770"},
    {{BODY_FILE, TMP_BODY_FILE}, O_WRONLY | O_CREAT | O_TRUNC, "0777"},
    {{TRIGGER}, O_WRONLY | O_CREAT | O_DIRECT, "0755"},
    {{TRIGGER}, O_RDONLY | O_CREAT | O_DIRECT, "0755"},
};

bool IsProperOpen(const CallEntry& call) {
    const auto isOf = [&](const std::string& path) {
        const bool isFolder = !path.empty() && path.back() == '/';
        return call.path.substr(0, isFolder ? path.size() : std::string::npos) == path;
    };
    return std::any_of(std::begin(OPENS), std::end(OPENS), [&](const auto& row) {
        return OpenFlags(call) == row.flags && Argument(call, "mode") == row.mode &&
               std::any_of(row.paths.begin(), row.paths.end(), isOf);
    });
}

bool IsProper(const CallEntry& call, const std::string& pathBefore) {
    const std::string &function = call.function, mode = Argument(call, "mode");
    if (function == "open" || function == "creat") {
        return IsProperOpen(call);
    }
    if (function == "remove" || function == "unlink") {
        return call.path.rfind(STATE + "/", 0) == 0 || call.path == TRIGGER ||
               call.path == TMP_BODY_FILE;
    }
    return function == "access"  ? mode == (call.path == "/proc/bootdevice/ffu" ? "2" : "0")
           : function == "fopen" ? mode == "r"
           : function == "mmap"  ? Argument(call, "protection") == std::to_string(PROT_READ) &&
                                      Argument(call, "flags") == std::to_string(MAP_PRIVATE)
           : function == "mkdir" ? mode == std::to_string(0755) && call.path == STATE
           : function == "sleep" ? pathBefore == TRIGGER && call.arguments == "seconds=5"
                                 : true;
}

} // namespace

std::vector<Fault> Faults(const Texts& texts) {
    std::vector<Fault> faults;
    for (const std::string& text : texts) {
        if (!text.empty()) {
            faults.push_back(ParseFault(text));
        }
    }
    return faults;
}

Texts FaultTexts(const std::vector<Fault>& faults) {
    Texts texts;
    std::transform(faults.begin(), faults.end(), std::back_inserter(texts), FaultText);
    return texts;
}

unsigned FromEnvironment(const char* name, unsigned otherwise) {
    const char* text = getenv(name);
    return text == nullptr ? otherwise : static_cast<unsigned>(std::stoul(text));
}

void ExpectProperCalls(const RunResult& result) {
    std::string pathBefore;
    for (const CallEntry& call : result.calls) {
        EXPECT_TRUE(IsProper(call, pathBefore)) << CallLine(call);
        pathBefore = call.path;
    }
}

void ExpectAllGivenBack(const RunResult& result) {
    const std::set<std::string> acquiring = {"open", "creat", "fopen", "mmap"};
    const std::set<std::string> giving = {"close", "fclose", "munmap"};
    std::set<std::string> held; // numbers of descriptors, and places
    for (const CallEntry& call : result.calls) {
        if (acquiring.count(call.function) && call.error.empty()) {
            EXPECT_TRUE(held.insert(call.result).second) << call.result << " at " << call.number;
        }
        if (giving.count(call.function)) {
            const std::string what = Argument(call, "fd") + Argument(call, "pointer");
            EXPECT_EQ(held.erase(what), 1U) << what << " at call " << call.number;
        }
    }
    EXPECT_TRUE(held.empty()) << *held.begin() << " is not given back";
}

std::string GkiPhone(const Overrides& overrides) {
    return ShippedDescription("/emmc-phone.toml", overrides);
}

std::string NormalPhone(Overrides overrides) {
    overrides["mode"] = "'normal'";
    return GkiPhone(overrides);
}

std::string UfsPhone(const Overrides& overrides) {
    return ShippedDescription("/ufs-phone.toml", overrides);
}

std::string With(std::string entry, Place field, const std::string& value) {
    return entry.replace(field.offset, field.size, (value + std::string(16, '\0')), 0, field.size);
}

std::string BigEndian32(uint32_t number) {
    const uint32_t bytes = htobe32(number);
    return {reinterpret_cast<const char*>(&bytes), sizeof(bytes)};
}

std::string Body(size_t size) {
    static std::string bytes; // all that were asked for so far
    static uint32_t state = 1;
    while (bytes.size() < size) {
        state = state * 1664525 + 1013904223;
        bytes += static_cast<char>(state >> 24 | 0x80); // no ASCII
    }
    return bytes.substr(0, size);
}

std::string EmmcEntry(const std::string& rev, const std::string& body) {
    std::string entry =
        "EMMC\x13" + EMMC_PNM + std::string(5, '\0') + "\x08" + std::string(15, '\0');
    entry = With(entry, EMMC_FW_REV_FIELD, rev);
    entry = With(entry, EMMC_SIZE_FIELD, BigEndian32(static_cast<uint32_t>(body.size())));
    return entry + std::string(16, '\xFF') + body;
}

std::string UfsEntry(const std::string& rev, const std::string& body) {
    std::string entry = "UFSM" + UFS_MID + UFS_PNM + std::string(20, '\0');
    entry = With(entry, UFS_REV_FIELD, rev);
    entry = With(entry, UFS_SIZE_FIELD, BigEndian32(static_cast<uint32_t>(body.size())));
    return entry + std::string(16, '\xFF') + body;
}

std::string AttemptRecord(const std::string& base, const std::string& target,
                          const std::string& pnm) {
    return CLOCK_TEXT + "product name:" + pnm + ", current fw version:" + base +
           ", upgrading to version:" + target + "\n";
}

void PhoneTest::SetUp() {
    directory = (fs::temp_directory_path() / "ffu-test-XXXXXX").string();
    ASSERT_NE(mkdtemp(directory.data()), nullptr);
    directory += "/phone";
}

void PhoneTest::TearDown() {
    fs::remove_all(fs::path(directory).parent_path());
}

void PhoneTest::Make(const std::string& description, const Files& files) {
    fs::remove_all(directory);
    const std::string file = directory + ".toml";
    WriteWholeFile(file, description);
    MakePhone({directory, ReadDescription(file)});
    for (const auto& [path, content] : files) {
        Put(path, content);
    }
}

void PhoneTest::Put(const std::string& file, const std::string& content) const {
    if (content == MISSING) {
        fs::remove_all(Path(file));
        return;
    }
    fs::create_directories(fs::path(Path(file)).parent_path());
    WriteWholeFile(Path(file), content);
}

std::string PhoneTest::Get(const std::string& file) const {
    std::string content;
    return ReadWholeFile(Path(file), content) ? content : MISSING;
}

std::string PhoneTest::Left() const {
    std::string names;
    for (const auto& [name, content] : State()) {
        names.append(names.empty() ? "" : " ").append(name);
    }
    return names;
}

RunResult PhoneTest::TryRun(const Texts& faults, const std::string& tool,
                            const std::string& library) const {
    std::istringstream words(FFU_LAUNCHER);
    const Texts launcher(std::istream_iterator<std::string>(words), {});
    return RunTool(OpenPhone(directory), tool, {Faults(faults), launcher, library});
}

RunResult PhoneTest::RunAnyhow(const Texts& faults) const {
    RunResult result = TryRun(faults);
    EXPECT_FALSE(result.timedOut);
    return result;
}

RunResult PhoneTest::Run(const Texts& faults) const {
    RunResult result = RunAnyhow(faults);
    EXPECT_EQ(result.signal, 0) << result.errors;
    ExpectAllGivenBack(result);
    ExpectProperCalls(result);
    return result;
}

std::string Console(const RunResult& result) {
    static const std::regex stamp(R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d \d{3}\] )");
    return std::regex_replace(result.console, stamp, "");
}

std::string Requests(const RunResult& result) {
    std::string requests;
    for (const CallEntry& call : result.calls) {
        requests += call.request ? call.request->text + "\n" : "";
    }
    return requests;
}

std::string Steps(const RunResult& result) {
    const std::string start = "FFU process ";
    std::string steps;
    for (const CallEntry& call : result.calls) {
        if (call.IsMessage()) {
            EXPECT_EQ(call.arguments, "priority=6 tag=-") << call.message;
            EXPECT_EQ(call.message.rfind(start, 0), 0U) << call.message;
            steps += call.message.substr(std::min(start.size(), call.message.size()));
        }
    }
    return steps;
}

void ExpectEnd(const std::string& text, const std::string& end) {
    EXPECT_EQ(text.substr(text.size() - std::min(text.size(), end.size())), end);
}

long Count(const std::string& text, const std::string& part) {
    long count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        count++;
    }
    return count;
}
