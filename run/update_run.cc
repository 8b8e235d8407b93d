// The course of a run: state directory, begin flag, device, package check, record, update, outcome,
// end flag. main calls it. A begin flag that stays, without an end flag, tells that a run stopped
// before its regular end.
#include "run/update_run.h"

#include "run/device_info.h"
#include "run/package_check.h"
#include "run/result_record.h"
#include "run/state_flags.h"
#include "run/step.h"
#include "run/update_dispatch.h"

namespace {

// Attempts the update to the package's revision, once. Returns the verdict of the run.
[[nodiscard]] int RecordAndUpdate(const DeviceInfo& device, const char* fwFileRev) {
    int step = CheckResultFile(fwFileRev);
    if (step != STEP_DONE) {
        return step;
    }
    step = WriteResultFile(device.pnm, device.localFwRev, fwFileRev);
    if (step != STEP_DONE) {
        return step;
    }
    step = DoFfu(device.type);
    UpdateResultFlag(step, fwFileRev);
    return step;
}

} // namespace

int UpdateRun() {
    if (CreateResultDir() != 0) {
        return -1;
    }
    if (BeginFlag() != 0) {
        return 0;
    }
    DeviceInfo device = {};
    if (!DetectDevice(device.type) || GetDeviceInfo(device) != 0) {
        return 0;
    }
    PackageRevs revs = {};
    const int parsed = ParseFwBin(device, revs);
    int step = CheckFwBin(device, parsed, revs);
    if (step == STEP_DONE) {
        step = RecordAndUpdate(device, revs.fwFileRev);
    }
    if (step == STEP_FAILED) {
        return 0;
    }
    return EndFlag();
}
