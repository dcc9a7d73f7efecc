// The demo PIN dialog end to end: the host on a private Xvfb with the demo
// plug-in and a throwaway SoftHSM2 token, driven by xdotool like a user.
#include <gtest/gtest.h>

#include "tests/examples/soft_token.h"
#include "tests/support/host_runner.h"

namespace kvotest {
namespace {

const char kUserPin[] = "123456";
const char kErrorColour[] = "#B3261E";  // the dialog's error accent

class DemoDialog : public testing::Test {
protected:
    void SetUp() override {
        if (!FileExists("/usr/bin/xdotool") || !FileExists("/usr/bin/import")) SkipTest("no xdotool or imagemagick");
        ASSERT_TRUE(m_x.ok()) << "no Xvfb";
        m_serial = m_tokens.Add("Kavori Demo", kUserPin);
        ASSERT_FALSE(m_serial.empty());
        m_host.AddEnv("KAVORI_DEMO_LOG=" + m_log);
    }
    // Starts the dialog; waits until the page has read the token (its last
    // read at start is the PIN state) and the window has the focus.
    void Open(const std::vector<std::string>& extra = {}) {
        std::vector<std::string> arguments = {"-url", "file://" + SourceDir() + "/examples/dialog/pin.html", "-size",
                                              std::to_string((420 << 16) | (400 + 30))};
        arguments.insert(arguments.end(), extra.begin(), extra.end());
        ASSERT_TRUE(Start(arguments));
        m_window = m_host.WaitForOwnWindow();
        ASSERT_NE(0ul, m_window) << m_host.output();
        ASSERT_TRUE(PollUntil([&] { return !LinesWith(m_log, "GetProperty Token:PinState").empty(); }, 20000))
            << ReadFileOr(m_log) << m_host.output();
        XQuery(m_x, {"xdotool", "windowfocus", "--sync", std::to_string(m_window)});
    }
    bool Start(std::vector<std::string> arguments) {
        arguments.insert(arguments.end(), {"-root", BuildDir() + "/examples/demo", "-store", m_host.storePath()});
        return m_host.Start(arguments);
    }
    std::string Result() {
        int status = m_host.Wait(20000);
        return status == 0 ? ReadFileOr(m_host.storePath(), "<no result>") : "<status " + std::to_string(status) + ">";
    }
    void Type(const std::string& text) { XQuery(m_x, {"xdotool", "type", "--delay", "30", text}); }
    void Key(const std::string& key) { XQuery(m_x, {"xdotool", "key", key}); }
    // How many pixels of the window show the error accent.
    long ErrorPixels() {
        std::string shot = m_host.dir() + "/shot.png";
        XQuery(m_x, {"import", "-window", std::to_string(m_window), shot});
        std::string count = XQuery(m_x, {"convert", shot, "-fill", "black", "+opaque", kErrorColour, "-fill", "white",
                                         "-opaque", kErrorColour, "-format", "%[fx:round(mean*w*h)]", "info:"});
        return count.empty() ? -1 : strtol(count.c_str(), nullptr, 10);
    }
    std::vector<std::string> Logins() { return LinesWith(m_log, "Login on slot"); }

    XServer m_x;
    SoftTokens m_tokens;
    HostProcess m_host{m_x};
    std::string m_serial, m_log = m_host.dir() + "/plugin.log";
    unsigned long m_window = 0;
};

TEST_F(DemoDialog, WrongPinShowsTheErrorAndTheRightPinUnlocks) {
    Open({"-key", m_serial});
    EXPECT_EQ(0, ErrorPixels());
    Type("000000");
    Key("Return");
    ASSERT_TRUE(PollUntil([&] { return Logins().size() == 1; }, 20000)) << ReadFileOr(m_log);
    EXPECT_NE(std::string::npos, Logins()[0].find("CKR_PIN_INCORRECT"));
    // The token itself counted the failed login.
    EXPECT_NE(std::string::npos, m_tokens.Field("serial num", m_serial, "token flags").find("user PIN count low"));
    // The page shows the error (and asked how many tries are left).
    EXPECT_TRUE(PollUntil([&] { return ErrorPixels() > 100; })) << ErrorPixels();
    EXPECT_EQ(2u, LinesWith(m_log, "GetProperty Token:PinState").size());
    // Too short for the token: refused by the page, the token is not asked.
    Type("12");
    Key("Return");
    Key("BackSpace");
    Key("BackSpace");
    Type(kUserPin);
    Key("Return");
    ASSERT_EQ("CKR_OK", Result()) << m_host.output();
    std::vector<std::string> logins = Logins();
    ASSERT_EQ(2u, logins.size()) << ReadFileOr(m_log);
    EXPECT_NE(std::string::npos, logins[1].find("CKR_OK"));
    std::string log = ReadFileOr(m_log);
    EXPECT_EQ(std::string::npos, log.find(kUserPin));
    EXPECT_EQ(std::string::npos, log.find("000000"));
    // The host handed the key over and cleared it at the end.
    EXPECT_NE(std::string::npos, log.find("Key handed over"));
    EXPECT_NE(std::string::npos, log.find("Key cleared"));
}

TEST_F(DemoDialog, EscapeCancels) {
    Open();
    Type("12");
    Key("Escape");
    EXPECT_EQ("CKR_FUNCTION_CANCELED", Result()) << m_host.output();
    EXPECT_TRUE(Logins().empty());
}

TEST_F(DemoDialog, ComposedUserAgentCarriesTheDemoVersion) {
    // ProductInfo "Kavori Demo;demo;01000000,1" gives the token Kavori/1.0.
    ASSERT_TRUE(Start({"-url", "file://" + SourceDir() + "/tests/examples/pages/user_agent.html", "-useragent"}));
    ASSERT_EQ(0, m_host.Wait(30000)) << m_host.output();
    std::string agent = ReadFileOr(m_host.storePath(), "<no result>");
    EXPECT_NE(std::string::npos, agent.find(" Kavori/1.0")) << agent;
}

}  // namespace
}  // namespace kvotest
