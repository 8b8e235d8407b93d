// The workstation tool's readers. The first byte chooses what the rest is: a package, listed or
// matched; a state directory's record; a manifest.
#include "fuzz_phone.h"
#include "fwlab/commands/commands.h"
#include "fwlab/phone/device.h"

#include <stdexcept>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const FuzzPhone phone("ufs-phone.toml");
    if (size == 0) {
        return 0;
    }
    const std::string file = phone.directory + "/input";
    phone.Put("/input", {reinterpret_cast<const char*>(data) + 1, size - 1});
    try {
        const int reader = data[0] % 4;
        if (reader == 0) {
            List(file, (data[0] & 4) != 0);
        } else if (reader == 1) {
            Match(file, ReadDescription(phone.directory + "/phone.toml"), "", (data[0] & 4) != 0);
        } else if (reader == 2) {
            std::filesystem::rename(file, phone.directory + "/data/vendor/fw/fw_result");
            Outcome({{phone.directory + "/data/vendor/fw"}, {}, (data[0] & 8) != 0},
                    (data[0] & 4) != 0);
        } else {
            Pack(file, phone.directory + "/package", false, (data[0] & 4) != 0);
        }
    } catch (const Stop&) {               // a refusal, with its reason
    } catch (const std::runtime_error&) { // the same, of a file
    }
    return 0;
}
