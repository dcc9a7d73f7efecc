// The scripted plug-in, driven through its seven exports with stderr caught
// in a file.
#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "kavori/plugin.h"
#include "tests/support/support.h"

using kvotest::TempDir;

namespace {

std::vector<std::string> s_traced;
void Trace(const char* text, int32_t length) { s_traced.emplace_back(text, static_cast<size_t>(length)); }

std::string Text(const char* answer) { return answer ? answer : "<null>"; }

class ScriptedPlugin : public testing::Test {
protected:
    void SetUp() override {
        void* library = dlopen(KVO_SCRIPTED_PLUGIN, RTLD_NOW | RTLD_GLOBAL);
        ASSERT_NE(library, nullptr) << dlerror();
        init = reinterpret_cast<PFN_PlgInitialize>(dlsym(library, "PlgInitialize"));
        fini = reinterpret_cast<PFN_PlgFinalize>(dlsym(library, "PlgFinalize"));
        set = reinterpret_cast<PFN_PlgSetProperty>(dlsym(library, "PlgSetProperty"));
        get = reinterpret_cast<PFN_PlgGetProperty>(dlsym(library, "PlgGetProperty"));
        enumerate = reinterpret_cast<PFN_PlgEnumProperty>(dlsym(library, "PlgEnumProperty"));
        invoke = reinterpret_cast<PFN_PlgInvoke>(dlsym(library, "PlgInvoke"));
        trace = reinterpret_cast<PFN_PlgSetTraceCallback>(dlsym(library, "PlgSetTraceCallback"));
        ASSERT_TRUE(init && fini && set && get && enumerate && invoke && trace);
        fflush(stderr);
        savedStderr = dup(2);
        int fd = open(dir.file("stderr").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(fd, 2);
        close(fd);
    }
    void TearDown() override {
        if (instance) fini(instance);
        dup2(savedStderr, 2);
        close(savedStderr);
    }
    // A fresh instance answering from json (none: from the given path as is).
    void Start(const std::string& json, const std::string& path = std::string()) {
        if (instance) fini(instance);
        instance = nullptr;
        file = path.empty() ? dir.file("answers.json") : path;
        if (path.empty()) {
            ASSERT_TRUE(kvotest::WriteFile(file, json));
        }
        setenv("KAVORI_ANSWERS", file.c_str(), 1);
        ASSERT_NE(init(nullptr, nullptr, nullptr, nullptr, &instance), 0);
    }
    std::vector<std::string> Log() { return kvotest::ReadLines(dir.file("stderr")); }
    std::string LogText() { return kvotest::ReadFileOr(dir.file("stderr")); }
    void ExpectEmptyTables() {
        EXPECT_EQ(get(instance, "ProductInfo"), nullptr);
        EXPECT_EQ(enumerate(instance, "Certificates", "0"), nullptr);
        EXPECT_EQ(invoke(instance, "login 1234"), 0);
    }

    TempDir dir;
    std::string file;
    int savedStderr = -1;
    PlgInstance instance = nullptr;
    PFN_PlgInitialize init;
    PFN_PlgFinalize fini;
    PFN_PlgSetProperty set;
    PFN_PlgGetProperty get;
    PFN_PlgEnumProperty enumerate;
    PFN_PlgInvoke invoke;
    PFN_PlgSetTraceCallback trace;
};

TEST_F(ScriptedPlugin, AnswersFromTheTablesInWritableBuffers) {
    Start(R"({"GetProperty": {"Holder": "A. Person", "Retries": 3, "Ready": true, "Gone": null, "Deep": [1]},
              "EnumProperty": {"Certificates": {"0": "cert one", "1": "cert two"}, "Odd": 5}})");
    EXPECT_EQ(Text(get(instance, "Holder")), "A. Person");
    EXPECT_EQ(Text(get(instance, "Retries")), "3");
    EXPECT_EQ(Text(get(instance, "Ready")), "true");
    EXPECT_EQ(get(instance, "Gone"), nullptr);
    EXPECT_EQ(get(instance, "Deep"), nullptr);
    EXPECT_EQ(get(instance, "Nobody"), nullptr);
    EXPECT_EQ(Text(enumerate(instance, "Certificates", "1")), "cert two");
    EXPECT_EQ(enumerate(instance, "Certificates", "2"), nullptr);
    EXPECT_EQ(enumerate(instance, "Keys", "0"), nullptr);
    EXPECT_EQ(enumerate(instance, "Odd", "0"), nullptr);
    // The host splits answers in place; the tables must not change with them.
    char* answer = get(instance, "Holder");
    answer[1] = '\0';
    EXPECT_EQ(Text(get(instance, "Holder")), "A. Person");
    std::string log = LogText();
    EXPECT_NE(log.find("\"Deep\": an object or array is no answer"), std::string::npos) << log;
    EXPECT_NE(log.find("\"Odd\": not an object"), std::string::npos) << log;
}

TEST_F(ScriptedPlugin, SetValueWinsOverTheFileUntilForgotten) {
    Start(R"({"GetProperty": {"Holder": "A. Person"}})");
    set(instance, "Holder", "B. Other");
    set(instance, "Mine", "");
    EXPECT_EQ(Text(get(instance, "Holder")), "B. Other");
    EXPECT_EQ(Text(get(instance, "Mine")), "");
    set(instance, "Holder", nullptr);
    EXPECT_EQ(Text(get(instance, "Holder")), "A. Person");
    set(instance, "Holder", "B. Other");
    Start(R"({"GetProperty": {"Holder": "A. Person"}})");
    EXPECT_EQ(Text(get(instance, "Holder")), "A. Person");
}

TEST_F(ScriptedPlugin, InvokeTakesExactThenLongestStarKey) {
    Start(R"({"Invoke": {"login 1234": 0, "login *": 160, "login*": 9, "log*": 7, "*": 6, "logout": -2,
                         "half": 1.5, "huge": 4294967296, "text": "3"}})");
    EXPECT_EQ(invoke(instance, "login 1234"), 0);
    EXPECT_EQ(invoke(instance, "login 9999"), 160);
    EXPECT_EQ(invoke(instance, "login"), 9);
    EXPECT_EQ(invoke(instance, "logi"), 7);
    EXPECT_EQ(invoke(instance, "logout"), -2);
    EXPECT_EQ(invoke(instance, "logoutx"), 7);
    EXPECT_EQ(invoke(instance, "x log"), 6);
    EXPECT_EQ(invoke(instance, ""), 6);
    EXPECT_EQ(invoke(instance, "half"), 6);
    std::string log = LogText();
    for (const char* key : {"\"half\"", "\"huge\"", "\"text\""}) {
        EXPECT_NE(log.find(std::string(key) + ": not a 32-bit integer, ignored"), std::string::npos) << key;
    }
    Start(R"({"Invoke": {"login *": 160}})");
    EXPECT_EQ(invoke(instance, "logi"), 0);
    EXPECT_EQ(invoke(instance, "status"), 0);
}

