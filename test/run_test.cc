// The course of a run: which flags, records and messages each ending leaves. A failure here means
// that an observer of the state directory would be told something else than what happened.
#include "test/phone.h"

namespace {

class RunTest : public PhoneTest {};

TEST_F(RunTest, UpdatedPhoneRunsItsNewFirmwareAfterARestart) {
    Make(GkiPhone());
    Put(EMMC_PACKAGE, EmmcEntry());
    EXPECT_EQ(Run().exitStatus, 0);
    EXPECT_EQ(State().count("ffu.ok"), 1U);
    Reboot();
    const RunResult second = Run();
    EXPECT_EQ(second.exitStatus, 0);
    EXPECT_EQ(Tail(SystemLog(second), 1),
              Texts{"FFU process CheckFwBin: local fw rev FW000002 is as new as fwBin\n"});
    EXPECT_EQ(Requests(second), Texts());
}

} // namespace
