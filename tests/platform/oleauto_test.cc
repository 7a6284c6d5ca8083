// BSTR and SAFEARRAY service: layout, codes, lock counting, and the fault
// points of its functions. Deep copies of BSTR elements (embedded NULs, NULL
// elements, a copy for each read) are what every tree and store test stands
// on, and a failed allocation of a copy is the memory tree's write test.

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "xk/fault_point.h"
#include "xk/oleauto.h"

namespace {

using xk::fault::Kind;
using xk::fault::Outcome;

std::string Hex(HRESULT hr) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08x", static_cast<unsigned>(hr));
  return text;
}
// Codes compare as hex text so that a failure prints the actual code.
#define EXPECT_HR(expected, actual) EXPECT_EQ(Hex(expected), Hex(actual))

std::string Bytes(BSTR b) { return std::string(b, SysStringByteLen(b)); }
const std::string kPin("pin\0code", 8);

TEST(Bstr, LengthsOfBstrsAndOfPlainBuffers) {
  BSTR blob = SysAllocStringByteLen(kPin.data(), 8), zeroes = SysAllocStringByteLen(nullptr, 3),
       cut = SysAllocStringLen("abcdef", 3), empty = SysAllocString("");
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ((std::vector<std::string>{Bytes(blob), Bytes(zeroes), Bytes(cut), Bytes(empty)}),
            (std::vector<std::string>{kPin, std::string(3, '\0'), "abc", ""}));
  EXPECT_EQ(blob[8], '\0');
  EXPECT_EQ(SysAllocString(nullptr), nullptr);
  EXPECT_EQ(SysStringLen(blob + 3), 0u) << "a pointer into a BSTR is a plain buffer";

  // Exactly sized heap blocks: ASan reports any read before or after them.
  char* name = static_cast<char*>(std::malloc(5));
  std::memcpy(name, "name", 5);
  char* nothing = static_cast<char*>(std::calloc(1, 1));
  char onStack[] = {'k', 'e', 'y', '\0', 'x'};
  EXPECT_EQ((std::vector<unsigned>{SysStringLen(name), SysStringByteLen(nothing), SysStringLen(onStack),
                                   SysStringLen(nullptr)}),
            (std::vector<unsigned>{4, 0, 3, 0}));
  SysFreeString(name);  // not the service's: left alone (ASan: no double free below)
  qxSysFreeString(nothing, 0);
  std::free(name);
  std::free(nothing);
  for (BSTR b : {blob, zeroes, cut, empty, BSTR{}}) SysFreeString(b);
}

