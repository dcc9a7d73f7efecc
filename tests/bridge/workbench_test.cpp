// What dialog authors switch on: developer mode, the scripted plug-in, and
// the list of origins that may see the script object.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <thread>

#include "tests/support/host_runner.h"
#include "tests/support/support.h"

using namespace kvotest;

namespace {

bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// A loopback HTTP server for the test's own pages: 127.0.0.1 only, an
// ephemeral port, GET of files from one directory, stopped with the test.
class PageServer {
public:
    explicit PageServer(const std::string& root) : m_root(root) {
        m_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(m_fd, 8) != 0 ||
            getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            return;
        }
        m_port = ntohs(address.sin_port);
        m_thread = std::thread([this] { Serve(); });
    }
    ~PageServer() {
        m_stop = true;
        if (m_thread.joinable()) m_thread.join();
        close(m_fd);
    }
    std::string Url(const std::string& name) const {
        return "http://127.0.0.1:" + std::to_string(m_port) + "/" + name;
    }
    std::string Origin() const { return "http://127.0.0.1:" + std::to_string(m_port); }
    bool ok() const { return m_port != 0; }

private:
    void Serve() {
        while (!m_stop) {
            pollfd p = {m_fd, POLLIN, 0};
            if (poll(&p, 1, 100) <= 0) continue;
            int client = accept(m_fd, nullptr, nullptr);
            if (client < 0) continue;
            char request[2048] = {0};
            ssize_t n = recv(client, request, sizeof request - 1, 0);
            std::string path;
            if (n > 4 && strncmp(request, "GET /", 5) == 0) {
                const char* end = strchr(request + 5, ' ');
                if (end) path.assign(request + 5, static_cast<size_t>(end - (request + 5)));
            }
            std::string body;
            bool found = path.find("..") == std::string::npos && ReadFile(m_root + "/" + path, &body);
            std::string response = std::string(found ? "HTTP/1.0 200 OK" : "HTTP/1.0 404 Not Found") +
                                   "\r\nContent-Type: text/html\r\nContent-Length: " + std::to_string(body.size()) +
                                   "\r\nConnection: close\r\n\r\n" + body;
            if (send(client, response.data(), response.size(), MSG_NOSIGNAL) < 0) {
                // The page may have gone; nothing to do.
            }
            close(client);
        }
    }
    std::string m_root;
    int m_fd = -1;
    int m_port = 0;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

class Workbench : public testing::Test {
protected:
    void SetUp() override {
        if (!m_x.ok()) SkipTest("no Xvfb");
    }
    std::string Pages() const { return SourceDir() + "/tests/fixtures/pages"; }
    XServer m_x;
};

TEST_F(Workbench, DeveloperModePutsThePagesConsoleOnStderr) {
    for (const char* value : std::vector<const char*>{"1", "yes", nullptr}) {
        HostProcess host(m_x);
        if (value) host.AddEnv(std::string("KAVORI_DEVELOPER=") + value);
        host.Start({"-url", PageUrl("console.html"), "-root", RecordingPluginDir()});
        ASSERT_EQ(host.Wait(30000), 0);
        std::string out = host.output();
        std::string page = PageUrl("console.html");
        if (value && std::string(value) == "1") {
            EXPECT_TRUE(Has(out, "console.log: " + page + ":3: hello from the page")) << out;
            EXPECT_TRUE(Has(out, "console.warn: " + page + ":4: careful")) << out;
            EXPECT_TRUE(Has(out, "console.error: " + page + ":5: ReferenceError")) << out;
        } else {
            EXPECT_FALSE(Has(out, "console.")) << (value ? value : "unset") << ": " << out;
        }
    }
}

TEST_F(Workbench, F5ReloadsOnlyInDeveloperMode) {
    for (bool developer : {true, false}) {
        HostProcess host(m_x);
        if (developer) host.AddEnv("KAVORI_DEVELOPER=1");
        host.Start({"-url", PageUrl("reload_key.html"), "-root", RecordingPluginDir(), "-store", host.storePath()});
        unsigned long window = host.WaitForOwnWindow();
        ASSERT_NE(window, 0u) << host.output();
        // The key goes in once the first load has counted itself.
        for (int i = 0; i < 100; ++i) {
            std::vector<std::string> record = host.Record();
            if (std::find(record.begin(), record.end(), "SetProperty loads=1") != record.end()) break;
            usleep(50000);
        }
        XQuery(m_x, {"xdotool", "windowfocus", "--sync", std::to_string(window), "key", "F5"});
        ASSERT_EQ(host.Wait(30000), 0);
        EXPECT_EQ(ReadFileOr(host.storePath()), developer ? "2" : "1");
    }
}

TEST_F(Workbench, TheScriptedPluginAnswersPagesFromItsFile) {
    HostProcess host(m_x);
    WriteFile(host.dir() + "/answers.json",
              "{ \"GetProperty\": { \"Holder\": \"A. Person\" },\n"
              "  \"EnumProperty\": { \"Certificates\": { \"0\": \"cert one\", \"1\": \"cert two\" } },\n"
              "  \"Invoke\": { \"login 1234\": 0, \"login *\": 160, \"*\": 6 } }\n");
    host.AddEnv("KAVORI_ANSWERS=" + host.dir() + "/answers.json");
    host.Start({"-url", PageUrl("scripted.html"), "-root", BuildDir() + "/examples/scripted", "-store",
                host.storePath()});
    ASSERT_EQ(host.Wait(30000), 0);
    std::string r = ReadFileOr(host.storePath());
    EXPECT_TRUE(Has(r, "\"holder\":\"A. Person\"")) << r;
    EXPECT_TRUE(Has(r, "\"missing\":\"\"")) << r;
    EXPECT_TRUE(Has(r, "\"cert\":\"cert two\"")) << r;
    EXPECT_TRUE(Has(r, "\"holderAfterSet\":\"Someone Else\"")) << r;
    EXPECT_TRUE(Has(r, "\"exact\":0")) << r;
    EXPECT_TRUE(Has(r, "\"prefix\":160")) << r;
    EXPECT_TRUE(Has(r, "\"star\":6")) << r;
}

TEST_F(Workbench, AMalformedAnswersFileIsNamedWithItsPosition) {
    HostProcess host(m_x);
    std::string file = host.dir() + "/answers.json";
    WriteFile(file, "{ \"GetProperty\": {\n  \"Holder\": \"A. Person\",,\n} }\n");
    host.AddEnv("KAVORI_ANSWERS=" + file);
    host.Start({"-url", PageUrl("scripted.html"), "-root", BuildDir() + "/examples/scripted", "-store",
                host.storePath()});
    ASSERT_EQ(host.Wait(30000), 0);
    EXPECT_TRUE(Has(host.output(), file + ":2:")) << host.output();
    EXPECT_TRUE(Has(ReadFileOr(host.storePath()), "\"holder\":\"\""));
}

TEST_F(Workbench, OnlyListedOriginsSeeTheScriptObject) {
    PageServer server(Pages());
    ASSERT_TRUE(server.ok());
    std::string child = server.Url("trusted_child.html");
    struct Case {
        std::string origins;
        std::string childSees;
    } cases[] = {
        {"file://", "undefined"},
        {"file:// " + server.Origin(), "object"},
        {"", "object"},  // no list: every frame, as always
    };
    for (const Case& c : cases) {
        HostProcess host(m_x);
        if (!c.origins.empty()) host.AddEnv("KAVORI_TRUSTED_ORIGINS=" + c.origins);
        host.Start({"-url", PageUrl("trusted_parent.html") + "#" + child, "-root", RecordingPluginDir(), "-store",
                    host.storePath()});
        ASSERT_EQ(host.Wait(30000), 0) << c.origins;
        std::string r = ReadFileOr(host.storePath());
        EXPECT_TRUE(Has(r, "\"parent\":\"object\"")) << c.origins << ": " << r;
        EXPECT_TRUE(Has(r, "\"child\":\"" + c.childSees + "\"")) << c.origins << ": " << r;
        EXPECT_TRUE(Has(r, "\"parentStillWorks\":5")) << c.origins << ": " << r;
    }
}

TEST_F(Workbench, ATopLevelNavigationToAnUnlistedOriginIsRefused) {
    PageServer server(Pages());
    ASSERT_TRUE(server.ok());
    HostProcess host(m_x);
    host.AddEnv("KAVORI_TRUSTED_ORIGINS=file://");
    host.Start({"-url", PageUrl("trusted_navigate.html") + "#" + server.Url("trusted_child.html"), "-root",
                RecordingPluginDir(), "-store", host.storePath()});
    ASSERT_EQ(host.Wait(30000), 0);
    EXPECT_EQ(ReadFileOr(host.storePath()), "stayed file:");
    EXPECT_TRUE(Has(host.output(), "refused navigation to " + server.Url("trusted_child.html"))) << host.output();
}

TEST_F(Workbench, AnUntrustedStartPageGetsNoAnswersFromTheHost) {
    // The host does not take the web process's word: with the top level off
    // the list no request is served, whatever the frame claims.
    HostProcess host(m_x);
    host.AddEnv("KAVORI_TRUSTED_ORIGINS=http://127.0.0.1:1");
    host.Start({"-url", PageUrl("calls.html"), "-root", RecordingPluginDir(), "-store", host.storePath()});
    host.Wait(8000);  // the page is refused and cannot end the run itself
    EXPECT_TRUE(Has(host.output(), "refused navigation to " + PageUrl("calls.html"))) << host.output();
    for (const std::string& line : host.Record()) {
        EXPECT_TRUE(line == "Initialize" || line.rfind("SetProperty Server=", 0) == 0 ||
                    line.rfind("SetProperty WorkingDirectory=", 0) == 0 || line.rfind("SetTraceCallback", 0) == 0)
            << line;
    }
}

}  // namespace
