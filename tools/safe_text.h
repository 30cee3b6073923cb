#ifndef TOOLS_SAFE_TEXT_H_
#define TOOLS_SAFE_TEXT_H_

#include <cstddef>
#include <string>

// Text that somebody else has written, made fit for a terminal and for a line: no control
// character, escape sequence, line break or turn of the writing direction gets through, and nothing
// that looks like a blank, or like nothing at all, but is no space.
namespace varnic::tools {

// `text` with each character that cannot be printed, and each byte that is no UTF-8, written as
// "\n", "\x1b" and so on. Backslashes stay, so it is for reading only.
std::string EscapeUnprintable(const std::string& text);

// `text` as one word: as it is if it has no white space, quotes, backslashes or unprintable
// characters, and in quotes with all of these escaped if it has. Nothing in it passes for the words
// around it.
std::string SafeWord(const std::string& text);

// The same of a text that may have any length: one of more than `max_bytes` is shown by its
// beginning and its end, and by its length: "Staff"..."only" (200000 bytes).
std::string ShortWord(const std::string& text, std::size_t max_bytes = 300);

}  // namespace varnic::tools

#endif  // TOOLS_SAFE_TEXT_H_
