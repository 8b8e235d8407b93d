// The sweep of a package as a user starts it: what it says, what it writes, and how it ends. The
// tool itself is swept by sweep_test.
#include "test/fwlab/fwlab.h"

#include <sstream>

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
        Put("/line", "cd " + directory + "\nexport TMPDIR=$PWD/tmp SOURCE_DATE_EPOCH=1772874302\n" +
                         line + "\n");
        return ::Shell("bash " + Path("/line"));
    }
    Answer Sweep(const std::string& arguments) const {
        return Shell(FWLAB_PATH " sweep " + arguments);
    }

    // An fwlab beside a tool that has these flaws, see flawed_tool.cc. Returns how to start it.
    std::string Flawed(const std::string& flaws) const {
        for (const auto& [file, name] : {std::pair(FWLAB_PATH, "fwlab"),
                                         {SIMPHONE_LIBRARY, "libsimphone.so"},
                                         {FLAWED_TOOL, "ffu"}}) {
            fs::create_directories(Path("/flawed"));
            fs::copy_file(file, Path("/flawed/") + name, fs::copy_options::skip_existing);
        }
        return "FLAWS=' " + flaws + " ' flawed/fwlab ";
    }
};

// What somebody signs, and nothing that is loaded from elsewhere or could be taken for a script.
void ExpectWhole(const std::string& page, const std::string& verdict) {
    Expect({0, page}, 0, verdict);
    Expect({0, page}, 0,
           "<code>package</code>, " + std::to_string(EmmcEntry().size()) +
               " bytes*<dt>SHA-256</dt><dd><code>*<dd>fwlab *2026-03-07T09:05:02Z");
    EXPECT_EQ(Count(page, "http"), 0);
    EXPECT_EQ(Count(page, "<script"), 2);
    EXPECT_EQ(Count(page, "</script"), 2);
}

} // namespace

// The device is asked once. What the power leaves before that is updated later, if the record is
// not there, or used up; and the record is unreadable where it was made and not synced.
TEST_F(FwlabSweepTest, TellsWhatPhonesAreLeftWith) {
    Put("/package", EmmcEntry());
    Put("/gki.toml", GkiPhone());
    Put("/other.toml", GkiPhone({{"revision", "'FW000002'"}}));
    const std::string all = "package --phone gki.toml other.toml --junit out.xml --html page";
    const Answer answer = Sweep(all + " --jobs 4");
    // Before: directory, end flag, begin flag, record | write, sync | ok, fail, body (twice), GKI
    // node | flag, its time, begin flag, end flag, and after it. A record may be torn at each byte.
    // The other phone is not updated.
    Expect(answer, 1,
           "gki.toml: eMMC (GKI mode) \"SIM064\", runs \"FW000001\"\n"
           "  without a fault: updated, in * failing calls: *, ?? updated-next, *\n"
           "  16 power cuts: 6 updated, 4 updated-next, 4 used-up, 2 record-unreadable\n"
           "    ??? possible states after these cuts: *, 1?? record-unreadable\n"
           "other.toml: *NOT UPDATED without a fault: nothing-to-do: *\n"
           "  ?? failing calls: ?? nothing-to-do\n  ? power cuts: ? nothing-to-do\n");
    const std::string junit = Get("/out.xml");
    std::smatch calls;
    ASSERT_TRUE(std::regex_search(junit, calls,
                                  std::regex("name=\"gki.toml\" tests=\"(\\d+)\" "
                                             "failures=\"0\" errors=\"0\" ")));
    EXPECT_EQ(Count(junit, "classname=\"gki.toml\""), std::stol(calls[1]));
    Expect({0, junit}, 0,
           "<testcase classname=\"other.toml\" name=\"the update without a fault\" time=\"0\">"
           "<failure type=\"not-updated\" message=\"not updated\">nothing-to-do: ");

    // Whichever thread makes a run, all is the same, to the byte.
    const std::string page = Get("/page");
    EXPECT_EQ(Sweep(all + " --jobs 1").text, answer.text);
    EXPECT_EQ(Get("/page"), page);
    EXPECT_EQ(Get("/out.xml"), junit);
    ExpectWhole(page, "0 violations in *; not updated: other.toml.");
}

