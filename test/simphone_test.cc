// The simulated device refuses what a device would refuse: a tool that sends it cannot pass its
// rehearsal.
#include "test/phone.h"

namespace {

class SimphoneTest : public PhoneTest {};

TEST_F(SimphoneTest, EmmcDriverRefusesOddRequests) {
    Make(NormalPhone());
    EXPECT_EQ(Run({}, ODD_REQUESTS_PATH).console, "install before download: EINVAL\n"
                                                  "download as a read: EINVAL\n"
                                                  "download of no block: EINVAL\n"
                                                  "download without data: EFAULT\n"
                                                  "block size: EINVAL\n"
                                                  "flags: EINVAL\n"
                                                  "argument: EINVAL\n"
                                                  "application command: EINVAL\n"
                                                  "SWITCH: EINVAL\n"
                                                  "EXT_CSD as a write: EINVAL\n"
                                                  "download on a read-only descriptor: EPERM\n"
                                                  "download: taken\n"
                                                  "install with data: EINVAL\n"
                                                  "install: taken\n");
}

// SPC: key 5 is ILLEGAL REQUEST; ASC 20 operation code, 24 field in CDB, 1A parameter list length.
TEST_F(SimphoneTest, UfsDeviceRefusesOddCommands) {
    Make(UfsPhone());
    EXPECT_EQ(Run({}, ODD_REQUESTS_PATH).console, "operation code: status 2 key 5 ASC 20\n"
                                                  "mode: status 2 key 5 ASC 24\n"
                                                  "mode specific: status 2 key 5 ASC 24\n"
                                                  "buffer ID: status 2 key 5 ASC 24\n"
                                                  "buffer offset: status 2 key 5 ASC 24\n"
                                                  "control: status 2 key 5 ASC 24\n"
                                                  "command length: status 2 key 5 ASC 24\n"
                                                  "parameter list length: status 2 key 5 ASC 1a\n"
                                                  "direction: status 2 key 5 ASC 1a\n"
                                                  "no data: EFAULT\n"
                                                  "interface: EINVAL\n"
                                                  "in order: status 0 key 0 ASC 00\n");
}

} // namespace
