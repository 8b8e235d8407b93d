// Makes, restarts and reads a simulated phone. Called by the simphone command, fwlab and the tests.
#include "simphone/phone.h"

#include "simphone/description.h"
#include "simphone/files.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sstream>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr char CID_NODE[] = "/sys/class/mmc_host/mmc0/mmc0:0001/cid";
constexpr size_t FIRMWARE_VERSION = 254; // JEDEC EXT_CSD, 8 bytes
constexpr size_t EXT_CSD_REV = 192;      // JEDEC EXT_CSD

bool Put(const std::string& path, const std::string& content, std::string& error) {
    std::error_code status;
    fs::create_directories(fs::path(path).parent_path(), status);
    if (!WriteWholeFile(path, content.data(), content.size())) {
        error = path + ": " + strerror(errno);
        return false;
    }
    return true;
}

// The register and the node that show an eMMC device's revision, or a UFS device's node.
bool PutRevision(const std::string& directory, const Description& phone,
                 const std::string& revision, std::string& extCsd, std::string& error) {
    if (phone.ufs) {
        return Put(directory + "/proc/bootdevice/rev", revision + "\n", error);
    }
    extCsd.replace(FIRMWARE_VERSION, 8, revision + std::string(8 - revision.size(), '\0'));
    return Put(directory + "/device/ext_csd.bin", extCsd, error) &&
           (!phone.gki ||
            Put(directory + "/proc/bootdevice/ext_csd", Hex(extCsd.data(), extCsd.size()), error));
}

bool PutEmmc(const std::string& directory, const Description& phone, std::string& error) {
    const std::string cid = Hex(phone.cid, sizeof(phone.cid)) + "\n";
    return Put(directory + "/dev/block/mmcblk0", "", error) &&
           Put(directory + "/proc/bootdevice/product_name", phone.productName + "\n", error) &&
           Put(directory + CID_NODE, cid, error) &&
           (!phone.gki || Put(directory + "/proc/bootdevice/ffu", "", error));
}

bool PutUfs(const std::string& directory, const Description& phone, std::string& error) {
    return Put(directory + "/dev/block/sdc", "", error) &&
           Put(directory + "/proc/devices", "Block devices:\n  8 sd\n", error) && // for libsgutils2
           Put(directory + "/proc/bootdevice/manfid", phone.manfid, error) &&
           Put(directory + "/proc/bootdevice/product_name", phone.productName, error);
}

} // namespace

bool MakePhone(const std::string& descriptionFile, const std::vector<std::string>& settings,
               const std::string& directory, std::string& error) {
    Description phone;
    std::string text;
    if (!ReadDescription(descriptionFile, settings, phone, error) ||
        !ReadDescriptionText(descriptionFile, settings, text, error)) {
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
    extCsd[EXT_CSD_REV] = static_cast<char>(phone.extCsdRev);
    return Put(directory + "/phone.toml", text, error) &&
           (phone.ufs ? PutUfs : PutEmmc)(directory, phone, error) &&
           PutRevision(directory, phone, phone.revision, extCsd, error);
}

bool PutPackage(const std::string& packageFile, const std::string& directory, std::string& error) {
    Description phone;
    if (!ReadDescription(directory + "/phone.toml", {}, phone, error)) {
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
    if (!ReadDescription(directory + "/phone.toml", {}, phone, error)) {
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
    if (!ReadDescription(directory + "/phone.toml", {}, phone, error)) {
        return false;
    }
    text = phone.ufs ? "UFS phone\n" : phone.gki ? "eMMC phone, GKI mode\n" : "eMMC phone\n";
    for (const std::string node : {"/proc/bootdevice/manfid", "/proc/bootdevice/product_name",
                                   "/proc/bootdevice/rev", CID_NODE}) {
        if (ReadWholeFile(directory + node, content)) {
            text += "  " + node + ": " + Escaped(content) + "\n";
        }
    }
    if (ReadWholeFile(directory + "/device/ext_csd.bin", content) && content.size() == 512) {
        text +=
            "  EXT_CSD FIRMWARE_VERSION: " + Escaped(content.substr(FIRMWARE_VERSION, 8)) + "\n";
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