// Every vartype the service keeps, with its element size, in one to three
// dimensions with lower bounds -1, 0 and 1: the bounds are stored in reverse
// and read back by the given dimension, the elements start zeroed, the
// leftmost index runs fastest, the last index of each dimension is reached and
// one past either end of any dimension is refused.
TEST(SafeArray, ElementSizesBoundsAddressingBadIndicesAndNullArgumentsAcrossVartypesAndShapes) {
  const std::pair<VARTYPE, unsigned> kSizes[] = {
      {VT_I1, 1},    {VT_UI1, 1},    {VT_I2, 2},   {VT_UI2, 2},   {VT_BOOL, 2},  {VT_I4, 4},
      {VT_UI4, 4},   {VT_R4, 4},     {VT_ERROR, 4}, {VT_INT, 4},  {VT_UINT, 4},  {VT_R8, 8},
      {VT_CY, 8},    {VT_DATE, 8},   {VT_I8, 8},   {VT_UI8, 8},   {VT_DECIMAL, 16},
      {VT_BSTR, sizeof(BSTR)}, {VT_DISPATCH, sizeof(void*)}, {VT_UNKNOWN, sizeof(void*)}};
  for (auto [vt, size] : kSizes) {
    for (unsigned dims = 1; dims <= 3; ++dims) {
      SCOPED_TRACE("vt " + std::to_string(vt) + ", " + std::to_string(dims) + " dims");
      std::vector<SAFEARRAYBOUND> bounds;
      std::vector<int> last;  // the last index of every dimension
      std::size_t cells = 1;
      for (unsigned d = 0; d < dims; ++d) {
        bounds.push_back({d + 2, static_cast<long>(d) - 1});
        last.push_back(static_cast<int>(bounds[d].lLbound + bounds[d].cElements - 1));
        cells *= d + 2;
      }
      SAFEARRAY* psa = SafeArrayCreate(vt, dims, bounds.data());
      ASSERT_NE(psa, nullptr);
      VARTYPE got = 0;
      EXPECT_HR(S_OK, SafeArrayGetVartype(psa, &got));
      EXPECT_EQ(std::make_pair(got, SafeArrayGetElemsize(psa)), std::make_pair(vt, size));
      EXPECT_EQ(std::string(static_cast<char*>(psa->pvData), cells * size), std::string(cells * size, '\0'));
      std::vector<int> second;  // the second cell: one up in the leftmost dimension
      for (unsigned d = 0; d < dims; ++d) {
        long lower = 9, upper = 9;
        EXPECT_HR(S_OK, SafeArrayGetLBound(psa, d + 1, &lower));
        EXPECT_HR(S_OK, SafeArrayGetUBound(psa, d + 1, &upper));
        EXPECT_EQ(std::make_pair(lower, upper), std::make_pair(bounds[d].lLbound, static_cast<long>(last[d])));
        EXPECT_EQ(psa->rgsabound[dims - 1 - d].cElements, bounds[d].cElements);
        second.push_back(static_cast<int>(bounds[d].lLbound) + (d == 0));
      }
      long bound = 0;
      EXPECT_HR(DISP_E_BADINDEX, SafeArrayGetLBound(psa, 0, &bound));
      EXPECT_HR(DISP_E_BADINDEX, SafeArrayGetUBound(psa, dims + 1, &bound));
      alignas(16) unsigned char value[16] = {7}, out[16] = {};
      void* in = vt == VT_BSTR ? static_cast<void*>(const_cast<char*>("v")) : value;
      EXPECT_HR(S_OK, SafeArrayPutElement(psa, second.data(), in));
      EXPECT_NE(std::string(static_cast<char*>(psa->pvData) + size, size), std::string(size, '\0'));
      EXPECT_HR(S_OK, SafeArrayPutElement(psa, last.data(), in));
      EXPECT_HR(S_OK, SafeArrayGetElement(psa, last.data(), out));
      if (vt == VT_BSTR) SysFreeString(*reinterpret_cast<BSTR*>(out));
      for (unsigned d = 0; d < dims; ++d) {
        for (int bad : {static_cast<int>(bounds[d].lLbound) - 1, last[d] + 1}) {
          std::vector<int> off = last;
          off[d] = bad;
          EXPECT_HR(DISP_E_BADINDEX, SafeArrayPutElement(psa, off.data(), in)) << "dim " << d << " index " << bad;
          EXPECT_HR(DISP_E_BADINDEX, SafeArrayGetElement(psa, off.data(), out)) << "dim " << d << " index " << bad;
        }
      }
      EXPECT_HR(E_INVALIDARG, SafeArrayPutElement(nullptr, last.data(), in));
      EXPECT_HR(E_INVALIDARG, SafeArrayGetElement(psa, nullptr, out));
      EXPECT_HR(E_INVALIDARG, SafeArrayGetElement(psa, last.data(), nullptr));
      // A null BSTR is a value to store; a null address of any other element is not.
      EXPECT_HR(vt == VT_BSTR ? S_OK : E_INVALIDARG, SafeArrayPutElement(psa, last.data(), nullptr));
      EXPECT_HR(S_OK, SafeArrayDestroy(psa));
    }
  }
  for (VARTYPE vt : std::vector<VARTYPE>{VT_EMPTY, VT_NULL, VT_VARIANT, 15, 24, 0x2011}) {
    EXPECT_EQ(SafeArrayCreateVector(vt, 0, 1), nullptr) << "vt " << vt;
  }
  SAFEARRAYBOUND huge[2] = {{1ul << 40, 0}, {1ul << 40, 0}};
  EXPECT_EQ(SafeArrayCreate(VT_I4, 0, huge), nullptr);
  EXPECT_EQ(SafeArrayCreate(VT_I4, 1, nullptr), nullptr);
  EXPECT_EQ(SafeArrayCreate(VT_I4, 2, huge), nullptr) << "size overflows";
  SAFEARRAY* psa = SafeArrayCreateVector(VT_I4, 0, 1);
  void* data = &psa;
  SAFEARRAY* copy = psa;
  EXPECT_HR(E_INVALIDARG, SafeArrayGetVartype(psa, nullptr));
  EXPECT_HR(E_INVALIDARG, SafeArrayGetUBound(psa, 1, nullptr));
  EXPECT_HR(E_INVALIDARG, SafeArrayAccessData(nullptr, &data));
  EXPECT_EQ(data, nullptr);
  EXPECT_HR(S_OK, SafeArrayCopy(nullptr, &copy));  // a NULL array is a valid empty value
  EXPECT_EQ(copy, nullptr);
  EXPECT_HR(E_INVALIDARG, SafeArrayLock(nullptr));
  EXPECT_EQ(SafeArrayGetDim(nullptr) + SafeArrayGetElemsize(nullptr), 0u);
  EXPECT_HR(S_OK, SafeArrayDestroy(nullptr));
  EXPECT_HR(S_OK, SafeArrayDestroy(psa));
}

