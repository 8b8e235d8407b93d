// Sends the saved firmware body to the UFS device with one WRITE BUFFER command. The UFS update
// calls it once, after the selection. The command is never repeated. After a failure before the
// command the device keeps its firmware; after a failed command that depends on the device.
#include "ufs/ufs_write_buffer.h"

#include "platform/bounded.h"
#include "platform/heap_buffer.h"
#include "run/log/ffu_print.h"
#include "ufs/ufs_selection.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <malloc.h>
#include <scsi/sg.h>
#include <scsi/sg_cmds_basic.h>
#include <scsi/sg_lib.h>
#include <scsi/sg_pt.h>
#include <scsi/sg_unaligned.h>
#include <string_view>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr uint8_t WRITE_BUFFER_OPCODE = 0x3B; // SPC, 10-byte command
constexpr int WRITE_BUFFER_CDB_SIZE = 10;
constexpr int MODE_DOWNLOAD_DEFER_ACTIVATE = 0x0E; // SPC: with offsets, save, defer activate
constexpr int WRITE_BUFFER_TIMEOUT = 300;          // seconds

constexpr size_t TRANSFER_ALIGNMENT = 4096;
constexpr int SENSE_SIZE = 64;
constexpr int VERBOSITY = 1;

// Beside this, statuses are numbers of sg_lib.h: SG_LIB_FILE_ERROR and the SG_LIB_CAT_ categories.
constexpr int STATUS_NO_MEMORY = 1;

// What sg_cmds_process_resp returns for a failure without a category, and for an answer with one.
constexpr int RESPONSE_FAILED = -1;
constexpr int RESPONSE_CATEGORY = -2;

// The routine that messages name when one of its helpers logs them.
constexpr char UFS_FFU_WRITE_BUFFER[] = "ufs_ffu_write_buffer";

// Prints which manufacturer's device this is. Returns the reset that a failed download needs: a
// value of SG_SCSI_RESET (scsi/sg.h), SG_SCSI_RESET_NOTHING for none.
int LookUpManufacturer(const uint8_t* ufsMid) {
    const std::string_view mid(reinterpret_cast<const char*>(ufsMid), sizeof(UfsFwHeader::ufsMid));
    if (mid == "0x0001ad") {
        ffu_print("%s,line=%d: device: H****\n", UFS_FFU_WRITE_BUFFER, 250);
    } else if (mid == "0x000198") {
        ffu_print("%s,line=%d: device: T******\n", UFS_FFU_WRITE_BUFFER, 255);
    } else if (mid == "0x0001ce") {
        ffu_print("%s,line=%d: device: S******\n", UFS_FFU_WRITE_BUFFER, 260);
        return SG_SCSI_RESET_HOST;
    } else if (mid == "0x00012c") {
        ffu_print("%s,line=%d: device: M*****\n", UFS_FFU_WRITE_BUFFER, 266);
    } else if (mid == "0x0008b6") {
        ffu_print("%s,line=%d: device: KQ****\n", UFS_FFU_WRITE_BUFFER, 271);
    } else if (mid == "0x000145") {
        ffu_print("%s,line=%d: device: SAN****\n", UFS_FFU_WRITE_BUFFER, 276);
    } else {
        ffu_print("%s,line=%d: UFS_FFU_WRITE_BUFFER_FIX_ARGUMENT MID_UNKNOWN, use default !\n",
                  UFS_FFU_WRITE_BUFFER, 281);
    }
    return SG_SCSI_RESET_NOTHING;
}

// Reads the body, at most TRANSFER_SIZE bytes of it, into buffer and sets length to the number of
// bytes read. Returns 0 or -1.
[[nodiscard]] int ReadBody(const char* fileName, uint8_t* buffer, int& length) {
    char errorText[256] = {};
    const int fd = open(fileName, O_RDONLY);
    int error = errno; // formatting and closing may change it
    if (fd < 0) {
        (void)snprintf_s(errorText, sizeof(errorText), sizeof(errorText) - 1,
                         "sg_write_buffer: could not open %s for reading", fileName);
        errno = error;
        perror(errorText);
        return -1;
    }
    const auto got = static_cast<int>(read(fd, buffer, TRANSFER_SIZE));
    error = errno;
    close(fd);
    if (got < 0) {
        (void)snprintf_s(errorText, sizeof(errorText), sizeof(errorText) - 1,
                         "sg_write_buffer: couldn't read from %s", fileName);
        errno = error;
        perror(errorText);
        return -1;
    }
    if (got < static_cast<int>(TRANSFER_SIZE)) {
        ffu_print("%s,line=%d: tried to read %d bytes from %s, got %d bytes\n",
                  UFS_FFU_WRITE_BUFFER, 372, static_cast<int>(TRANSFER_SIZE), fileName, got);
        ffu_print("%s,line=%d: will write %d bytes\n", UFS_FFU_WRITE_BUFFER, 373, got);
        ffu_print("%s,line=%d: \n", UFS_FFU_WRITE_BUFFER, 378);
    }
    length = got;
    return 0;
}

