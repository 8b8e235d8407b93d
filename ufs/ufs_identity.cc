// Reads the identity of the local UFS device, in the form of a package entry. The UFS update calls
// it before it selects an entry. It changes nothing on the phone. After a failure the record is
// partly filled and must not be used.
#include "ufs/ufs_identity.h"

#include "platform/bootdevice.h"
#include "platform/bounded.h"
#include "run/log/ffu_print.h"

#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

// The routine that PrintChars names in its own message.
constexpr char PRINT_CHAR[] = "PrintChar";

constexpr char UFS_MID_NODE[] = "/proc/bootdevice/manfid";

// The model that was reworked, and its name in packages. That name and its terminating zero fill
// ufsPnm.
constexpr char ORIGINAL_PNM[] = "KLUEG8U1EM-B0B1";
constexpr char REWORKED_PNM[] = "KLUEG8U1EM-REWK";
static_assert(sizeof(REWORKED_PNM) == sizeof(UfsFwHeader::ufsPnm));

// Fills field (size bytes) with the raw bytes of one read of the node at path. A short read is a
// success and leaves the rest of field as it was. Messages name the node label. Returns 0 or -1.
[[nodiscard]] int ReadUfsInfo(const char* path, size_t size, const char* label, uint8_t* field) {
    const int fd = open(path, O_RDONLY);
    if (fd < 0) {
        ffu_print("%s,line=%d: %s fd fail!\n", __func__, 166, label);
        return -1;
    }
    const ssize_t got = read(fd, field, size);
    close(fd);
    if (got < 0) {
        ffu_print("%s,line=%d: read_ufs_info %s read error!\n", __func__, 172, label);
        return -1;
    }
    return 0;
}

void PrintChar(uint8_t character) {
    ffu_print("%s,line=%d: %c", __func__, 65, character);
}

void PrintChars(const uint8_t* field, size_t size) {
    for (size_t i = 0; i < size; i++) {
        PrintChar(field[i]);
    }
    ffu_print("%s,line=%d: \n", PRINT_CHAR, 67);
}

} // namespace

int GetUfsLocalDevInfo(UfsFwHeader& device) {
    if (ReadUfsInfo(UFS_MID_NODE, sizeof(device.ufsMid), "UFS_MID", device.ufsMid) != 0) {
        ffu_print("%s,line=%d: read manufacture ID error!\n", __func__, 187);
        return -1;
    }
    if (ReadUfsInfo(PNM_NODE, sizeof(device.ufsPnm), "UFS_PNM", device.ufsPnm) != 0) {
        ffu_print("%s,line=%d: read product name error!\n", __func__, 192);
        return -1;
    }
    if (ReadUfsInfo(REV_NODE, sizeof(device.ufsProductRevisionLevel), "UFS_PRODUCT_REV_PATH",
                    device.ufsProductRevisionLevel) != 0) {
        ffu_print("%s,line=%d: read_ufs_info read error!\n", __func__, 199);
        return -1;
    }
    if (memcpy_s(device.ufsMagic, sizeof(device.ufsMagic), UFS_MAGIC, MAGIC_SIZE) != 0) {
        ffu_print("%s,line=%d: %s memcpy_s UFSM fail\n", __func__, 204, __func__);
        return -1;
    }
    UpdateProductName(device);
    PrintUfsFwHdr("ufs device", device);
    return 0;
}

void UpdateProductName(UfsFwHeader& device) {
    const uint8_t* revision = device.ufsProductRevisionLevel;
    const bool revised = revision[0] > '0' || revision[1] >= '9'; // from 09 on
    if (!revised || memcmp(device.ufsPnm, ORIGINAL_PNM, strlen(ORIGINAL_PNM)) != 0) {
        return;
    }
    if (memcpy_s(device.ufsPnm, sizeof(device.ufsPnm), REWORKED_PNM, sizeof(REWORKED_PNM)) != 0) {
        ffu_print("%s,line=%d: update product name failed!\n", __func__, 152);
        return;
    }
    ffu_print("%s,line=%d: productName after update: %s\n", __func__, 155,
              reinterpret_cast<const char*>(device.ufsPnm));
}

void PrintUfsFwHdr(const char* label, const UfsFwHeader& header) {
    ffu_print("%s,line=%d: (%s) ufsMagic=\n", __func__, 72, label);
    PrintChars(header.ufsMagic, sizeof(header.ufsMagic));
    ffu_print("%s,line=%d: (%s) ufsMid=\n", __func__, 74, label);
    PrintChars(header.ufsMid, sizeof(header.ufsMid));
    ffu_print("%s,line=%d: (%s) ufsPnm=\n", __func__, 76, label);
    PrintChars(header.ufsPnm, sizeof(header.ufsPnm));
    ffu_print("%s,line=%d: (%s) ufsProductRevisionLevel=\n", __func__, 78, label);
    PrintChars(header.ufsProductRevisionLevel, sizeof(header.ufsProductRevisionLevel));
    ffu_print("%s,line=%d: (%s) ufsFwSize=0x%08X\n", __func__, 85, label,
              ReadBigEndian32(header.ufsFwSize));
}
