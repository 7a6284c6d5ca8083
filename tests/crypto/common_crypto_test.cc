#include <openssl/evp.h>

#include "crypto/CommonCrypto.h"
#include "crypto/KeyFileMask.h"
#include "value_support.h"

namespace {

using mtest::Array, mtest::Bytes, mtest::Data, mtest::Read, mtest::Shape, mtest::ShapeOf, mtest::Strings;

SAFEARRAY* const kUntouched = reinterpret_cast<SAFEARRAY*>(0x1);
const Bytes kKeyFile = {0x10, 0x32, 0x54, 0x76, 0x98, 0xBA, 0xDC, 0xFE, 0x01,
                        0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF, 0x55};

Bytes B(const std::string& s) { return Bytes(s.begin(), s.end()); }
Bytes Cat(Bytes a, const Bytes& b) { return a.insert(a.end(), b.begin(), b.end()), a; }
Array Make(VARTYPE vt, const Shape& dims, Bytes bytes = {}) { return Array(mtest::Make(vt, dims, std::move(bytes))); }
Array Blob(const Bytes& bytes) { return Make(VT_UI1, {bytes.size()}, bytes); }
Array List(const Strings& items) { return Array(mtest::MakeValue(items)); }

// The first n bytes of the key file, unmasked when all 16 are there, then zeroes.
SecureByteVector FileKey(std::size_t n = 16) {
  SecureByteVector key(kKeyFile.begin(), kKeyFile.begin() + n);
  for (std::size_t i = 0; n == 16 && i < 16; ++i) key[i] ^= KeyFileMask[i];
  key.resize(16, 0);
  return key;
}

// AES-128-CBC/PKCS7 straight through EVP under the file's key and the IV
// byte k = m_const_EntropyData[k] ^ (k + 1).
Bytes Evp(int encrypt, const Bytes& in) {
  unsigned char iv[16];
  for (int k = 0; k < 16; ++k) iv[k] = CommonCrypto::m_const_EntropyData[k] ^ (k + 1);
  EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
  Bytes out(in.size() + 16);
  int n = 0, tail = 0;
  EXPECT_EQ(1, EVP_CipherInit_ex(ctx, EVP_aes_128_cbc(), nullptr, FileKey().data(), iv, encrypt));
  EXPECT_EQ(1, EVP_CipherUpdate(ctx, out.data(), &n, in.data(), static_cast<int>(in.size())));
  EXPECT_EQ(1, EVP_CipherFinal_ex(ctx, out.data() + n, &tail));
  EVP_CIPHER_CTX_free(ctx);
  out.resize(n + tail);
  return out;
}

class CommonCryptoTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_Sandbox.WriteKeyFile(kKeyFile);
    ASSERT_EQ(S_OK, m_Persistent.initialize("Remanent", true));
    ASSERT_EQ(S_OK, m_Volatile.initialize("Memory", false));
  }
  // Encrypts `in` under the volatile key and decrypts the blob.
  Array RoundTrip(SAFEARRAY* in) {
    SAFEARRAY *blob = nullptr, *out = nullptr;
    EXPECT_EQ(S_OK, m_Volatile.encryptValue(in, blob, false));
    Array holder(blob);
    EXPECT_EQ(S_OK, m_Volatile.DecryptValue(blob, out, false));
    return Array(out);
  }
  mtest::Sandbox m_Sandbox;
  CommonCrypto m_Persistent, m_Volatile;
};

// A persistent key is the key file's first sixteen bytes unmasked, the same
// for every store that asks.
TEST_F(CommonCryptoTest, KeyFileGivesItsFirstSixteenBytesUnmasked) {
  // length -1: no file.
  const struct { int length; const char* fault; HRESULT hr; SecureByteVector key; } cases[] = {
      {17, nullptr, S_OK, FileKey()},
      {15, nullptr, E_FAIL, FileKey(15)},
      {16, "fread", E_FAIL, FileKey(5)},
      {-1, nullptr, E_FAIL, {7, 7}},
      {16, "fopen", E_FAIL, {7, 7}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.length << " " << (c.fault ? c.fault : ""));
    mtest::Sandbox sandbox;
    if (c.length >= 0) sandbox.WriteKeyFile(Bytes(kKeyFile.begin(), kKeyFile.begin() + c.length));
    mtest::FaultInjector faults;
    if (c.fault) faults.FailWithShortRead(c.fault, 5);
    SecureByteVector key = {7, 7};
    CommonCrypto crypto;
    EXPECT_EQ(c.hr, crypto.GetKeyFromFile(key));
    EXPECT_EQ(key, c.key);
    if (c.fault) faults.FailWithShortRead(c.fault, 5);  // again for the key made from the file
    EXPECT_EQ(c.hr, crypto.initialize("Store", true));
    EXPECT_EQ(crypto.PersistentKey() ? crypto.PersistentKey()->Export() : SecureByteVector(),
              c.hr == S_OK ? key : SecureByteVector());
  }
}

