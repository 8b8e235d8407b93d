// The fixture's side of phone.h. A phone that cannot be made fails its test at once.
#include "test/phone.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

namespace fs = std::filesystem;

namespace {

std::string Description(Keys keys, const Keys& overrides) {
    for (const auto& [key, value] : overrides) {
        keys[key] = value;
    }
    std::string text;
    for (const auto& [key, value] : keys) {
        text.append(key).append(" = ").append(value).append("\n");
    }
    return text;
}

std::string EmmcPhone(const char* mode, const Keys& overrides) {
    return Description({{"technology", "'emmc'"},
                        {"mode", mode},
                        {"revision", "'FW000001'"},
                        {"ext_csd_rev", "8"},
                        {"clock", "2026-03-07T09:05:02.041"},
                        {"cid.manufacturer_id", "0x13"},
                        {"cid.product_name", "'SIM064'"},
                        {"cid.product_revision", "0x10"},
                        {"cid.serial_number", "0x1234ABCD"},
                        {"firmware.revision", "'FW000002'"}},
                       overrides);
}

Texts Words(const std::string& text) {
    std::istringstream stream(text);
    return {std::istream_iterator<std::string>(stream), {}};
}

// The value of "name=value" in a call's arguments.
std::string Argument(const CallEntry& call, const std::string& name) {
    for (const std::string& word : Words(call.arguments)) {
        if (word.rfind(name + "=", 0) == 0) {
            return word.substr(name.size() + 1);
        }
    }
    return "";
}

} // namespace

std::string GkiPhone(const Keys& overrides) {
    return EmmcPhone("'gki'", overrides);
}

std::string NormalPhone(const Keys& overrides) {
    return EmmcPhone("'normal'", overrides);
}

std::string UfsPhone(const Keys& overrides) {
    return Description({{"technology", "'ufs'"},
                        {"manfid", "\"0x0001ce\\n\""},
                        {"product_name", "\"SIMUFS128G-B0B1 \\n\""},
                        {"revision", "'0800'"},
                        {"clock", "2026-03-07T09:05:02.041"},
                        {"firmware.revision", "'0900'"}},
                       overrides);
}

std::string With(std::string entry, Field field, const std::string& value) {
    return entry.replace(field.offset, field.size, (value + std::string(16, '\0')), 0, field.size);
}

std::string BigEndian32(uint32_t number) {
    std::string bytes;
    for (const int shift : {24, 16, 8, 0}) {
        bytes += static_cast<char>(number >> shift);
    }
    return bytes;
}

std::string Body(size_t size) {
    std::string body(size, '\0');
    uint32_t state = 1;
    for (char& byte : body) {
        state = state * 1664525 + 1013904223;
        byte = static_cast<char>(state >> 24 | 0x80); // no ASCII
    }
    return body;
}

std::string EmmcEntry(const std::string& rev, const std::string& body) {
    std::string entry = "EMMC" + std::string(44, '\0');
    entry = With(entry, EMMC_MID_FIELD, "\x13");
    entry = With(entry, EMMC_PNM_FIELD, EMMC_PNM);
    entry = With(entry, EMMC_REV_FIELD, "\x08");
    entry = With(entry, EMMC_FW_REV_FIELD, rev);
    entry = With(entry, EMMC_SIZE_FIELD, BigEndian32(static_cast<uint32_t>(body.size())));
    entry = With(entry, EMMC_BASE_FIELD, std::string(16, '\xFF'));
    return entry + body;
}

std::string UfsEntry(const std::string& rev, const std::string& body) {
    std::string entry = "UFSM" + std::string(60, '\0');
    entry = With(entry, UFS_MID_FIELD, UFS_MID);
    entry = With(entry, UFS_PNM_FIELD, UFS_PNM);
    entry = With(entry, UFS_REV_FIELD, rev);
    entry = With(entry, UFS_SIZE_FIELD, BigEndian32(static_cast<uint32_t>(body.size())));
    entry = With(entry, UFS_BASE_FIELD, std::string(16, '\xFF'));
    return entry + body;
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
    std::ofstream(file) << description;
    std::string error;
    ASSERT_TRUE(MakePhone(file, directory, error)) << error;
    for (const auto& [path, content] : files) {
        Put(path, content);
    }
}

std::string PhoneTest::Path(const std::string& file) const {
    return directory + file;
}

void PhoneTest::Put(const std::string& file, const std::string& content) const {
    if (content == MISSING) {
        fs::remove_all(Path(file));
        return;
    }
    fs::create_directories(fs::path(Path(file)).parent_path());
    std::ofstream stream(Path(file), std::ios::binary);
    ASSERT_TRUE(stream << content << std::flush) << file;
}