// (Reads of an array locked by many threads, and the refused destruction of
// a locked one, are the concurrency and fault-point tests'.)
TEST(SafeArray, LockCountingRefusesUnderflowAndOverflow) {
  SAFEARRAY* psa = SafeArrayCreateVector(VT_BSTR, 0, 1);
  ASSERT_NE(psa, nullptr);
  EXPECT_HR(E_UNEXPECTED, SafeArrayUnlock(psa));
  EXPECT_HR(E_UNEXPECTED, SafeArrayUnaccessData(psa));
  void* data = nullptr;
  EXPECT_HR(S_OK, SafeArrayAccessData(psa, &data));
  EXPECT_EQ(data, psa->pvData);
  EXPECT_HR(S_OK, SafeArrayUnaccessData(psa));
  EXPECT_HR(E_UNEXPECTED, SafeArrayUnlock(psa));
  // With the count at its maximum nothing can lock: refused, the count kept.
  int at[1] = {0};
  BSTR got = nullptr;
  psa->cLocks = 0xFFFFFFFFu;
  EXPECT_HR(E_UNEXPECTED, SafeArrayGetElement(psa, at, &got));
  EXPECT_HR(E_UNEXPECTED, SafeArrayLock(psa));
  EXPECT_EQ(psa->cLocks, 0xFFFFFFFFu);
  psa->cLocks = 0;
  EXPECT_HR(S_OK, SafeArrayDestroy(psa));
}

constexpr long kArmedCode = static_cast<long>(0x8000CAFEu);

