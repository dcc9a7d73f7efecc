// The result text and file, and the maintenance-script mode.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "app/result_store.h"
#include "bridge/app_commands.h"
#include "tests/app/app_test_support.h"
#include "tests/support/support.h"

using kvotest::FileExists;
using kvotest::ReadFileOr;
using kvotest::TempDir;
using kvotest::WriteFile;

namespace {

int EntryCount(const std::string& path) {
    int count = 0;
    DIR* dir = opendir(path.c_str());
    if (dir == nullptr) return -1;
    while (struct dirent* entry = readdir(dir)) {
        if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) ++count;
    }
    closedir(dir);
    return count;
}

char* Text(const char* text) {
    if (text == nullptr) return nullptr;
    char* copy = new char[strlen(text) + 1];
    strcpy(copy, text);
    return copy;
}

std::string Result(const char* result, const char* successText) {
    ReleaseExitTexts();
    g_exitResult = Text(result);
    g_exitSuccessText = Text(successText);
    return ResultText();
}

TEST(ResultText, SuccessWordsGiveWayToTheSuccessText) {
    EXPECT_EQ("OK", Result(nullptr, nullptr));
    EXPECT_EQ("OK", Result("", ""));
    EXPECT_EQ("done", Result(nullptr, "done"));
    EXPECT_EQ("done", Result("", "done"));
    EXPECT_EQ("done", Result("OK", "done"));
    EXPECT_EQ("done", Result("CKR_OK", "done"));
    EXPECT_EQ("CKR_OK", Result("CKR_OK", nullptr));
    EXPECT_EQ("CKR_OK", Result("CKR_OK", ""));
    EXPECT_EQ("CKR_PIN_INCORRECT", Result("CKR_PIN_INCORRECT", "done"));
    EXPECT_EQ("CKR_PIN_INCORRECT", Result("CKR_PIN_INCORRECT", nullptr));
    // Exact, whole-text comparison.
    EXPECT_EQ("ok", Result("ok", "done"));
    EXPECT_EQ("OK ", Result("OK ", "done"));
    ReleaseExitTexts();
}

TEST(StoreResult, WritesExactlyTheBytesAndReplacesTheFile) {
    TempDir dir;
    const std::string file = dir.file("result");
    ASSERT_TRUE(WriteFile(file, "an older and much longer content\n"));
    g_exitResult = Text("Gr\xc3\xbc\xc3\x9f" "e");
    StoreResult(file.c_str());
    EXPECT_EQ("Gr\xc3\xbc\xc3\x9f" "e", ReadFileOr(file, "missing"));

    ReleaseExitTexts();
    const std::string created = dir.file("new");
    StoreResult(created.c_str());
    EXPECT_EQ("OK", ReadFileOr(created, "missing"));
}

TEST(StoreResult, NoFileForAnEmptyOrUnopenablePath) {
    kvotest::FreshHome home;
    TempDir dir;
    ASSERT_EQ(0, chdir(dir.path().c_str()));
    StoreResult("");
    StoreResult(nullptr);
    StoreResult(dir.file("no/such/dir").c_str());
    StoreResult(dir.path().c_str());  // a directory
    EXPECT_EQ(0, EntryCount(dir.path()));
}

class TestOption : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0, chdir(m_cwd.path().c_str()));
        ASSERT_EQ(0, mkdir((m_home + "/.kvo").c_str(), 0755));
        for (const char* name : {"install", "repair", "uninstall"}) {
            Script(m_cwd.file(std::string(".") + name), std::string("cwd-") + name);
            Script(m_home + "/.kvo/" + name, std::string("home-") + name);
        }
    }
    void Script(const std::string& path, const std::string& marker) {
        ASSERT_TRUE(WriteFile(path, "#!/bin/sh\n: > '" + m_marks.file(marker) + "'\n", 0755));
    }
    std::string Ran() {
        std::string names;
        for (const char* marker : {"cwd-install", "home-install", "cwd-repair", "home-repair", "cwd-uninstall",
                                   "home-uninstall"}) {
            if (FileExists(m_marks.file(marker))) names += std::string(names.empty() ? "" : " ") + marker;
        }
        return names;
    }
    kvotest::FreshHome m_fresh;
    TempDir m_cwd;
    TempDir m_marks;
    std::string m_home = m_fresh.path();
};

TEST_F(TestOption, InstallRunsFromTheWorkingDirectoryOthersSearchFirst) {
    EXPECT_EQ(0, RunTestOption("script install"));
    EXPECT_EQ("cwd-install", Ran());
    EXPECT_EQ(0, RunTestOption("script repair"));
    EXPECT_EQ(0, RunTestOption("script uninstall"));
    EXPECT_EQ("cwd-install home-repair home-uninstall", Ran());
}

TEST_F(TestOption, OnlyExactValuesRunAScript) {
    for (const char* value : {"", "install", "script  install", "Script install", "script install ", " script repair",
                              "script Repair", "script"}) {
        EXPECT_EQ(0, RunTestOption(value)) << value;
    }
    EXPECT_EQ(0, RunTestOption(nullptr));
    EXPECT_EQ("", Ran());
}

}  // namespace
