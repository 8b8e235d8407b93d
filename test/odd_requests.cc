// A tool for the simulated phone that sends its device requests that no device takes, then one that
// it does, and prints the answers. Its console is the expectation of simphone_test.cc.
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/mmc/ioctl.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>
#include <unistd.h>

static uint8_t data[512];

// A well-formed download of one block, changed by `change`.
template <typename Change> static void Mmc(int fd, const char* name, Change change) {
    mmc_ioc_cmd request = {};
    request.write_flag = 1;
    request.opcode = 302;
    request.flags = 0xB5;
    request.blksz = 512;
    request.blocks = 1;
    mmc_ioc_cmd_set_data(request, data);
    change(request);
    const int result = ioctl(fd, MMC_IOC_CMD, &request);
    printf("%s: %s\n", name, result == 0 ? "taken" : strerrorname_np(errno));
}

static void Install(mmc_ioc_cmd& request) {
    request.opcode = 303;
    request.write_flag = 0;
    request.blocks = 0;
    request.data_ptr = 0;
}

static void MmcRequests(int fd) {
    Mmc(fd, "install before download", Install);
    Mmc(fd, "download as a read", [](auto& request) { request.write_flag = 0; });
    Mmc(fd, "download of no block", [](auto& request) { request.blocks = 0; });
    Mmc(fd, "download without data", [](auto& request) { request.data_ptr = 0; });
    Mmc(fd, "block size", [](auto& request) { request.blksz = 4096; });
    Mmc(fd, "flags", [](auto& request) { request.flags = 0x35; });
    Mmc(fd, "argument", [](auto& request) { request.arg = 1; });
    Mmc(fd, "application command", [](auto& request) { request.is_acmd = 1; });
    Mmc(fd, "SWITCH", [](auto& request) { request.opcode = 6; });
    Mmc(fd, "EXT_CSD as a write", [](auto& request) { request.opcode = 8; });
    const int readOnly = open("/dev/block/mmcblk0", O_RDONLY);
    Mmc(readOnly, "download on a read-only descriptor", [](auto&) {});
    close(readOnly);
    Mmc(fd, "download", [](auto&) {});
    Mmc(fd, "install with data", [](auto& request) {
        Install(request);
        mmc_ioc_cmd_set_data(request, data);
    });
    Mmc(fd, "install", Install);
}

// A well-formed WRITE BUFFER of 512 bytes, changed by `change`.
template <typename Change> static void Scsi(int fd, const char* name, Change change) {
    uint8_t cdb[16] = {0x3B, 0x0E, 0, 0, 0, 0, 0, 2, 0, 0};
    uint8_t sense[32] = {};
    sg_io_hdr request = {};
    request.interface_id = 'S';
    request.dxfer_direction = SG_DXFER_TO_DEV;
    request.cmd_len = 10;
    request.mx_sb_len = sizeof(sense);
    request.dxfer_len = sizeof(data);
    request.dxferp = data;
    request.cmdp = cdb;
    request.sbp = sense;
    change(request, cdb);
    if (ioctl(fd, SG_IO, &request) != 0) {
        printf("%s: %s\n", name, strerrorname_np(errno));
    } else {
        printf("%s: status %d key %x ASC %02x\n", name, request.status, sense[2], sense[12]);
    }
}

static void ScsiRequests(int fd) {
    Scsi(fd, "operation code", [](auto&, uint8_t* cdb) { cdb[0] = 0x3C; });
    Scsi(fd, "mode", [](auto&, uint8_t* cdb) { cdb[1] = 0x0F; });
    Scsi(fd, "mode specific", [](auto&, uint8_t* cdb) { cdb[1] = 0x2E; });
    Scsi(fd, "buffer ID", [](auto&, uint8_t* cdb) { cdb[2] = 1; });
    Scsi(fd, "buffer offset", [](auto&, uint8_t* cdb) { cdb[5] = 1; });
    Scsi(fd, "control", [](auto&, uint8_t* cdb) { cdb[9] = 4; });
    Scsi(fd, "command length", [](auto& request, uint8_t*) { request.cmd_len = 12; });
    Scsi(fd, "parameter list length", [](auto&, uint8_t* cdb) { cdb[8] = 1; });
    Scsi(fd, "direction",
         [](auto& request, uint8_t*) { request.dxfer_direction = SG_DXFER_FROM_DEV; });
    Scsi(fd, "no data", [](auto& request, uint8_t*) { request.dxferp = nullptr; });
    Scsi(fd, "interface", [](auto& request, uint8_t*) { request.interface_id = 'Q'; });
    Scsi(fd, "in order", [](auto&, uint8_t*) {});
}

int main() {
    const int mmc = open("/dev/block/mmcblk0", O_RDWR);
    const int scsi = open("/dev/block/sdc", O_RDWR);
    mmc >= 0 ? MmcRequests(mmc) : ScsiRequests(scsi);
    close(mmc >= 0 ? mmc : scsi);
}