TEST_F(ScriptedPlugin, MissingFileIsNamedAndAnswersNothing) {
    Start("", dir.file("nowhere.json"));
    EXPECT_NE(LogText().find(dir.file("nowhere.json") + ": cannot read the answers"), std::string::npos) << LogText();
    ExpectEmptyTables();
    set(instance, "Holder", "still works");
    EXPECT_EQ(Text(get(instance, "Holder")), "still works");
}

TEST_F(ScriptedPlugin, MalformedFileNamesThePosition) {
    struct Case {
        std::string json, position;
    } cases[] = {
        {"{\n  \"GetProperty\": {\n    \"ProductInfo\": x }\n}", ":3:20: "},
        {"{\"Invoke\": {\"*\": 6},}", ":1:20: "},
        {"{\n  \"GetProperty\": {\"A\": \"\xff\"}}", ":2:25: not valid UTF-8"},
        {"\n  ", ":2:3: no JSON value"},
        {"\n  [1]", ":2:3: the top level is not an object"},
    };
    for (const Case& c : cases) {
        Start(c.json);
        std::string log = LogText();
        EXPECT_NE(log.find(file + c.position), std::string::npos) << c.json << "\n" << log;
        EXPECT_NE(log.find("answering as if every table were empty"), std::string::npos);
        ExpectEmptyTables();
    }
    Start(R"({"GetProperty": 1, "GetProperties": {}, "Invoke": {"*": 6}})");
    EXPECT_NE(LogText().find(file + ": \"GetProperties\": unknown table, ignored"), std::string::npos);
    EXPECT_EQ(invoke(instance, "any"), 6);
}

TEST_F(ScriptedPlugin, EveryCallIsOneLineWithSecretsHidden) {
    s_traced.clear();
    trace(Trace);
    Start(R"({"GetProperty": {"PIN": "0000"}})");
    size_t before = Log().size();
    set(instance, "PIN", "4711");
    set(instance, "key", "s3cret-key");
    get(instance, "PIN");
    get(instance, "key");
    set(instance, "Note", "two\nlines");
    enumerate(instance, "Certificates", "0");
    invoke(instance, "status");
    std::vector<std::string> log = Log();
    ASSERT_EQ(log.size(), before + 7) << LogText();
    for (size_t i = before; i < log.size(); ++i) EXPECT_EQ(log[i].rfind("kvo-scripted: ", 0), 0u) << log[i];
    EXPECT_EQ(log[before], "kvo-scripted: SetProperty \"PIN\" = <hidden>");
    EXPECT_EQ(log[before + 3], "kvo-scripted: GetProperty \"key\" -> <hidden>");
    EXPECT_EQ(log[before + 4], "kvo-scripted: SetProperty \"Note\" = \"two\\nlines\"");
    for (const char* secret : {"4711", "s3cret", "0000"}) EXPECT_EQ(LogText().find(secret), std::string::npos);
    ASSERT_EQ(s_traced.size(), log.size());
    EXPECT_EQ(s_traced.back(), log.back());
    trace(nullptr);
}

TEST_F(ScriptedPlugin, FindsTheSampleNextToItself) {
    unsetenv("KAVORI_ANSWERS");
    ASSERT_NE(init(nullptr, nullptr, nullptr, nullptr, &instance), 0);
    std::string log = LogText();
    EXPECT_EQ(Log().size(), 1u) << log;
    std::string library = KVO_SCRIPTED_PLUGIN;
    EXPECT_NE(log.find(library.substr(0, library.rfind('/')) + "/answers.json"), std::string::npos) << log;
    EXPECT_EQ(Text(get(instance, "ProductInfo")), "Kavori Demo;demo;01020003,1");
}

TEST(ScriptedLibrary, ExportsOnlyTheSevenEntryPoints) {
    if (access("/usr/bin/nm", X_OK) != 0) kvotest::SkipTest("no nm");
    std::string out;
    ASSERT_EQ(kvotest::RunProcess({"/usr/bin/nm", "-D", "--defined-only", KVO_SCRIPTED_PLUGIN}, {}, 10000, &out), 0);
    std::vector<std::string> names;
    for (size_t at = 0, end; (end = out.find('\n', at)) != std::string::npos; at = end + 1) {
        std::string line = out.substr(at, end - at);
        names.push_back(line.substr(line.rfind(' ') + 1));
    }
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"PlgEnumProperty", "PlgFinalize", "PlgGetProperty", "PlgInitialize",
                                               "PlgInvoke", "PlgSetProperty", "PlgSetTraceCallback"}))
        << out;
}

}  // namespace
