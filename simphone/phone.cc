// Makes and restarts a simulated phone. Called by the simphone command, fwlab and the tests.
#include "simphone/phone.h"

#include "simphone/device/device.h"
#include "simphone/files.h"
#include "simphone/text.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

// Whether the name cannot lead to this machine's own files: in a phone at the root, the tool would
// take this machine for it.
bool IsPlace(const std::string& directory, std::string& error) {
    std::error_code status;
    return (!directory.empty() && fs::weakly_canonical(directory, status) != "/") ||
           Failed(error, Quoted(directory) + ": is no place for a phone");
}

bool Put(const std::string& path, const std::string& content, std::string& error) {
    std::error_code status;
    fs::create_directories(fs::path(path).parent_path(), status);
    if (!WriteWholeFile(path, content.data(), content.size())) {
        return Failed(error, path + ": " + strerror(errno));
    }
    return true;
}

// The register and the node that show an eMMC device's revision, or a UFS device's node.
bool PutRevision(const std::string& directory, const Description& phone,
                 const std::string& revision, std::string& extCsd, std::string& error) {
    if (phone.ufs) {
        return Put(directory + "/proc/bootdevice/rev", revision + "\n", error);
    }
    extCsd.replace(EXT_CSD_FIRMWARE_VERSION, 8, revision + std::string(8 - revision.size(), '\0'));
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

bool MakePhone(const Description& phone, const std::string& directory, std::string& error) {
    std::error_code status;
    if (!IsPlace(directory, error)) {
        return false;
    }
    if (fs::exists(directory, status) && !fs::is_empty(directory, status)) {
        return Failed(error, directory + ": is there and not an empty directory");
    }
    // Of two that make a phone in one place at one time, one finds this file.
    fs::create_directories(directory, status);
    const int claim = open((directory + "/phone.toml").c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
    if (claim < 0) {
        return Failed(error, directory + "/phone.toml: " + strerror(errno));
    }
    close(claim);
    for (const char* folder : {"/vendor/firmware", "/data/vendor", "/splash2", "/tmp", "/device"}) {
        if (fs::create_directories(directory + folder, status); status) {
            return Failed(error, directory + folder + ": " + status.message());
        }
    }
    std::string extCsd(EXT_CSD_SIZE, '\0');
    extCsd[EXT_CSD_REV] = static_cast<char>(phone.extCsdRev);
    return Put(directory + "/phone.toml", phone.text, error) &&
           (phone.ufs ? PutUfs : PutEmmc)(directory, phone, error) &&
           PutRevision(directory, phone, phone.revision, extCsd, error);
}

bool OpenPhone(const std::string& directory, Phone& phone, std::string& error) {
    const std::string file = directory + "/phone.toml";
    std::error_code status;
    phone.directory = directory;
    if (!IsPlace(directory, error)) {
        return false;
    }
    if (fs::is_directory(directory, status) && !fs::exists(file, status) && !status) {
        return Failed(error, directory + ": is no phone: there is no phone.toml in it");
    }
    return ReadDescription(file, {}, phone.description, error);
}

bool PutPackage(const Phone& phone, const std::string& packageFile, std::string& error) {
    std::error_code status;
    const std::string place = phone.directory + "/vendor/firmware/" +
                              (phone.description.ufs ? "ufs_emer_fw.bin" : "emmc_emer_fw.bin");
    fs::copy_file(packageFile, place, fs::copy_options::overwrite_existing, status);
    error = status ? packageFile + ", copied to " + place + ": " + status.message() : "";
    return !status;
}

bool RebootPhone(const Phone& phone, std::string& error) {
    std::string extCsd;
    const std::string device = phone.directory + "/device";
    std::error_code status;
    const bool isPending = fs::exists(device + "/pending", status);
    if (!isPending && status) {
        return Failed(error, device + ": " + status.message());
    }
    if (isPending && !phone.description.ufs &&
        (!ReadWholeFile(device + "/ext_csd.bin", extCsd) || extCsd.size() != EXT_CSD_SIZE)) {
        return Failed(error, device + "/ext_csd.bin: is not 512 bytes that can be read");
    }
    if (isPending && !PutRevision(phone.directory, phone.description,
                                  phone.description.firmwareRevision, extCsd, error)) {
        return false;
    }
    if (isPending) {
        fs::rename(device + "/downloaded.bin", device + "/running.bin", status);
    } else {
        fs::remove(device + "/downloaded.bin", status);
    }
    if (!status) {
        fs::remove(device + "/pending", status);
    }
    error = status ? device + ": " + status.message() : "";
    return !status;
}
