#pragma once

#include <string>

#include "base/json.h"

// How a value reads in log lines and in texts the page sees: a string as it
// stands, null or absent as "(null)", booleans as 1/0, numbers in their
// shortest form, containers as compact JSON.
std::string valueText(const Json& value);

// Truth of a flag the page sent: booleans as they are, numbers when not 0.
bool valueTruth(const Json& value);
