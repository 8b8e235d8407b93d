// The storage device of a phone, behind its driver. What survives a run is kept below device/ of
// the phone's directory: ext_csd.bin (eMMC), downloaded.bin (the image taken last), pending (there
// is an installed firmware that the next restart activates) and running.bin (the image that was
// activated). Called by the library for the requests of the tool, and by the device of the virtual
// machine. A request that is refused changes nothing.
#pragma once

#include "simphone/description.h"

#include <linux/mmc/ioctl.h>
#include <scsi/sg.h>
#include <string>

// The request as the journal has it, without the answer; also for requests that a fault intercepts.
std::string DescribeMmc(const mmc_ioc_cmd& command);
std::string DescribeScsi(const sg_io_hdr& request);

// The name by which a fault can meet the request: SEND_EXT_CSD, FFU_DOWNLOAD, FFU_INSTALL, or "".
const char* MmcRequestName(uint32_t opcode);

// Carries out one MMC_IOC_CMD. Returns 0 or the error number that the driver gives.
// `openFlags` are those of the descriptor.
int AnswerMmc(const std::string& directory, bool gki, int openFlags, mmc_ioc_cmd& command);

// The write to the GKI node: `taken` of `size` bytes reach the driver, which installs a whole
// image. Returns 0 or an error number.
int TakeGkiImage(const std::string& directory, const void* image, size_t taken, size_t size);

// Carries out one SG_IO; a WRITE BUFFER that is in order gets `answer`. Returns 0 with the response
// in the request and a readable form in `response`, or the error number that the kernel gives, EIO
// for more than maxHwSectorsKb KiB (0: no limit).
int AnswerScsi(const std::string& directory, const Answer& answer, uint32_t maxHwSectorsKb,
               int openFlags, sg_io_hdr& request, std::string& response);
