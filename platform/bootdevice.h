// Identity nodes of the boot storage. The platform's driver offers them for eMMC and UFS.
#pragma once

constexpr char PNM_NODE[] = "/proc/bootdevice/product_name";
constexpr char REV_NODE[] = "/proc/bootdevice/rev"; // UFS: the product revision level
