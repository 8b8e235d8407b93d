// Identity nodes of the boot storage, which the platform's driver has for eMMC and UFS alike.
#pragma once

constexpr char PNM_NODE[] = "/proc/bootdevice/product_name";
constexpr char REV_NODE[] = "/proc/bootdevice/rev"; // UFS: the product revision level
