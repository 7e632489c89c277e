#include "xplat/MD5Hash.h"

#include <md5.h>

#include <new>

namespace esd {

namespace {

static_assert(sizeof(MD5_CTX) <= sizeof(unsigned char[96]), "MD5Hash::mContext is too small");
static_assert(alignof(MD5_CTX) <= alignof(std::uint64_t), "MD5Hash::mContext is misaligned");

MD5_CTX* Context(unsigned char* storage) {
  return std::launder(reinterpret_cast<MD5_CTX*>(storage));
}

}  // namespace

void MD5Hash::Init() {
  MD5Init(new (mContext) MD5_CTX);
}

void MD5Hash::UpdateBytes(const unsigned char* bytes, std::size_t size) {
  MD5Update(Context(mContext), bytes, size);
}

void MD5Hash::FinalizeBytes(unsigned char* digest) {
  MD5Final(digest, Context(mContext));
  Init();
}

}  // namespace esd
