#pragma once

#include <optional>
#include <string>

#include "base/json.h"

// What a server address is. Pure, thread-safe, silent.

// A bare instance name becomes name.on.<service domain>; anything that looks
// like a host or URL is returned trimmed. nullopt when the value is no string.
std::optional<std::string> ondrelExpandServerInput(const Json& value);

// The canonical http(s) URL text (as typed, minus trailing slashes), or
// nullopt when it is no acceptable http/https address.
std::optional<std::string> ondrelNormalizeServer(const Json& value);

// The service domain or a host under it over https, or the local machine.
bool ondrelIsAllowedServerURL(const std::string& url);

// A lower-cased host (IPv6 without brackets) that names this machine:
// "localhost", "127.0.0.1" or "::1".
bool ondrelIsLoopbackHost(const std::string& host);

// The lower-cased host, or "" when there is none.
std::string ondrelServerHostOf(const Json& value);

// The URL's host as written (no case folding), or "" when it has none.
std::string ondrelRawHostOf(const std::string& url);

// Lower-cased scheme, or "" when the text does not parse as a URL.
std::string ondrelSchemeOf(const std::string& url);

// The web origin of an http(s) URL as a page reads it in location.origin:
// "scheme://host[:port]", lower-cased, the scheme's default port left out.
// "" for anything else.
std::string ondrelOriginOf(const std::string& url);
