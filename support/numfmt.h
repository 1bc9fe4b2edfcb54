// Number formatting for the log: grouped digits, byte counts in metric
// units, and decimal counts with an optional unit letter.
#pragma once

#include <cstdint>

/// Size of the buffers that ValueStr and EditValueMetric write into.
constexpr int NUM_BUF_SIZE = 64;

/// Writes value with its digits grouped in threes by separator. A minus sign
/// counts as a digit when the separators are counted (-123 gives "-,123").
/// With the separator '.' the last character is removed, turning a count of
/// thousandths into a figure with two decimals (1235 gives "1.23"). Returns buffer.
char* ValueStr(int64_t value, char* buffer, char separator);

/// Writes a byte count as the log shows it: "<figure> bytes" below one
/// million, else "<figure>mb (<grouped count>)", "gb" or "tb", the figure
/// rounded up to thousandths of the unit and cut to two decimals. Small
/// counts lose their last digit the same way (500 gives "50 bytes"). Returns buffer.
char* EditValueMetric(uint64_t value, char* buffer);

/// Reads a decimal count. With allowSuffix a last letter K, M, G (powers of
/// 1024) or k, m, g (powers of 1000) multiplies it; without, the value must
/// fit 32 bits. A bad text gives all ones; "" gives 0. Overflow is not detected.
uint64_t NumericString(const char* text, int allowSuffix);