// In Chromium, in frames of both widths, which tell their width and whether each thing is so.
TEST_F(FwlabSweepTest, ABarOpensThePanelOfItsFault) {
    if (::Shell("command -v chromium").status != 0) {
        GTEST_SKIP() << "there is no chromium here to look at the page";
    }
    Put("/package", EmmcEntry());
    Put("/phone.toml", GkiPhone());
    ASSERT_EQ(Sweep("package --phone phone.toml --html out.html").status, 0);
    Put("/page.html", Get("/out.html") + R"(<script>{
        const bar = [...document.querySelectorAll(".course a")].find(
            one => one.title.includes("write /data/vendor/fw/fw_result, it fails"));
        const panel = document.getElementById("panel");
        const title = document.getElementById(panel.getAttribute("aria-labelledby"));
        const fits = () => document.documentElement.scrollWidth <= innerWidth &&
                           panel.scrollWidth <= panel.clientWidth;
        const next = () => new Promise(done => addEventListener("hashchange", done, {once: true}));
        async function look() {
            const is = [fits()];
            bar.click();
            await next();
            is.push(/^Call \d+ write .*fw_result: it fails, EIO$/.test(title.textContent),
                    panel.textContent.includes("log     | FFU process BeginFlag: remove "), fits(),
                    bar.getBoundingClientRect().bottom <= panel.getBoundingClientRect().top);
            dispatchEvent(new KeyboardEvent("keydown", {key: "Escape"}));
            await next();
            return [innerWidth, ...is, panel.hidden, document.activeElement === bar];
        }
        look().catch(String).then(all => parent.postMessage(`[${all}]`, "*"));
    }</script>)");
    Put("/frames.html", "<script>onmessage = sent => document.body.append(sent.data)</script>"
                        "<iframe src=page.html width=1280 height=900></iframe>"
                        "<iframe src=page.html width=400 height=900></iframe>");
    const Answer answer =
        ::Shell("cd " + directory +
                " && chromium --headless --no-sandbox --disable-gpu --disable-quic --no-first-run "
                "--disable-background-networking --disable-component-update --disable-sync "
                "--user-data-dir=$PWD/chromium --virtual-time-budget=20000 --dump-dom "
                "file://$PWD/frames.html");
    for (const char* width : {"[1280", "[400"}) {
        EXPECT_EQ(Count(answer.text, width + std::string(",true,true,true,true,true,true,true]")),
                  1)
            << answer.text;
    }
}

// Each kind of violation is told, and its line, pasted, shows it.
TEST_F(FwlabSweepTest, ViolationsAreToldAndCanBePasted) {
    const std::string name = "it's <script>\"\x1b&.toml", word = "$'it\\'s <script>\"\\x1b&.toml'";
    Put("/package", EmmcEntry());
    std::string phone = GkiPhone();
    const size_t clock = phone.find("clock ="); // the sweep gives it one
    Put("/" + name, phone.erase(clock, phone.find('\n', clock) - clock));
    const std::map<std::string, std::string> sentences = {
        {"no-end", "the tool does not end"},
        {"bad-end", "the tool does not end as it should"},
        {"record-shrinks", "the record loses what it had"},
        {"asked-unrecorded", "the device is asked before the attempt is on record"},
        {"taken-twice", "the device takes the firmware twice in one run"},
        {"asked-after-failure", "the device is asked after a failure that must stop the run"},
        {"asked-again", "a later run, without a restart, asks the device for the update again"},
        {"record-lost", "later runs cannot read the record, though it was synced"}};
    for (const std::string flaws :
         {"no-end bad-end record-shrinks taken-twice asked-after-failure asked-again",
          "asked-unrecorded", "record-lost"}) {
        const std::string fwlab = Flawed(flaws);
        const Answer answer =
            Shell(fwlab + "sweep package --phone " + word + " --html out.html --junit out.xml");
        EXPECT_EQ(answer.status, 1);
        std::istringstream words(flaws);
        for (std::string flaw; words >> flaw;) {
            SCOPED_TRACE(flaw);
            std::smatch line;
            const std::string text = "VIOLATION: " + sentences.at(flaw);
            ASSERT_TRUE(std::regex_search(answer.text, line,
                                          std::regex(text + ":\n    fwlab (rehearse [^\n]*)\n")));
            Expect(Shell(fwlab + std::string(line[1])), 1, text + "\n");
            Expect({0, Get("/out.html")}, 0, sentences.at(flaw));
        }
        for (const std::string& text : {answer.text, Get("/out.html"), Get("/out.xml")}) {
            EXPECT_EQ(text.find('\x1b'), std::string::npos);
        }
        for (const char* file : {"/out.html", "/out.xml"}) {
            EXPECT_NE(Count(Get(file), "it&apos;s &lt;script&gt;&quot;\\x1b&amp;.toml"), 0);
        }
        ExpectWhole(Get("/out.html"), " violations in ");
        Expect({0, Get("/out.xml")}, 0, "<failure type=\"violation\" message=\"violation\">");
    }
}

