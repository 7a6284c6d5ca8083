// The cryptography service: published AES vectors, padding, keys, the codes of
// refused calls and the fault points of the library's call sequences.

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "xk/crypto.h"
#include "xk/fault_point.h"
#include "xk/testsupport.h"

using namespace QX::Framework;
using xk::fault::Kind;

namespace {

SecureByteVector Hex(const std::string& text) {
  SecureByteVector bytes;
  for (std::size_t i = 0; i + 1 < text.size(); i += 2) bytes.push_back(static_cast<unsigned char>(std::stoul(text.substr(i, 2), nullptr, 16)));
  return bytes;
}

SecureByteVector Bytes(std::size_t n, unsigned char seed) {
  SecureByteVector bytes(n);
  for (std::size_t i = 0; i < n; ++i) bytes[i] = static_cast<unsigned char>(seed + 7 * i);
  return bytes;
}

const SecureByteVector kIv = Hex("000102030405060708090a0b0c0d0e0f");
const SecureByteVector kKey = Hex("2b7e151628aed2a6abf7158809cf4f3c");
const SecureByteVector kPlain = Hex(
    "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
    "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710");
const SecureByteVector kCbc = Hex(
    "7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b2"
    "73bed6b8e3c1743b7116e69e222295163ff1caa1681fac09120eca307586e1a7");

// Runs `body`; returns the code of the IException it throws (deleting it), or 0.
unsigned ErrorOf(const std::function<void()>& body) {
  try {
    body();
  } catch (IException* e) {
    const unsigned code = e->GetErrorCode();
    EXPECT_NE(std::string(e->GetMessage()), "");
    delete e;
    return code;
  }
  return 0;
}

// An AES algorithm with the parameters it was made from, freed in the library's order.
struct Aes {
  std::unique_ptr<IAlgorithmParameters> parameters{IAlgorithmParameters::Create()};
  std::unique_ptr<IAlgorithm> algorithm{IAlgorithm::CreateFromFriendlyName("AES", parameters.get())};
};

std::unique_ptr<IKey> RawKey(const SecureByteVector& bytes) {
  return std::unique_ptr<IKey>(IKey::Create(Aes().algorithm.get(), "RAW", bytes));
}

// The volatile key sequence of the library: every object but the key is
// deleted before the key is used.
std::unique_ptr<IKey> GeneratedKey(std::size_t size, const char* label = "store_AES_NVC_VOLATILE_KEY") {
  Aes aes;
  std::unique_ptr<ICryptoParserParameterMap> map(ICryptoParserParameterMap::Create());
  map->SetKeyType("TypeVolatile");
  map->SetKeyLabel(label);
  return std::unique_ptr<IKey>(std::unique_ptr<KeyGenerator>(KeyGenerator::Create(aes.algorithm.get(), map.get()))
                                   ->GenerateKey(size));
}

// One value through the library's per-value cipher sequence.
SecureByteVector Transform(IKey* key, int direction, const SecureByteVector& input, const char* padding = "PKCS7",
                           const char* mode = "CBC", const SecureByteVector& iv = kIv) {
  Aes aes;
  std::unique_ptr<ICryptoParserParameterMap> map(ICryptoParserParameterMap::Create());
  map->SetPadding(padding);
  map->SetIV(iv);
  map->SetChainingMode(mode);
  std::unique_ptr<Cipher> cipher(Cipher::Create(aes.algorithm.get(), map.get()));
  cipher->Init(direction, key);
  SecureByteVector output;
  cipher->DoFinal(input, output);
  return output;
}

// One cipher, the published CBC vector through it after its key, map and
// algorithm are gone, then every vector through the library's sequence.
TEST(Crypto, PublishedVectorsAndOneCipherServingSeveralValues) {
  auto aes = std::make_unique<Aes>();
  std::unique_ptr<ICryptoParserParameterMap> map(ICryptoParserParameterMap::Create());
  map->SetIV(kIv);
  map->SetPadding("None");
  std::unique_ptr<Cipher> cipher(Cipher::Create(aes->algorithm.get(), map.get()));
  map.reset();
  aes.reset();
  auto key = RawKey(kKey);
  cipher->Init(Cipher::kEncrypt, key.get());
  key.reset();
  // Each DoFinal starts again from the IV; a failed one leaves the output
  // alone and does not spoil the next.
  SecureByteVector first, second = Bytes(99, 3);
  cipher->DoFinal(kPlain, first);
  EXPECT_EQ(ErrorOf([&] { cipher->DoFinal(Bytes(5, 1), second); }), kCryptoOperationFailed);
  EXPECT_EQ(second, Bytes(99, 3));
  cipher->DoFinal(kPlain, second);
  EXPECT_EQ(first, kCbc);
  EXPECT_EQ(second, kCbc);
  key = RawKey(kKey);
  EXPECT_EQ(Transform(key.get(), Cipher::kDecrypt, kCbc, "None"), kPlain);
  const SecureByteVector ecb = Hex(
      "3ad77bb40d7a3660a89ecaf32466ef97f5d3d58503b9699de785895a96fdbaaf"
      "43b1cd7f598ece23881b00e3ed0306887b0c785e27e8ad3f8223207104725dd4");
  EXPECT_EQ(Transform(key.get(), Cipher::kEncrypt, kPlain, "None", "ECB", {}), ecb);
  EXPECT_EQ(Transform(key.get(), Cipher::kDecrypt, ecb, "None", "ECB", {}), kPlain);
  // The key size picks AES-192 and AES-256 (first blocks of their CBC vectors).
  auto key192 = RawKey(Hex("8e73b0f7da0e6452c810f32b809079e562f8ead2522c6b7b"));
  auto key256 = RawKey(Hex("603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4"));
  const SecureByteVector block(kPlain.begin(), kPlain.begin() + 16);
  EXPECT_EQ(Transform(key192.get(), Cipher::kEncrypt, block, "None"), Hex("4f021db243bc633d7178183a9fa071e8"));
  EXPECT_EQ(Transform(key256.get(), Cipher::kEncrypt, block, "None"), Hex("f58c4c04d6e5f1ba779eabfb5f7bfbd6"));
}

TEST(Crypto, Pkcs7PaddingRoundTripsEveryLengthAndRefusesDamage) {
  auto key = RawKey(kKey);
  for (std::size_t n = 0; n <= 33; ++n) {
    const SecureByteVector value = Bytes(n, static_cast<unsigned char>(n));
    const SecureByteVector blob = Transform(key.get(), Cipher::kEncrypt, value);
    EXPECT_EQ(blob.size(), (n / 16 + 1) * 16) << n;
    EXPECT_EQ(Transform(key.get(), Cipher::kDecrypt, blob), value) << n;
  }
  // A full block gets a whole block of padding.
  const SecureByteVector sealed = Transform(key.get(), Cipher::kEncrypt, Bytes(16, 9));
  const SecureByteVector raw = Transform(key.get(), Cipher::kDecrypt, sealed, "None");
  EXPECT_EQ(SecureByteVector(raw.begin() + 16, raw.end()), SecureByteVector(16, 0x10));
  // Nothing to decrypt is refused; every padding byte is checked, not only the
  // last: a block ending in 0x03 0x02 is refused. (Damaged and cut blobs are
  // the value protection's test.)
  EXPECT_EQ(ErrorOf([&] { Transform(key.get(), Cipher::kDecrypt, {}); }), kCryptoOperationFailed);
  SecureByteVector badPad = Bytes(16, 1);
  badPad[14] = 0x03;
  badPad[15] = 0x02;
  const SecureByteVector badBlob = Transform(key.get(), Cipher::kEncrypt, badPad, "None");
  EXPECT_EQ(ErrorOf([&] { Transform(key.get(), Cipher::kDecrypt, badBlob); }), kCryptoOperationFailed);
  // Ciphers of one key share its prepared contexts: a failed decryption
  // spoils none of the next ones, and each cipher starts from its own IV.
  EXPECT_EQ(Transform(key.get(), Cipher::kDecrypt, sealed), Bytes(16, 9));
  const SecureByteVector otherIv = Bytes(16, 40);
  const SecureByteVector resealed = Transform(key.get(), Cipher::kEncrypt, Bytes(16, 9), "PKCS7", "CBC", otherIv);
  EXPECT_NE(resealed, sealed);
  EXPECT_EQ(Transform(key.get(), Cipher::kDecrypt, resealed, "PKCS7", "CBC", otherIv), Bytes(16, 9));
  EXPECT_EQ(Transform(key.get(), Cipher::kEncrypt, Bytes(16, 9)), sealed);
}

long LockedKilobytes() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmLck:", 0) == 0) return std::stol(line.substr(6));
  }
  return -1;
}

