// The workstation tool as a user starts it: exit status, output, files left. Each command works in
// a temporary directory that is removed with its test.
#pragma once

#include "test/phone/phone.h"

#include <filesystem>
#include <fnmatch.h>
#include <sys/wait.h>

namespace fs = std::filesystem;

struct Answer {
    int status;
    std::string text; // standard output and error
};

// What a shell makes of the command.
inline Answer Shell(const std::string& command) {
    FILE* pipe =
        popen((command + " 2>&1").c_str(), "r"); // NOLINT(cert-env33-c): as in a user's shell
    Answer answer = {};
    for (int c = fgetc(pipe); c != EOF; c = fgetc(pipe)) {
        answer.text += static_cast<char>(c);
    }
    const int status = pclose(pipe);
    answer.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return answer;
}

// Starts it in folder; `before` stands in front of the command.
inline Answer FwlabIn(const std::string& folder, const std::string& arguments,
                      const std::string& before = "") {
    return Shell("cd " + folder + " && " + before + " " FWLAB_PATH " " + arguments);
}

// The status, and the texts between the stars in the output, in this order.
inline void Expect(const Answer& answer, int status, const std::string& texts = "") {
    EXPECT_EQ(answer.status, status) << answer.text;
    EXPECT_EQ(fnmatch(("*" + texts + "*").c_str(), answer.text.c_str(), FNM_NOESCAPE), 0)
        << "no " << texts << " in:\n"
        << answer.text;
}

// What a command must say of a package and a phone.
struct Told {
    int status;
    std::string texts, phone, package, options = "";
};

class FwlabTest : public PhoneTest {
protected:
    void SetUp() override {
        PhoneTest::SetUp();
        directory = fs::path(directory).parent_path();
    }
    void TearDown() override {
        fs::remove_all(directory);
    }

    Answer Fwlab(const std::string& arguments, const std::string& before = "") const {
        return FwlabIn(directory, arguments, before);
    }

    Answer Pack(const std::string& manifest, const std::string& options = "") const {
        Put("/manifest.toml", manifest);
        return Fwlab("pack manifest.toml -o package " + options);
    }

    void ExpectTold(const std::string& command, const Told& told) const {
        SCOPED_TRACE(told.texts);
        Put("/phone.toml", told.phone);
        Put("/package", told.package);
        Expect(Fwlab(command + " package --phone phone.toml " + told.options), told.status,
               told.texts);
    }
};
