// A simulated phone inside the fuzzing process. Every target makes one per process and puts its
// input into the phone's files.
#pragma once

#include "simphone/files.h"
#include "simphone/phone.h"
#include "simphone/preload/attach.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>

inline void Require(bool condition, const char* what) {
    if (!condition) {
        fprintf(stderr, "not so: %s\n", what);
        abort();
    }
}

struct FuzzPhone {
    std::string directory;

    explicit FuzzPhone(const std::string& description) { // the name of one that ships
        directory = std::filesystem::temp_directory_path() / "ffu-fuzz-XXXXXX";
        Require(mkdtemp(directory.data()) != nullptr, "a directory for the phone");
        directory += "/phone";
        MakePhone({directory, ReadDescription(DESCRIPTIONS "/" + description)});
        std::filesystem::create_directories(directory + "/data/vendor/fw");
    }
    ~FuzzPhone() {
        std::filesystem::remove_all(std::filesystem::path(directory).parent_path());
    }

    void Put(const std::string& path, std::string_view content) const {
        WriteWholeFile(directory + path, content);
    }
    std::string Get(const std::string& path) const { // empty if it is not there
        std::string content;
        (void)!ReadWholeFile(directory + path, content);
        return content;
    }
    void Attach() const {
        Require(simphone_attach(directory.c_str(), nullptr) == 0, "the phone attaches");
    }
};

// Takes a text off the input's beginning, where it stands behind its length.
inline std::string_view Take(std::string_view& input) {
    if (input.empty()) {
        return input;
    }
    const std::string_view taken = input.substr(1, static_cast<unsigned char>(input[0]));
    input.remove_prefix(1 + taken.size());
    return taken;
}
