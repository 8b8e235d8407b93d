// The UFS side of the device: a SCSI logical unit that takes WRITE BUFFER through SG_IO.
#include "simphone/device/device.h"

#include "simphone/files.h"
#include "simphone/text.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <scsi/scsi.h>

namespace {

constexpr uint8_t MODE_DOWNLOAD_DEFER_ACTIVATE = 0x0E; // SPC, of WRITE BUFFER
constexpr unsigned DRIVER_HAS_SENSE = 0x08;            // linux: DRIVER_SENSE

void Respond(sg_io_hdr& request, unsigned status, unsigned host, unsigned driver) {
    request.status = static_cast<unsigned char>(status);
    request.masked_status = static_cast<unsigned char>((status >> 1) & 0x1F);
    request.host_status = static_cast<unsigned short>(host);
    request.driver_status = static_cast<unsigned short>(driver);
    request.msg_status = 0;
    request.sb_len_wr = 0;
    request.resid = 0;
    request.duration = 1;
    request.info = (status | host | driver) != 0 ? SG_INFO_CHECK : SG_INFO_OK;
}

std::string RespondSense(sg_io_hdr& request, const DeviceAnswer& answer) {
    // SPC: response codes 70h (fixed format, 18 bytes) and 72h (descriptor format, no descriptor)
    const uint8_t fixed[18] = {0x70, 0, answer.key, 0, 0, 0,          0,
                               10,   0, 0,          0, 0, answer.asc, answer.ascq};
    const uint8_t descriptor[8] = {0x72, answer.key, answer.asc, answer.ascq};
    const bool isFixed = answer.kind == DeviceAnswer::Kind::SENSE;
    const size_t length = std::min<size_t>(request.mx_sb_len, isFixed ? 18 : 8);
    Respond(request, CHECK_CONDITION << 1, 0, DRIVER_HAS_SENSE);
    if (request.sbp != nullptr) {
        memcpy(request.sbp, isFixed ? fixed : descriptor, length);
        request.sb_len_wr = static_cast<unsigned char>(length);
    }
    return Text("CHECK CONDITION %02x/%02x/%02x", answer.key, answer.asc, answer.ascq);
}

// What is wrong with the command, as ASC (ASCQ is 0): SPC, illegal request. 0 if it is in order.
uint8_t Illegal(const sg_io_hdr& request) {
    const unsigned char* cdb = request.cmdp;
    if (cdb[0] != WRITE_BUFFER) {
        return 0x20; // invalid command operation code
    }
    // Mode; buffer ID and offset; behind the length the control byte.
    const uint8_t head[] = {MODE_DOWNLOAD_DEFER_ACTIVATE, 0, 0, 0, 0};
    if (request.cmd_len != 10 || memcmp(cdb + 1, head, sizeof(head)) != 0 || cdb[9] != 0) {
        return 0x24; // invalid field in CDB
    }
    const uint32_t length = static_cast<uint32_t>(cdb[6] << 16 | cdb[7] << 8 | cdb[8]);
    const int direction = length > 0 ? SG_DXFER_TO_DEV : SG_DXFER_NONE;
    return length != request.dxfer_len || request.dxfer_direction != direction
               ? 0x1A // parameter list length error
               : 0;
}

std::string RespondAs(sg_io_hdr& request, const DeviceAnswer& answer) {
    switch (answer.kind) {
    case DeviceAnswer::Kind::ACCEPTED:
        Respond(request, 0, 0, 0);
        return "GOOD";
    case DeviceAnswer::Kind::STATUS:
        Respond(request, answer.value, 0, 0);
        return Text("status %u", answer.value);
    case DeviceAnswer::Kind::HOST_STATUS:
        Respond(request, 0, answer.value, 0);
        return Text("host status %u", answer.value);
    case DeviceAnswer::Kind::DRIVER_STATUS:
        Respond(request, 0, 0, answer.value);
        return Text("driver status %u", answer.value);
    default:
        return RespondSense(request, answer);
    }
}

} // namespace

Request DescribeScsi(const sg_io_hdr& request) {
    const bool hasCdb = request.cmdp != nullptr && request.cmd_len > 0;
    const bool isWriteBuffer = hasCdb && request.cmdp[0] == WRITE_BUFFER;
    return {isWriteBuffer ? RequestKind::SCSI_WRITE_BUFFER : RequestKind::OTHER_SCSI,
            Taken::NOTHING,
            Text("SG_IO %s cdb=%s data=%u timeout=%ums", isWriteBuffer ? "WRITE BUFFER" : "other",
                 hasCdb ? Hex(request.cmdp, request.cmd_len).c_str() : "null", request.dxfer_len,
                 request.timeout)};
}

Request DescribeScsiReset(int type) {
    return {RequestKind::SCSI_RESET, Taken::NOTHING, Text("SG_SCSI_RESET type=%d", type)};
}

int AnswerScsi(const Phone& phone, size_t before, int openFlags, sg_io_hdr& request, Reply& reply) {
    const auto& [directory, description] = phone;
    if ((openFlags & O_ACCMODE) != O_RDWR) {
        return EPERM;
    }
    if (request.interface_id != 'S' || request.cmd_len < 6 || request.iovec_count != 0 ||
        request.dxfer_direction > SG_DXFER_NONE || request.dxfer_direction < SG_DXFER_TO_FROM_DEV) {
        return EINVAL;
    }
    if (description.maxHwSectorsKb > 0 && request.dxfer_len > description.maxHwSectorsKb * 1024) {
        return EIO;
    }
    if (request.cmdp == nullptr || (request.dxfer_len > 0 && request.dxferp == nullptr)) {
        return EFAULT;
    }
    if (const uint8_t asc = Illegal(request)) {
        reply.text = RespondSense(request, {DeviceAnswer::Kind::SENSE, 0, ILLEGAL_REQUEST, asc, 0});
        return 0;
    }
    const auto& answers = description.answers;
    const DeviceAnswer& answer = answers[std::min(before, answers.size() - 1)];
    const bool isTaken = answer.kind == DeviceAnswer::Kind::ACCEPTED ||
                         (answer.IsSense() && answer.key <= RECOVERED_ERROR);
    if (isTaken && request.dxfer_len > 0) {
        const std::string_view image(static_cast<char*>(request.dxferp), request.dxfer_len);
        WriteWholeFile(directory + "/device/downloaded.bin", image);
        WriteWholeFile(directory + "/device/pending", "");
    }
    reply.taken = isTaken ? Taken::WHOLE : Taken::NOTHING;
    reply.text = RespondAs(request, answer);
    return 0;
}