// 4000 gives E_INVALIDARG and the rest E_FAIL; nothing is written and what
// was made is released (ASan checks).
TEST_F(CommonCryptoTest, LibraryFailuresAreMapped) {
  Array value = Make(VT_UI1, {20});
  SAFEARRAY* blob = nullptr;
  ASSERT_EQ(S_OK, m_Volatile.encryptValue(value.get(), blob, false));
  Array holder(blob);
  using Call = std::function<HRESULT(SAFEARRAY*&)>;
  const Call volatileKey = [](SAFEARRAY*&) { return CommonCrypto().initialize("S", false); };
  const Call persistentKey = [](SAFEARRAY*&) { return CommonCrypto().initialize("S", true); };
  const Call encrypt = [&](SAFEARRAY*& out) { return m_Volatile.encryptValue(value.get(), out, false); };
  const Call decrypt = [&](SAFEARRAY*& out) { return m_Volatile.DecryptValue(blob, out, false); };
  // A factory that answers NULL (nullFactory) counts as the library running
  // out of memory.
  const struct { const char* op; const Call& call; bool nullFactory; } runs[] = {
      {"KeyGenerator::GenerateKey", volatileKey, false},
      {"IKey::Create", persistentKey, false},
      {"Cipher::DoFinal", encrypt, false},
      {"Cipher::DoFinal", decrypt, false},
      {"KeyGenerator::Create", volatileKey, true},
      {"ICryptoParserParameterMap::Create", encrypt, true},
      {"Cipher::Create", decrypt, true},
  };
  for (const auto& run : runs) {
    for (unsigned code : run.nullFactory ? std::vector<unsigned>{0} : std::vector<unsigned>{4000, 4003}) {
      SCOPED_TRACE(std::string(run.op) + " " + std::to_string(code));
      mtest::FaultInjector faults;
      run.nullFactory ? faults.FailWithNull(run.op) : faults.FailWithThrow(run.op, code);
      SAFEARRAY* out = kUntouched;
      EXPECT_EQ(run.call(out), code == 4000 ? E_INVALIDARG : E_FAIL);
      EXPECT_EQ(out, kUntouched);
      EXPECT_EQ(faults.Fired(run.op), 1u);
    }
  }
}

TEST_F(CommonCryptoTest, RoundTripsKeepWhatTheFormatKeeps) {
  const unsigned long kPtr = sizeof(void*);
  const struct { VARTYPE vt; Shape dims, backShape; std::size_t kept; } cases[] = {
      {VT_I1, {5}, {5}, 5},       {VT_UI1, {7}, {7}, 7},    {VT_I8, {3}, {3}, 24},  {VT_UI8, {2}, {2}, 16},
      {VT_INT, {4}, {4}, 16},     {VT_UINT, {0}, {0}, 0},
      {VT_UI1, {3, 4}, {4, 3}, 12},            // bounds come back in stored order
      {VT_UI1, {2, 3, 4}, {4, 3}, 12},         // three bounds written, two read
      {VT_UI1, {0, 3, 4}, {4, 3}, 0},          // "UI1_MULTI 4 3 0 ": no bytes, yet 4 by 3 cells
      {VT_INT, {2, 3}, {6}, 24},               // other vartypes come back flat
      {VT_UNKNOWN, {2}, {2 * kPtr / 4}, 2 * kPtr},  // read with 4-byte elements
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "vt " << c.vt << " dims " << c.dims.size());
    Array in = Make(c.vt, c.dims);
    Array out = RoundTrip(in.get());
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(out->vt, c.vt);
    EXPECT_EQ(ShapeOf(out.get()), c.backShape);
    Bytes expected = Data(in.get());
    expected.resize(c.kept);
    expected.resize(Data(out.get()).size(), 0);
    EXPECT_EQ(Data(out.get()), expected);
  }
  const std::string kEmptyText("\0x", 2);  // converts to an empty string
  const struct { Strings in, out; } lists[] = {
      {{"alpha", "b", "xyz"}, {"alpha", "b", "xyz"}},
      {{}, {"<null>"}},
      {{"<null>", "<null>"}, {"<null>"}},
      {{"a", "", "c"}, {"a", "c"}},                           // an empty BSTR does not convert: skipped
      {{"a", kEmptyText, "c"}, {"a"}},                        // an empty string ends the list
      {{kEmptyText, "b"}, {"<null>", std::string(1, '\0')}},  // an empty element keeps the read offset
      {{std::string("ab\0cd", 5)}, {"ab"}},
  };
  for (const auto& l : lists) {
    Array out = RoundTrip(List(l.in).get());
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(Read(out.get()), l.out);
  }
}

