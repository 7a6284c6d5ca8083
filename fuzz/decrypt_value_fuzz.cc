// DecryptValue's reading of a plaintext. The input is the plaintext itself:
// it is encrypted here (AES-128-CBC, PKCS7, the fixed IV) under the key of a
// sandboxed key file, so that DecryptValue gets past the cipher and judges
// the description and the value bytes. Whatever array comes back is
// destroyed.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "crypto/CommonCrypto.h"
#include "crypto/KeyFileMask.h"
#include "xk/crypto.h"
#include "xk/testsupport.h"

namespace {

using namespace QX::Framework;

const std::vector<unsigned char> kKeyFile = {0x3C, 0x91, 0x5E, 0x07, 0xD2, 0x68, 0xAF, 0x14,
                                             0x8B, 0x40, 0xE6, 0x2D, 0x79, 0xC5, 0x03, 0xBA};

// The store under test, keyed from the key file, and a cipher of its own
// under the same key bytes to make the blobs.
struct Fixture {
  xk::test::Sandbox sandbox;
  CommonCrypto crypto;
  std::unique_ptr<Cipher> cipher;

  Fixture() {
    sandbox.WriteKeyFile(kKeyFile);
    if (crypto.initialize("fuzz", true) != S_OK) std::abort();
    SecureByteVector key(16), iv(16);
    for (int k = 0; k < 16; ++k) {
      key[k] = kKeyFile[k] ^ KeyFileMask[k];
      iv[k] = CommonCrypto::m_const_EntropyData[k] ^ (k + 1);
    }
    std::unique_ptr<IAlgorithmParameters> parameters(IAlgorithmParameters::Create());
    std::unique_ptr<IAlgorithm> algorithm(IAlgorithm::CreateFromFriendlyName("AES", parameters.get()));
    std::unique_ptr<ICryptoParserParameterMap> map(ICryptoParserParameterMap::Create());
    map->SetPadding("PKCS7");
    map->SetIV(iv);
    map->SetChainingMode("CBC");
    std::unique_ptr<IKey> raw(IKey::Create(algorithm.get(), "RAW", key));
    cipher.reset(Cipher::Create(algorithm.get(), map.get()));
    cipher->Init(Cipher::kEncrypt, raw.get());
  }
};

// A "UI1_MULTI" description makes an array of the cells its two bounds name,
// whatever the value carries, so a few bytes can ask for gigabytes. Such an
// input would judge the memory at hand, not the reading, which is the same
// for a small array: the target leaves out descriptions of more than
// kMaxCells cells. Bounds whose product overflows stay in (the value service
// refuses that array, and the reader must cope).
constexpr unsigned long long kMaxCells = 1ull << 24;

bool AsksForAHugeArray(const uint8_t* data, size_t size) {
  static const char kPrefix[] = "UI1_MULTI";
  if (size < sizeof kPrefix - 1 || std::memcmp(data, kPrefix, sizeof kPrefix - 1) != 0) return false;
  const std::string text(reinterpret_cast<const char*>(data), strnlen(reinterpret_cast<const char*>(data), size));
  int d1 = 0;
  int d2 = 0;
  std::sscanf(text.c_str(), "UI1_MULTI %d %d", &d1, &d2);
  // As the reader hands them on: each bound an unsigned long.
  const unsigned long long b1 = static_cast<unsigned long>(d1), b2 = static_cast<unsigned long>(d2);
  unsigned long long cells = 0;
  return !__builtin_mul_overflow(b1, b2, &cells) && cells > kMaxCells;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (AsksForAHugeArray(data, size)) return -1;
  static Fixture fixture;
  SecureByteVector cipherText;
  fixture.cipher->DoFinal(SecureByteVector(data, data + size), cipherText);

  SAFEARRAY* blob = SafeArrayCreateVector(VT_UI1, 0, cipherText.size());
  void* pv = nullptr;
  if (blob == nullptr || SafeArrayAccessData(blob, &pv) != S_OK) std::abort();
  std::memcpy(pv, cipherText.data(), cipherText.size());
  SafeArrayUnaccessData(blob);

  SAFEARRAY* out = nullptr;
  fixture.crypto.DecryptValue(blob, out, true);
  if (out != nullptr && qxSafeArrayDestroy(out, 0) != S_OK) std::abort();
  qxSafeArrayDestroy(blob, 0);
  return 0;
}
