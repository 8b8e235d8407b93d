// Answers for programs. All texts are printable: other bytes are written as \n, \\ and \xHH.
#pragma once

#include "fwlab/phone/decision.h"

#include <functional>
#include <nlohmann/json.hpp>

using Json = nlohmann::ordered_json;

// The fields of a header by their keys, manufacturer first, without the body's size.
Json Describe(const Identity& identity);

// "answer" (see WordOf), "why", the entries by their numbers (null for none), the revision that
// goes on record and the number of bytes that the device gets.
Json Describe(const Decision& decision);

// Prints the report for programs, or calls `print`, which prints the answer for people.
void Show(bool asJson, const Json& report, const std::function<void()>& print);

// For people: a text in quotation marks, the elements of a list with blanks between them.
std::string Shown(const Json& value);