// One representative of each shape of function, reduced to a number: each
// function obeys its own fault point only.
TEST(SafeArrayFault, EachKindOnEachShapeOfFunction) {
  enum class Shape { kPointer, kHresult, kCount, kRelease };
  SAFEARRAY* psa = SafeArrayCreateVector(VT_BSTR, 0, 2);
  ASSERT_NE(psa, nullptr);
  SAFEARRAY* copy = psa;
  const struct {
    const char* op;
    Shape shape;
    std::function<long()> run;
  } kCalls[] = {
      {"SysAllocStringByteLen", Shape::kPointer, [&] { BSTR b = SysAllocStringByteLen("a", 1); SysFreeString(b); return long{b != nullptr}; }},
      {"SafeArrayCreateVector", Shape::kPointer, [&] { SAFEARRAY* p = SafeArrayCreateVector(VT_I4, 0, 1); SafeArrayDestroy(p); return long{p != nullptr}; }},
      {"SysStringLen", Shape::kCount, [&] { return long{SysStringLen(const_cast<char*>("four"))}; }},
      {"qxSysFreeString", Shape::kRelease, [&] { qxSysFreeString(SysAllocString("x"), 0); return 0L; }},
      // A faulted copy must still write NULL: the last copy, already destroyed, is
      // left in `copy` otherwise and destroyed again.
      {"SafeArrayCopy", Shape::kHresult, [&] { HRESULT hr = SafeArrayCopy(psa, &copy); SafeArrayDestroy(copy); return long{hr}; }},
      {"SafeArrayUnlock", Shape::kHresult, [&] { psa->cLocks = 1; return long{SafeArrayUnlock(psa)}; }},
      {"qxSafeArrayDestroy", Shape::kHresult, [&] { psa->cLocks = 1; return long{qxSafeArrayDestroy(psa, 0)}; }},
  };
  xk::fault::Arm("SafeArrayDestroy", 1, Outcome{Kind::kCode, kArmedCode, 0}, false);
  psa->cLocks = 1;
  EXPECT_EQ(qxSafeArrayDestroy(psa, 0), DISP_E_ARRAYISLOCKED);
  xk::fault::Reset();
  for (const auto& call : kCalls) {
    const long normal = call.run();
    for (Kind kind : {Kind::kCode, Kind::kNull, Kind::kThrow, Kind::kShortRead}) {
      SCOPED_TRACE(std::string(call.op) + " kind " + std::to_string(static_cast<int>(kind)));
      xk::fault::Arm(call.op, 1, Outcome{kind, kArmedCode, 0}, false);
      const long faulted = call.run();
      EXPECT_EQ(xk::fault::Fired(call.op), 1u);
      xk::fault::Reset();
      long expected = normal;  // kThrow and kShortRead are ignored, and so is a release's fault
      if (kind == Kind::kCode || kind == Kind::kNull) {
        const bool code = kind == Kind::kCode;
        if (call.shape == Shape::kPointer) expected = 0;
        if (call.shape == Shape::kCount) expected = code ? long{static_cast<unsigned>(kArmedCode)} : 0;
        if (call.shape == Shape::kHresult) expected = code ? long{static_cast<HRESULT>(kArmedCode)} : long{E_OUTOFMEMORY};
      }
      EXPECT_EQ(faulted, expected);
      EXPECT_EQ(call.run(), normal) << "armed for one call only";
    }
  }
  psa->cLocks = 0;
  EXPECT_EQ(SafeArrayDestroy(psa), S_OK);
}

// For n = 1, 2, ...: fail the nth allocation inside `run`, which says whether
// it succeeded; then, disarmed, `verify` checks that outcome and what was left.
// Returns the number of rounds until `run` no longer reached the fault.
// LeakSanitizer reports whatever a failure path forgot to release.
int CountdownUntilSuccess(const std::function<bool()>& run, const std::function<void(bool)>& verify) {
  for (unsigned n = 1; n < 100; ++n) {
    SCOPED_TRACE("allocation " + std::to_string(n) + " fails");
    xk::fault::Arm("winext.Allocate", n, Outcome{Kind::kNull, 0, 0}, false);
    const bool ok = run();
    const unsigned fired = xk::fault::Fired("winext.Allocate");
    xk::fault::Reset();
    EXPECT_EQ(ok, fired == 0);
    verify(ok);
    if (fired == 0) return static_cast<int>(n);
  }
  ADD_FAILURE() << "never completed";
  return 0;
}

// (A copy's failed allocations are the memory tree's write test.)
TEST(SafeArrayFault, AFailedAllocationOfAPutKeepsTheOldElement) {
  SAFEARRAY* psa = SafeArrayCreateVector(VT_BSTR, 0, 1);
  int at[1] = {0};
  BSTR blob = SysAllocStringByteLen("a\0b", 3);
  ASSERT_EQ(SafeArrayPutElement(psa, at, const_cast<char*>("text")), S_OK);
  EXPECT_GE(CountdownUntilSuccess([&] { return SUCCEEDED(SafeArrayPutElement(psa, at, blob)); }, [&](bool ok) {
    BSTR now = nullptr;
    EXPECT_EQ(SafeArrayGetElement(psa, at, &now), S_OK);
    EXPECT_EQ(SysStringByteLen(now), ok ? 3u : 4u);
    SysFreeString(now);
  }), 2);
  SysFreeString(blob);
  EXPECT_EQ(SafeArrayDestroy(psa), S_OK);
}

}  // namespace
