#ifndef ESD_XPLAT_MD5HASH_H
#define ESD_XPLAT_MD5HASH_H

#include <cstddef>
#include <cstdint>

namespace esd {

// The MD5 message digest. Feed any number of byte ranges with Update, then Finalize writes the
// 16 digest bytes. The digest context of the underlying library lives in opaque storage here so
// that including this header does not pull that library's header into every user.
class MD5Hash {
 public:
  static constexpr std::size_t kDigestSize = 16;

  MD5Hash() { Init(); }

  // Starts a new message, discarding anything fed so far.
  void Init();

  // Feeds the bytes of [first, last); each element is taken as one byte (so a signed char of
  // -1 is the byte 0xFF). Works for any input iterator over character-sized values.
  template <class Iter>
  void Update(Iter first, Iter last) {
    unsigned char chunk[64];
    std::size_t used = 0;
    for (; first != last; ++first) {
      chunk[used++] = static_cast<unsigned char>(*first);
      if (used == sizeof chunk) {
        UpdateBytes(chunk, used);
        used = 0;
      }
    }
    if (used != 0) UpdateBytes(chunk, used);
  }

  // Writes the 16 digest bytes, first byte first, and returns the iterator past them. The object
  // is then ready for a new message, as after Init.
  template <class OutIter>
  OutIter Finalize(OutIter out) {
    unsigned char digest[kDigestSize];
    FinalizeBytes(digest);
    for (unsigned char byte : digest) *out++ = byte;
    return out;
  }

 private:
  void UpdateBytes(const unsigned char* bytes, std::size_t size);
  void FinalizeBytes(unsigned char* digest);

  // Large and aligned enough for the library's context; checked where the library is included.
  alignas(std::uint64_t) unsigned char mContext[96];
};

}  // namespace esd

#endif
