// Makes devices of phones' descriptions.
#include "fwlab/device.h"

#include "fwlab/stop.h"

Device DeviceOf(const Description& phone) {
    if (phone.ufs && phone.revision.size() + 1 < UFS_REV_SIZE) {
        throw Stop{1, "the phone's revision is too short for a run"};
    }
    const Layout& layout = phone.ufs ? UFS : EMMC;
    const std::string mid(1, static_cast<char>(phone.cid[0]));
    Identity identity = NewIdentity(layout);
    Set(identity, layout.manufacturer, phone.ufs ? phone.manfid : mid);
    Set(identity, layout.name, phone.productName);
    Set(identity, layout.extCsdRev, std::string(1, static_cast<char>(phone.extCsdRev)));
    Set(identity, layout.revision, phone.revision + (phone.ufs ? "\n" : ""));
    return {identity, phone.gki, phone.maxHwSectorsKb};
}

Description ReadPhone(const std::string& descriptionFile, const Texts& settings) {
    Description phone;
    std::string error;
    if (!ReadDescription(descriptionFile, settings, phone, error)) {
        throw Stop{2, error};
    }
    return phone;
}
