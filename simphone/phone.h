// The simulated phone as the workstation sees it: a directory that is made, restarted and read.
// Called by the simphone command, by fwlab and by the tests. A failure leaves the directory as far
// as it got, and comes with a text for the user; nothing outside of it is written.
#pragma once

#include <string>
#include <vector>

// Makes a phone in `directory`, which must be missing or empty, after the description (see
// the examples emmc-phone.toml and ufs-phone.toml) with the settings (KEY=VALUE, see SetKey in
// keys.h). Its text becomes phone.toml there, which may be edited between runs.
[[nodiscard]] bool MakePhone(const std::string& descriptionFile,
                             const std::vector<std::string>& settings, const std::string& directory,
                             std::string& error);

// Copies a firmware package to the place where the phone's technology has it.
[[nodiscard]] bool PutPackage(const std::string& packageFile, const std::string& directory,
                              std::string& error);

// Restarts the phone: a firmware that is pending becomes the running one, what was downloaded but
// not installed is lost, and nothing below data/ changes.
[[nodiscard]] bool RebootPhone(const std::string& directory, std::string& error);

// What `simphone show` prints: identity nodes, running and pending revision, the state directory;
// of what a phone that was made in part lacks, why it cannot be read.
[[nodiscard]] bool ShowPhone(const std::string& directory, std::string& text, std::string& error);