TEST(Crypto, GeneratedKeysAreFreshLockedAndOutliveTheirMakers) {
  // (Keys that differ, and that outlive their makers, are the value
  // protection's volatile keys.)
  EXPECT_EQ(GeneratedKey(16, "one")->GetLabel() + GeneratedKey(32, "two")->GetLabel(), "onetwo");
  EXPECT_EQ(GeneratedKey(32)->Export().size(), 32u);

#ifndef __SANITIZE_ADDRESS__  // AddressSanitizer turns mlock into a no-op
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_MEMLOCK, &limit), 0);
  if (limit.rlim_cur != RLIM_INFINITY && limit.rlim_cur < 64 * 1024) GTEST_SKIP() << "RLIMIT_MEMLOCK too small";
  const long before = LockedKilobytes();
  ASSERT_GE(before, 0);
  auto locked = GeneratedKey(16);
  EXPECT_GE(LockedKilobytes(), before + 4);
  locked.reset();
  EXPECT_EQ(LockedKilobytes(), before);
#endif
}

TEST(Crypto, RefusedCallsCarryTheirCodes) {
  Aes aes;
  IAlgorithm* algorithm = aes.algorithm.get();
  std::unique_ptr<ICryptoParserParameterMap> map(ICryptoParserParameterMap::Create());
  map->SetIV(kIv);
  std::unique_ptr<Cipher> cipher(Cipher::Create(algorithm, map.get()));
  auto key = GeneratedKey(16);
  const auto transform = [&key](const char* padding, const char* mode, const SecureByteVector& iv) {
    return [&key, padding, mode, iv] { Transform(key.get(), Cipher::kEncrypt, Bytes(17, 0), padding, mode, iv); };
  };
  SecureByteVector out;
  EXPECT_EQ(ErrorOf([&] { cipher->DoFinal(Bytes(16, 0), out); }), kCryptoNotInitialised);
  // NULLs, sizes, IVs, directions, formats.
  EXPECT_EQ(ErrorOf([&] { IAlgorithm::CreateFromFriendlyName("AES", nullptr); }), kCryptoInvalidArgument);
  EXPECT_EQ(ErrorOf([&] { IKey::Create(nullptr, "RAW", SecureByteVector(16)); }), kCryptoInvalidArgument);
  EXPECT_EQ(ErrorOf([&] { IKey::Create(algorithm, "RAW", SecureByteVector(15)); }), kCryptoInvalidArgument);
  EXPECT_EQ(ErrorOf([&] { IKey::Create(algorithm, "PEM", SecureByteVector(16)); }), kCryptoInvalidArgument);
  EXPECT_EQ(ErrorOf([&] { KeyGenerator::Create(nullptr, map.get()); }), kCryptoInvalidArgument);
  EXPECT_EQ(ErrorOf([&] { KeyGenerator::Create(algorithm, nullptr); }), kCryptoInvalidArgument);
  EXPECT_EQ(ErrorOf([&] { GeneratedKey(20); }), kCryptoInvalidArgument);
  EXPECT_EQ(ErrorOf([&] { Cipher::Create(nullptr, map.get()); }), kCryptoInvalidArgument);
  EXPECT_EQ(ErrorOf([&] { Cipher::Create(algorithm, nullptr); }), kCryptoInvalidArgument);
  EXPECT_EQ(ErrorOf(transform("PKCS7", "CBC", {})), kCryptoInvalidArgument);
  EXPECT_EQ(ErrorOf(transform("PKCS7", "CBC", SecureByteVector(15))), kCryptoInvalidArgument);
  EXPECT_EQ(ErrorOf(transform("PKCS7", "ECB", kIv)), kCryptoInvalidArgument);
  EXPECT_EQ(ErrorOf([&] { cipher->Init(2, key.get()); }), kCryptoInvalidArgument);
  EXPECT_EQ(ErrorOf([&] { cipher->Init(0, nullptr); }), kCryptoInvalidArgument);
  // Names not offered, compared exactly.
  EXPECT_EQ(ErrorOf([&] { IAlgorithm::CreateFromFriendlyName("aes", aes.parameters.get()); }), kCryptoUnsupported);
  EXPECT_EQ(ErrorOf(transform("PKCS7", "cbc", kIv)), kCryptoUnsupported);
  EXPECT_EQ(ErrorOf(transform("pkcs7", "CBC", kIv)), kCryptoUnsupported);
  map->SetKeyType("TypePersistent");
  EXPECT_EQ(ErrorOf([&] { KeyGenerator::Create(algorithm, map.get()); }), kCryptoUnsupported);
  // Without padding, whole blocks only.
  EXPECT_EQ(ErrorOf(transform("None", "CBC", kIv)), kCryptoOperationFailed);
}

