// Cost of protecting one 40-byte value: the platform objects created and
// deleted per value as the library does it, against a bare EVP one-shot with
// a fresh context. Both encrypt and then decrypt the value once per iteration.

#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <cstdlib>
#include <memory>

#include "xk/crypto.h"

using namespace QX::Framework;

namespace {

const unsigned char kKey[16] = {0x2b, 0x7e, 0x15, 0x16, 0x28, 0xae, 0xd2, 0xa6,
                                0xab, 0xf7, 0x15, 0x88, 0x09, 0xcf, 0x4f, 0x3c};
const unsigned char kIv[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};

SecureByteVector Value() {
  SecureByteVector value(40);
  for (std::size_t i = 0; i < value.size(); ++i) value[i] = static_cast<unsigned char>(i * 3);
  return value;
}

// One value through parameters, algorithm, map, cipher, Init and DoFinal.
void Transform(IKey* key, int direction, const SecureByteVector& iv, const SecureByteVector& input,
               SecureByteVector& output) {
  IAlgorithmParameters* parameters = IAlgorithmParameters::Create();
  IAlgorithm* algorithm = IAlgorithm::CreateFromFriendlyName("AES", parameters);
  ICryptoParserParameterMap* map = ICryptoParserParameterMap::Create();
  map->SetPadding("PKCS7");
  map->SetIV(iv);
  map->SetChainingMode("CBC");
  Cipher* cipher = Cipher::Create(algorithm, map);
  cipher->Init(direction, key);
  cipher->DoFinal(input, output);
  delete cipher;
  delete map;
  delete algorithm;
  delete parameters;
}

void BM_PlatformCipherEncryptDecrypt40(benchmark::State& state) {
  IAlgorithmParameters* parameters = IAlgorithmParameters::Create();
  IAlgorithm* algorithm = IAlgorithm::CreateFromFriendlyName("AES", parameters);
  std::unique_ptr<IKey> key(IKey::Create(algorithm, "RAW", SecureByteVector(kKey, kKey + 16)));
  delete algorithm;
  delete parameters;
  const SecureByteVector iv(kIv, kIv + 16);
  const SecureByteVector value = Value();
  for (auto _ : state) {
    SecureByteVector sealed, opened;
    Transform(key.get(), Cipher::kEncrypt, iv, value, sealed);
    Transform(key.get(), Cipher::kDecrypt, iv, sealed, opened);
    benchmark::DoNotOptimize(opened.data());
    if (opened != value) state.SkipWithError("round trip failed");
  }
}
BENCHMARK(BM_PlatformCipherEncryptDecrypt40);

int RawOneShot(bool encrypt, const unsigned char* in, int length, unsigned char* out) {
  EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
  int written = 0;
  int last = 0;
  const int ok = encrypt ? EVP_EncryptInit_ex(context, EVP_aes_128_cbc(), nullptr, kKey, kIv) &&
                               EVP_EncryptUpdate(context, out, &written, in, length) &&
                               EVP_EncryptFinal_ex(context, out + written, &last)
                         : EVP_DecryptInit_ex(context, EVP_aes_128_cbc(), nullptr, kKey, kIv) &&
                               EVP_DecryptUpdate(context, out, &written, in, length) &&
                               EVP_DecryptFinal_ex(context, out + written, &last);
  EVP_CIPHER_CTX_free(context);
  return ok ? written + last : -1;
}

void BM_RawEvpEncryptDecrypt40(benchmark::State& state) {
  const SecureByteVector value = Value();
  for (auto _ : state) {
    unsigned char sealed[64];
    unsigned char opened[64];
    const int sealedLength = RawOneShot(true, value.data(), static_cast<int>(value.size()), sealed);
    const int openedLength = RawOneShot(false, sealed, sealedLength, opened);
    benchmark::DoNotOptimize(opened);
    if (openedLength != 40) state.SkipWithError("round trip failed");
  }
}
BENCHMARK(BM_RawEvpEncryptDecrypt40);

}  // namespace