TEST_F(CommonCryptoTest, BlobIsDescriptionZeroAndValueUnderAes) {
  Array multi = Make(VT_UI1, {2, 3, 4}), unknown = Make(VT_UNKNOWN, {2}), list = List({"ab", "c"}), none = List({});
  const std::pair<SAFEARRAY*, Bytes> cases[] = {
      {multi.get(), Cat(B(std::string("UI1_MULTI 4 3 2 \0", 17)), Data(multi.get()))},
      {unknown.get(), Cat(B(std::string("UNKNOWN\0", 8)), Data(unknown.get()))},
      {list.get(), B(std::string("BSTR\0ab\0c\0\0", 11))},
      {none.get(), B(std::string("BSTR\0\0\0", 7))},
  };
  for (const auto& [value, plain] : cases) {
    SAFEARRAY* blob = nullptr;
    ASSERT_EQ(S_OK, m_Persistent.encryptValue(value, blob, true));
    EXPECT_EQ(Evp(0, Data(Array(blob).get())), plain);
  }
}

TEST_F(CommonCryptoTest, DecryptionJudgesWhatTheKeyYields) {
  const struct { std::string plain; HRESULT hr; VARTYPE vt; Shape shape; Bytes data; } cases[] = {
      {"", E_FAIL, 0, {}, {}},
      {std::string("XYZ\0ab", 6), E_FAIL, 0, {}, {}},
      {"UI1", S_OK, VT_UI1, {0}, {}},  // no terminator: all description
      {std::string("INT\0abcde", 9), S_OK, VT_INT, {1}, B("abcd")},
      {std::string("UI1_MULTI\0abc", 13), S_OK, VT_UI1, {0, 0}, {}},
      {std::string("UI1_MULTI 2 2 \0abcde", 20), S_OK, VT_UI1, {2, 2}, B("abcd")},
      {std::string("UI1_MULTI 2 3 \0abcde", 20), S_OK, VT_UI1, {2, 3}, B(std::string("abcde\0", 6))},
      {std::string("BSTR\0abc", 8), S_OK, VT_BSTR, {0}, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.plain);
    SAFEARRAY* out = kUntouched;
    EXPECT_EQ(c.hr, m_Persistent.DecryptValue(Blob(Evp(1, B(c.plain))).get(), out, true));
    if (FAILED(c.hr)) {
      EXPECT_EQ(out, kUntouched);
      continue;
    }
    Array result(out);
    EXPECT_EQ(out->vt, c.vt);
    EXPECT_EQ(ShapeOf(out), c.shape);
    EXPECT_EQ(Data(out), c.data);
  }

  // Altered or cut blobs, and blobs under another store's key (volatile keys
  // are each their own), don't decrypt; a store without a key neither
  // encrypts nor decrypts, and unsupported vartypes are refused.
  Array value = Make(VT_UI1, {40});
  SAFEARRAY *blob = nullptr, *volatileBlob = nullptr;
  ASSERT_EQ(S_OK, m_Persistent.encryptValue(value.get(), blob, true));
  ASSERT_EQ(S_OK, m_Volatile.encryptValue(value.get(), volatileBlob, false));
  const Bytes good = Data(Array(blob).get()), volatileGood = Data(Array(volatileBlob).get());
  Bytes lastByte = good, firstBlock = good;
  lastByte.back() ^= 1;
  firstBlock[3] ^= 1;
  CommonCrypto stranger, keyless;
  ASSERT_EQ(S_OK, stranger.initialize("Memory", false));
  const std::pair<CommonCrypto*, Bytes> unreadable[] = {{&m_Persistent, lastByte},
                                                        {&m_Persistent, firstBlock},
                                                        {&m_Persistent, Bytes(good.begin(), good.end() - 1)},
                                                        {&m_Persistent, {}},
                                                        {&stranger, good},
                                                        {&stranger, volatileGood},
                                                        {&keyless, good}};
  for (const auto& [crypto, bytes] : unreadable) {
    SAFEARRAY* out = kUntouched;
    EXPECT_EQ(E_FAIL, crypto->DecryptValue(Blob(bytes).get(), out, crypto != &stranger));
    EXPECT_EQ(out, kUntouched);
  }
  SAFEARRAY* out = kUntouched;
  EXPECT_EQ(E_FAIL, keyless.encryptValue(value.get(), out, true));
  for (VARTYPE vt : {VT_I2, VT_I4, VT_R8, VT_BOOL, VT_DISPATCH, VT_UI4})
    EXPECT_EQ(E_FAIL, m_Persistent.encryptValue(Make(vt, {2}).get(), out, true)) << vt;
  EXPECT_EQ(out, kUntouched);
}