// Builds, prints and sends one WRITE BUFFER command; timeout in seconds. Returns 0, the category of
// the device's answer, or -1 for a failure without a category.
[[nodiscard]] int sg_ll_write_buffer_v2(int deviceFd, int mode, int modeSpecific, int bufferId,
                                        uint32_t bufferOffset, const uint8_t* data, int length,
                                        int timeout, bool noisy, int verbosity) {
    uint8_t cdb[WRITE_BUFFER_CDB_SIZE] = {WRITE_BUFFER_OPCODE};
    cdb[1] = static_cast<uint8_t>((modeSpecific & 0x07) << 5 | (mode & 0x1F));
    cdb[2] = static_cast<uint8_t>(bufferId);
    sg_put_unaligned_be24(bufferOffset, cdb + 3);
    sg_put_unaligned_be24(static_cast<uint32_t>(length), cdb + 6);
    ffu_print("%s,line=%d:     Write buffer cmd: \n", __func__, 157);
    for (const uint8_t byte : cdb) {
        ffu_print("%s,line=%d: %02x \n", __func__, 159, byte);
    }
    ffu_print("%s,line=%d: \n", __func__, 160);

    sg_pt_base* request = construct_scsi_pt_obj();
    if (request == nullptr) {
        ffu_print("%s,line=%d: %s: out of memory\n", __func__, 171, __func__);
        return -1;
    }
    uint8_t sense[SENSE_SIZE] = {};
    int category = 0;
    set_scsi_pt_cdb(request, cdb, WRITE_BUFFER_CDB_SIZE);
    set_scsi_pt_sense(request, sense, SENSE_SIZE);
    set_scsi_pt_data_out(request, data, length);
    const int result = do_scsi_pt(request, deviceFd, timeout, verbosity);
    const int response =
        sg_cmds_process_resp(request, "Write buffer", result, noisy, verbosity, &category);
    destruct_scsi_pt_obj(request);

    if (response == RESPONSE_FAILED) {
        return -1;
    }
    const bool taken = response != RESPONSE_CATEGORY || category == SG_LIB_CAT_NO_SENSE ||
                       category == SG_LIB_CAT_RECOVERED;
    return taken ? 0 : category;
}

void scsi_reset(int deviceFd, int resetType) {
    ffu_print("%s,line=%d: reset after ffu fail, reset type = %d\n", __func__, 204, resetType);
    const int ret = ioctl(deviceFd, SG_SCSI_RESET, &resetType);
    if (ret < 0) {
        ffu_print("%s,line=%d: sg_reset fail, ret = %d\n", __func__, 207, ret);
    }
}

// Logs why a download failed, and resets the SCSI host if resetType says so.
void ReportFailure(int deviceFd, int status, int resetType) {
    char category[80] = {};
    (void)sg_get_category_sense_str(status, sizeof(category), category, VERBOSITY);
    ffu_print("%s,line=%d: Write buffer failed: %s\n", UFS_FFU_WRITE_BUFFER, 424, category);
    if (resetType != SG_SCSI_RESET_NOTHING) {
        scsi_reset(deviceFd, resetType);
    }
}

// Sends the body in fileName to the device that deviceFd is open on. Returns the statuses of
// ufs_ffu_write_buffer, but -1 for a failure without a category.
[[nodiscard]] int Download(int deviceFd, const char* fileName, int resetType) {
    const HeapBuffer buffer(static_cast<uint8_t*>(memalign(TRANSFER_ALIGNMENT, TRANSFER_SIZE)));
    if (buffer == nullptr) {
        ffu_print("%s,line=%d: sg_write_buffer: out of memory\n", UFS_FFU_WRITE_BUFFER, 320);
        return STATUS_NO_MEMORY;
    }
    (void)memset_s(buffer.get(), TRANSFER_SIZE, 0xFF, TRANSFER_SIZE);
    int length = 0;
    if (ReadBody(fileName, buffer.get(), length) != 0) {
        return SG_LIB_FILE_ERROR;
    }
    ffu_print(
        "%s,line=%d: sending single write buffer, mode=0x%x, mpsec=%d, id=%d, offset=%d, len=%d\n",
        UFS_FFU_WRITE_BUFFER, 414, MODE_DOWNLOAD_DEFER_ACTIVATE, 0, 0, 0, length);
    const int status =
        sg_ll_write_buffer_v2(deviceFd, MODE_DOWNLOAD_DEFER_ACTIVATE, 0, 0, 0, buffer.get(), length,
                              WRITE_BUFFER_TIMEOUT, true, VERBOSITY);
    if (status != 0) {
        ReportFailure(deviceFd, status, resetType);
    }
    ffu_print("%s,line=%d: UFS_FFU_WRITE_BUFFER_FIX_ARGUMENT done!\n", UFS_FFU_WRITE_BUFFER, 428);
    return status;
}

} // namespace

int ufs_ffu_write_buffer(int useDataDir, const uint8_t* ufsMid) {
    // Zeroed here too, as a phone's own memset_s may refuse.
    char deviceName[20] = {};
    char fileName[50] = {};
    (void)memset_s(deviceName, sizeof(deviceName), 0, sizeof(deviceName));
    (void)memset_s(fileName, sizeof(fileName), 0, sizeof(fileName));
    (void)strncpy_s(deviceName, sizeof(deviceName), UFS_BLOCK_NODE, sizeof(deviceName));
    (void)strncpy_s(fileName, sizeof(fileName), UfsFwBodyPath(useDataDir), sizeof(fileName));

    const int resetType = LookUpManufacturer(ufsMid);
    ffu_print("%s,line=%d: UFS_FFU_WRITE_BUFFER_FIX_ARGUMENT begin to execute!\n", __func__, 288);
    const int deviceFd = sg_cmds_open_device(deviceName, false, VERBOSITY);
    if (deviceFd < 0) {
        ffu_print("%s,line=%d: sg_write_buffer: open error: %s: %s\n", __func__, 313,
                  UFS_BLOCK_NODE, safe_strerror(-deviceFd));
        return SG_LIB_FILE_ERROR;
    }
    const int status = Download(deviceFd, fileName, resetType);
    const int closed = sg_cmds_close_device(deviceFd);
    if (closed < 0) {
        ffu_print("%s,line=%d: close error: %s\n", __func__, 435, safe_strerror(-closed));
        if (status == 0) {
            return SG_LIB_FILE_ERROR;
        }
    }
    return status < 0 ? SG_LIB_CAT_OTHER : status;
}
