// The simulated phone inside the test program, and what the linker's --wrap puts between the
// product's routines and the libraries that they call.
#include "test/phone/in_process.h"

#include "platform/bounded.h"
#include "simphone/preload/attach.h"

#include <cerrno>
#include <scsi/sg_cmds_basic.h>
#include <scsi/sg_pt.h>

Texts passThroughCalls;

namespace {

std::string refusedCalls;
std::map<std::string, int> boundedCalls;

// Counts a call of a bounded function.
bool IsRefused(const std::string& function) {
    const int number = ++boundedCalls[function];
    const std::string call = "," + function + " " + std::to_string(number) + ",";
    return ("," + refusedCalls + ",").find(call) != std::string::npos;
}

} // namespace

RunResult RunInProcess(const std::string& directory, const std::function<void()>& calls,
                       const std::string& refused) {
    RunResult result = {};
    refusedCalls = refused;
    boundedCalls.clear();
    passThroughCalls.clear();
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int attached = simphone_attach(directory.c_str(), nullptr);
    if (attached == 0) { // else the calls would reach this machine
        calls();
        simphone_detach();
    }
    EXPECT_EQ(attached, 0);
    result.console = testing::internal::GetCapturedStdout();
    result.errors = testing::internal::GetCapturedStderr();
    result.calls = ReadJournal(directory).calls;
    ExpectProperCalls(result);
    ExpectAllGivenBack(result);
    return result;
}

extern "C" {
// The names are the linker's, and the sanitizers'.

// Their runtime stands behind the simulated phone on purpose.
const char* __asan_default_options() {
    return "verify_asan_link_order=0";
}

int __real_memcpy_s(void* dest, size_t destSize, const void* src, size_t count);
int __real_memset_s(void* dest, size_t destSize, int value, size_t count);
int __real_strncpy_s(char* dest, size_t destSize, const char* src, size_t count);
sg_pt_base* __real_construct_scsi_pt_obj();
int __real_sg_cmds_process_resp(sg_pt_base* request, const char* leadIn, int result, bool noisy,
                                int verbosity, int* category);
void __real_destruct_scsi_pt_obj(sg_pt_base* request);

int __wrap_memcpy_s(void* dest, size_t destSize, const void* src, size_t count) {
    return IsRefused("memcpy_s") ? EINVAL : __real_memcpy_s(dest, destSize, src, count);
}

int __wrap_memset_s(void* dest, size_t destSize, int value, size_t count) {
    return IsRefused("memset_s") ? EINVAL : __real_memset_s(dest, destSize, value, count);
}

int __wrap_strncpy_s(char* dest, size_t destSize, const char* src, size_t count) {
    return IsRefused("strncpy_s") ? EINVAL : __real_strncpy_s(dest, destSize, src, count);
}

// Sets errno, as a phone's own may.
__attribute__((format(printf, 4, 5))) int __wrap_snprintf_s(char* dest, size_t destSize,
                                                            size_t count, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int written =
        IsRefused("snprintf_s") ? -1 : vsnprintf_s(dest, destSize, count, format, args);
    va_end(args);
    errno = EDOM;
    return written;
}

sg_pt_base* __wrap_construct_scsi_pt_obj() {
    passThroughCalls.push_back("construct");
    return __real_construct_scsi_pt_obj();
}

int __wrap_sg_cmds_process_resp(sg_pt_base* request, const char* leadIn, int result, bool noisy,
                                int verbosity, int* category) {
    passThroughCalls.push_back("process_resp");
    return __real_sg_cmds_process_resp(request, leadIn, result, noisy, verbosity, category);
}

void __wrap_destruct_scsi_pt_obj(sg_pt_base* request) {
    passThroughCalls.push_back("destruct");
    __real_destruct_scsi_pt_obj(request);
}
}
