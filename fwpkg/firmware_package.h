// The layout of firmware packages, and the scan that finds their entries. Used by the run's
// pre-check, by the eMMC and UFS selections, and by the workstation tool.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr char EMMC_FW_PACKAGE[] = "/vendor/firmware/emmc_emer_fw.bin";
constexpr char UFS_FW_PACKAGE[] = "/vendor/firmware/ufs_emer_fw.bin";

constexpr size_t MAGIC_SIZE = 4;
constexpr char EMMC_MAGIC[] = "EMMC";
constexpr char UFS_MAGIC[] = "UFSM";

constexpr size_t EMMC_REV_SIZE = 8; // EXT_CSD FIRMWARE_VERSION
constexpr size_t UFS_REV_SIZE = 4;  // SCSI INQUIRY product revision level
constexpr size_t BASE_REVS_SIZE = 16;

// Package sizes are signed 32-bit numbers: a larger package is refused.
constexpr int64_t PACKAGE_SIZE_MAX = INT32_MAX;

// Header of an eMMC entry. The body follows it directly. The same record describes the local
// device, with emmcFwSize, legalMarketName and legalBaseRev zero. CID and EXT_CSD: JEDEC JESD84.
struct EmmcFwHeader {
    uint8_t emmcMagic[MAGIC_SIZE];
    uint8_t emmcMid;                  // CID MID
    uint8_t emmcPnm[6];               // CID PNM, no terminator
    uint8_t emmcPrv;                  // CID PRV
    uint8_t emmcPsn[4];               // CID PSN, most significant byte first
    uint8_t emmcRev;                  // EXT_CSD_REV: 7 for eMMC 5.0, 8 for eMMC 5.1
    uint8_t emmcFwRev[EMMC_REV_SIZE]; // FIRMWARE_VERSION in register order
    uint8_t emmcFwSize[4];            // body length in bytes, big-endian
    uint8_t legalMarketName[3];
    uint8_t legalBaseRev[BASE_REVS_SIZE]; // two slots of EMMC_REV_SIZE
};
static_assert(sizeof(EmmcFwHeader) == 48);
static_assert(offsetof(EmmcFwHeader, emmcMid) == 4);
static_assert(offsetof(EmmcFwHeader, emmcPnm) == 5);
static_assert(offsetof(EmmcFwHeader, emmcPrv) == 11);
static_assert(offsetof(EmmcFwHeader, emmcPsn) == 12);
static_assert(offsetof(EmmcFwHeader, emmcRev) == 16);
static_assert(offsetof(EmmcFwHeader, emmcFwRev) == 17);
static_assert(offsetof(EmmcFwHeader, emmcFwSize) == 25);
static_assert(offsetof(EmmcFwHeader, legalMarketName) == 29);
static_assert(offsetof(EmmcFwHeader, legalBaseRev) == 32);

// Header of a UFS entry. The body follows it directly. The same record describes the local device,
// with ufsFwSize, legalMarketName and legalBaseRev zero.
struct UfsFwHeader {
    uint8_t ufsMagic[MAGIC_SIZE];
    uint8_t ufsMid[8];  // text of the kernel's manfid node
    uint8_t ufsPnm[16]; // text of the kernel's product_name node, zero-filled
    uint8_t ufsProductRevisionLevel[UFS_REV_SIZE];
    uint8_t ufsFwSize[4]; // body length in bytes, big-endian
    uint8_t legalMarketName[12];
    uint8_t legalBaseRev[BASE_REVS_SIZE]; // four slots of UFS_REV_SIZE
};
static_assert(sizeof(UfsFwHeader) == 64);
static_assert(offsetof(UfsFwHeader, ufsMid) == 4);
static_assert(offsetof(UfsFwHeader, ufsPnm) == 12);
static_assert(offsetof(UfsFwHeader, ufsProductRevisionLevel) == 28);
static_assert(offsetof(UfsFwHeader, ufsFwSize) == 32);
static_assert(offsetof(UfsFwHeader, legalMarketName) == 36);
static_assert(offsetof(UfsFwHeader, legalBaseRev) == 48);

// The four bytes at field as an unsigned number, most significant byte first.
[[nodiscard]] uint32_t ReadBigEndian32(const uint8_t* field);

// Returns the next candidate entry: the lowest offset >= from where the technology's magic is and a
// whole header still fits into package (size bytes). Returns size when there is none.
[[nodiscard]] size_t FindEmmcEntry(const uint8_t* package, size_t size, size_t from);
[[nodiscard]] size_t FindUfsEntry(const uint8_t* package, size_t size, size_t from);

// Whether the body (bodySize bytes) of the entry at offset entry ends inside a package of size
// bytes; its header must lie inside. Every reader skips an entry whose body does not.
[[nodiscard]] bool BodyFits(size_t size, size_t entry, size_t headerSize, uint32_t bodySize);
