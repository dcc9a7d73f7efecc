// The web view's settings and user agent.
#pragma once

#include <cstdint>

typedef struct _WebKitSettings WebKitSettings;

// userAgent: null keeps WebKit's default, "" asks for the composed one.
void ApplyWebSettings(const char* userAgent);
bool ComposeUserAgent(WebKitSettings* settings, char* buffer, uint32_t size);