std::string PhoneTest::Get(const std::string& file) const {
    std::string content;
    return ReadWholeFile(Path(file), content) ? content : MISSING;
}

Files PhoneTest::State() const {
    Files files;
    std::error_code missing;
    for (const auto& entry : fs::directory_iterator(Path(STATE), missing)) {
        const std::string name = entry.path().filename();
        files[name] = Get(std::string(STATE).append("/").append(name)); // MISSING: a directory
    }
    return files;
}

std::string PhoneTest::Left() const {
    std::string names;
    for (const auto& [name, content] : State()) {
        names.append(names.empty() ? "" : " ").append(name);
    }
    return names;
}

RunResult PhoneTest::Run(const Texts& faults, const std::string& tool) const {
    RunOptions options;
    std::copy_if(faults.begin(), faults.end(), std::back_inserter(options.faults),
                 [](const std::string& fault) { return !fault.empty(); });
    options.launcher = Words(FFU_LAUNCHER);
    options.libsimphone = SIMPHONE_LIBRARY;
    RunResult result = RunTool(directory, tool, options);
    EXPECT_EQ(result.error, "");
    EXPECT_EQ(result.signal, 0) << result.errors;
    EXPECT_FALSE(result.timedOut);
    ExpectAllGivenBack(result);
    return result;
}

void PhoneTest::Reboot() const {
    std::string error;
    ASSERT_TRUE(RebootPhone(directory, error)) << error;
}

std::string ConsoleText(const RunResult& result) {
    const std::string stamp = "[0000-00-00 00:00:00 000] ";
    const auto fits = [](char c, char pattern) {
        return pattern == '0' ? isdigit(static_cast<unsigned char>(c)) != 0 : pattern == c;
    };
    std::string text;
    for (auto at = result.console.begin(); at != result.console.end();) {
        const auto end = std::search(at, result.console.end(), stamp.begin(), stamp.end(), fits);
        text.append(at, end);
        at = end == result.console.end() ? end : end + static_cast<ptrdiff_t>(stamp.size());
    }
    return text;
}

Texts Console(const RunResult& result) {
    std::istringstream stream(ConsoleText(result));
    Texts lines;
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

Texts SystemLog(const RunResult& result) {
    Texts texts;
    for (const SystemLogEntry& entry : result.systemLog) {
        EXPECT_EQ(entry.priority, 6) << entry.text;
        EXPECT_EQ(entry.tag, "-") << entry.text;
        texts.push_back(entry.text);
    }
    return texts;
}

Texts Requests(const RunResult& result) {
    Texts texts;
    for (const DeviceRequest& request : result.requests) {
        texts.push_back(request.text);
    }
    return texts;
}

std::string Steps(const RunResult& result) {
    const std::string start = "FFU process ";
    std::string steps;
    for (const std::string& text : SystemLog(result)) {
        EXPECT_EQ(text.substr(0, start.size()), start);
        steps += text.substr(std::min(start.size(), text.size()));
    }
    return steps;
}

void ExpectEnd(const std::string& text, const std::string& end) {
    EXPECT_EQ(text.substr(text.size() - std::min(text.size(), end.size())), end);
}

Texts Tail(const Texts& log, size_t count) {
    return {log.end() - static_cast<ptrdiff_t>(std::min(count, log.size())), log.end()};
}

long Count(const Texts& log, const std::string& text) {
    return std::count_if(log.begin(), log.end(), [&](const std::string& entry) {
        return entry.find(text) != std::string::npos;
    });
}

void ExpectAllGivenBack(const RunResult& result) {
    const Keys acquiring = {
        {"open", "fd"},     {"creat", "fd"},      {"fopen", "stream"},       {"mmap", "map"},
        {"calloc", "heap"}, {"memalign", "heap"}, {"posix_memalign", "heap"}};
    const Keys giving = {
        {"close", "fd"}, {"fclose", "stream"}, {"munmap", "map"}, {"free", "heap"}};
    std::set<std::string> held;
    for (const CallEntry& call : result.calls) {
        const std::string pointer = Argument(call, "pointer");
        const auto acquired = acquiring.find(call.function);
        const auto given = giving.find(call.function);
        if (acquired != acquiring.end() && call.error.empty() && call.result != "(nil)") {
            const std::string what = acquired->second + (pointer.empty() ? call.result : pointer);
            EXPECT_TRUE(held.insert(what).second) << what << " at call " << call.number;
        }
        if (given != giving.end() && pointer != "(nil)") {
            const std::string what = given->second + Argument(call, "fd") + pointer;
            EXPECT_EQ(held.erase(what), 1U) << what << " at call " << call.number;
        }
    }
    EXPECT_TRUE(held.empty()) << *held.begin() << " is not given back";
}
