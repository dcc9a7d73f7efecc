// What the web extension learns of a document's security origin, and what it
// locks, before any of the document's own script runs.
#pragma once

#include <JavaScriptCore/JavaScript.h>

#include <string>
#include <vector>

// Whether a document may see Kavori: with an empty list every document;
// otherwise only when its own security origin and every ancestor's are on
// the list.  The origins are the engine's: a sandboxed frame or a page
// served with a sandboxing Content-Security-Policy has the opaque origin
// "null" and is never trusted, whatever its URL says.  `context` is the
// document's in a script world where no page script runs.
bool DocumentTrusted(JSGlobalContextRef context, const std::vector<std::string>& trusted);
// The document's security origin as the engine writes it ("null" when it is
// opaque); `context` as for DocumentTrusted.
std::string DocumentOrigin(JSGlobalContextRef context);

// Makes document.domain's setter do nothing for every document of the
// context's realm, so that no document there can relax its origin to meet
// a frame of another origin of its host (another port, a parent domain).
// False when the setter could not be replaced: then the realm must not be
// trusted.  Calling it again for the realm's next document is harmless.
bool LockDocumentDomain(JSGlobalContextRef context);