TEST(Crypto, EveryOperationOfTheLibrarySequencesHasAFaultPoint) {
  xk::test::FaultInjector faults;
  const char* const kOperations[] = {
      "IAlgorithmParameters::Create", "IAlgorithm::CreateFromFriendlyName", "ICryptoParserParameterMap::Create",
      "ICryptoParserParameterMap::SetKeyType", "ICryptoParserParameterMap::SetKeyLabel", "KeyGenerator::Create",
      "KeyGenerator::GenerateKey", "ICryptoParserParameterMap::SetPadding", "ICryptoParserParameterMap::SetIV",
      "ICryptoParserParameterMap::SetChainingMode", "Cipher::Create", "Cipher::Init", "Cipher::DoFinal",
      "IKey::Create"};
  const auto everything = [] {
    auto key = GeneratedKey(16);
    Transform(key.get(), Cipher::kEncrypt, Bytes(40, 2));
    RawKey(SecureByteVector(16));
  };
  for (const char* op : kOperations) {
    xk::fault::Arm(op, 1, {Kind::kThrow, kCryptoRandomFailed, 0}, false);
    EXPECT_EQ(ErrorOf(everything), kCryptoRandomFailed) << op;
    EXPECT_EQ(xk::fault::Fired(op), 1u) << op;
    xk::fault::Reset();
  }
  EXPECT_EQ(ErrorOf(everything), 0u);

  // kNull: factories and GenerateKey hand back nullptr, other operations
  // throw kCryptoOutOfMemory; kCode throws like kThrow; kShortRead means
  // nothing to this service.
  xk::fault::Arm("KeyGenerator::GenerateKey", 1, {Kind::kNull, 0, 0}, false);
  EXPECT_EQ(GeneratedKey(16), nullptr);
  auto key = GeneratedKey(16);
  xk::fault::Arm("Cipher::Init", 1, {Kind::kNull, 0, 0}, false);
  EXPECT_EQ(ErrorOf([&] { Transform(key.get(), Cipher::kEncrypt, {}); }), kCryptoOutOfMemory);
  xk::fault::Arm("ICryptoParserParameterMap::SetIV", 1, {Kind::kCode, kCryptoInvalidArgument, 0}, false);
  EXPECT_EQ(ErrorOf([&] { Transform(key.get(), Cipher::kEncrypt, {}); }), kCryptoInvalidArgument);
  xk::fault::Arm("Cipher::DoFinal", 1, {Kind::kShortRead, 0, 3}, false);
  EXPECT_EQ(ErrorOf([&] { Transform(key.get(), Cipher::kEncrypt, {}); }), 0u);
}

// The ciphers of one key share the contexts it keeps: each must get one of
// its own, also when threads take and give them back at once.
TEST(Crypto, DistinctCiphersOnSeveralThreadsShareOneKey) {
  auto key = GeneratedKey(16);
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&wrong, &key, t] {
      for (int i = 0; i < 200; ++i) {
        const SecureByteVector value = Bytes(static_cast<std::size_t>(i % 50), static_cast<unsigned char>(t));
        wrong += Transform(key.get(), Cipher::kDecrypt, Transform(key.get(), Cipher::kEncrypt, value)) != value;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(wrong.load(), 0);
}

}  // namespace
