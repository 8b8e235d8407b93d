// The sweep of a package as a user starts it: what it says, what it writes, and how it ends. The
// tool itself is swept by sweep_test.
#include "test/fwlab/fwlab.h"

#include <regex>

namespace {

class FwlabSweepTest : public FwlabTest {
protected:
    void SetUp() override {
        FwlabTest::SetUp();
        fs::create_directory(Path("/tmp"));
    }
    void TearDown() override {
        EXPECT_TRUE(fs::is_empty(Path("/tmp"))); // no phone is left
        FwlabTest::TearDown();
    }

    // A shell command in the test's directory, with its own place for temporary phones.
    Answer Shell(const std::string& line) const {
        Put("/line", "cd " + directory + "\nexport TMPDIR=$PWD/tmp\n" + line + "\n");
        return ::Shell("bash " + Path("/line"));
    }
    Answer Sweep(const std::string& arguments) const {
        return Shell(FWLAB_PATH " sweep " + arguments);
    }
};

// How many there are in the line that begins with a number and `what`; all of them with "".
long Number(const std::string& text, const std::string& what, const std::string& fate) {
    std::smatch line;
    std::smatch count;
    if (!std::regex_search(text, line, std::regex("(\\d+) " + what + ": ([^\n]*)"))) {
        return -1;
    }
    const std::string rest = line[2];
    const bool isFound = std::regex_search(rest, count, std::regex("(\\d+) " + fate + "(,|$)"));
    return fate.empty() ? std::stol(line[1]) : isFound ? std::stol(count[1]) : 0;
}

long Occurrences(const std::string& text, const std::string& part) {
    long count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        count++;
    }
    return count;
}

// Nothing in the page points nowhere or elsewhere.
void ExpectWhole(const std::string& page) {
    EXPECT_EQ(page.find("http"), std::string::npos);
    EXPECT_EQ(page.find("<script"), std::string::npos);
    const std::regex link("href=\"#([a-z0-9]+)\"");
    for (auto at = std::sregex_iterator(page.begin(), page.end(), link);
         at != std::sregex_iterator(); ++at) {
        const std::string target = (*at)[1];
        if (target != "closed" && page.find("id=\"" + target + "\"") == std::string::npos) {
            ADD_FAILURE() << target;
        }
    }
    EXPECT_NE(page.find("device  | GKI write "), std::string::npos);
}

} // namespace

// The device is asked once. What the power leaves before that is updated later, if the record is
// not there, or used up; and the record is unreadable where it was made and not synced.
TEST_F(FwlabSweepTest, TellsWhatPhonesAreLeftWith) {
    Put("/package", EmmcEntry());
    Put("/gki.toml", GkiPhone());
    Put("/other.toml", GkiPhone({{"revision", "'FW000002'"}}));
    const Answer answer = Sweep("package --phone gki.toml other.toml --junit out.xml --html page");
    EXPECT_EQ(answer.status, 0) << answer.text;
    EXPECT_NE(answer.text.find("gki.toml: eMMC (GKI mode) \"SIM064\", runs \"FW000001\"\n"
                               "  without a fault: updated, in "),
              std::string::npos);
    // Before: directory, end flag, begin flag, record | write, sync | ok, fail, body (twice), GKI
    // node | flag, its time, begin flag, end flag, and after it.
    EXPECT_EQ(Number(answer.text, "power cuts", "updated by the next run"), 4);
    EXPECT_EQ(Number(answer.text, "power cuts", "stuck"), 2);
    EXPECT_EQ(Number(answer.text, "power cuts", "attempted and used up"), 4);
    EXPECT_EQ(Number(answer.text, "power cuts", "updated"), 6);
    EXPECT_EQ(Number(answer.text, "power cuts", ""), 16);
    EXPECT_GT(Number(answer.text, "failing calls", "updated by the next run"), 0);
    EXPECT_GT(Number(answer.text, "possible states after these cuts", ""),
              16 + 100); // torn records

    const std::string other = answer.text.substr(answer.text.find("other.toml"));
    EXPECT_EQ(Number(other, "failing calls", "left as it was"), Number(other, "failing calls", ""));
    EXPECT_EQ(Number(other, "power cuts", "left as it was"), Number(other, "power cuts", ""));

    const std::string junit = Get("/out.xml");
    std::smatch calls;
    ASSERT_TRUE(std::regex_search(junit, calls,
                                  std::regex("name=\"gki.toml\" tests=\"(\\d+)\" "
                                             "failures=\"0\"")));
    EXPECT_EQ(Occurrences(junit, "classname=\"gki.toml\""), std::stol(calls[1]));

    // Whichever process makes a run, all is the same.
    const Answer again = Sweep("package --phone gki.toml other.toml --jobs 5 --html again");
    EXPECT_EQ(again.text, answer.text);
    EXPECT_EQ(Get("/again"), Get("/page"));
    ExpectWhole(Get("/page"));
}

