#include "main/CommandLine.h"

#include "fakes/FakePlatform.h"
#include "main/ChildProcess.h"

#include <array>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace orvexd {
namespace {

using test::Ending;
using test::report;
using test::runInChild;

/// The words as main gets them, the null behind the last one included.
StartUp apply(std::vector<std::string> words) {
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    return applyCommandLine(static_cast<int>(words.size()), argv.data());
}

class CommandLineTest : public testing::Test {
protected:
    CommandLineTest() { fake_platform::reset(); }
    ~CommandLineTest() override { fake_platform::reset(); }
    CommandLineTest(const CommandLineTest&) = delete;
    CommandLineTest& operator=(const CommandLineTest&) = delete;

    static std::string preinstalled() { return fake_platform::state().preinstalledFilesPath; }
    static std::string storage() { return fake_platform::state().storagePath; }

    const std::string preinstalledBefore_ = fake_platform::State{}.preinstalledFilesPath;
    const std::string storageBefore_ = fake_platform::State{}.storagePath;
};

TEST_F(CommandLineTest, NoOptionMeansServe) {
    EXPECT_EQ(apply({"orvexd"}), StartUp::Serve);
    EXPECT_EQ(preinstalled(), preinstalledBefore_);
    EXPECT_EQ(storage(), storageBefore_);
}

TEST_F(CommandLineTest, NoWordsAtAllMeansServe) {
    EXPECT_EQ(apply({}), StartUp::Serve);
    char* none = nullptr;
    EXPECT_EQ(applyCommandLine(0, &none), StartUp::Serve);
    EXPECT_EQ(applyCommandLine(0, nullptr), StartUp::Serve);
    EXPECT_EQ(applyCommandLine(-1, nullptr), StartUp::Serve);
}

TEST_F(CommandLineTest, NullProgramNameMeansServe) {
    char* none = nullptr;
    EXPECT_EQ(applyCommandLine(1, &none), StartUp::Serve);
}

TEST_F(CommandLineTest, NullInPlaceOfAnArgumentEndsTheScan) {
    std::string option = "--preinst-dir";
    std::array<char*, 2> argv = {option.data(), nullptr};
    EXPECT_EQ(applyCommandLine(2, argv.data()), StartUp::Serve);
    EXPECT_EQ(preinstalled(), preinstalledBefore_);
}

TEST_F(CommandLineTest, VersionHasTwoSpellings) {
    EXPECT_EQ(apply({"orvexd", "--version"}), StartUp::PrintVersion);
    EXPECT_EQ(apply({"orvexd", "-v"}), StartUp::PrintVersion);
}

TEST_F(CommandLineTest, ScanBeginsAtTheProgramName) {
    EXPECT_EQ(apply({"--version"}), StartUp::PrintVersion);
    EXPECT_EQ(apply({"-v"}), StartUp::PrintVersion);
    EXPECT_EQ(apply({"--preinst-dir", "/taken"}), StartUp::Serve);
    EXPECT_EQ(preinstalled(), "/taken");
}

TEST_F(CommandLineTest, UnknownWordsAreSkipped) {
    EXPECT_EQ(apply({"orvexd", "--help", "", "-", "--", "word", "--preinst-dir", "/p"}),
              StartUp::Serve);
    EXPECT_EQ(preinstalled(), "/p");
}

TEST_F(CommandLineTest, OptionsMatchExactly) {
    for (const std::string word :
         {"--Version", "-V", "--versio", "--version=1", "-vD", " -v", "--daemon=1", "-d",
          "--preinst-dir=/p", "--storage-dir=/s", "--PREINST-DIR"}) {
        EXPECT_EQ(apply({"orvexd", word, "/x"}), StartUp::Serve) << word;
    }
    EXPECT_EQ(preinstalled(), preinstalledBefore_);
    EXPECT_EQ(storage(), storageBefore_);
}

TEST_F(CommandLineTest, PreinstalledDirectoryIsSet) {
    EXPECT_EQ(apply({"orvexd", "--preinst-dir", "/etc/orvexd"}), StartUp::Serve);
    EXPECT_EQ(preinstalled(), "/etc/orvexd");
    EXPECT_EQ(storage(), storageBefore_);
}

TEST_F(CommandLineTest, StorageDirectoryIsSetAndNotCreated) {
    EXPECT_EQ(apply({"orvexd", "--storage-dir", "/var/x"}), StartUp::Serve);
    EXPECT_EQ(storage(), "/var/x");
    EXPECT_FALSE(fake_platform::state().storagePathCreate);
    EXPECT_EQ(preinstalled(), preinstalledBefore_);
}

TEST_F(CommandLineTest, LaterDirectoryWins) {
    EXPECT_EQ(apply({"orvexd", "--preinst-dir", "/a", "--preinst-dir", "/b"}), StartUp::Serve);
    EXPECT_EQ(preinstalled(), "/b");
}

TEST_F(CommandLineTest, EmptyDirectoryIsADirectory) {
    EXPECT_EQ(apply({"orvexd", "--preinst-dir", ""}), StartUp::Serve);
    EXPECT_EQ(preinstalled(), "");
}

TEST_F(CommandLineTest, ArgumentIsConsumedEvenIfItLooksLikeAnOption) {
    EXPECT_EQ(apply({"orvexd", "--preinst-dir", "--version"}), StartUp::Serve);
    EXPECT_EQ(preinstalled(), "--version");
    EXPECT_EQ(apply({"orvexd", "--storage-dir", "--preinst-dir", "/x"}), StartUp::Serve);
    EXPECT_EQ(storage(), "--preinst-dir");
    EXPECT_EQ(preinstalled(), "--version");
}

TEST_F(CommandLineTest, OptionWithoutItsArgumentEndsTheScan) {
    EXPECT_EQ(apply({"orvexd", "--preinst-dir"}), StartUp::Serve);
    EXPECT_EQ(apply({"orvexd", "--storage-dir"}), StartUp::Serve);
    EXPECT_EQ(preinstalled(), preinstalledBefore_);
    EXPECT_EQ(storage(), storageBefore_);
}

TEST_F(CommandLineTest, OptionsBeforeAnIncompleteOneHaveTakenEffect) {
    EXPECT_EQ(apply({"orvexd", "--storage-dir", "/s", "--preinst-dir"}), StartUp::Serve);
    EXPECT_EQ(storage(), "/s");
}

TEST_F(CommandLineTest, WordsBehindVersionAreNotLookedAt) {
    EXPECT_EQ(apply({"orvexd", "--version", "--preinst-dir", "/p"}), StartUp::PrintVersion);
    EXPECT_EQ(preinstalled(), preinstalledBefore_);
}

TEST_F(CommandLineTest, WordsBeforeVersionHaveTakenEffect) {
    EXPECT_EQ(apply({"orvexd", "--preinst-dir", "/p", "-v"}), StartUp::PrintVersion);
    EXPECT_EQ(preinstalled(), "/p");
}

// -- detaching -----------------------------------------------------------------------------------

std::string describe(StartUp startUp) {
    return startUp == StartUp::PrintVersion ? "version" : "serve";
}

/// Applies the words in a child that starts in /usr. @return what became of it.
std::string becomes(const std::vector<std::string>& words) {
    const Ending ending = runInChild([&](int out) {
        std::filesystem::current_path("/usr");
        const pid_t before = getpid();
        std::string text = describe(apply(words));
        text += getpid() == before ? ", same process" : ", new process";
        text += getsid(0) == getpid() ? ", own session" : "";
        text += ", in " + std::filesystem::current_path().string();
        for (const char* stream : {"0", "1", "2"}) {
            const auto target =
                std::filesystem::read_symlink(std::string("/proc/self/fd/") + stream);
            text += target == "/dev/null" ? ", null" : "";
        }
        text += ", " + fake_platform::state().preinstalledFilesPath;
        report(out, text);
        return 0;
    });
    EXPECT_EQ(ending.status, 0) << "the process that was started leaves at once";
    return ending.report;
}

TEST_F(CommandLineTest, DaemonDetaches) {
    for (const std::string option : {"--daemon", "-D"}) {
        EXPECT_EQ(becomes({"orvexd", option}),
                  "serve, new process, own session, in /, null, null, null, /nonexistent");
    }
}

TEST_F(CommandLineTest, ScanGoesOnAfterDaemon) {
    EXPECT_EQ(becomes({"orvexd", "--daemon", "--preinst-dir", "/p"}),
              "serve, new process, own session, in /, null, null, null, /p");
}

TEST_F(CommandLineTest, DaemonBeforeVersionDetachesFirst) {
    EXPECT_EQ(becomes({"orvexd", "--daemon", "--version"}),
              "version, new process, own session, in /, null, null, null, /nonexistent");
}

TEST_F(CommandLineTest, VersionBeforeDaemonDoesNotDetach) {
    EXPECT_TRUE(
        becomes({"orvexd", "--version", "--daemon"}).starts_with("version, same process, in /usr"));
}

TEST_F(CommandLineTest, DaemonInPlaceOfADirectoryDoesNotDetach) {
    const std::string text = becomes({"orvexd", "--preinst-dir", "--daemon"});
    EXPECT_TRUE(text.starts_with("serve, same process, in /usr")) << text;
    EXPECT_TRUE(text.ends_with(", --daemon")) << text;
}

} // namespace
} // namespace orvexd
