// A simulated phone inside the fuzzing process. Every target makes one per process and puts its
// input into the phone's files.
#pragma once

#include "simphone/attach.h"
#include "simphone/phone.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
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

    explicit FuzzPhone(const std::string& description) {
        char name[] = "/tmp/ffu-fuzz-XXXXXX";
        directory = std::string(mkdtemp(name)) + "/phone";
        const std::string file = std::string(name) + "/phone.toml";
        std::ofstream(file) << description;
        std::string error;
        Require(MakePhone(file, directory, error), error.c_str());
        std::filesystem::create_directories(directory + "/data/vendor/fw");
    }
    ~FuzzPhone() {
        std::filesystem::remove_all(std::filesystem::path(directory).parent_path());
    }
    FuzzPhone(const FuzzPhone&) = delete;
    FuzzPhone& operator=(const FuzzPhone&) = delete;

    void Put(const std::string& path, std::string_view content) const {
        std::ofstream(directory + path, std::ios::binary) << content;
    }
    void Attach() const {
        Require(simphone_attach(directory.c_str(), nullptr) == 0, "the phone attaches");
    }
};

constexpr char EMMC_PHONE[] = R"(technology = "emmc"
mode = "gki"
revision = "FW000001"
ext_csd_rev = 8
cid = { manufacturer_id = 0x13, product_name = "SIM064", product_revision = 1, serial_number = 1 }
firmware = { revision = "FW000002" }
)";
constexpr char UFS_PHONE[] = R"(technology = "ufs"
manfid = "0x0001ce"
product_name = "SIMUFS128G-B0B1 "
revision = "0800"
firmware = { revision = "0900" }
)";
