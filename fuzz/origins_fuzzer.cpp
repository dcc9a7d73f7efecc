// The trusted-origins list (KAVORI_TRUSTED_ORIGINS) and the origin of a
// frame's URL, which the page chooses.  Input: the list, NUL, the URL.
#include "bridge/origins.h"
#include "fuzz_check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<std::string> pieces = SplitAtNul(data, size, 2);
    const std::string& url = pieces[1];
    // "scheme://" and maybe a host and port, never a path or a query.  (GLib
    // lets blanks into a host; no list entry, split at blanks, matches those.)
    std::string origin = OriginOf(url.c_str());
    size_t scheme = origin.find("://");
    FUZZ_CHECK(origin.empty() || (scheme != std::string::npos && scheme > 0 &&
                                  origin.find_first_of("/?#", scheme + 3) == std::string::npos));

    // An empty list allows everything, else only an entry equal to the URL's
    // origin.  An ordinary origin (host name, IPv4 or IPv6 literal, port)
    // reads back as itself, so it is matched by the pages it names.
    std::vector<std::string> trusted = ParseTrustedOrigins(pieces[0].c_str());
    bool listed = trusted.empty();
    for (const std::string& entry : trusted) {
        listed = listed || (!origin.empty() && entry == origin);
        bool ordinary =
            entry.compare(0, 9, "unusable:") != 0 &&
            entry.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789+-.:/[]") == std::string::npos;
        FUZZ_CHECK(!ordinary || OriginOf(entry.c_str()) == entry);
    }
    FUZZ_CHECK(OriginTrusted(trusted, url.c_str()) == listed);
    return 0;
}
