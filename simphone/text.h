// Texts: bytes made fit for people and for lines of a file, and back.
#pragma once

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <string>

// One line of printable characters: line feeds become \n, backslashes \\, every other byte \xHH.
std::string Escaped(const std::string& text);
// The same for a text with such forms in it already: its backslashes stay.
std::string Displayed(const std::string& text);
// The bytes of a text with such forms; false if a backslash begins none of them.
[[nodiscard]] bool Unescape(const std::string& line, std::string& text);

// Escaped, in quotation marks.
std::string Quoted(const std::string& text);

// Escaped as one word without a blank or quotation mark, which \xHH stand for; an empty text is
// "".
std::string Word(const std::string& text);

// Two lower-case digits a byte.
std::string Hex(const void* data, size_t size);

// What printf would print, at most 4095 bytes of it.
std::string Text(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The place of the text among the names; SIZE if it is none of them.
template <size_t SIZE> size_t PlaceOf(const std::string& text, const char* const (&names)[SIZE]) {
    return static_cast<size_t>(std::find(std::begin(names), std::end(names), text) - names);
}
