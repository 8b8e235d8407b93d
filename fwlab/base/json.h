// Answers for programs. All texts are printable: other bytes are written as \n, \\ and \xHH.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>

using Json = nlohmann::ordered_json;

// Prints the report for programs, or calls `print`, which prints the answer for people.
void Show(bool asJson, const Json& report, const std::function<void()>& print);

// For people: a text in quotation marks, the elements of a list with blanks between them.
std::string Shown(const Json& value);
