// The record of attempts, read back from any file. The first byte is the length of the package's
// revision that follows it, the rest is the record.
#include "fuzz_phone.h"
#include "run/result_record.h"

#include <algorithm>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const FuzzPhone phone(UFS_PHONE);
    std::string input(reinterpret_cast<const char*>(data), size);
    const size_t revSize = input.empty() ? 0 : std::min<size_t>(input[0] & 7, size - 1);
    const std::string fwBinRev = input.substr(std::min<size_t>(1, size), revSize).c_str();
    const std::string record = input.substr(std::min(size, 1 + revSize));
    phone.Put(RESULT_FILE, record);

    phone.Attach();
    const int result = CheckResultFile(fwBinRev.c_str());
    simphone_detach();
    Require(result >= -1 && result <= 1, "a verdict");
    // What was attempted stands in the record, word for word.
    Require(result != 1 || record.find(TARGET_REV_KEY + fwBinRev) != std::string::npos,
            "only a revision on record has been attempted");
    std::string after;
    Require(ReadWholeFile(phone.directory + RESULT_FILE, after) && after == record,
            "reading changes nothing");
    return 0;
}
