// Describes a real phone by the nodes that were pulled from it, for match, plan and rehearse.
#include "fwlab/base/json.h"
#include "fwlab/base/output.h"
#include "fwlab/base/toml.h"
#include "fwlab/commands/commands.h"
#include "fwlab/phone/device.h"
#include "simphone/files.h"
#include "simphone/phone.h"
#include "simphone/text.h"

#include "emmc/emmc_device.h"
#include "emmc/emmc_register.h"

#include <charconv>
#include <climits>
#include <filesystem>
#include <fmt/format.h>

namespace fs = std::filesystem;

namespace {

constexpr size_t NODE_SIZE_MAX = 4096; // a page: kernels give no more
constexpr char MAX_HW_SECTORS_KB[] = "/sys/block/sdc/queue/max_hw_sectors_kb";

// A node by its path on the phone. Stop if it is the output, too.
std::string Read(const CaptureOptions& options, const std::string& path) {
    const std::string place = options.folder + path;
    std::error_code error;
    const bool isRegular = fs::is_regular_file(fs::symlink_status(place, error));
    Require(isRegular, 2, place + ": " + (error ? error.message() : "is no regular file"));
    Require(fs::file_size(place) <= NODE_SIZE_MAX, 2, place + ": is larger than any node");
    std::string content = WholeFile(place);
    const size_t size = content.size();
    Require(size == 1 || (size > 1 && content.compare(size - 2, 2, "\r\n") != 0), 1,
            place + ": is empty or ends with a carriage return, as no node does: take it by `adb "
                    "exec-out cat`, which keeps every byte");
    RequireOther(options.output, place);
    return content;
}

std::string WithoutLineFeed(std::string text) {
    text.resize(text.size() - (text.back() == '\n' ? 1 : 0));
    return text;
}

// The bytes of so many hexadecimal digits. Stop if it is anything else.
std::string Unhex(const std::string& text, size_t size, const char* name) {
    const std::string digits = WithoutLineFeed(text);
    Require(digits.size() == 2 * size &&
                digits.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos,
            1, fmt::format("{} is not {} hexadecimal digits", name, 2 * size));
    std::string bytes;
    for (size_t i = 0; i < digits.size(); i += 2) {
        bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    }
    return bytes;
}

std::string Line(const char* key, const std::string& value) {
    return fmt::format("{} = {}\n", key, value);
}

std::string Number(const std::string& bytes, size_t at, size_t size = 1) {
    return "0x" + Hex(&bytes[at], size);
}

std::string DescribeEmmc(const CaptureOptions& options) {
    const char* mode = options.kind == "emmc-gki" ? "gki" : "normal";
    std::string extCsd = Read(options, "/proc/bootdevice/ext_csd");
    if (extCsd.size() != EXT_CSD_SIZE) { // not the register itself
        extCsd = Unhex(extCsd, EXT_CSD_SIZE, "ext_csd");
    }
    const std::string cid = Unhex(Read(options, CID_NODE), CID_SIZE, "cid");
    // The phone reads as many bytes of the node as the register has.
    const std::string own = cid.substr(CID_PNM, sizeof(EmmcFwHeader::emmcPnm)),
                      name = Read(options, "/proc/bootdevice/product_name").substr(0, own.size());
    Require(name == own, 1,
            fmt::format("product_name is {}, but the CID has {}: no description can have both",
                        Quoted(name), Quoted(own)));
    std::string revision = extCsd.substr(EXT_CSD_FIRMWARE_VERSION, EMMC_REV_SIZE);
    revision.resize(revision.find_last_not_of('\0') + 1); // zero bytes fill it up
    return Line("technology", "\"emmc\"") + Line("mode", TomlBytes(mode)) +
           Line("revision", TomlBytes(revision)) +
           Line("ext_csd_rev", Number(extCsd, EXT_CSD_REV)) + "\n[cid]\n" +
           Line("manufacturer_id", Number(cid, CID_MID)) + Line("cbx", Number(cid, 1)) +
           Line("oem_id", Number(cid, 2)) + Line("product_name", TomlBytes(own)) +
           Line("product_revision", Number(cid, CID_PRV)) +
           Line("serial_number", Number(cid, CID_PSN, 4)) +
           Line("manufacturing_date", Number(cid, 14)) + Line("crc", Number(cid, 15));
}

std::string DescribeUfs(const CaptureOptions& options) {
    const std::string rev = Read(options, "/proc/bootdevice/rev");
    Require(rev.size() >= UFS_REV_SIZE, 1,
            fmt::format("rev has {} bytes: the phone reads 4, and stops without them", rev.size()));
    // A simulated phone's node has a line feed behind the revision.
    std::string text =
        Line("technology", "\"ufs\"") +
        Line("manfid", TomlBytes(Read(options, "/proc/bootdevice/manfid"))) +
        Line("product_name", TomlBytes(Read(options, "/proc/bootdevice/product_name"))) +
        Line("revision", TomlBytes(WithoutLineFeed(rev.substr(0, UFS_REV_SIZE))));
    if (fs::exists(options.folder + MAX_HW_SECTORS_KB)) {
        const std::string number = WithoutLineFeed(Read(options, MAX_HW_SECTORS_KB));
        int kilobytes = 0;
        const char* end = number.data() + number.size();
        const bool isWhole = std::from_chars(number.data(), end, kilobytes).ptr == end;
        Require(isWhole && kilobytes > 0 && kilobytes <= INT_MAX / 1024, 1,
                "max_hw_sectors_kb is no number of KiB: " + Quoted(number));
        text += Line("max_hw_sectors_kb", std::to_string(kilobytes));
    }
    return text;
}

// The bytes of the option --firmware-revision.
std::string FirmwareRevision(const std::string& option, bool isUfs) {
    std::string revision;
    const size_t least = isUfs ? UFS_REV_SIZE : 1, most = isUfs ? UFS_REV_SIZE : EMMC_REV_SIZE;
    Require(Unescape(option, revision) && revision.size() >= least && revision.size() <= most, 2,
            fmt::format(R"(--firmware-revision {}: is not {} bytes (\n, \\ or \xHH each))", option,
                        isUfs ? "4" : "1 to 8"));
    return revision;
}

} // namespace

int Capture(const CaptureOptions& options, bool asJson) {
    const bool isUfs = options.kind == "ufs";
    const std::string next = FirmwareRevision(options.firmwareRevision, isUfs);
    const std::string described = (isUfs ? DescribeUfs : DescribeEmmc)(options);
    WriteOutput(options.output,
                "# A phone, made by `fwlab capture` from its nodes.\n" + described +
                    "\n# What the phone reports after an update; its nodes do not tell.\n"
                    "[firmware]\n" +
                    Line("revision", TomlBytes(next)));
    const Description phone = ReadDescription(options.output);
    const Json report = {{"phone", Escaped(options.output)},
                         {"kind", options.kind},
                         {"product_name", Escaped(phone.productName)},
                         {"revision", Escaped(phone.revision)}};
    Show(asJson, report, [&] { fmt::print("{}: {}\n", Escaped(options.output), Title(phone)); });
    return 0;
}
