// Terminal columns of text: how many columns each character takes on
// screen (none for a combining mark, two for a wide character), and names
// cut into pieces that are safe to send to a terminal, control characters
// and bytes that are not UTF-8 written as escapes. The scanner's progress
// line and the reader's terminal browser measure what they draw with it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

/// Decodes the UTF-8 character at p (n bytes there): returns its length
/// (1 to 4) and sets *cp, or returns 0 when the bytes are not valid UTF-8
/// (overlong forms and surrogates included).
size_t DecodeUtf8(const unsigned char* p, size_t n, uint32_t* cp);

/// Columns a character takes on a terminal: 0, 1 or 2; -1 for a control
/// character, which must never be sent to one.
int CharColumns(uint32_t cp);

/// One piece of a name as a terminal shows it: a printable character as it
/// is, or an escape ("\n", "\t", "\\", "\x1b", "\xff") for a control
/// character, a backslash or a byte that is not part of valid UTF-8.
struct TermPiece {
    char text[8] = {};
    uint8_t length = 0;   ///< bytes of text
    uint8_t columns = 0;  ///< columns it takes
    bool escaped = false;
    uint32_t codepoint = 0;  ///< the character, when not escaped
};

/// The piece that starts at text[*at] (which must be inside text); moves
/// *at past the bytes it stands for.
TermPiece NextTermPiece(std::string_view text, size_t* at);

/// Columns the whole text takes, shown piece by piece.
size_t TermColumns(std::string_view text);
