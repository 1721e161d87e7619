// What goes to standard output: plain text, or one JSON object on one line.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "apps/sdconfig/request/request.h"

namespace cli {

// Keeps the order in which the names were added, so that the output is steady.
using Object = nlohmann::ordered_json;

// Whether standard output is one.
bool isTerminal();

// Whether JSON can hold `bytes` as a text: whether they are valid UTF-8.
bool fitsJson(const std::string& bytes);

// Adds `bytes` under `name`, or, where they are not valid UTF-8 and so can't stand in JSON, in base64 under
// "<name>_base64".
void addBytes(Object& object, const std::string& name, const std::string& bytes);

// Prints `object` where JSON was asked for, else `text` as it is. Returns the exit code: a result that could not be
// written is a failure; a reader that had enough and closed the pipe is none.
int print(const Request& request, const std::string& text, const Object& object);
int printText(const std::string& text);
std::string lineOf(const Object& object);  // with its newline

// A key or a value as standard output shows it: exact, but at a terminal escaped.
std::string shown(const std::string& text);

// The same as part of a line: newlines and tabs, which would make other lines and fields of it, are escaped everywhere.
std::string shownInLine(const std::string& text);
std::string inQuotes(const std::string& text);  // so, between quotes: whole, unlike in a message

// What a look-up found. keyName: what the key is called in JSON. An empty value is told as unset, by `whenUnset`.
int printValue(const Request& request, const char* keyName, const std::string& value, int (*whenUnset)(const Request&));

// What look-ups of the request's keys found: the value of one that stands alone, else a line KEY=VALUE each; in
// JSON an object a line. What is unset has the request's fallback for a value, else it is told by `whenUnset`, and
// makes the exit code kRefused, as does what can't be opened.
struct Lookup {
    std::string key;
    std::string value;  // "": unset, or
    bool isUnopenable = false;
};
int printValues(const Request& request, bool alone, const std::vector<Lookup>& found, int (*whenUnset)(const Request&));

// Whether a write was done: in text nothing, as there is nothing to read; a refusal is told by `whenRefused`.
int printDone(const Request& request, bool done, int (*whenRefused)(const Request&));

}  // namespace cli
