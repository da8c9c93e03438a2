#pragma once

#include <map>
#include <string>
#include <vector>

#include "base/json.h"

// The rules for one "mcpServers" entry of the settings file and for the name
// the web application addresses a server by.

// Every character outside [a-z0-9_-] becomes "-" (one per UTF-16 unit), then
// the text is lower-cased (capitals are already gone by then: a server named
// "Git Hub" is "it--ub"), leading and trailing "-" go, and nothing left
// becomes "server".
std::string ondrelMcpNamespace(const std::string& name);

// "args": the strings of an array, in order; anything else gives none.
std::vector<std::string> ondrelMcpArgs(const Json& args);

// "env": the members of an object whose values are strings.
std::map<std::string, std::string> ondrelMcpEnv(const Json& env);

// An error value's "message" member, when it is an object that has one.
const Json* ondrelErrorMessage(const Json& error);
