// Answers for programs. Every text is printable: bytes that are not stand as \n, \\ and \xHH.
#pragma once

#include "fwlab/decision.h"

#include <functional>
#include <nlohmann/json.hpp>

using Json = nlohmann::ordered_json;

// The fields of a header by their keys, manufacturer first; without its body.
Json Describe(const Identity& identity);

// An answer by its name and why it is given, for a line of a table: one that is against the update
// is in capital letters.
std::string InWords(std::string answer, const std::string& why);

// "answer" (see NameOf), "why", the entries by their numbers (null for none), the revision that
// goes on record and the number of bytes that the device is sent.
Json Describe(const Decision& decision);

// Prints the report for programs, or has `print` print the answer for people.
void Show(bool asJson, const Json& report, const std::function<void()>& print);

// For people: a text in quotation marks, the elements of a list with blanks between them.
std::string Shown(const Json& value);
