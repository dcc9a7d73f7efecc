// What dialog authors switch on: developer mode, the scripted plug-in, and
// the list of origins that may see the script object.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <thread>

#include "tests/support/host_runner.h"
#include "tests/support/support.h"

using namespace kvotest;

namespace {

// HTTP/1.0 GET of the test pages on 127.0.0.1, an ephemeral port, stopped with the test.
class PageServer {
public:
    PageServer() {
        m_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(m_fd, 8) != 0 ||
            getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            return;
        }
        m_origin = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
        m_thread = std::thread([this] { Serve(); });
    }
    ~PageServer() {
        shutdown(m_fd, SHUT_RDWR);  // ends a waiting accept
        if (m_thread.joinable()) m_thread.join();
        close(m_fd);
    }
    const std::string& Origin() const { return m_origin; }
    std::string Url(const std::string& name) const { return m_origin + "/" + name; }

private:
    void Serve() {
        for (int client; (client = accept(m_fd, nullptr, nullptr)) >= 0;) {
            char request[2048] = {0};
            std::string path, body;
            if (recv(client, request, sizeof request - 1, 0) > 4 && strncmp(request, "GET /", 5) == 0) {
                path.assign(request + 5, strcspn(request + 5, " "));
            }
            bool found =
                path.find("..") == std::string::npos && ReadFile(SourceDir() + "/tests/fixtures/pages/" + path, &body);
            std::string response = std::string(found ? "HTTP/1.0 200 OK" : "HTTP/1.0 404 Not Found") +
                                   "\r\nContent-Type: text/html\r\nContent-Length: " + std::to_string(body.size()) +
                                   "\r\nConnection: close\r\n\r\n" + body;
            if (send(client, response.data(), response.size(), MSG_NOSIGNAL) < 0) {
            }  // the page may have gone
            close(client);
        }
    }
    int m_fd = -1;
    std::string m_origin;
    std::thread m_thread;
};

class Workbench : public testing::Test {
protected:
    void SetUp() override {
        if (!m_x.ok()) SkipTest("no Xvfb");
    }
    // A host on url (with -store) whose environment holds env ("" : nothing).
    std::unique_ptr<HostProcess> Start(const std::string& url, const std::string& env,
                                       const std::string& root = RecordingPluginDir()) {
        std::unique_ptr<HostProcess> host(new HostProcess(m_x));
        if (!env.empty()) host->AddEnv(env);
        EXPECT_TRUE(host->Start({"-url", url, "-root", root, "-store", host->storePath()}));
        return host;
    }
    XServer m_x;
};

TEST_F(Workbench, DeveloperModePutsThePagesConsoleOnStderr) {
    std::string page = PageUrl("console.html");
    std::unique_ptr<HostProcess> on = Start(page, "KAVORI_DEVELOPER=1");
    std::unique_ptr<HostProcess> yes = Start(page, "KAVORI_DEVELOPER=yes");
    std::unique_ptr<HostProcess> unset = Start(page, "");
    ASSERT_EQ(on->Wait(30000), 0);
    EXPECT_EQ("", MissingPart(on->output(), {"console.log: " + page + ":3: hello from the page",
                                             "console.warn: " + page + ":4: careful",
                                             "console.error: " + page + ":5: ReferenceError"})) << on->output();
    for (HostProcess* off : {yes.get(), unset.get()}) {
        ASSERT_EQ(off->Wait(30000), 0);
        EXPECT_EQ(std::string::npos, off->output().find("console.")) << off->output();
    }
}

TEST_F(Workbench, F5ReloadsOnlyInDeveloperMode) {
    for (bool developer : {true, false}) {
        std::unique_ptr<HostProcess> host = Start(PageUrl("reload_key.html"), developer ? "KAVORI_DEVELOPER=1" : "");
        unsigned long window = host->WaitForOwnWindow();
        ASSERT_NE(window, 0u) << host->output();
        host->WaitForRecord("SetProperty loads=1", 5000);  // the key once the first load counted itself
        XQuery(m_x, {"xdotool", "windowfocus", "--sync", std::to_string(window), "key", "F5"});
        EXPECT_EQ(host->Result(), developer ? "2" : "1");
    }
}

