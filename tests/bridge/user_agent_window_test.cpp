// The user agent a real page sees (navigator.userAgent) for each form of
// -useragent, with the recording plug-in answering "ProductInfo".  Other
// /etc/issue.net contents are given to the host in a private mount
// namespace, never on the real system.
//
// Found here: WebKitGTK 4.1 takes only a valid User-Agent header value
// (products and comments) and keeps its default for anything else, with a
// critical message.  A line end is refused, and so is "GNU/Linux/12", which
// /etc/issue.net of Debian ("Debian GNU/Linux 12") turns into.  The host
// therefore leaves a description WebKit refuses off, first its line end,
// then the whole of it, so the product token is not lost with it.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "tests/bridge/dialog_support.h"
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
    std::vector<std::string> Arguments(HostProcess& host, const std::vector<std::string>& extra) {
        std::vector<std::string> arguments = {"-url", PageUrl("describe.html"), "-root", RecordingPluginDir(),
                                              "-store", host.storePath()};
        arguments.insert(arguments.end(), extra.begin(), extra.end());
        return arguments;
    }
    std::unique_ptr<HostProcess> Start(const std::vector<std::string>& extra, const std::string& answers = "") {
        std::unique_ptr<HostProcess> host(new HostProcess(m_x));
        WriteFile(host->answersPath(), answers);
        EXPECT_TRUE(host->Start(Arguments(*host, extra)));
        return host;
    }
    std::string AgentOf(HostProcess& host) {
        int status = host.Wait(30000);
        if (status != 0) return "<status " + std::to_string(status) + "> " + host.output();
        return Finding(ReadFileOr(host.storePath()), "userAgent");
    }
    XServer m_x;
};

TEST_F(UserAgents, DefaultGivenAndRefused) {
    std::unique_ptr<HostProcess> absent = Start({}, kProductInfo);
    std::unique_ptr<HostProcess> given = Start({"-useragent", "Kavori-Test/1.0 (dialog; x)"});
    std::unique_ptr<HostProcess> lineEnd = Start({"-useragent", "Kavori-Test/1.0\n"});
    std::unique_ptr<HostProcess> noInfo = Start({"-useragent", ""});
    std::unique_ptr<HostProcess> oneSemicolon = Start({"-useragent", ""}, "ProductInfo\tKavori;06070002,x\n");

    std::string webkitDefault = AgentOf(*absent);
    EXPECT_EQ(0u, webkitDefault.find("Mozilla/5.0 ")) << webkitDefault;
    EXPECT_EQ(std::string::npos, webkitDefault.find("Kavori")) << webkitDefault;
    // Without -useragent the plug-in is not asked.
    for (const std::string& line : absent->Record()) EXPECT_NE("GetProperty ProductInfo", line);

    EXPECT_EQ("Kavori-Test/1.0 (dialog; x)", AgentOf(*given));
    // A given value with a line end: WebKit keeps its default.
    EXPECT_EQ(webkitDefault, AgentOf(*lineEnd));
    EXPECT_NE(std::string::npos, lineEnd->output().find("isValidUserAgentHeaderValue")) << lineEnd->output();

    // Nothing to compose from: WebKit's default, and the plug-in was asked.
    EXPECT_EQ(webkitDefault, AgentOf(*noInfo));
    std::vector<std::string> record = noInfo->Record();
    EXPECT_NE(record.end(), std::find(record.begin(), record.end(), "GetProperty ProductInfo"));
    EXPECT_EQ(webkitDefault, AgentOf(*oneSemicolon));
}

// /etc/issue.net up to its second dot, last blank to '/', as the host
// describes the system; without the line end WebKit would refuse.
std::string ThisMachinesDescription() {
    std::string text = ReadFileOr("/etc/issue.net");
    size_t dot = text.find('.');
    if (dot != std::string::npos) {
        size_t second = text.find('.', dot + 1);
        if (second != std::string::npos) text.resize(second);
    }
    size_t blank = text.rfind(' ');
    if (blank != std::string::npos) text[blank] = '/';
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    return text;
}

TEST_F(UserAgents, ComposedOnThisMachine) {
    std::unique_ptr<HostProcess> absent = Start({});
    std::unique_ptr<HostProcess> composed = Start({"-useragent", ""}, kProductInfo);
    std::string webkitDefault = AgentOf(*absent);
    std::string token = webkitDefault + " Kavori/6.7";

    // WebKit itself says whether it carries this machine's description: it
    // is given the full text as a plain -useragent value.
    std::string description = ThisMachinesDescription();
    bool carried = false;
    if (!description.empty()) {
        std::unique_ptr<HostProcess> probe = Start({"-useragent", token + " " + description});
        carried = AgentOf(*probe) == token + " " + description;
    }
    // Debian 12 ("Debian GNU/Linux/12"): not carried, the token ends it.
    EXPECT_EQ(carried ? token + " " + description : token, AgentOf(*composed)) << "description: " << description;
}

TEST_F(UserAgents, ComposedFromTheDescriptionInAPrivateEtc) {
    SkipWithoutPrivateEtc();
    struct Variant {
        const char* issue;  // null: no /etc/issue.net at all
        std::string productInfo;
        std::string tail;  // after WebKit's default
    };
    const std::vector<Variant> variants = {
        {"Ubuntu 16.04.7 LTS\n", kProductInfo, " Kavori/6.7 Ubuntu/16.04"},
        // Not cut (one dot): the line end is left off, the rest is carried.
        {"Ubuntu 24.04 LTS\n", "ProductInfo\tKavori;x;6.7.2,b\n", " Kavori/6.7 Ubuntu 24.04/LTS"},
        // "GNU/Linux/9" is no product WebKit takes: no description.
        {"Debian GNU/Linux 9\n", kProductInfo, " Kavori/6.7"},
        {nullptr, kProductInfo, " Kavori/6.7"},
    };
    std::unique_ptr<HostProcess> absent = Start({});
    std::vector<std::unique_ptr<HostProcess>> hosts;
    std::vector<std::unique_ptr<Spawned>> runs;
    for (const Variant& variant : variants) {
        std::unique_ptr<HostProcess> host(new HostProcess(m_x));
        WriteFile(host->answersPath(), variant.productInfo);
        PrivateEtc etc(host->dir() + "/layers");
        std::string setup = "exec \"$0\" \"$@\"";
        if (variant.issue) {
            WriteFile(etc.Upper("/etc/issue.net"), variant.issue);
        } else {
            setup = "rm -f /etc/issue.net && " + setup;
        }
        std::vector<std::string> argv = {"/bin/sh", "-c", setup, HostBinary()};
        std::vector<std::string> arguments = Arguments(*host, {"-useragent", ""});
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        runs.emplace_back(new Spawned(m_x, *host, etc.Wrap(argv)));
        hosts.push_back(std::move(host));
    }
    std::string webkitDefault = AgentOf(*absent);
    for (size_t i = 0; i < variants.size(); ++i) {
        int status = runs[i]->Wait(30000);
        if (status == 77) SkipTest("no overlay on /etc: " + runs[i]->output());
        ASSERT_EQ(0, status) << runs[i]->output();
        EXPECT_EQ(webkitDefault + variants[i].tail, Finding(ReadFileOr(hosts[i]->storePath()), "userAgent"))
            << (variants[i].issue ? variants[i].issue : "(none)");
    }
}

}  // namespace