// A sync that does nothing, which no program can see, loses the record: the sweep has to find that,
// and its line, pasted, shows a phone that is not well.
TEST_F(FwlabSweepTest, ViolationsAreToldAndCanBePasted) {
    const std::string name = "it's <b>\x1b&.toml";
    Put("/package", EmmcEntry());
    Put("/" + name, NormalPhone({{"faults", "['fsync returns=0', 'FFU_INSTALL EIO']"}}));
    const Answer answer =
        Sweep("package --phone $'it\\'s <b>\\x1b&.toml' --html out.html --junit out.xml");
    EXPECT_EQ(answer.status, 1);
    std::smatch line;
    ASSERT_TRUE(std::regex_search(
        answer.text, line,
        std::regex("VIOLATION: a later run, without a restart, asks the device for the update "
                   "again:\n    fwlab (rehearse [^\n]*--fault 'any #\\d+ end[^\n]*)\n")));
    const Answer pasted = Shell(FWLAB_PATH " " + std::string(line[1]));
    EXPECT_EQ(pasted.status, 1);
    EXPECT_EQ(Occurrences(pasted.text, "opcode=302 "), 2) << pasted.text; // two runs have asked
    EXPECT_NE(pasted.text.find("did NOT find nothing to do"), std::string::npos);
    for (const std::string& text : {answer.text, Get("/out.html"), Get("/out.xml")}) {
        EXPECT_EQ(text.find('\x1b'), std::string::npos);
    }
    for (const char* file : {"/out.html", "/out.xml"}) {
        EXPECT_EQ(Get(file).find("<b>\\"), std::string::npos) << file;
        EXPECT_NE(Get(file).find("it&#39;s &lt;b&gt;\\x1b&amp;.toml"), std::string::npos) << file;
        EXPECT_NE(Get(file).find("asks the device for the update again"), std::string::npos);
    }
    EXPECT_NE(Get("/out.xml").find("<failure "), std::string::npos);
}

// A device that takes a part of the image is not told as updated.
TEST_F(FwlabSweepTest, ShortReadsLeaveAnotherImage) {
    Put("/package", UfsEntry());
    Put("/phone.toml", UfsPhone({{"faults", "['open /splash2/test_ffu_trigger.tmp EACCES']"}}));
    const Answer answer = Sweep("package --phone phone.toml");
    EXPECT_EQ(answer.status, 0) << answer.text;
    EXPECT_GT(Number(answer.text, "failing calls", "left with another image"), 0);
}

TEST_F(FwlabSweepTest, EndsBeforeTheRunsWhereItCannotFinish) {
    Put("/package", EmmcEntry());
    Put("/phone.toml", GkiPhone());
    Put("/bad.toml", "technology = 'ufs'");
    Put("/page", "as it was");
    for (const char* arguments :
         {"package", "gone --phone phone.toml", "package --phone gone", "package --phone bad.toml",
          "package --phone phone.toml bad.toml --html page",
          "package --phone phone.toml --html gone/page", "package --phone phone.toml --jobs 0",
          "package --phone phone.toml --html page --junit gone/page"}) {
        SCOPED_TRACE(arguments);
        EXPECT_EQ(Sweep(arguments).status, 2);
    }
    EXPECT_EQ(Get("/page"), "as it was");
}

TEST_F(FwlabSweepTest, AnInterruptionLeavesNothing) {
    Put("/package", UfsEntry());
    Put("/phone.toml", UfsPhone());
    Put("/page", "as it was");
    const Answer answer =
        Shell(FWLAB_PATH " sweep package --phone phone.toml --html page & "
                         "while kill -0 $! && ! ls tmp/*/phone-0/journal.log; do "
                         "sleep 0.01; done >tmp.log 2>&1; kill -TERM $!; wait $!");
    EXPECT_EQ(answer.status, 128 + SIGTERM) << answer.text;
    EXPECT_EQ(Get("/page"), "as it was");
    EXPECT_EQ(std::distance(fs::directory_iterator(directory), {}),
              6); // those, tmp, tmp.log and line
}
