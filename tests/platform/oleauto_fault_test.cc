// Fault points of the BSTR and SAFEARRAY service: each function obeys its
// own, and a failed allocation anywhere is reported and leaves nothing behind.

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "xk/fault_point.h"
#include "xk/oleauto.h"

namespace {

using xk::fault::Kind;
using xk::fault::Outcome;

constexpr long kArmedCode = static_cast<long>(0x8000CAFEu);

class OleautoFault : public ::testing::Test {
 protected:
  void SetUp() override {
    psa_ = SafeArrayCreateVector(VT_BSTR, 0, 2);
    ASSERT_NE(psa_, nullptr);
    ASSERT_EQ(SafeArrayPutElement(psa_, at_, const_cast<char*>("text")), S_OK);
  }
  void TearDown() override {
    xk::fault::Reset();
    psa_->cLocks = 0;
    EXPECT_EQ(SafeArrayDestroy(psa_), S_OK);
  }

  SAFEARRAY* psa_ = nullptr;
  int at_[1] = {0};
};

// One representative of each shape of function, reduced to a number.
enum class Shape { kPointer, kHresult, kCount, kRelease };
struct Call {
  const char* op;
  Shape shape;
  std::function<long()> run;
};

TEST_F(OleautoFault, EachKindOnEachShapeOfFunction) {
  SAFEARRAY* copy = psa_;
  const std::vector<Call> calls = {
      {"SysAllocStringByteLen", Shape::kPointer, [&] { BSTR b = SysAllocStringByteLen("a", 1); SysFreeString(b); return long{b != nullptr}; }},
      {"SafeArrayCreateVector", Shape::kPointer, [&] { SAFEARRAY* p = SafeArrayCreateVector(VT_I4, 0, 1); SafeArrayDestroy(p); return long{p != nullptr}; }},
      {"SysStringLen", Shape::kCount, [&] { return long{SysStringLen(const_cast<char*>("four"))}; }},
      {"qxSysFreeString", Shape::kRelease, [&] { qxSysFreeString(SysAllocString("x"), 0); return 0L; }},
      // A faulted copy must still write NULL: the last copy, already destroyed, is
      // left in `copy` otherwise and destroyed again.
      {"SafeArrayCopy", Shape::kHresult, [&] { HRESULT hr = SafeArrayCopy(psa_, &copy); SafeArrayDestroy(copy); return long{hr}; }},
      {"SafeArrayUnlock", Shape::kHresult, [&] { psa_->cLocks = 1; return long{SafeArrayUnlock(psa_)}; }},
      {"qxSafeArrayDestroy", Shape::kHresult, [&] { psa_->cLocks = 1; return long{qxSafeArrayDestroy(psa_, 0)}; }},
  };
  // Each function passes its own point only.
  xk::fault::Arm("SafeArrayDestroy", 1, Outcome{Kind::kCode, kArmedCode, 0}, false);
  psa_->cLocks = 1;
  EXPECT_EQ(qxSafeArrayDestroy(psa_, 0), DISP_E_ARRAYISLOCKED);
  xk::fault::Reset();
  for (const Call& call : calls) {
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

TEST_F(OleautoFault, EveryAllocationFailureIsReportedAndCleanedUp) {
  BSTR blob = SysAllocStringByteLen("a\0b", 3);
  int at1[1] = {1};
  ASSERT_EQ(SafeArrayPutElement(psa_, at1, blob), S_OK);
  SAFEARRAY* copy = nullptr;
  HRESULT hr = S_OK;
  const int copyRounds = CountdownUntilSuccess([&] { return SUCCEEDED(hr = SafeArrayCopy(psa_, &copy)); }, [&](bool ok) {
    EXPECT_EQ(hr, ok ? S_OK : E_OUTOFMEMORY);
    EXPECT_EQ(copy == nullptr, !ok);
    BSTR second = nullptr;
    if (ok) {
      EXPECT_EQ(SafeArrayGetElement(copy, at1, &second), S_OK);
      EXPECT_EQ(SysStringLen(second), 3u);
    }
    SysFreeString(second);
    SafeArrayDestroy(copy);
  });
  EXPECT_GE(copyRounds, 4) << "the array's block, two element copies, and any table growth";

  const int putRounds = CountdownUntilSuccess([&] { return SUCCEEDED(hr = SafeArrayPutElement(psa_, at_, blob)); }, [&](bool ok) {
    BSTR now = nullptr;
    EXPECT_EQ(SafeArrayGetElement(psa_, at_, &now), S_OK);
    EXPECT_EQ(SysStringByteLen(now), ok ? 3u : 4u) << "a failed put keeps the old element";
    SysFreeString(now);
  });
  EXPECT_GE(putRounds, 2);

  SysFreeString(blob);
}

}  // namespace
