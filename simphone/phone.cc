// Makes and restarts a simulated phone. Called by the simphone command, fwlab and the tests.
#include "simphone/phone.h"

#include "simphone/device/device.h"
#include "simphone/files.h"
#include "simphone/text.h"

#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

// In a phone at the root of this machine's files, the tool would take this machine for it.
void RequirePlace(const std::string& directory) {
    std::error_code status;
    if (directory.empty() || fs::weakly_canonical(directory, status) == "/") {
        throw std::runtime_error(Quoted(directory) + ": is no place for a phone");
    }
}

void Put(const std::string& path, const std::string& content) {
    std::error_code status; // if it fails, so does the file
    fs::create_directories(fs::path(path).parent_path(), status);
    WriteWholeFile(path, content);
}

// The register and the node that show an eMMC device's revision, or a UFS device's node.
void PutRevision(const Phone& phone, const std::string& revision, std::string extCsd) {
    const auto& [directory, description] = phone;
    if (description.ufs) {
        Put(directory + "/proc/bootdevice/rev", revision + "\n");
        return;
    }
    extCsd.replace(EXT_CSD_FIRMWARE_VERSION, 8, revision + std::string(8 - revision.size(), '\0'));
    Put(directory + "/device/ext_csd.bin", extCsd);
    if (description.gki) {
        Put(directory + "/proc/bootdevice/ext_csd", Hex(extCsd.data(), extCsd.size()));
    }
}

void PutEmmc(const Phone& phone) {
    const auto& [directory, description] = phone;
    Put(directory + "/dev/block/mmcblk0", "");
    Put(directory + "/proc/bootdevice/product_name", description.productName + "\n");
    Put(directory + CID_NODE, Hex(description.cid, sizeof(description.cid)) + "\n");
    if (description.gki) {
        Put(directory + "/proc/bootdevice/ffu", "");
    }
}

void PutUfs(const Phone& phone) {
    const auto& [directory, description] = phone;
    Put(directory + "/dev/block/sdc", "");
    Put(directory + "/proc/devices", "Block devices:\n  8 sd\n"); // for libsgutils2
    Put(directory + "/proc/bootdevice/manfid", description.manfid);
    Put(directory + "/proc/bootdevice/product_name", description.productName);
}

} // namespace

void MakePhone(const Phone& phone) {
    const auto& [directory, description] = phone;
    const std::string file = directory + "/phone.toml";
    std::error_code status;
    RequirePlace(directory);
    if (fs::exists(directory, status) && !fs::is_empty(directory, status)) {
        throw std::runtime_error(directory + ": is there and not an empty directory");
    }
    // Of two that make a phone in one place at one time, one finds this file.
    fs::create_directories(directory, status);
    const int claim = open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (claim < 0) {
        throw FailureOf(file);
    }
    close(claim);
    for (const char* folder : {"/vendor/firmware", "/data/vendor", "/splash2", "/tmp", "/device"}) {
        if (fs::create_directories(directory + folder, status); status) {
            throw std::system_error(status, directory + folder);
        }
    }
    std::string extCsd(EXT_CSD_SIZE, '\0');
    extCsd[EXT_CSD_REV] = static_cast<char>(description.extCsdRev);
    Put(file, description.text);
    (description.ufs ? PutUfs : PutEmmc)(phone);
    PutRevision(phone, description.revision, extCsd);
}

Phone OpenPhone(const std::string& directory) {
    const std::string file = directory + "/phone.toml";
    std::error_code status;
    RequirePlace(directory);
    if (fs::is_directory(directory, status) && !fs::exists(file, status) && !status) {
        throw std::runtime_error(directory + ": is no phone: there is no phone.toml in it");
    }
    return {directory, ReadDescription(file)};
}

void PutPackage(const Phone& phone, const std::string& packageFile) {
    std::error_code status;
    const std::string place = phone.directory + "/vendor/firmware/" +
                              (phone.description.ufs ? "ufs_emer_fw.bin" : "emmc_emer_fw.bin");
    if (fs::copy_file(packageFile, place, fs::copy_options::overwrite_existing, status); status) {
        throw std::system_error(status, packageFile + ", copied to " + place);
    }
}

void RebootPhone(const Phone& phone) {
    const std::string device = phone.directory + "/device";
    std::error_code status;
    if (fs::exists(device + "/pending", status)) {
        const std::string file = device + "/ext_csd.bin";
        std::string extCsd;
        if (!phone.description.ufs &&
            (!ReadWholeFile(file, extCsd) || extCsd.size() != EXT_CSD_SIZE)) {
            throw std::runtime_error(file + ": is not 512 bytes that can be read");
        }
        PutRevision(phone, phone.description.firmwareRevision, extCsd);
        fs::rename(device + "/downloaded.bin", device + "/running.bin", status);
    } else if (!status) {
        fs::remove(device + "/downloaded.bin", status);
    }
    if (!status) {
        fs::remove(device + "/pending", status);
    }
    if (status) {
        throw std::system_error(status, device);
    }
}
