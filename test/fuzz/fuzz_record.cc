// The record of attempts, read back from any file. First stands the package's revision, behind its
// length; the rest is the record.
#include "fuzz_phone.h"
#include "run/result_record.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const FuzzPhone phone("ufs-phone.toml");
    std::string_view record(reinterpret_cast<const char*>(data), size);
    const std::string fwBinRev = std::string(Take(record).substr(0, REV_SIZE)).c_str();
    phone.Put(RESULT_FILE, record);

    phone.Attach();
    const int result = CheckResultFile(fwBinRev.c_str());
    simphone_detach();
    Require(result >= -1 && result <= 1, "a verdict");
    // What was attempted stands in the record, word for word.
    Require(result != 1 || record.find(TARGET_REV_KEY + fwBinRev) != std::string::npos,
            "only a revision on record has been attempted");
    Require(phone.Get(RESULT_FILE) == record, "reading changes nothing");
    return 0;
}
