// The demo dialogs as a screen reader meets them, through AT-SPI, with the
// web process in WebKit's sandbox.  The PIN dialog: the password field by its
// accessible name, the dialog's buttons, a PIN typed into the field focused
// through AT-SPI, and the unlock button pressed through its action.  The
// certificate dialog: the list and its items by name, the selection moved by
// the keyboard, the filter narrowing the list.  Run under dbus-run-session
// (tests/e2e/CMakeLists.txt), which gives the session bus.
#include <atspi/atspi.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "tests/e2e/e2e.h"

#if defined(__SANITIZE_ADDRESS__)
// libatspi keeps what it learnt of the desktop to the end of the process;
// the host's own leak check is elsewhere.
extern "C" const char* __asan_default_options() { return "detect_leaks=0"; }
#endif

namespace kvotest {
namespace {

// Depth first: the first accessible below node with this role and name (a new reference).
AtspiAccessible* Find(AtspiAccessible* node, AtspiRole role, const std::string& name, int depth = 0) {
    gchar* own = atspi_accessible_get_name(node, nullptr);
    bool match = atspi_accessible_get_role(node, nullptr) == role && own && name == own;
    g_free(own);
    if (match) return static_cast<AtspiAccessible*>(g_object_ref(node));
    int count = depth < 40 ? atspi_accessible_get_child_count(node, nullptr) : 0;
    AtspiAccessible* found = nullptr;
    for (int i = 0; i < count && !found; ++i) {
        AtspiAccessible* child = atspi_accessible_get_child_at_index(node, i, nullptr);
        if (child) found = Find(child, role, name, depth + 1);
        if (child) g_object_unref(child);
    }
    return found;
}

AtspiAccessible* FindIn(pid_t pid, AtspiRole role, const std::string& name) {
    AtspiAccessible* found = nullptr;
    PollUntil(
        [&] {
            AtspiAccessible* desktop = atspi_get_desktop(0);
            for (int i = 0; !found && i < atspi_accessible_get_child_count(desktop, nullptr); ++i) {
                AtspiAccessible* app = atspi_accessible_get_child_at_index(desktop, i, nullptr);
                if (app && pid_t(atspi_accessible_get_process_id(app, nullptr)) == pid)
                    found = Find(app, role, name);
                if (app) g_object_unref(app);
            }
            g_object_unref(desktop);
            return found != nullptr;
        },
        30000);
    return found;
}

// The session bus for the host (or a skip), with an accessibility bus of this test's own in runtime:
// dbus-run-session starts that bus with the suite's environment, which puts its socket at
// ~/.cache/at-spi/bus of whoever runs the suite, so two suites at once would take each other's.
std::string SessionBus(const TempDir& runtime) {
    const char* bus = getenv("DBUS_SESSION_BUS_ADDRESS");
    if (!bus) SkipTest("no session bus: run under dbus-run-session");
    const std::string activation = "XDG_RUNTIME_DIR=" + runtime.path();
    EXPECT_EQ(0, RunProcess({"dbus-update-activation-environment", activation}, {}, 10000));
    if (atspi_init() < 0) SkipTest("AT-SPI cannot start");
    return std::string("DBUS_SESSION_BUS_ADDRESS=") + bus;
}

TEST_F(RealHost, ThePinDialogIsUsableThroughAtSpi) {
    TempDir runtime, token;
    HostProcess& host = Add();
    host.env = {SessionBus(runtime)};
    MakeSoftToken(token);
    ASSERT_TRUE(host.Open("file://" + SourceDir() + "/examples/dialog/pin.html",
                          {"-size",
                           std::to_string((420 << 16) | (400 + 30)),
                           "-root",
                           BuildDir() + "/examples/demo",
                           "-key",
                           "Kavori Demo"}));
    EXPECT_FALSE(Has(host.output(), "without WebKit's sandbox")) << host.output();
    AtspiAccessible* field = FindIn(host.pid(), ATSPI_ROLE_PASSWORD_TEXT, "PIN");
    AtspiAccessible* cancel = FindIn(host.pid(), ATSPI_ROLE_PUSH_BUTTON, "Cancel");
    AtspiAccessible* unlock = FindIn(host.pid(), ATSPI_ROLE_PUSH_BUTTON, "Unlock");
    ASSERT_TRUE(field && cancel && unlock) << host.output();
    // Focus through AT-SPI, then keys as a keyboard user types them.
    x.Query({"xdotool", "windowfocus", "--sync", std::to_string(host.Window())});
    ASSERT_TRUE(atspi_component_grab_focus(atspi_accessible_get_component_iface(field), nullptr));
    ASSERT_TRUE(PollUntil([&] {
        return atspi_state_set_contains(atspi_accessible_get_state_set(field), ATSPI_STATE_FOCUSED);
    }));
    x.Query({"xdotool", "type", "--delay", "30", "123456"});
    // The keys reach the page on their own way: press only once all six are in.
    AtspiText* text = atspi_accessible_get_text_iface(field);
    ASSERT_TRUE(text);
    EXPECT_TRUE(PollUntil([&] { return atspi_text_get_character_count(text, nullptr) == 6; }));
    g_object_unref(text);
    AtspiAction* press = atspi_accessible_get_action_iface(unlock);
    ASSERT_TRUE(press && atspi_action_get_n_actions(press, nullptr) > 0);
    ASSERT_TRUE(atspi_action_do_action(press, 0, nullptr));
    EXPECT_EQ("CKR_OK", host.Result());
    for (AtspiAccessible* a : {field, cancel, unlock}) g_object_unref(a);
    g_object_unref(press);
}

bool Has(AtspiAccessible* node, AtspiStateType state) {
    AtspiStateSet* states = atspi_accessible_get_state_set(node);
    bool has = atspi_state_set_contains(states, state);
    g_object_unref(states);
    return has;
}

// The names of the list's items, in order.
std::vector<std::string> ItemNames(AtspiAccessible* list) {
    std::vector<std::string> names;
    for (int i = 0; i < atspi_accessible_get_child_count(list, nullptr); ++i) {
        AtspiAccessible* item = atspi_accessible_get_child_at_index(list, i, nullptr);
        gchar* name = item ? atspi_accessible_get_name(item, nullptr) : nullptr;
        names.push_back(name ? name : "<none>");
        g_free(name);
        if (item) g_object_unref(item);
    }
    return names;
}

TEST_F(RealHost, TheCertificateListIsUsableThroughAtSpi) {
    TempDir runtime, token;
    HostProcess& host = Add();
    host.env = {SessionBus(runtime)};
    std::string out;
    int made = RunProcess(
        {"/bin/bash", SourceDir() + "/scripts/demo-token.sh", token.file("demo")}, {}, 60000, &out);
    if (made == 77) SkipTest(out);
    ASSERT_EQ(0, made) << out;
    setenv("SOFTHSM2_CONF", token.file("demo/softhsm2.conf").c_str(), 1);
    std::vector<std::string> ids, labels;
    for (const std::string& line : ReadLines(token.file("demo/certificates"))) {
        ids.push_back(line.substr(0, line.find('\t')));
        labels.push_back(line.substr(line.find('\t') + 1));
    }
    ASSERT_EQ(4u, labels.size()) << out;
    labels.back() += ", expired";
    ASSERT_TRUE(host.Open(
        "file://" + SourceDir() + "/examples/dialog/certificate.html",
        {"-size", std::to_string((520 << 16) | (560 + 30)), "-root", BuildDir() + "/examples/demo"}));
    AtspiAccessible* list = FindIn(host.pid(), ATSPI_ROLE_LIST_BOX, "Certificates");
    AtspiAccessible* filter = FindIn(host.pid(), ATSPI_ROLE_ENTRY, "Filter by name");
    ASSERT_TRUE(list && filter) << host.output();
    EXPECT_TRUE(PollUntil([&] { return ItemNames(list) == labels; }))
        << testing::PrintToString(ItemNames(list));
    // The first item has the focus; Down moves it and the selection on.
    x.Query({"xdotool", "windowfocus", "--sync", std::to_string(host.Window())});
    AtspiAccessible* first = atspi_accessible_get_child_at_index(list, 0, nullptr);
    AtspiAccessible* second = atspi_accessible_get_child_at_index(list, 1, nullptr);
    ASSERT_TRUE(first && second);
    EXPECT_TRUE(
        PollUntil([&] { return Has(first, ATSPI_STATE_FOCUSED) && Has(first, ATSPI_STATE_SELECTED); }));
    x.Query({"xdotool", "key", "Down"});
    EXPECT_TRUE(
        PollUntil([&] { return Has(second, ATSPI_STATE_FOCUSED) && Has(second, ATSPI_STATE_SELECTED); }));
    EXPECT_FALSE(Has(first, ATSPI_STATE_SELECTED));
    // Typed into the filter, a name leaves one item; Enter chooses it.
    ASSERT_TRUE(atspi_component_grab_focus(atspi_accessible_get_component_iface(filter), nullptr));
    x.Query({"xdotool", "type", "--delay", "30", "encr"});
    EXPECT_TRUE(PollUntil([&] { return ItemNames(list) == std::vector<std::string>{labels[2]}; }))
        << testing::PrintToString(ItemNames(list));
    x.Query({"xdotool", "key", "Return"});
    EXPECT_EQ(ids[2], host.Result());
    for (AtspiAccessible* a : {list, filter, first, second}) g_object_unref(a);
}

}  // namespace
}  // namespace kvotest
