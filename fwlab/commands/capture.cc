// Describes a real phone by the nodes that were pulled from it, for match, plan and rehearse.
#include "fwlab/base/json.h"
#include "fwlab/base/output.h"
#include "fwlab/base/toml_text.h"
#include "fwlab/commands/commands.h"
#include "fwlab/phone/device.h"
#include "simphone/files.h"
#include "simphone/text.h"

#include <cerrno>
#include <climits>
#include <filesystem>
#include <fmt/format.h>

namespace fs = std::filesystem;

namespace {

constexpr size_t NODE_SIZE_MAX = 4096; // a page: kernels give no more
constexpr size_t CID_SIZE = 16, EXT_CSD_SIZE = 512;
constexpr size_t EXT_CSD_REV = 192, EXT_CSD_FIRMWARE_VERSION = 254; // JEDEC

const char PRODUCT_NAME[] = "/proc/bootdevice/product_name", MANFID[] = "/proc/bootdevice/manfid",
           REV[] = "/proc/bootdevice/rev", EXT_CSD[] = "/proc/bootdevice/ext_csd",
           CID[] = "/sys/class/mmc_host/mmc0/mmc0:0001/cid",
           MAX_HW_SECTORS_KB[] = "/sys/block/sdc/queue/max_hw_sectors_kb";

// Where the folder has a file of the phone: under its name alone, or under its path. Empty: not at
// all.
std::string PlaceOf(const std::string& folder, const std::string& path) {
    const std::string flat = folder + path.substr(path.rfind('/')), full = folder + path;
    const auto isThere = [](const std::string& place) {
        std::error_code error;
        const fs::file_status status = fs::symlink_status(place, error);
        if (status.type() == fs::file_type::none) {
            throw Stop{2, place + ": " + error.message()};
        }
        return fs::exists(status);
    };
    const bool isFlat = isThere(flat), isFull = isThere(full);
    if (isFlat && isFull) {
        throw Stop{2, flat + " and " + full + ": keep only one"};
    }
    return isFlat ? flat : isFull ? full : "";
}

std::string Content(const std::string& place) {
    std::error_code error;
    if (!fs::is_regular_file(fs::symlink_status(place, error))) {
        throw Stop{2, place + ": is no regular file"};
    }
    if (fs::file_size(place, error) > NODE_SIZE_MAX || error) {
        throw Stop{2, place + ": is larger than any node"};
    }
    std::string content;
    if (!ReadWholeFile(place, content)) {
        throw FailureAt(place, errno);
    }
    const char* exact = ": take it by `adb exec-out cat`, which keeps every byte";
    if (content.empty()) {
        throw Stop{1, place + ": is empty" + exact};
    }
    const bool hasCarriageReturn =
        content.size() > 1 && content.compare(content.size() - 2, 2, "\r\n") == 0;
    if (hasCarriageReturn) {
        throw Stop{1,
                   place + ": ends with a carriage return and a line feed; nodes never do" + exact};
    }
    return content;
}

// The nodes that were pulled.
struct Nodes {
    std::string folder;
    Texts places; // that were read
    bool Has(const std::string& path) const {
        return !PlaceOf(folder, path).empty();
    }
    std::string Read(const std::string& path) {
        const std::string place = PlaceOf(folder, path);
        if (place.empty()) {
            throw Stop{1, folder + ": has no " + path.substr(path.rfind('/') + 1) +
                              " (the phone's " + path + ")"};
        }
        places.push_back(place);
        return Content(place);
    }
};

// The bytes of so many hexadecimal digits, which only a line feed may follow; empty if it is
// anything else.
std::string Unhex(const std::string& text, size_t size) {
    const std::string digits = text.substr(0, text.find('\n'));
    if (digits.size() != 2 * size || text.size() > digits.size() + 1 ||
        digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
        return "";
    }
    std::string bytes;
    for (size_t i = 0; i < digits.size(); i += 2) {
        bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    }
    return bytes;
}

bool IsUfs(const Nodes& nodes, const std::string& technology) {
    if (!technology.empty()) {
        return technology == "ufs";
    }
    const bool isEmmc = nodes.Has(EXT_CSD) || nodes.Has(CID);
    if (!isEmmc && !(nodes.Has(MANFID) && nodes.Has(REV))) {
        throw Stop{1,
                   nodes.folder +
                       ": has neither ext_csd nor cid (eMMC), nor both manfid and rev (UFS): use "
                       "--technology to see which node is missing"};
    }
    return !isEmmc;
}

std::string Line(const char* key, const std::string& value) {
    return fmt::format("{} = {}\n", key, value);
}

std::string Number(const std::string& bytes, size_t at) {
    return fmt::format("{:#04x}", static_cast<uint8_t>(bytes[at]));
}

std::string DescribeEmmc(Nodes& nodes, const std::string& mode) {
    const std::string text = nodes.Read(EXT_CSD);
    const bool isRaw = text.size() == EXT_CSD_SIZE;
    const std::string extCsd = isRaw ? text : Unhex(text, EXT_CSD_SIZE);
    if (extCsd.empty()) {
        throw Stop{1, "ext_csd is neither 1024 hexadecimal digits nor 512 bytes"};
    }
    if (isRaw && mode.empty()) {
        throw Stop{1,
                   "ext_csd is binary, so it is not from the node that GKI mode has: give --mode"};
    }
    const std::string cid = Unhex(nodes.Read(CID), CID_SIZE);
    if (cid.empty()) {
        throw Stop{1, "cid is not 32 hexadecimal digits"};
    }
    // The phone reads as many bytes of the node as the register has.
    const std::string own = cid.substr(3, 6), name = nodes.Read(PRODUCT_NAME).substr(0, own.size());
    if (name != own) {
        throw Stop{
            1, fmt::format("product_name is {}, but the CID has {}: no description can have both",
                           Quoted(name), Quoted(own))};
    }
    std::string revision = extCsd.substr(EXT_CSD_FIRMWARE_VERSION, EMMC_REV_SIZE);
    revision.resize(revision.find_last_not_of('\0') + 1); // zero bytes fill it up
    std::string serial;
    for (size_t at = 10; at < 14; at++) {
        serial += fmt::format("{:02x}", static_cast<uint8_t>(cid[at]));
    }
    return Line("technology", "\"emmc\"") +
           Line("mode", mode.empty() ? "\"gki\"" : TomlBytes(mode)) +
           Line("revision", TomlBytes(revision)) +
           Line("ext_csd_rev", Number(extCsd, EXT_CSD_REV)) + "\n[cid]\n" +
           Line("manufacturer_id", Number(cid, 0)) + Line("cbx", Number(cid, 1)) +
           Line("oem_id", Number(cid, 2)) + Line("product_name", TomlBytes(own)) +
           Line("product_revision", Number(cid, 9)) + Line("serial_number", "0x" + serial) +
           Line("manufacturing_date", Number(cid, 14)) + Line("crc", Number(cid, 15));
}

std::string DescribeUfs(Nodes& nodes) {
    const std::string manfid = nodes.Read(MANFID), name = nodes.Read(PRODUCT_NAME);
    const std::string rev = nodes.Read(REV);
    if (rev.size() < UFS_REV_SIZE) {
        throw Stop{1, fmt::format("rev has {} bytes: the phone reads 4, and stops without them",
                                  rev.size())};
    }
    // A simulated phone's node has a line feed behind the revision.
    std::string revision = rev.substr(0, UFS_REV_SIZE);
    revision.resize(revision.back() == '\n' ? revision.size() - 1 : revision.size());
    std::string text = Line("technology", "\"ufs\"") + Line("manfid", TomlBytes(manfid)) +
                       Line("product_name", TomlBytes(name)) +
                       Line("revision", TomlBytes(revision));
    if (nodes.Has(MAX_HW_SECTORS_KB)) {
        std::string number = nodes.Read(MAX_HW_SECTORS_KB);
        number.resize(number.back() == '\n' ? number.size() - 1 : number.size());
        const bool isNumber = !number.empty() && number.size() < 10 && number[0] != '0' &&
                              number.find_first_not_of("0123456789") == std::string::npos &&
                              std::stol(number) <= INT_MAX / 1024;
        if (!isNumber) {
            throw Stop{1, "max_hw_sectors_kb is no number of KiB: " + Quoted(number)};
        }
        text += Line("max_hw_sectors_kb", number);
    }
    return text;
}

// The record that lies in the phone's state directory; empty if there is none.
std::string RecordOf(const std::string& folder) {
    const std::string state = PlaceOf(folder, "/data/vendor/fw");
    std::error_code error;
    const std::string record = state + "/fw_result";
    const bool isThere = !state.empty() && fs::exists(fs::symlink_status(record, error));
    if (isThere && !fs::is_regular_file(fs::symlink_status(record, error))) {
        throw Stop{2, record + ": is no regular file"};
    }
    return isThere ? record : "";
}

// The bytes of the option --firmware-revision.
std::string FirmwareRevision(const std::string& option, bool isUfs) {
    std::string revision;
    if (!Unescape(option, revision)) {
        throw Stop{2, "--firmware-revision " + option + R"(: a backslash begins \n, \\ or \xHH)"};
    }
    const size_t least = isUfs ? UFS_REV_SIZE : 1, most = isUfs ? UFS_REV_SIZE : EMMC_REV_SIZE;
    if (revision.size() < least || revision.size() > most) {
        throw Stop{2, fmt::format("--firmware-revision has {} bytes, not {}", revision.size(),
                                  isUfs ? "4" : "1 to 8")};
    }
    return revision;
}

// Stop if the output would replace something that was pulled.
void CheckIsNotPulled(const std::string& output, const Nodes& nodes) {
    for (const std::string& place : nodes.places) {
        RequireOther(output, place);
    }
    std::error_code error;
    const fs::path folder = fs::canonical(nodes.folder, error);
    const fs::path place = fs::canonical(output, error); // none if it is not there
    if (!error && place.string().rfind(folder.string() + "/", 0) == 0) {
        throw Stop{2, output + ": exists already, among the files that were pulled"};
    }
}

} // namespace