// Where this machine has failed, the sweep has no answer: neither "fine" nor a violation.
TEST_F(FwlabSweepTest, AFailureOfThisMachineIsNotThePhones) {
    Put("/package", EmmcEntry());
    Put("/phone.toml", GkiPhone());
    const Answer killed = Shell(Flawed("killed") + "sweep package --phone phone.toml --jobs 1");
    Expect(killed, 2, "the run could not be kept: this machine ended it: Killed");

    if (::Shell("unshare -rm mount -t tmpfs none /mnt").status != 0) {
        GTEST_SKIP() << "no file system can be mounted here by `unshare -rm`";
    }
    for (const char* size : {"16K", "40K"}) { // a phone and its run do not fit
        SCOPED_TRACE(size);
        const Answer answer =
            Shell("unshare -rm sh -c 'mount -t tmpfs -o size=" + std::string(size) +
                  " none tmp && exec " FWLAB_PATH " sweep package --phone phone.toml --jobs 1'");
        Expect(answer, 2, "No space left on device");
        EXPECT_EQ(Count(answer.text, "violations"), 0);
    }
}

TEST_F(FwlabSweepTest, EndsBeforeTheRunsWhereItCannotFinish) {
    Put("/package", EmmcEntry());
    Put("/phone.toml", GkiPhone());
    Put("/bad.toml", "technology = 'ufs'");
    Put("/faults.toml", GkiPhone({{"faults", "['fsync EIO']"}}));
    Put("/random", std::string(5000, 'r'));
    Put("/page", "as it was");
    for (const char* arguments :
         {"package", "random --phone phone.toml", "--phone phone.toml",
          "package --phone faults.toml", "package --phone phone.toml --set revison=0700",
          "package --phone phone.toml --state gone",
          "package --phone phone.toml --html new --junit ./new",
          "package --phone phone.toml --html page --junit ../$(basename $PWD)/page",
          "package --phone phone.toml --html ''", "package --phone phone.toml --junit ''",
          "gone --phone phone.toml", "package --phone gone", "package --phone bad.toml",
          "package --phone phone.toml bad.toml --html page",
          "package --phone phone.toml --html gone/page", "package --phone phone.toml --jobs 0",
          "package --phone phone.toml --html page --junit gone/page"}) {
        SCOPED_TRACE(arguments);
        EXPECT_EQ(Sweep(arguments).status, 2);
    }
    EXPECT_EQ(Get("/page"), "as it was");
}

TEST_F(FwlabSweepTest, AnInterruptionOrAChangedPackageLeavesNothing) {
    Put("/package", EmmcEntry());
    Put("/phone.toml", GkiPhone({{"revision", "'FW000002'"}})); // a short run: nothing to do
    Put("/page", "as it was");
    const auto sweepAnd = [&](const std::string& what) {
        return Shell(FWLAB_PATH " sweep package --phone phone.toml --html page & "
                                "while kill -0 $! && ! ls tmp/*/phone-0/journal.log; do "
                                "sleep 0.01; done >tmp.log 2>&1; " +
                     what + "; wait $!");
    };
    Expect(sweepAnd("kill -TERM $!"), 128 + SIGTERM);
    Expect(sweepAnd("printf x >> package"), 2, "package: has changed during the sweep");
    EXPECT_EQ(Get("/page"), "as it was");
    EXPECT_EQ(std::distance(fs::directory_iterator(directory), {}),
              6); // those, tmp, tmp.log and line
}
