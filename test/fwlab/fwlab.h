// The workstation tool as a user starts it: exit status, output, files left. Each command works in
// a temporary directory that is removed with its test.
#pragma once

#include "test/phone/phone.h"

#include <filesystem>
#include <fnmatch.h>
#include <regex>
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

// The status, and the texts between the stars in the output, in this order.
inline void Expect(const Answer& answer, int status, const std::string& texts = "") {
    EXPECT_EQ(answer.status, status) << answer.text;
    EXPECT_EQ(fnmatch(("*" + texts + "*").c_str(), answer.text.c_str(), FNM_NOESCAPE), 0)
        << "no " << texts << " in:\n"
        << answer.text;
}

// What a command must say, and what stands in its files before.
struct Told {
    int status;
    std::string texts, first, second = MISSING, options = "";
};

// Manifests of packages for the phones of the tests; with other lines in the entry, where a key
// alone takes its line away.
inline std::string EntryTable(std::string entry, const Texts& lines) {
    for (const std::string& line : lines) {
        const std::string key = line.substr(0, line.find(' '));
        entry = std::regex_replace(entry, std::regex(key + " = [^\n]*\n"), "");
        entry += line == key ? "" : line + "\n";
    }
    return "[[entry]]\n" + entry;
}
inline std::string UfsTable(const Texts& lines = {}) {
    return EntryTable("manfid = '0x0001ce'\nproduct_name = 'SIMUFS128G-B0B1 '\nrevision = '0900'\n"
                      "image = 'image'\n",
                      lines);
}
inline std::string UfsManifest(const Texts& lines = {}) {
    return "technology = 'ufs'\n" + UfsTable(lines);
}
inline std::string EmmcManifest(const Texts& lines = {}) {
    return "technology = 'emmc'\n" +
           EntryTable("manufacturer_id = 0x13\nproduct_name = 'SIM064'\next_csd_rev = 8\n"
                      "revision = 'FW000002'\nimage = 'image'\n",
                      lines);
}

class FwlabTest : public PhoneTest {
protected:
    void SetUp() override {
        PhoneTest::SetUp();
        directory = fs::path(directory).parent_path();
    }
    void TearDown() override {
        fs::remove_all(directory);
    }

    // Starts it in the test's directory; `before` stands in front of the command.
    Answer Fwlab(const std::string& arguments, const std::string& before = "") const {
        Answer answer = Shell("cd " + directory + " && " + before + " " FWLAB_PATH " " + arguments);
        for (const char c : answer.text) { // whatever a package, a phone or a name holds
            EXPECT_TRUE(c == '\n' || (c >= ' ' && c <= '~')) << static_cast<int>(c);
        }
        return answer;
    }

    Answer Pack(const std::string& manifest, const std::string& options = "") const {
        Put("/manifest.toml", manifest);
        return Fwlab("pack manifest.toml -o package " + options);
    }

    void PutState(const std::string& folder, const Files& files) const {
        fs::create_directories(Path(folder));
        for (const auto& [name, content] : files) {
            Put(folder + "/" + name, content);
        }
    }

    // A phone at a place of its own, which is made anew.
    void MakeAt(const std::string& place, const std::string& description) const {
        fs::remove_all(Path(place));
        Put("/phone.toml", description);
        MakePhone({Path(place), ReadDescription(Path("/phone.toml"))});
    }

    // The command once for each row. Where a row has nothing for the second file, it is
    // `otherwise`.
    void ExpectEach(const std::string& command, const Texts& files, const std::vector<Told>& rows,
                    const std::string& otherwise = MISSING) const {
        for (const Told& row : rows) {
            SCOPED_TRACE(row.texts + "\n" + row.first);
            Put(files[0], row.first);
            if (files.size() > 1) {
                Put(files[1], row.second == MISSING ? otherwise : row.second);
            }
            Expect(Fwlab(command + " " + row.options), row.status, row.texts);
        }
    }
};
