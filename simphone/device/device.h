// The storage device of a phone, behind its driver. What survives a run is kept below device/ of
// the phone's directory: ext_csd.bin (eMMC), downloaded.bin (the image taken last), pending (there
// is an installed firmware that the next restart activates) and running.bin (the image that was
// activated). Called by the library for the requests of the tool, and by the device of the virtual
// machine. A request that is refused changes nothing. What this machine cannot keep is none of the
// device's answers: std::system_error.
#pragma once

#include "simphone/journal.h"
#include "simphone/phone.h"

#include <linux/mmc/ioctl.h>
#include <scsi/sg.h>
#include <string>
#include <string_view>

// JEDEC EXT_CSD: its size, and places in it.
constexpr size_t EXT_CSD_SIZE = 512;
constexpr size_t EXT_CSD_REV = 192;
constexpr size_t EXT_CSD_FIRMWARE_VERSION = 254; // 8 bytes

// The request as the journal has it before its answer, with nothing taken.
Request DescribeMmc(const mmc_ioc_cmd& command);
Request DescribeGkiWrite(size_t size);
Request DescribeScsi(const sg_io_hdr& request);
Request DescribeScsiReset(int type);

// What the device did with a request.
struct Reply {
    Taken taken = Taken::NOTHING;
    std::string text = {}; // "GOOD"; empty: the result of the call says it
};

// Carries out one MMC_IOC_CMD. Returns 0 or the error number that the driver gives.
// `openFlags` are those of the descriptor.
int AnswerMmc(const Phone& phone, int openFlags, mmc_ioc_cmd& command, Reply& reply);

// The write to the GKI node: the bytes that reach the driver, which installs a whole image.
void TakeGkiImage(const Phone& phone, std::string_view image, bool isWhole, Reply& reply);

// Carries out one SG_IO, behind so many others of the run. Returns 0 with the response in the
// request, or the error number that the kernel gives.
int AnswerScsi(const Phone& phone, size_t before, int openFlags, sg_io_hdr& request, Reply& reply);
