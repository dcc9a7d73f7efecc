// The user agent a real page sees for each form of -useragent, the recording
// plug-in answering "ProductInfo"; other /etc/issue.net contents only in a
// private mount namespace.  WebKitGTK 4.1 keeps its default for an invalid
// User-Agent value (a line end; "GNU/Linux/12" from Debian's issue.net), so
// the host leaves off such a description: its line end first, then all of it.
#include <gtest/gtest.h>

#include <memory>

#include "tests/support/host_runner.h"
#include "tests/support/support.h"

using namespace kvotest;

namespace {

const char kProductInfo[] = "ProductInfo\tKavori Middleware;x;06070002,2024-05-01\n";

class UserAgents : public testing::Test {
protected:
    void SetUp() override {
        if (!m_x.ok()) SkipTest("no Xvfb");
    }
    // The host on describe.html, the plug-in answering answers; with issue,
    // in a private /etc with that /etc/issue.net ("": none).
    std::unique_ptr<HostProcess> Start(const std::vector<std::string>& extra, const std::string& answers = "",
                                       const char* issue = nullptr) {
        std::unique_ptr<HostProcess> host(new HostProcess(m_x));
        WriteFile(host->answersPath(), answers);
        std::vector<std::string> argv = {HostBinary(),         "-url",   PageUrl("describe.html"), "-root",
                                         RecordingPluginDir(), "-store", host->storePath()};
        argv.insert(argv.end(), extra.begin(), extra.end());
        if (issue) {
            PrivateEtc etc(host->dir() + "/layers");
            if (*issue) WriteFile(etc.Upper("/etc/issue.net"), issue);
            argv.insert(argv.begin(), {"/bin/sh", "-c",
                                       std::string(*issue ? "" : "rm -f /etc/issue.net && ") + "exec \"$0\" \"$@\""});
            argv = etc.Wrap(argv);
        }
        EXPECT_TRUE(host->StartArgv(argv));
        return host;
    }
    std::string AgentOf(HostProcess& host) {
        std::string result = host.Result();
        if (result.rfind("<status 77>", 0) == 0) SkipTest("no overlay on /etc: " + result);
        return result.rfind("<status ", 0) == 0 ? result : Finding(result, "userAgent");
    }
    XServer m_x;
};

// /etc/issue.net up to its second dot, last blank to '/', without a line end.
std::string ThisMachinesDescription() {
    std::string text = ReadFileOr("/etc/issue.net");
    size_t dot = text.find('.');
    if (dot != std::string::npos && text.find('.', dot + 1) != std::string::npos) text.resize(text.find('.', dot + 1));
    size_t blank = text.rfind(' ');
    if (blank != std::string::npos) text[blank] = '/';
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    return text;
}

TEST_F(UserAgents, DefaultGivenRefusedAndComposedOnThisMachine) {
    std::unique_ptr<HostProcess> absent = Start({}, kProductInfo);
    std::unique_ptr<HostProcess> given = Start({"-useragent", "Kavori-Test/1.0 (dialog; x)"});
    std::unique_ptr<HostProcess> lineEnd = Start({"-useragent", "Kavori-Test/1.0\n"});
    std::unique_ptr<HostProcess> noInfo = Start({"-useragent", ""});
    std::unique_ptr<HostProcess> oneSemicolon = Start({"-useragent", ""}, "ProductInfo\tKavori;06070002,x\n");
    std::unique_ptr<HostProcess> composed = Start({"-useragent", ""}, kProductInfo);

    std::string webkitDefault = AgentOf(*absent);
    EXPECT_EQ(0u, webkitDefault.find("Mozilla/5.0 ")) << webkitDefault;
    EXPECT_EQ(std::string::npos, webkitDefault.find("Kavori")) << webkitDefault;
    EXPECT_EQ(-1, IndexOf(absent->Record(), "GetProperty ProductInfo"));  // without -useragent the plug-in is not asked
    EXPECT_EQ("Kavori-Test/1.0 (dialog; x)", AgentOf(*given));
    // A given value with a line end: WebKit keeps its default.
    EXPECT_EQ(webkitDefault, AgentOf(*lineEnd));
    EXPECT_NE(std::string::npos, lineEnd->output().find("isValidUserAgentHeaderValue")) << lineEnd->output();
    // Nothing to compose from: WebKit's default, though the plug-in was asked.
    EXPECT_EQ(webkitDefault, AgentOf(*noInfo));
    EXPECT_NE(-1, IndexOf(noInfo->Record(), "GetProperty ProductInfo"));
    EXPECT_EQ(webkitDefault, AgentOf(*oneSemicolon));

    // WebKit says whether it carries this machine's description, given as a
    // plain -useragent value; if not (Debian 12), the product token ends it.
    std::string token = webkitDefault + " Kavori/6.7", description = ThisMachinesDescription();
    bool carried =
        !description.empty() && AgentOf(*Start({"-useragent", token + " " + description})) == token + " " + description;
    EXPECT_EQ(carried ? token + " " + description : token, AgentOf(*composed)) << "description: " << description;
}

TEST_F(UserAgents, ComposedFromTheDescriptionInAPrivateEtc) {
    SkipWithoutPrivateEtc();
    const std::vector<std::vector<std::string>> variants = {
        // /etc/issue.net ("": none), ProductInfo, tail
        {"Ubuntu 16.04.7 LTS\n", kProductInfo, " Kavori/6.7 Ubuntu/16.04"},
        // Not cut (one dot): the line end is left off, the rest is carried.
        {"Ubuntu 24.04 LTS\n", "ProductInfo\tKavori;x;6.7.2,b\n", " Kavori/6.7 Ubuntu 24.04/LTS"},
        // "GNU/Linux/9" is no product WebKit takes: no description.
        {"Debian GNU/Linux 9\n", kProductInfo, " Kavori/6.7"},
        {"", kProductInfo, " Kavori/6.7"},
    };
    std::unique_ptr<HostProcess> absent = Start({});
    std::vector<std::unique_ptr<HostProcess>> hosts;
    for (const auto& v : variants) hosts.push_back(Start({"-useragent", ""}, v[1], v[0].c_str()));
    std::string webkitDefault = AgentOf(*absent);
    for (size_t i = 0; i < variants.size(); ++i) {
        EXPECT_EQ(webkitDefault + variants[i][2], AgentOf(*hosts[i])) << variants[i][0];
    }
}

}  // namespace
