// The end-to-end tests: the built host on a private Xvfb with real pages,
// read back through X, the result file, the plug-in's record and the
// process table.  Hosts within a test run side by side where they can.
#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "tests/support/host_runner.h"

namespace kvotest {

class RealHost : public testing::Test {
protected:
    void SetUp() override {
        if (!x.ok()) SkipTest("no Xvfb");
    }
    // A host not started yet, the recording plug-in answering from answers.
    HostProcess& Add(const std::string& answers = "Holder\tA. Person\n") {
        hosts.emplace_back(new HostProcess(x));
        WriteFile(hosts.back()->answersPath(), answers);
        return *hosts.back();
    }
    // One started on page (HostProcess::Open) with the extra environment.
    HostProcess& Open(const std::string& page, const std::vector<std::string>& extra = {},
                      const std::vector<std::string>& env = {}) {
        HostProcess& host = Add();
        host.env = env;
        EXPECT_TRUE(host.Open(page, extra));
        return host;
    }
    // Reads until the text holds part (bounded); the last text.
    static std::string ReadUntil(const std::function<std::string()>& read, const std::string& part) {
        std::string text;
        PollUntil([&] { return (text = read()).find(part) != std::string::npos; }, 10000);
        return text;
    }
    XServer x;
    std::vector<std::unique_ptr<HostProcess>> hosts;  // ended before the X server
};

inline bool Has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// A throwaway SoftHSM2 token "Kavori Demo" (user PIN 123456) below dir, for
// this process and the hosts it starts; skips without SoftHSM2 or xdotool.
inline void MakeSoftToken(const TempDir& dir) {
    for (const char* file :
         {"/usr/lib/softhsm/libsofthsm2.so", "/usr/bin/softhsm2-util", "/usr/bin/xdotool"}) {
        if (!FileExists(file)) SkipTest(std::string(file) + " is not installed");
    }
    MakeDirs(dir.file("tokens"));
    WriteFile(dir.file("conf"), "directories.tokendir = " + dir.file("tokens") + "\nlog.level = ERROR\n");
    setenv("SOFTHSM2_CONF", dir.file("conf").c_str(), 1);
    std::string out;
    ASSERT_EQ(0,
              RunProcess({"/usr/bin/softhsm2-util",
                          "--init-token",
                          "--free",
                          "--label",
                          "Kavori Demo",
                          "--pin",
                          "123456",
                          "--so-pin",
                          "12345678"},
                         {},
                         30000,
                         &out))
        << out;
}

}  // namespace kvotest
