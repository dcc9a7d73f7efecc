// The scripted plug-in through its exports, with its stderr caught in a file.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/examples/example_plugin.h"
#include "tests/support/support.h"

using namespace kvotest;

namespace {

class ScriptedPlugin : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(p.loaded()) << dlerror();
        ASSERT_EQ(dup2(open(dir.file("stderr").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2), 2);
    }
    void Start(const std::string& json) {  // a fresh instance answering from json ("": no file at all)
        file = dir.file(json.empty() ? "nowhere.json" : "answers.json");
        if (!json.empty()) WriteFile(file, json);
        setenv("KAVORI_ANSWERS", file.c_str(), 1);
        ASSERT_TRUE(p.Start());
    }
    bool Logged(const std::string& text) { return Log().find(text) != std::string::npos; }
    std::string Log() { return ReadFileOr(dir.file("stderr")); }

    ExamplePlugin p{KVO_SCRIPTED_PLUGIN};
    TempDir dir;
    std::string file;
};

TEST_F(ScriptedPlugin, TablesAnswerInWritableCopiesAndSetValuesWinUntilForgotten) {
    Start(R"({"GetProperty": {"Holder": "A. Person", "Retries": 3, "Ready": true, "Gone": null, "Deep": [1]},
              "EnumProperty": {"Certificates": {"0": "cert one", "1": "cert two"}, "Odd": 5}})");
    std::string answers;
    for (const char* name : {"Holder", "Retries", "Ready", "Gone", "Deep", "No"}) answers += p.Get(name) + "|";
    for (const char* table : {"Certificates", "Keys", "Odd"}) answers += p.Enum(table, "1") + "|";
    EXPECT_EQ(answers + p.Enum("Certificates", "2"),
              "A. Person|3|true|<null>|<null>|<null>|cert two|<null>|<null>|<null>");
    EXPECT_TRUE(Logged("\"Deep\": an object or array is no answer")) << Log();
    EXPECT_TRUE(Logged("\"Odd\": not an object")) << Log();
    p.get(p.instance, "Holder")[1] = '\0';  // the host splits answers in place
    EXPECT_EQ(p.Get("Holder"), "A. Person");

    p.Set("Holder", "B. Other");
    p.Set("Mine", "");
    EXPECT_EQ(p.Get("Holder") + "|" + p.Get("Mine"), "B. Other|");
    p.Set("Holder", nullptr);  // forgotten: the file's answer again
    EXPECT_EQ(p.Get("Holder"), "A. Person");
    p.Set("Holder", "B. Other");
    Start(R"({"GetProperty": {"Holder": "A. Person"}})");  // a new instance forgets
    EXPECT_EQ(p.Get("Holder"), "A. Person");
}

TEST_F(ScriptedPlugin, InvokeTakesTheExactKeyThenTheLongestStarPrefix) {
    Start(R"({"Invoke": {"login 1234": 0, "login *": 160, "login*": 9, "log*": 7, "*": 6, "logout": -2,
                         "half": 1.5, "huge": 4294967296, "text": "3"}})");
    std::string codes;
    for (const char* command : {"login 1234", "login 9999", "login", "logi", "logout", "logoutx", "x log", "",
                                "half"}) {
        codes += std::to_string(p.Invoke(command)) + " ";
    }
    EXPECT_EQ(codes, "0 160 9 7 -2 7 6 6 6 ");
    for (const char* key : {"\"half\"", "\"huge\"", "\"text\""}) {
        EXPECT_TRUE(Logged(std::string(key) + ": not a 32-bit integer, ignored")) << key;
    }
    Start(R"({"Invoke": {"login *": 160}})");
    EXPECT_EQ(p.Invoke("logi"), 0);
    EXPECT_EQ(p.Invoke("status"), 0);
}

TEST_F(ScriptedPlugin, UnreadableFilesAreNamedWithThePositionAndAnswerNothing) {
    std::pair<std::string, std::string> cases[] = {
        {"{\n  \"GetProperty\": {\n    \"ProductInfo\": x }\n}", ":3:20: "},
        {"{\"Invoke\": {\"*\": 6},}", ":1:20: "},
        {"{\n  \"GetProperty\": {\"A\": \"\xff\"}}", ":2:25: not valid UTF-8"},
        {"\n  ", ":2:3: no JSON value"},
        {"\n  [1]", ":2:3: the top level is not an object"},
        {"", ": cannot read the answers"}};  // no file at all
    for (const auto& c : cases) {
        Start(c.first);
        EXPECT_TRUE(Logged(file + c.second)) << c.first << "\n" << Log();
        EXPECT_TRUE(c.first.empty() || Logged("answering as if every table were empty"));
        EXPECT_EQ(p.Get("ProductInfo") + p.Enum("Certificates", "0") + std::to_string(p.Invoke("x")), "<null><null>0");
    }
    p.Set("Holder", "still works");
    EXPECT_EQ(p.Get("Holder"), "still works");
    Start(R"({"GetProperty": 1, "GetProperties": {}, "Invoke": {"*": 6}})");
    EXPECT_TRUE(Logged(file + ": \"GetProperties\": unknown table, ignored"));
    EXPECT_EQ(p.Invoke("any"), 6);
}

TEST_F(ScriptedPlugin, EveryCallIsOneLineWithSecretsHidden) {
    static std::vector<std::string> s_traced;
    p.trace([](const char* text, int32_t length) { s_traced.emplace_back(text, static_cast<size_t>(length)); });
    Start(R"({"GetProperty": {"PIN": "0000"}})");
    p.Set("PIN", "4711");
    p.Set("key", "s3cret-key");
    p.Get("PIN");
    p.Get("key");
    p.Set("Note", "two\nlines");
    p.Enum("Certificates", "0");
    p.Invoke("status");
    std::vector<std::string> log = ReadLines(dir.file("stderr"));
    ASSERT_EQ(log.size(), 9u) << Log();  // after the trace sink's and the start's
    EXPECT_EQ(std::vector<std::string>(log.begin() + 2, log.end()),
              (std::vector<std::string>{"kvo-scripted: SetProperty \"PIN\" = <hidden>",
                                        "kvo-scripted: SetProperty \"key\" = <hidden>",
                                        "kvo-scripted: GetProperty \"PIN\" -> <hidden>",
                                        "kvo-scripted: GetProperty \"key\" -> <hidden>",
                                        "kvo-scripted: SetProperty \"Note\" = \"two\\nlines\"",
                                        "kvo-scripted: EnumProperty \"Certificates\" \"0\" -> null",
                                        "kvo-scripted: Invoke \"status\" -> 0 (no key matched)"}));
    for (const char* secret : {"4711", "s3cret", "0000"}) EXPECT_FALSE(Logged(secret)) << secret;
    EXPECT_EQ(s_traced, log);  // the trace sink gets the same lines
    p.trace(nullptr);
}

TEST_F(ScriptedPlugin, FindsTheSampleNextToItself) {
    unsetenv("KAVORI_ANSWERS");
    ASSERT_TRUE(p.Start());
    std::string library = KVO_SCRIPTED_PLUGIN;
    EXPECT_EQ(ReadLines(dir.file("stderr")).size(), 1u) << Log();
    EXPECT_TRUE(Logged(library.substr(0, library.rfind('/')) + "/answers.json")) << Log();
    EXPECT_EQ(p.Get("ProductInfo"), "Kavori Demo;demo;01020003,1");
}

}  // namespace
