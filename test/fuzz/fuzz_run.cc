// Whole runs: any nodes, any record, any package, on an eMMC phone (GKI mode) or a UFS phone. The
// first byte chooses; then stand, each behind its length, the nodes and the record; the rest is the
// package.
#include "fuzz_phone.h"
#include "run/result_record.h"
#include "run/state_flags.h"
#include "run/update_run.h"
#include "simphone/journal.h"

#include <algorithm>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const FuzzPhone phones[] = {FuzzPhone("emmc-phone.toml"), FuzzPhone("ufs-phone.toml")};
    if (size == 0) {
        return 0;
    }
    const bool ufs = (data[0] & 1) != 0;
    const FuzzPhone& phone = phones[ufs ? 1 : 0];
    std::string_view input(reinterpret_cast<const char*>(data) + 1, size - 1);
    phone.Put("/proc/bootdevice/product_name", Take(input));
    if (ufs) {
        phone.Put("/proc/bootdevice/manfid", Take(input));
        phone.Put("/proc/bootdevice/rev", Take(input));
    } else {
        phone.Put("/sys/class/mmc_host/mmc0/mmc0:0001/cid", Take(input));
    }
    const std::string_view record = Take(input);
    std::filesystem::remove(phone.directory + RESULT_FILE);
    if (!record.empty()) {
        phone.Put(RESULT_FILE, record);
    }
    phone.Put(ufs ? UFS_FW_PACKAGE : EMMC_FW_PACKAGE, input);

    phone.Attach();
    const int status = UpdateRun();
    simphone_detach();
    Require(status == 0, "the run ends with 0");
    const Journal journal = ReadJournal(phone.directory);
    // Not so where another library, such as a sanitizer's, takes the calls before the phone.
    const auto isRead = [](const CallEntry& call) { return call.function == "read"; };
    Require(std::any_of(journal.calls.begin(), journal.calls.end(), isRead),
            "the product name is read from the phone");
    const auto isDownload = [ufs](const CallEntry& call) {
        return call.request && call.request->kind ==
                                   (ufs ? RequestKind::SCSI_WRITE_BUFFER : RequestKind::GKI_WRITE);
    };
    Require(std::count_if(journal.calls.begin(), journal.calls.end(), isDownload) <= 1,
            "one download");
    Require(phone.Get(RESULT_FILE).compare(0, record.size(), record) == 0, "the record only grows");
    return 0;
}
