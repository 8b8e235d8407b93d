// Makes devices of phones' descriptions.
#include "fwlab/phone/device.h"

#include "fwlab/base/stop.h"
#include "simphone/text.h"

#include <fmt/format.h>

Device DeviceOf(const Description& phone) {
    Require(!phone.ufs || phone.revision.size() + 1 >= UFS_REV_SIZE, 1,
            "revision has fewer than 3 bytes: the run on the phone would stop");
    const Layout& layout = phone.ufs ? UFS : EMMC;
    const std::string mid(1, static_cast<char>(phone.cid[0]));
    Identity identity = NewIdentity(layout);
    Set(identity, layout.manufacturer, phone.ufs ? phone.manfid : mid);
    Set(identity, layout.name, phone.productName);
    Set(identity, layout.extCsdRev, std::string(1, static_cast<char>(phone.extCsdRev)));
    Set(identity, layout.revision, phone.revision + (phone.ufs ? "\n" : ""));
    return {identity, phone.gki, phone.maxHwSectorsKb};
}

std::string Title(const Identity& device) {
    const Layout& layout = *device.layout;
    const std::string manufacturer = Get(device, layout.manufacturer);
    const std::string name = Quoted(NameOf(device));
    return layout.extCsdRev.size == 0
               ? Quoted(manufacturer) + " " + name
               : fmt::format("{:#04x} {} EXT_CSD_REV {}", static_cast<uint8_t>(manufacturer[0]),
                             name, static_cast<uint8_t>(Get(device, layout.extCsdRev)[0]));
}

std::string Title(const Description& phone) {
    const char* kind = phone.ufs ? "UFS" : phone.gki ? "eMMC (GKI mode)" : "eMMC (normal mode)";
    return fmt::format("{} {}, runs {}", kind, Quoted(phone.productName), Quoted(phone.revision));
}