TEST_F(Workbench, TheScriptedPluginAnswersFromItsFileAndNamesAMalformedOne) {
    TempDir dir;
    std::string good = dir.file("good.json"), bad = dir.file("bad.json");
    WriteFile(good, "{ \"GetProperty\": { \"Holder\": \"A. Person\" },\n"
                    "  \"EnumProperty\": { \"Certificates\": { \"0\": \"cert one\", \"1\": \"cert two\" } },\n"
                    "  \"Invoke\": { \"login 1234\": 0, \"login *\": 160, \"*\": 6 } }\n");
    WriteFile(bad, "{ \"GetProperty\": {\n  \"Holder\": \"A. Person\",,\n} }\n");
    std::string root = BuildDir() + "/examples/scripted";
    std::unique_ptr<HostProcess> answered = Start(PageUrl("scripted.html"), "KAVORI_ANSWERS=" + good, root);
    std::unique_ptr<HostProcess> malformed = Start(PageUrl("scripted.html"), "KAVORI_ANSWERS=" + bad, root);
    std::string r = answered->Result();
    EXPECT_EQ("", MissingPart(r, {"\"holder\":\"A. Person\"", "\"missing\":\"\"", "\"cert\":\"cert two\"",
                                  "\"holderAfterSet\":\"Someone Else\"", "\"exact\":0", "\"prefix\":160",
                                  "\"star\":6"})) << r;
    r = malformed->Result() + malformed->output();
    EXPECT_EQ("", MissingPart(r, {"\"holder\":\"\"", bad + ":2:"})) << r;
}

TEST_F(Workbench, OnlyListedOriginsSeeTheScriptObject) {
    PageServer server;
    ASSERT_FALSE(server.Origin().empty());
    std::string child = server.Url("trusted_child.html");
    const std::vector<std::pair<std::string, std::string>> cases = {  // origins, what the child frame sees
        {"file://", "undefined"}, {"file:// " + server.Origin(), "object"}, {"", "object"}};  // none: every frame
    std::vector<std::unique_ptr<HostProcess>> hosts;
    for (const auto& c : cases) {
        hosts.push_back(Start(PageUrl("trusted_parent.html") + "#" + child,
                              c.first.empty() ? "" : "KAVORI_TRUSTED_ORIGINS=" + c.first));
    }
    // A top-level navigation off the list is refused.
    std::unique_ptr<HostProcess> navigating =
        Start(PageUrl("trusted_navigate.html") + "#" + child, "KAVORI_TRUSTED_ORIGINS=file://");
    // Start page off the list: no request served, whatever the web process claims.
    std::unique_ptr<HostProcess> untrusted = Start(PageUrl("calls.html"), "KAVORI_TRUSTED_ORIGINS=http://127.0.0.1:1");

    for (size_t i = 0; i < cases.size(); ++i) {
        std::string r = hosts[i]->Result();
        EXPECT_EQ("", MissingPart(r, {"\"parent\":\"object\"", "\"child\":\"" + cases[i].second + "\"",
                                      "\"parentStillWorks\":5"})) << cases[i].first << ": " << r;
    }
    EXPECT_EQ(navigating->Result(), "stayed file:");
    EXPECT_NE(std::string::npos, navigating->output().find("refused navigation to " + child));
    untrusted->Wait(8000);  // the page, refused, cannot end the run
    EXPECT_NE(std::string::npos, untrusted->output().find("refused navigation to " + PageUrl("calls.html")));
    for (const std::string& line : untrusted->Record()) {
        EXPECT_TRUE(line == "Initialize" || line.rfind("SetProperty Server=", 0) == 0 ||
                    line.rfind("SetProperty WorkingDirectory=", 0) == 0 || line.rfind("SetTraceCallback", 0) == 0)
            << line;
    }
}

}  // namespace
