// The result text and file, and the maintenance-script mode (-test).
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>

#include "app/result_store.h"
#include "bridge/app_commands.h"
#include "tests/app/app_test_support.h"

using namespace kvotest;

namespace {

char* Text(const char* text) { return text ? strcpy(new char[strlen(text) + 1], text) : nullptr; }

TEST(ResultText, SuccessWordsGiveWayToTheSuccessText) {
    struct Row {
        const char *result, *successText, *text;
    } rows[] = {{nullptr, nullptr, "OK"},       {"", "", "OK"},
                {nullptr, "done", "done"},      {"", "done", "done"},
                {"OK", "done", "done"},         {"CKR_OK", "done", "done"},
                {"CKR_OK", nullptr, "CKR_OK"},  {"CKR_OK", "", "CKR_OK"},
                {"CKR_PIN_INCORRECT", "done", "CKR_PIN_INCORRECT"},
                {"CKR_PIN_INCORRECT", nullptr, "CKR_PIN_INCORRECT"},
                {"ok", "done", "ok"},           {"OK ", "done", "OK "}};  // whole, exact comparison
    for (const Row& r : rows) {
        ReleaseExitTexts();
        g_exitResult = Text(r.result);
        g_exitSuccessText = Text(r.successText);
        EXPECT_STREQ(ResultText(), r.text) << (r.result ? r.result : "(null)") << " / "
                                           << (r.successText ? r.successText : "(null)");
    }
    ReleaseExitTexts();
}

TEST(StoreResult, WritesExactlyTheBytesOrNoFileAtAll) {
    TempDir dir;
    ASSERT_EQ(chdir(dir.path().c_str()), 0);
    ASSERT_TRUE(WriteFile(dir.file("result"), "an older and much longer content\n"));
    g_exitResult = Text("Gr\xc3\xbc\xc3\x9f" "e");
    StoreResult(dir.file("result").c_str());
    EXPECT_EQ(ReadFileOr(dir.file("result")), "Gr\xc3\xbc\xc3\x9f" "e");
    ReleaseExitTexts();
    StoreResult(dir.file("new").c_str());
    EXPECT_EQ(ReadFileOr(dir.file("new")), "OK");
    // Empty, null or unopenable paths: nothing is written anywhere.
    for (const std::string& path : {std::string(), dir.file("no/such/dir"), dir.path()}) StoreResult(path.c_str());
    StoreResult(nullptr);
    std::string out;
    RunProcess({"/bin/ls", "-A", dir.path()}, {}, 5000, &out);
    EXPECT_EQ(out, "new\nresult\n");
}

TEST(TestOption, InstallFromTheWorkingDirectoryOthersSearchedAndOnlyExactValues) {
    TempDir cwd, marks;
    ASSERT_EQ(chdir(cwd.path().c_str()), 0);
    for (std::string name : {"install", "repair", "uninstall"}) {
        PutFile(cwd.file("." + name), "#!/bin/sh\n: > '" + marks.file("cwd-" + name) + "'\n", 0755);
        PutFile(Home("/.kvo/" + name), "#!/bin/sh\n: > '" + marks.file("home-" + name) + "'\n", 0755);
    }
    for (const char* value : {"", "install", "script  install", "Script install", "script install ", " script repair",
                              "script Repair", "script", (const char*)nullptr}) {
        EXPECT_EQ(RunTestOption(value), 0) << (value ? value : "(null)");
    }
    std::string out;
    RunProcess({"/bin/ls", marks.path()}, {}, 5000, &out);
    EXPECT_EQ(out, "");
    for (const char* value : {"script install", "script repair", "script uninstall"}) {
        EXPECT_EQ(RunTestOption(value), 0);
    }
    RunProcess({"/bin/ls", marks.path()}, {}, 5000, &out);
    EXPECT_EQ(out, "cwd-install\nhome-repair\nhome-uninstall\n");
}

}  // namespace
