// The application shell's units that need no window: option lookups and
// numbers, geometry, command texts, the start URL, the result and the
// Application commands.
#include <gtest/gtest.h>
#include <gtk/gtk.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstring>

#include "app/app_commands.h"
#include "app/geometry.h"
#include "app/host_state.h"
#include "app/options.h"
#include "app/result_store.h"
#include "app/start_url.h"
#include "native/plugin_session.h"
#include "tests/app/argv.h"

using namespace kvotest;
using Words = std::vector<std::string>;

namespace {

TEST(Options, FirstExactMatchAfterIndexZeroAndValuesNeverBeginWithADash) {
    Argv args{"-title", "-Title", "X", "-url", "", "-icon", "-center", "-store", "A", "-store", "B",
              "-wait", "-5", "-size", "0x0BB8", "-key"};
    struct { const char* name; int found; const char* value; } rows[] = {
        {"-title", 0, nullptr}, {"-url", 1, ""}, {"-icon", 1, ""}, {"-store", 1, "A"}, {"-key", 1, ""}, {"-x", 0, nullptr}};
    for (const auto& r : rows) {
        const char* value = "stale";
        EXPECT_EQ(FindOptionValue(args.argc(), args.argv(), r.name, &value), r.found) << r.name;
        EXPECT_STREQ(value, r.value) << r.name;
    }
    struct { const char* name; int found; uint32_t number; } numbers[] = {
        {"-wait", 1, 0}, {"-size", 1, 3000}, {"-center", 1, 0}, {"-position", 0, 77}};
    for (const auto& r : numbers) {
        uint32_t number = 77;
        EXPECT_EQ(FindOptionNumber(args.argc(), args.argv(), r.name, &number), r.found) << r.name;
        EXPECT_EQ(number, r.number) << r.name;
    }
    EXPECT_EQ(HasOption(args.argc(), args.argv(), "-center"), 1);
    EXPECT_EQ(HasOption(args.argc(), args.argv(), "-Center"), 0);
    std::pair<const char*, uint32_t> parsed[] = {{"0X0BB8", 0}, {"12abc", 12}, {"+5", 5}, {"abc", 0}, {"0x", 0},
        {"-1", 0xFFFFFFFF}, {"4294967297", 1}, {"0xFFFFFFFF", 0xFFFFFFFF}, {"0x123456789", 0x23456789}, {"0xa", 42}};
    for (const auto& p : parsed) EXPECT_EQ(ParseNumber(p.first), p.second) << p.first;
}

TEST(Geometry, SizeCenterPositionAndFullscreen) {
    struct { Words args; int32_t width, height, x, y; } rows[] = {
        {{}, 256, 384, 0, 0},
        {{"-size", "0x01000200"}, 256, 482, 0, 0},  // the title bar's 30 pixels off the height
        {{"-size", "0x0100001F"}, 256, 1, 0, 0},    // never below one pixel
        {{"-size"}, 0, 1, 0, 0},
        {{"-center"}, 256, 384, 512, 320},
        {{"-center", "-size", "0x07D00212"}, 2000, 500, 0, 262},  // wider than the screen: x 0
        {{"-position", "0x00640032", "-center"}, 256, 384, 512, 320},
        {{"-position", "0x00640032"}, 256, 384, 100, 50},
        {{"-position", "0x80648032"}, 256, 384, 1280 - 256 - 100, 1024 - 384 - 50},  // from right and bottom
        {{"-fullscreen", "-size", "0x01000200", "-position", "0x00640032"}, 1280, 1024, 0, 0}};
    for (auto& r : rows) {
        r.args.insert(r.args.begin(), "host");
        Argv args(r.args);
        WindowGeometry g = ComputeWindowGeometry(args.argc(), args.argv(), 1280, 1024);
        EXPECT_EQ((std::vector<int32_t>{g.width, g.height, g.x, g.y}), (std::vector<int32_t>{r.width, r.height, r.x, r.y}))
            << testing::PrintToString(r.args);
    }
}

TEST(CommandText, BlanksSeparateQuotesGroupWithoutEscapesAndVectorsJoin) {
    std::pair<const char*, Words> rows[] = {
        {"-url page.html -title \"Two words\"", {"-url", "page.html", "-title", "Two words"}},
        {"   a    b   ", {"a", "b"}},
        {"a\tb c", {"a\tb", "c"}},      // only the space is a blank
        {"\"a\\\" b", {"a\\", "b"}},    // the backslash stays, the quote ends the word
        {"a\"b \"\"", {"a\"b", ""}},    // a quote inside a word is ordinary; "" is an empty word
        {"-title \"open end ", {"-title", "open end "}},
        {"", {}}, {nullptr, {}}, {"   ", {""}}};  // blanks alone: one empty word
    for (const auto& r : rows) {
        int32_t count = -1;
        char** words = SplitCommandText(r.first, &count);
        EXPECT_EQ(Words(words, words + count), r.second) << (r.first ? r.first : "(null)");
        EXPECT_EQ(words[count], nullptr);
        FreeArgumentVector(words);
    }
    char* first[] = {(char*)"a", nullptr, (char*)"c"};
    char** joined = JoinArgumentVectors(first, 3, first, -1);
    EXPECT_EQ(Words(joined, joined + 3), (Words{"a", "", "c"}));  // a null inside the count becomes ""
    EXPECT_EQ(joined[3], nullptr);
    FreeArgumentVector(joined);
    FreeArgumentVector(nullptr);
}

TEST(StartUrl, PrefixAndRedirectionFromThePluginAndLocalFilesAsFileUrls) {
    TempDir dir;
    ConfigurePluginSession((FixtureDir() + "/plugins/recording").c_str(), nullptr);
    setenv("KVO_TEST_ANSWERS", dir.file("answers").c_str(), 1);
    Argv received{"host", "-title", "Real", "-store"};
    int32_t count = received.argc();
    const char* url = "index.html";
    EXPECT_EQ(ResolveStartUrl(url), url);  // nothing configured
    EXPECT_EQ(RedirectCommandLine(received.argv(), &count), nullptr);
    WriteFile(dir.file("answers"), "ConfigGlobal:Dialog:PathResource\tfile:///opt/kvo/\n"
                                   "ConfigGlobal:Command:App\tout.txt -url page.html -title \"Two words\"\n");
    for (const char* full : {"https://example.org/a", "page.html?next=http://x", (const char*)nullptr}) {
        EXPECT_EQ(ResolveStartUrl(full), full);
    }
    const char* resolved = ResolveStartUrl(url);
    EXPECT_STREQ(resolved, "file:///opt/kvo/index.html");
    delete[] resolved;
    char** argv = RedirectCommandLine(received.argv(), &count);
    // The real command line first, so its options win; a word completes its -store.
    EXPECT_EQ(Words(argv, argv + count), (Words{"host", "-title", "Real", "-store", "out.txt", "-url", "page.html",
                                                "-title", "Two words"}));
    FreeArgumentVector(argv);

    ASSERT_EQ(chdir(dir.path().c_str()), 0);
    WriteFile(dir.file("page.html"), "");
    MakeDirs(dir.file("folder"));
    for (const char* kept : {"missing.html", "folder", "http://x/page.html", ""}) EXPECT_STREQ(FileUrlForLocalPath(kept), kept);
    const char* fileUrl = FileUrlForLocalPath("page.html");
    EXPECT_EQ(std::string(fileUrl), "file://" + std::string(realpath(dir.path().c_str(), nullptr)) + "/page.html");
    delete[] fileUrl;
}

char* Copy(const char* text) { return text ? strcpy(new char[strlen(text) + 1], text) : nullptr; }

TEST(Result, SuccessWordsGiveWayToTheSuccessTextAndTheFileHoldsExactlyTheText) {
    struct { const char *result, *successText, *text; } rows[] = {
        {nullptr, nullptr, "OK"}, {"", "", "OK"}, {nullptr, "done", "done"}, {"OK", "done", "done"},
        {"CKR_OK", "done", "done"}, {"CKR_OK", "", "CKR_OK"}, {"CKR_PIN_INCORRECT", "done", "CKR_PIN_INCORRECT"},
        {"ok", "done", "ok"}, {"OK ", "done", "OK "}};  // whole, exact words
    for (const auto& r : rows) {
        ReleaseExitTexts();
        g_exitResult = Copy(r.result);
        g_exitSuccessText = Copy(r.successText);
        EXPECT_STREQ(ResultText(), r.text) << (r.result ? r.result : "(null)") << "/" << (r.successText ? r.successText : "(null)");
    }
    TempDir dir;
    setenv("KVO_TEST_RECORD", dir.file("record").c_str(), 1);
    ConfigurePluginSession((FixtureDir() + "/plugins/recording").c_str(), nullptr);
    WriteFile(dir.file("result"), "an older and longer content\n");
    ReleaseExitTexts();
    g_exitResult = Copy("Gr\xc3\xbc\xc3\x9f" "e");
    StoreResult(dir.file("result").c_str());
    EXPECT_EQ(ReadFileOr(dir.file("result")), "Gr\xc3\xbc\xc3\x9f" "e");
    ReleaseExitTexts();
    StoreResult("");  // no file, but the key is cleared all the same
    Words calls = ReadLines(dir.file("record"));
    EXPECT_EQ(Words(calls.end() - 2, calls.end()), (Words{"SetProperty Key=", "SetProperty Key="}));
}

TEST(AppCommands, PackedSizesFromScriptNumbers) {
    std::pair<double, uint32_t> rows[] = {{NAN, 0}, {INFINITY, 0}, {0x032001E0, 0x032001E0}, {-1, 0xFFFFFFFF},
        {1.9, 1}, {-1.9, 0xFFFFFFFF}, {4294967301.0, 5}, {9223372036854775807.0, 0}, {-9223372036854775808.0, 0},
        {9223372036854774784.0, 0xFFFFFC00}, {1e300, 0}};
    for (const auto& r : rows) EXPECT_EQ(PackedSizeFromNumber(r.first), r.second) << r.first;
}

// "exit" and "restart" have effects without a window: the exit texts, and a
// process that goes away for its successor.  resize and reload act on the
// window only (the end-to-end pages show them).
TEST(AppCommands, NamesIgnoreLetterCaseButNotBlanks) {
    struct { const char* command; bool exits; } exits[] = {{"exit", 1}, {"ExIt", 1}, {"exit ", 0}, {" EXIT", 0}, {"exits", 0}};
    for (const auto& r : exits) {
        ReleaseExitTexts();
        g_idle_add(+[](gpointer command) {
            RunApplicationCommand(static_cast<const char*>(command), 3, "r", "s", NAN);
            gtk_main_quit();
            return G_SOURCE_REMOVE;
        }, (gpointer)r.command);
        gtk_main();
        EXPECT_STREQ(g_exitResult, r.exits ? "r" : nullptr) << r.command;
    }
    SaveArgs({"true"});
    strcpy(g_ownProgram, "/bin/true");  // not this test program again
    struct { const char* command; bool restarts; } restarts[] = {{"restart", 1}, {"RESTART", 1}, {"restart ", 0}, {"reStart\t", 0}};
    for (const auto& r : restarts) {
        pid_t child = fork();
        if (child == 0) {
            RunApplicationCommand(r.command, 1, nullptr, nullptr, NAN);
            _exit(3);  // still here: not restarted
        }
        int status = -1;
        waitpid(child, &status, 0);
        EXPECT_EQ(WEXITSTATUS(status), r.restarts ? 0 : 3) << r.command;
    }
}

}  // namespace
