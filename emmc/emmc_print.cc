// Dumps eMMC headers for the log of an update: the device's record, and the entries that the
// selection finds. Output that fails is lost; the update goes on.
#include "emmc/emmc_print.h"

#include <cstdio>

namespace {

void PrintField(const char* label, const char* name, const uint8_t* bytes, size_t size) {
    printf("(%s) %s=", label, name);
    for (size_t i = 0; i < size; i++) {
        printf(" %02X", bytes[i]);
    }
    putchar('\n');
}

} // namespace

void PrintEmmcFwHeader(const char* label, const EmmcFwHeader& header) {
    PrintField(label, "emmcMagic", header.emmcMagic, sizeof(header.emmcMagic));
    PrintField(label, "emmcMid", &header.emmcMid, sizeof(header.emmcMid));
    PrintField(label, "emmcPnm", header.emmcPnm, sizeof(header.emmcPnm));
    PrintField(label, "emmcPrv", &header.emmcPrv, sizeof(header.emmcPrv));
    PrintField(label, "emmcPsn", header.emmcPsn, sizeof(header.emmcPsn));
    PrintField(label, "emmcRev", &header.emmcRev, sizeof(header.emmcRev));
    PrintField(label, "emmcFwRev", header.emmcFwRev, sizeof(header.emmcFwRev));
    printf("(%s) emmcFwSize= %08X\n", label, ReadBigEndian32(header.emmcFwSize));
}
