// text.h - numbers, times and paths as the program reads and writes them.
//
// Functions without state; any thread may call them.
#pragma once

#include <glib.h>

#include <cstdint>
#include <string>

namespace plexa::pvr {

// printf into a string.
std::string format(const char *pattern, ...) G_GNUC_PRINTF(1, 2);

// A path as text for a terminal or a JSON document: valid UTF-8, one line, no control characters.
std::string display(const std::string &path);

// 83500 -> "00:01:23.500".
std::string clock_text(int64_t milliseconds);

// 12345678 -> "12.3 MB"; 1500000 -> "1.5 Mbit/s".
std::string bytes_text(uint64_t bytes);
std::string bit_rate_text(int64_t bits_per_second);

// A time on the command line: "1500ms", "12.5" (seconds), "1:02.5" or "00:01:02.500". Milliseconds,
// what is finer is cut off. Throws UsageError, which names the option.
gint32 parse_time(const char *option, const std::string &text);

// A whole number, decimal or 0x..., within the limits. Throws UsageError, which names the option.
int64_t parse_number(const char *option, const std::string &text, int64_t least, int64_t most);

// Codec identifier of a channel record: 1 -> "H.264"; "unknown" for what has no name.
const char *codec_name(int code);

}  // namespace plexa::pvr
