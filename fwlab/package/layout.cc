// Describes the headers, and reads and writes their fields.
#include "fwlab/package/layout.h"

#include <algorithm>
#include <cstddef>

#define PLACE(record, member) offsetof(record, member), sizeof(record::member)
const Layout EMMC = {
    "eMMC",
    EMMC_MAGIC,
    sizeof(EmmcFwHeader),
    {"manufacturer_id", PLACE(EmmcFwHeader, emmcMid), Field::EXACT, false},
    {"product_name", PLACE(EmmcFwHeader, emmcPnm), Field::EXACT, false},
    {"product_revision", PLACE(EmmcFwHeader, emmcPrv), Field::EXACT, true},
    {"serial_number", PLACE(EmmcFwHeader, emmcPsn), Field::EXACT, true},
    {"ext_csd_rev", PLACE(EmmcFwHeader, emmcRev), Field::EXACT, false},
    {"revision", PLACE(EmmcFwHeader, emmcFwRev), Field::ZEROS, false},
    {"body_size", PLACE(EmmcFwHeader, emmcFwSize), Field::EXACT, false},
    {"market_name", PLACE(EmmcFwHeader, legalMarketName), Field::ZEROS, true},
    {"base_revisions", PLACE(EmmcFwHeader, legalBaseRev), Field::EXACT, true},
};
const Layout UFS = {
    "UFS",
    UFS_MAGIC,
    sizeof(UfsFwHeader),
    {"manfid", PLACE(UfsFwHeader, ufsMid), Field::NODE, false},
    {"product_name", PLACE(UfsFwHeader, ufsPnm), Field::NODE, false},
    {},
    {},
    {},
    {"revision", PLACE(UfsFwHeader, ufsProductRevisionLevel), Field::EXACT, false},
    {"body_size", PLACE(UfsFwHeader, ufsFwSize), Field::EXACT, false},
    {"market_name", PLACE(UfsFwHeader, legalMarketName), Field::ZEROS, true},
    {"base_revisions", PLACE(UfsFwHeader, legalBaseRev), Field::EXACT, true},
};
#undef PLACE

std::vector<const Field*> FieldsOf(const Layout& layout) {
    std::vector<const Field*> fields;
    for (const Field* field :
         {&layout.manufacturer, &layout.name, &layout.productRevision, &layout.serialNumber,
          &layout.extCsdRev, &layout.revision, &layout.marketName, &layout.baseRevs}) {
        fields.insert(fields.end(), field->size > 0 ? 1 : 0, field);
    }
    return fields;
}

Identity NewIdentity(const Layout& layout) {
    Identity identity = {&layout, layout.magic};
    identity.header.resize(layout.headerSize);
    return identity;
}

std::string Get(const Identity& identity, const Field& field) {
    return identity.header.substr(field.offset, field.size);
}

std::string NameOf(const Identity& identity) {
    return Get(identity, identity.layout->name);
}

std::string RevisionOf(const Identity& identity) {
    return Get(identity, identity.layout->revision);
}

void Set(Identity& identity, const Field& field, const std::string& bytes) {
    std::string whole = bytes;
    whole.resize(field.size);
    identity.header.replace(field.offset, field.size, whole);
}

std::string OldestRevision(const Layout& layout) {
    return std::string(layout.revision.size, '\1');
}

bool IsFreeSlot(const std::string& slot) {
    return slot[0] == '\0' || slot == std::string(slot.size(), '\xFF');
}

std::optional<std::vector<std::string>> BaseRevisionsOf(const Identity& identity) {
    const std::string slots = Get(identity, identity.layout->baseRevs);
    const size_t size = identity.layout->revision.size;
    if (slots == std::string(BASE_REVS_SIZE, '\xFF')) {
        return {};
    }
    std::vector<std::string> revisions;
    for (size_t slot = 0; slot < BASE_REVS_SIZE; slot += size) {
        const std::string revision = slots.substr(slot, size);
        if (!IsFreeSlot(revision) &&
            std::count(revisions.begin(), revisions.end(), revision) == 0) {
            revisions.push_back(revision);
        }
    }
    return revisions;
}
