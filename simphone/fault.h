// A call that fails, or at which the power fails, as a text names it: "write /dev/x #2 EIO".
// examples/emmc-phone.toml explains the texts.
#pragma once

#include <climits>
#include <map>
#include <string>

// What becomes of a file of /data/vendor/fw in a power cut, where not all survives that was done to
// it: what was not synced is lost; or it is there without a byte, or with zeros for its bytes; or
// it is gone, as its removal survives and its new making does not; or it is back, as its making
// survives and its removal does not.
enum class Loss { LOST, EMPTY, GONE, BACK, ZEROS };
using Losses = std::map<std::string, Loss>; // by name; "." is the directory

// FAILS and RETURNS stand in for the call, SHORT and TORN make it move fewer bytes. TORN ends the
// power after the call, ENDS before it.
enum class Effect { FAILS, RETURNS, SHORT, TORN, ENDS };

struct Fault {
    std::string call;                // a function, a device request, or "any"
    std::string path;                // empty: on any path
    long first = 1, last = LONG_MAX; // numbers among the matching calls, from 1
    Effect effect = Effect::FAILS;
    long value = 0;     // the error number, the result or the count of bytes
    Losses losses = {}; // of a power cut
};
inline bool IsPowerCut(const Fault& fault) {
    return fault.effect >= Effect::TORN;
}

// Throws std::runtime_error for the user, with the text, if that names no fault.
Fault ParseFault(const std::string& text);

// A text of which ParseFault makes the same fault; the words of its effect alone, such as
// "short=1".
std::string FaultText(const Fault& fault);
std::string EffectText(const Fault& fault);

// The words of a fault, such as "lost=fw_result,ffu.bgn empty=ffu.ok".
std::string LossText(const Losses& losses);

// Whether the call can have the effect; `any` can have every one.
[[nodiscard]] bool CanHave(const std::string& call, Effect effect);
