// Describes the headers, and reads and writes their fields.
#include "fwlab/package/layout.h"

#include <cstddef>

#define PLACE(record, member) offsetof(record, member), sizeof(record::member)
const Layout EMMC = {
    "eMMC",
    EMMC_MAGIC,
    sizeof(EmmcFwHeader),
    {"manufacturer_id", PLACE(EmmcFwHeader, emmcMid), Field::EXACT},
    {"product_name", PLACE(EmmcFwHeader, emmcPnm), Field::EXACT},
    {"ext_csd_rev", PLACE(EmmcFwHeader, emmcRev), Field::EXACT},
    {"revision", PLACE(EmmcFwHeader, emmcFwRev), Field::ZEROS},
    {"body_size", PLACE(EmmcFwHeader, emmcFwSize), Field::EXACT},
    {"market_name", PLACE(EmmcFwHeader, legalMarketName), Field::ZEROS},
    {"base_revisions", PLACE(EmmcFwHeader, legalBaseRev), Field::EXACT},
};
const Layout UFS = {
    "UFS",
    UFS_MAGIC,
    sizeof(UfsFwHeader),
    {"manfid", PLACE(UfsFwHeader, ufsMid), Field::NODE},
    {"product_name", PLACE(UfsFwHeader, ufsPnm), Field::NODE},
    {"", 0, 0, Field::EXACT},
    {"revision", PLACE(UfsFwHeader, ufsProductRevisionLevel), Field::EXACT},
    {"body_size", PLACE(UfsFwHeader, ufsFwSize), Field::EXACT},
    {"market_name", PLACE(UfsFwHeader, legalMarketName), Field::ZEROS},
    {"base_revisions", PLACE(UfsFwHeader, legalBaseRev), Field::EXACT},
};
#undef PLACE

Identity NewIdentity(const Layout& layout) {
    Identity identity = {&layout, layout.magic};
    identity.header.resize(layout.headerSize);
    return identity;
}

std::string Get(const Identity& identity, const Field& field) {
    return identity.header.substr(field.offset, field.size);
}

void Set(Identity& identity, const Field& field, const std::string& bytes) {
    std::string whole = bytes;
    whole.resize(field.size);
    identity.header.replace(field.offset, field.size, whole);
}