TEST_F(CommonCryptoTest, ContainerFailures) {
  Array value = Make(VT_UI1, {20}), list = List({"a", "b"});
  SAFEARRAY *valueBlob = nullptr, *listBlob = nullptr;
  ASSERT_EQ(S_OK, m_Volatile.encryptValue(value.get(), valueBlob, false));
  ASSERT_EQ(S_OK, m_Volatile.encryptValue(list.get(), listBlob, false));
  Array holders[] = {Array(valueBlob), Array(listBlob)};
  mtest::LeakAllowedScope leaks;
  SAFEARRAY* const kValue = value.get();
  // SafeArrayCreateVector is made to give NULL, the others E_UNEXPECTED; the
  // value is encrypted, a blob decrypted.
  const struct { const char* op; unsigned nth; SAFEARRAY* input; HRESULT hr; bool written; Strings items; } cases[] = {
      {"SafeArrayAccessData", 1, kValue, E_UNEXPECTED, false, {}},
      {"SafeArrayUnaccessData", 1, kValue, S_OK, true, {}},
      {"SafeArrayCreateVector", 1, kValue, E_INVALIDARG, false, {}},
      {"SafeArrayAccessData", 2, kValue, E_UNEXPECTED, false, {}},
      {"SafeArrayUnaccessData", 2, kValue, E_UNEXPECTED, false, {}},
      {"SafeArrayAccessData", 1, valueBlob, E_UNEXPECTED, false, {}},
      {"SafeArrayUnaccessData", 1, valueBlob, S_OK, true, {}},
      {"SafeArrayAccessData", 2, valueBlob, E_UNEXPECTED, false, {}},
      {"SafeArrayUnaccessData", 1, listBlob, E_UNEXPECTED, true, {"<null>", "<null>"}},  // nothing put after a failure
      {"SafeArrayPutElement", 2, listBlob, E_UNEXPECTED, true, {"a", "<null>"}},
      {"SafeArrayCreateVector", 1, listBlob, S_OK, true, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.op << " " << c.nth << (c.input == kValue ? " encrypt" : " decrypt"));
    mtest::FaultInjector faults;
    const std::string op = c.op;
    op == "SafeArrayCreateVector" ? faults.FailWithNull(c.op, c.nth) : faults.FailWithCode(c.op, E_UNEXPECTED, c.nth);
    SAFEARRAY* out = kUntouched;
    EXPECT_EQ(c.hr, c.input == kValue ? m_Volatile.encryptValue(c.input, out, false)
                                      : m_Volatile.DecryptValue(c.input, out, false));
    EXPECT_EQ(faults.Fired(c.op), 1u);
    EXPECT_EQ(out != kUntouched, c.written);
    if (c.written) {
      Array result(out);
      EXPECT_EQ(out == nullptr, op == "SafeArrayCreateVector");
      EXPECT_EQ(out != nullptr && out->vt == VT_BSTR ? Read(out) : Strings(), c.items);
    }
    // A failed unaccess of the input left it locked.
    if (op == "SafeArrayUnaccessData" && c.nth == 1) SafeArrayUnaccessData(c.input);
  }
}

}  // namespace
