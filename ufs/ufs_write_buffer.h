// Downloads a firmware body to the UFS device with one SCSI WRITE BUFFER command.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr char UFS_BLOCK_NODE[] = "/dev/block/sdc";

// The most bytes of a body that a download sends.
constexpr size_t TRANSFER_SIZE = 0x800000;

// Sends the saved body (UfsFwBodyPath(useDataDir), its first 8 MiB at most) to /dev/block/sdc with
// deferred activation. ufsMid is the manufacturer text of the device record, exactly 8 bytes; after
// a failed download it decides whether the SCSI host is reset.
//
// Returns 0 when the device took the firmware; 1 when there is no memory for the transfer; 15
// (SG_LIB_FILE_ERROR) when the node or the body cannot be opened or read, or when closing the node
// fails after a successful download; 99 (SG_LIB_CAT_OTHER) on a failure of the system or the
// transport, or on a SCSI status without a category. Any other positive value is a category
// (SG_LIB_CAT_, sg_lib.h of sg3_utils): of the device's answer, or 2 (SG_LIB_CAT_NOT_READY) when
// the system says that the device is gone (ENXIO).
[[nodiscard]] int ufs_ffu_write_buffer(int useDataDir, const uint8_t* ufsMid);
