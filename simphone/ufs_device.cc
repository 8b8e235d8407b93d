// The UFS side of the device: a SCSI logical unit that takes WRITE BUFFER through SG_IO.
#include "device.h"
#include "files.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <scsi/scsi.h>

static const uint8_t kSaveDeferActivate = 0x0E; // SPC, WRITE BUFFER mode
static const unsigned char kDriverSense = 0x08; // linux: DRIVER_SENSE, sense data has come

std::string DescribeScsi(const sg_io_hdr& request) {
    const bool writeBuffer = request.cmdp && request.cmd_len > 0 && request.cmdp[0] == WRITE_BUFFER;
    return std::string("SG_IO ") + (writeBuffer ? "WRITE BUFFER" : "other") +
           " cdb=" + (request.cmdp ? Hex(request.cmdp, request.cmd_len) : "null") +
           " data=" + std::to_string(request.dxfer_len) +
           " timeout=" + std::to_string(request.timeout) + "ms";
}

static int Respond(sg_io_hdr& request, unsigned status, unsigned host, unsigned driver) {
    request.status = static_cast<unsigned char>(status);
    request.masked_status = static_cast<unsigned char>((status >> 1) & 0x1F);
    request.host_status = static_cast<unsigned short>(host);
    request.driver_status = static_cast<unsigned short>(driver);
    request.msg_status = 0;
    request.sb_len_wr = 0;
    request.resid = 0;
    request.duration = 1;
    request.info = status || host || driver ? SG_INFO_CHECK : SG_INFO_OK;
    return 0;
}

static int RespondSense(sg_io_hdr& request, const Answer& answer, std::string& response) {
    // SPC: response codes 70h (fixed format, 18 bytes) and 72h (descriptor format, no descriptor)
    const uint8_t fixed[18] = {0x70, 0, answer.key, 0, 0, 0,          0,
                               10,   0, 0,          0, 0, answer.asc, answer.ascq};
    const uint8_t descriptor[8] = {0x72, answer.key, answer.asc, answer.ascq};
    const bool inFixed = answer.kind == Answer::kSense;
    const size_t length = std::min<size_t>(request.mx_sb_len, inFixed ? 18 : 8);
    (void)Respond(request, CHECK_CONDITION << 1, 0, kDriverSense);
    if (request.sbp) {
        memcpy(request.sbp, inFixed ? fixed : descriptor, length);
        request.sb_len_wr = static_cast<unsigned char>(length);
    }
    response = "CHECK CONDITION " + Hex(&answer.key, 1) + "/" + Hex(&answer.asc, 1) + "/" +
               Hex(&answer.ascq, 1);
    return 0;
}

// What is wrong with the command, as ASC (ASCQ is 0): SPC, illegal request. 0 if it is in order.
static uint8_t Illegal(const sg_io_hdr& request) {
    const unsigned char* cdb = request.cmdp;
    if (cdb[0] != WRITE_BUFFER) {
        return 0x20; // invalid command operation code
    }
    const uint32_t offset = static_cast<uint32_t>(cdb[3] << 16 | cdb[4] << 8 | cdb[5]);
    const uint32_t length = static_cast<uint32_t>(cdb[6] << 16 | cdb[7] << 8 | cdb[8]);
    if (request.cmd_len != 10 || cdb[1] != kSaveDeferActivate || cdb[2] || offset || cdb[9]) {
        return 0x24; // invalid field in CDB
    }
    const int direction = length ? SG_DXFER_TO_DEV : SG_DXFER_NONE;
    return length != request.dxfer_len || request.dxfer_direction != direction
               ? 0x1A // parameter list length error
               : 0;
}

int AnswerScsi(const std::string& directory, const Answer& answer, uint32_t maxHwSectorsKb,
               int openFlags, sg_io_hdr& request, std::string& response) {
    if ((openFlags & O_ACCMODE) != O_RDWR) {
        return EPERM;
    }
    if (request.interface_id != 'S' || request.cmd_len < 6 || request.iovec_count ||
        request.dxfer_direction > SG_DXFER_NONE || request.dxfer_direction < SG_DXFER_TO_FROM_DEV) {
        return EINVAL;
    }
    if (maxHwSectorsKb && request.dxfer_len > maxHwSectorsKb * 1024) {
        return EIO;
    }
    if (!request.cmdp || (request.dxfer_len && !request.dxferp)) {
        return EFAULT;
    }
    if (const uint8_t asc = Illegal(request)) {
        return RespondSense(request, {Answer::kSense, 0, ILLEGAL_REQUEST, asc, 0}, response);
    }
    const bool sense = answer.kind == Answer::kSense || answer.kind == Answer::kDescriptorSense;
    const bool takes = answer.kind == Answer::kGood || (sense && answer.key <= RECOVERED_ERROR);
    if (takes && request.dxfer_len > 0 &&
        (!WriteWholeFile(directory + "/device/downloaded.bin", request.dxferp, request.dxfer_len) ||
         !WriteWholeFile(directory + "/device/pending", "", 0))) {
        return EIO;
    }
    const std::string value = std::to_string(answer.value);
    switch (answer.kind) {
    case Answer::kGood:
        response = "GOOD";
        return Respond(request, 0, 0, 0);
    case Answer::kStatus:
        response = "status " + value;
        return Respond(request, answer.value, 0, 0);
    case Answer::kHost:
        response = "host status " + value;
        return Respond(request, 0, answer.value, 0);
    case Answer::kDriver:
        response = "driver status " + value;
        return Respond(request, 0, 0, answer.value);
    default:
        return RespondSense(request, answer, response);
    }
}
