// Reads a phone for people. Nothing of it is changed; what cannot be read is said in its place.
#include "simphone/show.h"

#include "simphone/device/device.h"
#include "simphone/files.h"
#include "simphone/text.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <openssl/sha.h>
#include <set>
#include <sstream>
#include <vector>

namespace fs = std::filesystem;

namespace {

// What a person can read of a state file: its lines, or what tells the images that runs copy apart.
std::string StateFileText(const fs::path& file) {
    std::string content, text;
    if (!ReadWholeFile(file, content)) {
        return std::string("      ") + strerror(errno) + "\n";
    }
    const std::string name = file.filename();
    if (name != "fw_result" && name.rfind("ffu.", 0) != 0) {
        unsigned char digest[SHA256_DIGEST_LENGTH];
        SHA256(reinterpret_cast<const unsigned char*>(content.data()), content.size(), digest);
        return "      " + std::to_string(content.size()) + " bytes, sha256 " +
               Hex(digest, sizeof(digest)) + "\n";
    }
    std::istringstream lines(content);
    for (std::string line; std::getline(lines, line);) {
        text += "      " + Escaped(line) + "\n";
    }
    return text;
}

} // namespace

std::string ShowPhone(const Phone& phone) {
    const auto& [directory, description] = phone;
    std::string content;
    std::string text = description.ufs   ? "UFS phone\n"
                       : description.gki ? "eMMC phone, GKI mode\n"
                                         : "eMMC phone\n";
    const char* product = "/proc/bootdevice/product_name";
    const auto nodes = description.ufs
                           ? std::vector{"/proc/bootdevice/manfid", product, "/proc/bootdevice/rev"}
                           : std::vector{product, CID_NODE};
    for (const std::string node : nodes) {
        const bool isRead = ReadWholeFile(directory + node, content);
        text += "  " + node + ": " + (isRead ? Escaped(content) : strerror(errno)) + "\n";
    }
    if (!description.ufs) {
        const bool isWhole = ReadWholeFile(directory + "/device/ext_csd.bin", content) &&
                             content.size() == EXT_CSD_SIZE;
        text +=
            "  EXT_CSD FIRMWARE_VERSION: " +
            (isWhole ? Escaped(content.substr(EXT_CSD_FIRMWARE_VERSION, 8)) : "cannot be read") +
            "\n";
    }
    std::error_code status;
    const bool isPending = fs::exists(directory + "/device/pending", status);
    text += "  pending at the next restart: " +
            (isPending ? Escaped(description.firmwareRevision) : "nothing") +
            "\n  /data/vendor/fw:\n";
    const fs::directory_iterator entries(directory + "/data/vendor/fw", status);
    for (const fs::path& file : std::set<fs::path>(entries, {})) {
        text += "    " + Escaped(file.filename()) + "\n" + StateFileText(file);
    }
    return text;
}