int Capture(const CaptureOptions& options, bool asJson) {
    std::error_code error;
    if (!fs::is_directory(options.folder, error)) {
        throw Stop{2, options.folder + ": " + (error ? error.message() : "is no folder")};
    }
    Nodes nodes = {options.folder, {}};
    const bool isUfs = IsUfs(nodes, options.technology);
    if (isUfs && !options.mode.empty()) {
        throw Stop{2, "--mode: a UFS phone has none"};
    }
    const std::string next = FirmwareRevision(options.firmwareRevision, isUfs);
    const std::string described = isUfs ? DescribeUfs(nodes) : DescribeEmmc(nodes, options.mode);
    const std::string record = RecordOf(options.folder);
    CheckIsNotPulled(options.output, nodes);
    WriteOutput(options.output,
                "# A phone, made by `fwlab capture` from its nodes.\n" + described +
                    "\n# What the phone reports after an update; its nodes do not tell.\n"
                    "[firmware]\n" +
                    Line("revision", TomlBytes(next)));
    const Description phone = ReadPhone(options.output);
    const Json report = {{"phone", Escaped(options.output)},
                         {"technology", isUfs ? "ufs" : "emmc"},
                         {"mode", isUfs ? Json() : Json(phone.gki ? "gki" : "normal")},
                         {"product_name", Escaped(phone.productName)},
                         {"revision", Escaped(phone.revision)},
                         {"record", record.empty() ? Json() : Json(Escaped(record))}};
    Show(asJson, report, [&] {
        fmt::print("{}: {}\n", Escaped(options.output), Title(phone));
        if (!record.empty()) {
            fmt::print("Its record: fwlab match PACKAGE --phone {} --record {}\n",
                       ShellWord(options.output), ShellWord(record));
        }
    });
    return 0;
}
