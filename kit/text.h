// Text of which nobody can say where it ends or what is in it: names from
// other machines in log lines and answers.
#pragma once

#include <stddef.h>

// Copies text into size bytes, as one word: blanks, control characters, bytes
// above 0x7e, quotes, backslashes and the percent sign become "%" and two
// hexadecimal digits, an empty text "-". What does not fit is cut. Returns out.
char *kit_word(char *out, size_t size, const char *text);

// Copies text into size bytes, cut at the size or at the first control
// character, as something that is shown to people. Returns out.
char *kit_plain(char *out, size_t size, const char *text);

// A decimal number of a range, and nothing else. False when it is none.
bool kit_number(const char *text, long lowest, long highest, int *number);
