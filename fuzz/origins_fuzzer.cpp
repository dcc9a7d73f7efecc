// The trusted-origins list (KAVORI_TRUSTED_ORIGINS) and the origin of a
// frame's URL, which the page chooses.  Input: the list, NUL, the URL.
#include "bridge/origins.h"
#include "fuzz_check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<std::string> pieces = SplitAtNul(data, size);
    const std::string& list = pieces[0];
    const std::string url = pieces.size() > 1 ? pieces[1] : std::string();

    std::string origin = OriginOf(url.c_str());
    // An origin is "scheme://" and maybe a host and port: never a path or a
    // query.  (GLib lets odd bytes such as blanks into a host; such an origin
    // can match no list entry, which is split at blanks.)
    if (!origin.empty()) {
        size_t scheme = origin.find("://");
        FUZZ_CHECK(scheme != std::string::npos && scheme > 0);
        FUZZ_CHECK(origin.find_first_of("/?#", scheme + 3) == std::string::npos);
    }

    std::vector<std::string> trusted = ParseTrustedOrigins(list.c_str());
    bool allowed = OriginTrusted(trusted, url.c_str());
    if (trusted.empty()) {
        FUZZ_CHECK(allowed);
    } else {
        // Allowed only by an entry equal to the URL's origin; a URL without
        // one is never allowed.
        bool listed = false;
        for (const std::string& entry : trusted) listed = listed || (!origin.empty() && entry == origin);
        FUZZ_CHECK(allowed == listed);
    }
    // An entry of an ordinary origin (host name, IPv4 or IPv6 literal, port)
    // reads back as itself, so it is matched by the pages it names.
    for (const std::string& entry : trusted) {
        if (entry.compare(0, 9, "unusable:") == 0) continue;
        if (entry.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789+-.:/[]") != std::string::npos) continue;
        FUZZ_CHECK(OriginOf(entry.c_str()) == entry);
    }
    return 0;
}
