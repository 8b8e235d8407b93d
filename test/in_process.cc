// The simulated phone inside the test program, and what the linker puts between the product's
// routines and the libraries that they call (--wrap).
#include "test/in_process.h"

#include "simphone/attach.h"

#include <scsi/sg_cmds_basic.h>
#include <scsi/sg_pt.h>

RunResult RunInProcess(const std::string& directory, const std::function<void()>& calls) {
    RunResult result = {};
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(simphone_attach(directory.c_str(), nullptr), 0);
    calls();
    simphone_detach();
    result.console = testing::internal::GetCapturedStdout();
    result.errors = testing::internal::GetCapturedStderr();
    return result;
}

std::string passThroughCalls;

extern "C" {
// The names are the linker's.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
sg_pt_base* __real_construct_scsi_pt_obj();
int __real_sg_cmds_process_resp(sg_pt_base* request, const char* leadIn, int result, bool noisy,
                                int verbosity, int* category);
void __real_destruct_scsi_pt_obj(sg_pt_base* request);

sg_pt_base* __wrap_construct_scsi_pt_obj() {
    passThroughCalls += "construct ";
    return __real_construct_scsi_pt_obj();
}

int __wrap_sg_cmds_process_resp(sg_pt_base* request, const char* leadIn, int result, bool noisy,
                                int verbosity, int* category) {
    passThroughCalls += "process_resp ";
    return __real_sg_cmds_process_resp(request, leadIn, result, noisy, verbosity, category);
}

void __wrap_destruct_scsi_pt_obj(sg_pt_base* request) {
    passThroughCalls += "destruct ";
    __real_destruct_scsi_pt_obj(request);
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
}
