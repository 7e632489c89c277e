#ifndef ESD_XPLAT_BASE64_H
#define ESD_XPLAT_BASE64_H

namespace esd {

namespace detail {
inline constexpr char kBase64Alphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
}

// Writes the standard Base64 encoding of the bytes in [first, last) to `out`, padded with "="
// to a multiple of four characters and without line breaks, and returns the iterator past the
// last character written. Elements are taken as bytes, so signed chars above 0x7F encode as
// their unsigned value.
//
// Works on a bit accumulator rather than on whole three-byte groups, so it needs only an input
// iterator and never looks ahead.
template <class InIter, class OutIter>
OutIter Base64Encode(InIter first, InIter last, OutIter out) {
  unsigned pending = 0;      // low bits of the last byte not yet emitted
  unsigned pendingBits = 0;  // 0, 2 or 4 between bytes
  unsigned groupBytes = 0;   // bytes seen of the current three-byte group
  for (; first != last; ++first) {
    const unsigned byte = static_cast<unsigned char>(*first);
    const unsigned taken = 6 - pendingBits;
    *out++ = detail::kBase64Alphabet[(pending << taken) | (byte >> (8 - taken))];
    pendingBits = 8 - taken;
    pending = byte & ((1u << pendingBits) - 1);
    if (++groupBytes == 3) {
      *out++ = detail::kBase64Alphabet[pending];
      pending = 0;
      pendingBits = 0;
      groupBytes = 0;
    }
  }
  if (groupBytes != 0) {
    *out++ = detail::kBase64Alphabet[pending << (6 - pendingBits)];
    *out++ = '=';
    if (groupBytes == 1) *out++ = '=';
  }
  return out;
}

}  // namespace esd

#endif
