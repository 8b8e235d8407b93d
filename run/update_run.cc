// The course of a run: state directory, begin flag, device, package check, record, update, outcome,
// end flag. main calls it. A begin flag without an end flag shows that a run stopped early.
#include "run/update_run.h"

#include "run/device_info.h"
#include "run/package_check.h"
#include "run/result_record.h"
#include "run/state_flags.h"
#include "run/step.h"
#include "run/update_dispatch.h"

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
    int step = CheckFwBin(device, revs);
    if (step == STEP_DONE) {
        step = CheckResultFile(revs.fwFileRev);
    }
    if (step == STEP_DONE) {
        step = WriteResultFile(device.pnm, device.localFwRev, revs.fwFileRev);
    }
    if (step == STEP_DONE) {
        step = DoFfu(device.type);
        UpdateResultFlag(step, revs.fwFileRev);
    }
    if (step == STEP_FAILED) {
        return 0;
    }
    return EndFlag();
}
