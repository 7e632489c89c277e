#ifndef ESD_XPLAT_TEXTVALIDATION_H
#define ESD_XPLAT_TEXTVALIDATION_H

// Checks for text that host applications hand to the exported functions.

// True when the NUL-terminated `text` is acceptable UTF-8; a null pointer is acceptable. Rejects
// overlong forms, stray or missing continuation bytes, lead bytes 0xF8 and above, and the
// non-characters U+FDD0..U+FDEF and U+xxFFFE/U+xxFFFF. Encoded surrogates and four-byte values
// above U+10FFFF are deliberately let through: a stricter check would refuse names and paths
// that hosts have always been able to register. Never reads past the terminating NUL.
bool validate_utf8(const unsigned char* text);

// Normalises a language-and-region code such as "EN-us" into `out` (11 bytes, always written
// whole and NUL-terminated): the first two characters in lower case, the third as it is, the
// fourth and fifth in upper case, the rest dropped, so "EN-us" becomes "en-US". Input that is
// null or four characters or shorter yields the empty string.
void ValidateIsoCode(const char* in, char* out);

#endif
