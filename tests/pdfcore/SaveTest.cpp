// Saves into the file system as it is: failures half way, targets that are links, read-only,
// not regular files or another user's, and the temporary files beside the target.
#include "TestSupport.h"

#include <csignal>
#include <regex>
#include <set>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace pdtest;
namespace fs = std::filesystem;

namespace {

std::set<std::string> entries(const std::string& folder) {
    std::set<std::string> out;
    for (const auto& e : fs::directory_iterator(folder)) out.insert(e.path().filename().string());
    return out;
}

struct stat statOf(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(lstat(path.c_str(), &st), 0) << path;
    return st;
}

class Saves : public ::testing::Test {
  protected:
    void SetUp() override {
        doc = createDoc();
        field = createField(doc.get(), "name", PD_ATOM_Tx);
        addWidget(doc.get(), field.get(), page(doc.get(), 0).get(), rect(72, 700, 272, 724));
    }
    // Gives the document a new value, so that each save writes other bytes.
    void change(const std::string& value) { ASSERT_EQ(setValue(field.get(), u16(value)), PD_OK); }

    ScratchDir dir;
    Owned doc, field;
};

TEST_F(Saves, FailuresLeaveTheTargetAsItWasAndNothingBeside) {
    const std::string plain = dir.file("plain.txt");
    std::ofstream(plain) << "not a folder";
    EXPECT_EQ(PDDocSave(doc.get(), dir.file("missing/form.pdf").c_str()), PD_ERR_IO);
    EXPECT_EQ(PDDocSave(doc.get(), (plain + "/form.pdf").c_str()), PD_ERR_IO);
    EXPECT_EQ(PDDocSaveEx(doc.get(), dir.file("form.pdf").c_str(), 0x80), PD_ERR_BAD_ARGUMENT);

    // A write stopped half way by the file size limit (which holds for root too); with
    // SIGXFSZ ignored it fails with EFBIG.
    const std::string target = dir.file("form.pdf");
    ASSERT_EQ(PDDocSave(doc.get(), target.c_str()), PD_OK);
    const std::string before = slurp(target);
    change("changed");
    rlimit old{};
    getrlimit(RLIMIT_FSIZE, &old);
    const auto handler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit limit = old;
    limit.rlim_cur = before.size() / 2;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    const PDResult r = PDDocSave(doc.get(), target.c_str());
    setrlimit(RLIMIT_FSIZE, &old);
    std::signal(SIGXFSZ, handler);
    EXPECT_EQ(r, PD_ERR_FILE_LIMIT);
    EXPECT_TRUE(slurp(target) == before) << "a failed save changed the target";
    EXPECT_EQ(entries(dir.file("")), (std::set<std::string>{"plain.txt", "form.pdf"}));
    ASSERT_EQ(PDDocSave(doc.get(), target.c_str()), PD_OK);
    EXPECT_EQ(qpdfCheck(target), 0);
}

// The staged file is private until it takes the target's place, and its permissions; root
// also gives it the owner and group of another user.
TEST_F(Saves, AStagedFileIsOursUntilCommittedThenTakesTheTargetsPlaceAndMode) {
    const std::string target = dir.file("a.pdf");
    std::ofstream(target) << "old";
    ASSERT_EQ(chmod(target.c_str(), 0640), 0);
    if (geteuid() == 0) {
        ASSERT_EQ(chown(target.c_str(), 4321, 5432), 0);
    }
    const struct stat before = statOf(target);
    PDStagedFile staged = nullptr;
    ASSERT_EQ(PDFileStage(target.c_str(), "new", 3, 0, &staged), PD_OK);
    auto names = entries(dir.file(""));
    names.erase("a.pdf");
    ASSERT_EQ(names.size(), 1u);
    const std::string temp = *names.begin();
    EXPECT_TRUE(std::regex_match(temp, std::regex("\\.a\\.pdf\\.qfforms-" +
                                                  std::to_string(getpid()) + "-[0-9a-f]{8}\\.tmp")))
        << temp;
    EXPECT_EQ(slurp(target), "old");
    EXPECT_EQ(PDStagedFileCommit(staged), PD_OK);
    const struct stat after = statOf(target);
    EXPECT_EQ(slurp(target), "new");
    EXPECT_EQ(after.st_mode & 07777, 0640u);
    EXPECT_EQ(after.st_uid, before.st_uid);
    EXPECT_EQ(after.st_gid, before.st_gid);

    ASSERT_EQ(PDFileStage(target.c_str(), "newer", 5, 0, &staged), PD_OK);
    PDStagedFileDiscard(staged);
    EXPECT_EQ(slurp(target), "new");
    EXPECT_EQ(entries(dir.file("")), (std::set<std::string>{"a.pdf"}));
}

TEST_F(Saves, LinksAreWrittenThroughAndStay) {
    fs::create_directory(dir.file("real"));
    std::ofstream(dir.file("real/form.pdf")) << "old";
    fs::create_symlink("real/form.pdf", dir.file("link.pdf"));
    fs::create_symlink("link.pdf", dir.file("second.pdf"));
    ASSERT_EQ(PDDocSave(doc.get(), dir.file("second.pdf").c_str()), PD_OK);
    EXPECT_TRUE(fs::is_symlink(dir.file("second.pdf")) && fs::is_symlink(dir.file("link.pdf")));
    EXPECT_EQ(qpdfCheck(dir.file("real/form.pdf")), 0);
    EXPECT_EQ(entries(dir.file("real")), (std::set<std::string>{"form.pdf"}));
    // A link that leads nowhere is not followed to make a file there.
    fs::create_symlink("nowhere.pdf", dir.file("dangling.pdf"));
    EXPECT_EQ(PDDocSave(doc.get(), dir.file("dangling.pdf").c_str()), PD_ERR_NOT_A_FILE);
    EXPECT_FALSE(fs::exists(dir.file("nowhere.pdf")));
}

// Opening a FIFO without a reader for writing blocks: the refusal must come at once.
TEST_F(Saves, WhatIsNotARegularFileIsRefusedWithoutBlocking) {
    ASSERT_EQ(mkfifo(dir.file("pipe.pdf").c_str(), 0644), 0);
    fs::create_directory(dir.file("folder.pdf"));
    fs::create_symlink("pipe.pdf", dir.file("to-pipe.pdf"));
    // A null device of our own where we may make one, so that a fault cannot replace the
    // system's.
    std::string device = dir.file("null.pdf");
    if (mknod(device.c_str(), S_IFCHR | 0666, makedev(1, 3)) != 0) device = "/dev/null";
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        int wrong = 0;
        for (const char* name : {"pipe.pdf", "folder.pdf", "to-pipe.pdf"})
            wrong += PDDocSave(doc.get(), dir.file(name).c_str()) != PD_ERR_NOT_A_FILE;
        wrong += PDDocSave(doc.get(), device.c_str()) != PD_ERR_NOT_A_FILE;
        _exit(wrong);
    }
    int status = 0;
    for (int i = 0; i < 200 && waitpid(child, &status, WNOHANG) != child; ++i) usleep(50000);
    if (kill(child, SIGKILL) == 0) {
        waitpid(child, nullptr, 0);
        FAIL() << "a save blocked for 10 seconds";
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "not refused: " << status;
    EXPECT_TRUE(S_ISFIFO(statOf(dir.file("pipe.pdf")).st_mode));
    EXPECT_TRUE(S_ISCHR(statOf(device).st_mode));
    EXPECT_TRUE(fs::is_empty(dir.file("folder.pdf")));
}

// access() lets root write anything: the permission bits decide, for root too.
TEST_F(Saves, ReadOnlyTargetsAreWrittenOnlyWhenForcedAndStayReadOnly) {
    const std::string target = dir.file("form.pdf");
    std::ofstream(target) << "old";
    ASSERT_EQ(chmod(target.c_str(), 0444), 0);
    EXPECT_EQ(PDDocSave(doc.get(), target.c_str()), PD_ERR_READ_ONLY);
    PDStagedFile staged = nullptr;
    EXPECT_EQ(PDFileStage(target.c_str(), "x", 1, 0, &staged), PD_ERR_READ_ONLY);
    EXPECT_EQ(slurp(target), "old");
    ASSERT_EQ(PDDocSaveEx(doc.get(), target.c_str(), PD_SAVE_FORCE), PD_OK);
    EXPECT_EQ(qpdfCheck(target), 0);
    EXPECT_EQ(statOf(target).st_mode & 07777, 0444u);
    EXPECT_EQ(entries(dir.file("")), (std::set<std::string>{"form.pdf"}));
}

// What a process killed while saving left goes at the next save into the folder; what may
// still be written, or is not ours, stays.
TEST_F(Saves, StaleTemporaryFilesOfOursGoAndNothingElse) {
    const pid_t ended = fork();
    if (ended == 0) _exit(0);
    waitpid(ended, nullptr, 0);
    const std::string dead = std::to_string(ended), self = std::to_string(getpid());
    const std::string stale = ".a.pdf.qfforms-" + dead + "-0123abcd.tmp";
    const std::string recent = ".b.pdf.qfforms-" + dead + "-0123abcd.tmp";
    std::set<std::string> kept = {recent,
                                  ".a.pdf.qfforms-" + self + "-0123abcd.tmp", // it runs
                                  ".a.pdf.qfforms-" + dead + "-0123abc.tmp",  // off the pattern
                                  ".a.pdf.other-" + dead + "-0123abcd.tmp"};
    for (const auto& name : kept) std::ofstream(dir.file(name)) << "partial";
    std::ofstream(dir.file(stale)) << "partial";
    fs::create_directory(dir.file(".c.pdf.qfforms-" + dead + "-0123abcd.tmp"));
    kept.insert(".c.pdf.qfforms-" + dead + "-0123abcd.tmp");
    if (geteuid() == 0) {
        const std::string others = ".d.pdf.qfforms-" + dead + "-0123abcd.tmp";
        std::ofstream(dir.file(others)) << "another user's";
        ASSERT_EQ(chown(dir.file(others).c_str(), 4321, 4321), 0);
        kept.insert(others);
    }
    const timeval hourAgo[2] = {{time(nullptr) - 3600, 0}, {time(nullptr) - 3600, 0}};
    for (const auto& name : entries(dir.file("")))
        EXPECT_TRUE(name == recent || utimes(dir.file(name).c_str(), hourAgo) == 0) << name;

    ASSERT_EQ(PDDocSave(doc.get(), dir.file("a.pdf").c_str()), PD_OK);
    kept.insert("a.pdf");
    EXPECT_EQ(entries(dir.file("")), kept);
}

} // namespace
